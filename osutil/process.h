// What the OS utilities ask of the running process and its system:
// temporary names, the program's own file name, shared libraries and
// advisory file locks.
#pragma once

#include <cstdint>

#include "frame/status.h"

namespace vrk::osutil {

// A fresh name from tempnam(dir, prefix) copied into `dst` (kMaxPath bytes).
// kNotFound when tempnam gives none, kBadInput when the name would not fit;
// `dst` is untouched in both cases.
Status TempFileName(const char* dir, const char* prefix, char* dst);

// The running program's file name read from /proc into `dst` of `size`
// bytes. kBadInput for a null or too small buffer and for a name of `size`
// bytes or more (then `dst` holds ""); kIoError when the link is unreadable.
// Applies no system gate.
Status ProgramFileName(char* dst, uint32_t size);

// dlopen(name, RTLD_NOW); null on failure. Applies no system gate.
void* LoadSharedLibrary(const char* name);

// Opens `path` read-only and waits for an exclusive flock lock on it.
// Returns the descriptor, or -1 when the file could not be opened.
int LockFile(const char* path);

// Releases and closes a descriptor from LockFile and sets it to -1; a
// descriptor of -1 is left alone.
void UnlockFile(int& fd);

}  // namespace vrk::osutil
