// The module loader: PE modules read from virtual files and native modules
// obtained through a process record's callbacks, found by name, bound against
// one another and started.
#pragma once

#include <cstdint>

#include "frame/status.h"
#include "pe/image_span.h"
#include "vrk_pe.h"

namespace vrk::pe {

PELOAD_MODULE* LoadLibraryEx(const void* name_or_handle, MODLOAD_PROCESS* process, uint32_t flags);
uint32_t GetProcAddress(PELOAD_MODULE* module, const char* key);
int FreeLibrary(PELOAD_MODULE* module);
int GetDllNameH(VFileHandle handle, char* dst, uint32_t len);

// Binds the image's imports by name or ordinal against the process's
// modules, loading missing ones by name. kOk, or the reason it stopped.
Status BindImports(const ImageSpan& image, MODLOAD_PROCESS* process);

// A zero-filled entry holding `name` whole, pushed at the front of *head with
// refcount 1; null when the allocator refuses it.
PELOAD_MODULE* NewModuleEntry(PELOAD_MODULE** head, const char* name);

// Releases every entry from `first` on, oldest (last in the list) first.
void FreeModuleChain(PELOAD_MODULE* first);

}  // namespace vrk::pe
