// C boundary of the code-page registry.
#include "text/codepage.h"
#include "vrk_text.h"

extern "C" {

int32_t charconv_GetCP(const char* name) noexcept { return vrk::text::CodePageOfName(name); }

const char* charconv_GetCPName(int32_t codepage) noexcept { return vrk::text::NameOfCodePage(codepage); }

}  // extern "C"
