// C boundary of the code-page registry.
#include "text/codepage.h"
#include "vrk_text.h"

extern "C" {

int32_t charconv_GetCP(const char* name) noexcept {
  const vrk::text::CodePageRow* row = vrk::text::RowOfName(name);
  return row != nullptr ? row->codepage : -1;
}

const char* charconv_GetCPName(int32_t codepage) noexcept { return vrk::text::NameOfCodePage(codepage); }

}  // extern "C"
