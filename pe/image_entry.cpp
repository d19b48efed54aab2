// Starting a PE image: its DLL entry point, called once with
// DLL_PROCESS_ATTACH when the image asks for it.
#include "pe/image.h"
#include "pe/stdcall.h"

namespace vrk::pe {

VRK_MODULE_CALL LoadStatus CallEntryPoint(const ImageSpan& image, MODLOAD_PROCESS* process) {
  PE_IMAGE_NT_HEADERS32 nt;
  if (!image || !image.NtHeaders(nt) || !AsksForEntryPoint(nt)) return LoadStatus::kOk;
  // An entry point outside the image is never jumped to: the module is
  // refused as if its entry point had said no.
  uint8_t* const code = image.At(nt.OptionalHeader.AddressOfEntryPoint, 1);
  if (!code) return LoadStatus::kEntryOutside;
  const auto start = reinterpret_cast<DllEntryPoint>(code);
  return start(image.base(), kDllProcessAttach, process) != 0 ? LoadStatus::kOk : LoadStatus::kEntryRefused;
}

}  // namespace vrk::pe
