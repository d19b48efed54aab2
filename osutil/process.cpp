// Temporary names, the program's file name, shared libraries and advisory
// locks, each a thin layer over the system call that does the work.
#include "osutil/process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "osutil/path.h"

// tempnam is reached through its versioned name: a plain reference makes the
// linker advise mkstemp, which creates a file, while this call must only
// name one. The binding is the one a plain reference would get on i386.
// Sanitized builds keep the plain name: their runtime defines tempnam itself
// (drawing no advice), and a versioned reference next to it leaves a broken
// local entry in the dynamic symbol table.
#if defined(__SANITIZE_ADDRESS__)
#define vrk_osutil_tempnam tempnam
#else
extern "C" char* vrk_osutil_tempnam(const char* dir, const char* prefix);
__asm__(".symver vrk_osutil_tempnam, tempnam@GLIBC_2.0");
#endif

namespace vrk::osutil {

Status TempFileName(const char* dir, const char* prefix, char* dst) {
  char* name = vrk_osutil_tempnam(dir, prefix);
  if (!name) return Status::kNotFound;
  // The name comes from the C library's malloc and goes back through free,
  // not through the allocator library.
  const size_t length = strnlen(name, kMaxPath);
  const bool fits = length < kMaxPath;
  if (fits) std::memcpy(dst, name, length + 1);
  std::free(name);
  return fits ? Status::kOk : Status::kBadInput;
}

Status ProgramFileName(char* dst, uint32_t size) {
  if (!dst || size < 2) return Status::kBadInput;
  char link[32];
  std::snprintf(link, sizeof link, "/proc/%d/exe", int(getpid()));
  // The kernel takes the length as a signed int; no real buffer is larger.
  const uint32_t room = std::min<uint32_t>(size, INT_MAX);
  const ssize_t length = readlink(link, dst, room);
  if (length <= 0) return Status::kIoError;
  if (uint32_t(length) >= room) {
    // readlink filled the whole buffer: the name may be cut and there is no
    // room for the terminator. A cut name could pass for another file, so
    // the caller gets none at all.
    dst[0] = '\0';
    return Status::kBadInput;
  }
  dst[length] = '\0';
  return Status::kOk;
}

void* LoadSharedLibrary(const char* name) {
  // Bound at once, so a library with a missing symbol fails here rather
  // than at its first call.
  return dlopen(name, RTLD_NOW);
}

int LockFile(const char* path) {
  const int fd = open(path, O_RDONLY);
  if (fd < 0) return -1;
  // Waits for the lock. A failure still hands out the descriptor: the
  // caller's only sign of success is fd != -1, and the unlock releases it.
  (void)flock(fd, LOCK_EX);
  return fd;
}

void UnlockFile(int& fd) {
  if (fd == -1) return;
  (void)flock(fd, LOCK_UN);
  close(fd);
  fd = -1;
}

}  // namespace vrk::osutil
