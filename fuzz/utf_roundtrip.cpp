// Fuzz target for the UTF-16/UTF-8 transcoders, the UTF-8 utilities and the
// case folding: arbitrary bytes, read as UTF-8 and as UTF-16 units, from
// buffers of exactly their size so that a read past the end is caught.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "vrk_text.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

// UTF-16 units -> UTF-8 -> UTF-16 gives back the same units, and every
// character of the UTF-8 form passes utf8isvalidchar.
void Utf16RoundTrip(const uint8_t* data, size_t size) {
  const int count = int(size / 2);
  uint16_t* units = static_cast<uint16_t*>(std::malloc(size_t(count) * 2 + 1));
  std::memcpy(units, data, size_t(count) * 2);
  int len8 = -1;
  char* utf8 = charconv_UTF16ToUTF8(units, count, &len8);
  if (utf8 == nullptr) {
    // Only a high surrogate in last place may fail.
    Check(count > 0 && units[count - 1] >= 0xD800 && units[count - 1] <= 0xDBFF && len8 == 0);
    std::free(units);
    return;
  }
  Check(len8 >= 0 && utf8[len8] == 0);
  for (int at = 0; at < len8;) {
    Check(utf8isvalidchar(utf8 + at) == 1);
    at += utf8charlen(utf8 + at);
    Check(at <= len8);
  }
  int len16 = -1;
  uint16_t* back = charconv_UTF8ToUTF16(utf8, len8, &len16);
  Check(back != nullptr && len16 == count && back[len16] == 0);
  Check(std::memcmp(back, units, size_t(count) * 2) == 0);
  char* block = reinterpret_cast<char*>(back);
  charconv_FreeBuffer(&block);
  charconv_FreeBuffer(&utf8);
  std::free(units);
}

// Lenient UTF-8 -> UTF-16 -> UTF-8 must not crash; the first step never
// writes more units than there are bytes.
void Utf8RoundTrip(const uint8_t* data, size_t size) {
  char* bytes = static_cast<char*>(std::malloc(size + 1));
  std::memcpy(bytes, data, size);
  int len16 = -1;
  uint16_t* units = charconv_UTF8ToUTF16(bytes, int(size), &len16);
  Check(units != nullptr && len16 >= 0 && size_t(len16) <= size && units[len16] == 0);
  int len8 = -1;
  char* again = charconv_UTF16ToUTF8(units, len16, &len8);
  if (again != nullptr) Check(again[len8] == 0);
  charconv_FreeBuffer(&again);
  char* block = reinterpret_cast<char*>(units);
  charconv_FreeBuffer(&block);
  std::free(bytes);
}

// The string functions over a NUL-terminated copy.
void StringFunctions(const uint8_t* data, size_t size) {
  char* s = static_cast<char*>(std::malloc(size + 1));
  std::memcpy(s, data, size);
  s[size] = 0;
  const size_t length = std::strlen(s);

  const int chars = utf8len(s);
  Check(chars >= -1 && chars <= int(length));
  for (const char* p = s; p != nullptr && *p != 0;) p = utf8nextchar(p);

  for (const size_t room : {size_t(1), size_t(2), size_t(5), length, length + 1}) {
    if (room == 0) continue;
    char* dst = static_cast<char*>(std::malloc(room));
    const size_t copied = utf8strncpy(dst, s, room);
    Check(copied < room && dst[copied] == 0 && std::memcmp(dst, s, copied) == 0);
    std::free(dst);
  }

  char* copy = static_cast<char*>(std::malloc(size + 1));
  std::memcpy(copy, s, size + 1);
  Check(utf8foldstring(copy) == copy && std::strlen(copy) == length);
  std::free(copy);

  for (const int flags : {0, UTF8_FOLD_TURKIC}) {
    char* folded = utf8foldstrict(s, flags);
    if (folded != nullptr) {
      Check(utf8icmp(folded, s, flags) != UTF8_ERR_INVALID);
      utf8freeresult(folded);
    }
  }

  // Two strings: the first half and the second half of the input.
  const size_t half = length / 2;
  char* a = static_cast<char*>(std::malloc(half + 1));
  std::memcpy(a, s, half);
  a[half] = 0;
  for (const int flags : {0, 1, 2, 3}) {
    const int order = utf8icmp(a, s + half, flags);
    Check(order == -1 || order == 0 || order == 1 || order == UTF8_ERR_INVALID);
    Check(utf8icmp(s, s, flags) == 0 || utf8icmp(s, s, flags) == UTF8_ERR_INVALID);
  }
  std::free(a);
  std::free(s);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 1 << 16) return 0;
  Utf16RoundTrip(data, size);
  Utf8RoundTrip(data, size);
  StringFunctions(data, size);
  return 0;
}
