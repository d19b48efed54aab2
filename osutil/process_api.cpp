// C boundary of temporary names, the program's file name, library loading
// and file locks.
#include "osutil/process.h"
#include "osutil/system_gate.h"
#include "vrk_osutil.h"

extern "C" {

uint32_t OSUtil_GetTempFileNameUTF8(const char* dir, const char* prefix, uint32_t unique, char* dst) noexcept {
  if (vrk::osutil::TempFileName(dir, prefix, dst) != vrk::Status::kOk) return 0;
  return unique == 0 ? 1 : unique;
}

uint32_t OSUtil_GetModuleFileNameUTF8(void*, char* dst, uint32_t size) noexcept {
  if (!dst || size < 2) return 1;
  if (GetOSType() == vrk::osutil::kForeignSystemType) return 1;
  return vrk::osutil::ProgramFileName(dst, size) == vrk::Status::kOk ? 0 : 1;
}

void* OSUtil_LoadLibraryExUTF8(const char* name, void*, uint32_t) noexcept {
  if (!name || !vrk::osutil::LoaderGateOpen()) return nullptr;
  return vrk::osutil::LoadSharedLibrary(name);
}

uint32_t OSUtil_UnixFileLock(const char* path, int* fd) noexcept {
  *fd = vrk::osutil::LockFile(path);
  return 0;
}

uint32_t OSUtil_UnixFileUnlock(int* fd) noexcept {
  vrk::osutil::UnlockFile(*fd);
  return 0;
}

}  // extern "C"
