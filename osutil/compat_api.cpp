// The allocator library's system queries passed on unchanged, and the calls
// that only mean something on Windows, answered with constants.
#include "vrk_osutil.h"
#include "vrkalloc.h"

extern "C" {

int OSUtil_GetOSType(void) noexcept { return GetOSType(); }
int OSUtil_GetOSVersion(void) noexcept { return GetOSVersion(); }
void* OSUtil_GetNULLSecurityAttr(void) noexcept { return GetNULLSecurityAttr(); }

// There are no drive letters; 0 is Windows' "cannot be determined".
uint32_t OSUtil_GetDriveTypeUTF8(const char*, uint32_t* type) noexcept {
  if (type) *type = 0;
  return 0;
}

// No file-system redirection or virtualization exists to switch or detect,
// and a Linux process is never a 32-bit guest of a 64-bit Windows.
uint32_t OSUtil_DisableWow32FsRedirection(void) noexcept { return 0; }
uint32_t OSUtil_RevertWow32FsRedirection(void) noexcept { return 0; }
uint32_t OSUtil_DisableVistaVirtualization(void) noexcept { return 0; }
uint32_t OSUtil_RevertVistaVirtualization(void) noexcept { return 0; }
uint32_t OSUtil_IsFileRedirectedByFs(void) noexcept { return 0; }
uint32_t OSUtil_IsWow32Process(void) noexcept { return 0; }
uint32_t OSUtil_IsThisWow32Process(void) noexcept { return 0; }

}  // extern "C"
