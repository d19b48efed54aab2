// C boundary of the UTF-8 character utilities.
#include "text/utf8.h"
#include "vrk_text.h"
#include "vrkalloc.h"

namespace {

const uint8_t* Bytes(const char* s) { return reinterpret_cast<const uint8_t*>(s); }

}  // namespace

extern "C" {

int utf8charlen(const char* s) noexcept { return vrk::text::LeadLength(*Bytes(s)); }

int utf8isvalidchar(const char* s) noexcept { return vrk::text::IsValidChar(Bytes(s)) ? 1 : 0; }

char* utf8nextchar(const char* s) noexcept {
  // The result points into the caller's string, which the C signature keeps
  // mutable for callers that walk a buffer they own.
  return const_cast<char*>(reinterpret_cast<const char*>(vrk::text::NextChar(Bytes(s))));
}

int utf8len(const char* s) noexcept {
  const std::optional<int32_t> count = vrk::text::CountChars(Bytes(s));
  return count ? *count : -1;
}

size_t utf8strncpy(char* dst, const char* src, size_t size) noexcept {
  return vrk::text::CopyChars(reinterpret_cast<uint8_t*>(dst), Bytes(src), size);
}

void utf8freeresult(void* result) noexcept {
  if (result != nullptr) Pfree(result);
}

}  // extern "C"
