// Exported module loader and process records: thin shims over vrk::pe.
#include "pe/loader.h"
#include "pe/process.h"

extern "C" {

VRK_API PELOAD_MODULE* PELOAD_LoadLibraryEx(const void* name_or_handle, MODLOAD_PROCESS* process,
                                           uint32_t flags) noexcept {
  return vrk::pe::LoadModule(name_or_handle, process, flags);
}

VRK_API uint32_t PELOAD_GetProcAddress(PELOAD_MODULE* module, const char* name_or_ordinal) noexcept {
  return vrk::pe::FindProc(module, name_or_ordinal);
}

VRK_API int PELOAD_FreeLibrary(PELOAD_MODULE* module) noexcept {
  vrk::pe::ReleaseModule(module);
  return 1;
}

VRK_API int PELOAD_GetDllNameH(VFileHandle handle, char* dst, uint32_t len) noexcept {
  return vrk::pe::ReadDllName(handle, dst, len) == vrk::pe::LoadStatus::kOk ? 1 : 0;
}

VRK_API MODLOAD_PROCESS* MODLOAD_CreateProcess(VFileHandle handle, MODLOAD_LOAD_FN load, MODLOAD_FREE_FN free,
                                               MODLOAD_GETPROC_FN get_proc) noexcept {
  return vrk::pe::NewProcessRecord(handle, load, free, get_proc);
}

VRK_API void MODLOAD_TerminateProcess(MODLOAD_PROCESS* process) noexcept { vrk::pe::FreeProcessRecord(process); }

}  // extern "C"
