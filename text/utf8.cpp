// UTF-8 character utilities over NUL-terminated strings.
#include "text/utf8.h"

#include <cstring>

namespace vrk::text {

const uint8_t* NextChar(const uint8_t* s) {
  if (*s == 0 || !IsValidChar(s)) return nullptr;
  return s + LeadLength(*s);
}

std::optional<int32_t> CountChars(const uint8_t* s) {
  int32_t count = 0;
  while (*s != 0) {
    const int32_t length = LeadLength(*s);
    if (length < 0) return std::nullopt;
    // The stepped-over bytes are not checked for being continuation bytes,
    // only for not being the terminator: a lead byte right before the end
    // must not carry the walk past it.
    for (int32_t i = 1; i < length; ++i) {
      if (s[i] == 0) return std::nullopt;
    }
    ++count;
    s += length;
  }
  return count;
}

size_t CopyChars(uint8_t* dst, const uint8_t* src, size_t size) {
  if (dst == nullptr || src == nullptr || size == 0) return 0;
  size_t taken = 0;
  while (taken < size && src[taken] != 0) {
    const int32_t length = LeadLength(src[taken]);
    // taken < size here, so size - taken cannot wrap; the character must
    // leave at least one byte for the terminator.
    if (length < 0 || size_t(length) >= size - taken) break;
    if (!IsValidChar(src + taken)) break;
    taken += size_t(length);
  }
  std::memcpy(dst, src, taken);
  dst[taken] = 0;
  return taken;
}

}  // namespace vrk::text
