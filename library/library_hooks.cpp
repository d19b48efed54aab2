// What runs when the library is loaded and unloaded: the inter-process lock
// file, the module registration with the allocator library and the code-page
// index, set up in that order and torn down in reverse.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "text/codepage.h"
#include "vrkalloc.h"

namespace vrk::frame {
namespace {

constexpr int kModuleNumber = 4;
constexpr int kModuleVersion = 0x01040309;

// Descriptor of the lock file, 0 when none is held. Written only by the
// hooks below, which the dynamic loader runs before any other call and after
// the last, so it needs no lock.
constinit int g_lock_fd = 0;
constexpr const char* kLockDirectory = "/tmp/";

void OpenLockFile() {
  if (g_lock_fd != 0) return;
  char path[64];
  snprintf(path, sizeof path, "%s.interProcessSystem", kLockDirectory);
  // Every process that loads the library must be able to open the file
  // later, whoever created it: 0666 regardless of the caller's mask.
  const mode_t old_mask = umask(0);
  const int fd = open(path, O_RDWR | O_CREAT, 0666);
  g_lock_fd = fd < 0 ? 0 : fd;
  umask(old_mask);
}

void CloseLockFile() {
  // Descriptor 0 means "none held", even if open() really returned 0.
  if (g_lock_fd != 0) {
    close(g_lock_fd);
    g_lock_fd = 0;
  }
}

void SetUpFamilies() {
  // Registration must precede the library's first allocation.
  SetModuleVersion(kModuleNumber, kModuleVersion);
  text::BuildCodePageIndex();
}

void TearDownFamilies() { text::FreeCodePageIndex(); }

// The only constructor and destructor of the library; every other global is
// constant-initialised, so nothing runs or allocates before these.
__attribute__((constructor)) void OnLoad() {
  OpenLockFile();
  SetUpFamilies();
}

__attribute__((destructor)) void OnUnload() {
  TearDownFamilies();
  CloseLockFile();
}

}  // namespace
}  // namespace vrk::frame
