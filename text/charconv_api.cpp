// C boundary of the code-page conversion and the UTF-16/UTF-8 transcoders.
#include <iconv.h>

#include "text/charconv.h"
#include "text/transcode.h"
#include "vrk_text.h"

namespace {

// The charconv functions' documented results: 0 for success, 1 for any failure.
int Result(vrk::Status status) { return status == vrk::Status::kOk ? 0 : 1; }

}  // namespace

extern "C" {

charconv_t* charconv_open(const char* tocode, const char* fromcode) noexcept {
  return vrk::text::OpenConverter(tocode, fromcode);
}

int charconv_close(charconv_t* conv) noexcept { return Result(vrk::text::CloseConverter(conv)); }

size_t charconv(charconv_t* conv, char** inbuf, size_t* inbytesleft, char** outbuf, size_t* outbytesleft) noexcept {
  return iconv(static_cast<iconv_t>(conv->cd), inbuf, inbytesleft, outbuf, outbytesleft);
}

int charconv_convert(const char* fromcode, const char* tocode, const char* in, size_t inlen, char** out,
                     size_t* outlen) noexcept {
  return Result(vrk::text::ConvertBuffer(fromcode, tocode, in, inlen, out, outlen));
}

int charconv_ToUTF8(const char* fromcode, const char* in, size_t inlen, char** text) noexcept {
  return Result(vrk::text::AppendUtf8(fromcode, in, inlen, text));
}

void charconv_FreeBuffer(char** buffer) noexcept { vrk::text::FreeBuffer(buffer); }

char* charconv_UTF16ToUTF8(const uint16_t* src, int len, int* outlen) noexcept {
  return vrk::text::Utf16ToUtf8(src, len, outlen);
}

uint16_t* charconv_UTF8ToUTF16(const char* src, int len, int* outlen) noexcept {
  return vrk::text::Utf8ToUtf16(reinterpret_cast<const uint8_t*>(src), len, outlen);
}

}  // extern "C"
