// The module loader: PE modules read from virtual files and native modules
// obtained through a process record's callbacks, found by name, bound against
// one another and started.
#pragma once

#include <cstdint>

#include "pe/format.h"
#include "pe/image_span.h"
#include "vrk_pe.h"

namespace vrk::pe {

// flags 0: the module named `name_or_handle`, found in the process or
// obtained from its load callback; else the PE module in the virtual file
// `name_or_handle`, loaded anew. Null when neither works.
PELOAD_MODULE* LoadModule(const void* name_or_handle, MODLOAD_PROCESS* process, uint32_t flags);

// The address of the export that `key` names (a pointer value above 0xFFFF)
// or numbers (1 to 0xFFFF); 0 when absent.
uint32_t FindProc(PELOAD_MODULE* module, const char* key);

// Takes one reference away; a native module at 0 is released and unlinked.
void ReleaseModule(PELOAD_MODULE* module);

// Reads the PE file in `handle` (neither relocated, bound nor started) and
// copies its export-directory name into dst. kOk, or why it cannot be read.
LoadStatus ReadDllName(VFileHandle handle, char* dst, uint32_t len);

// Binds the image's imports by name or ordinal against the process's
// modules, loading missing ones by name. kOk, or the reason it stopped.
LoadStatus BindImports(const ImageSpan& image, MODLOAD_PROCESS* process);

// A zero-filled entry holding `name` whole, pushed at the front of *head with
// refcount 1; null when the allocator refuses it.
PELOAD_MODULE* NewModuleEntry(PELOAD_MODULE** head, const char* name);

// Releases every entry from `first` on, oldest (last in the list) first.
void FreeModuleChain(PELOAD_MODULE* first);

}  // namespace vrk::pe
