// Fuzz target for the UTF-16/UTF-8 transcoders, the UTF-8 utilities and the
// case folding: arbitrary bytes, read as UTF-8 and as UTF-16 units, from
// buffers of exactly their size so that a read past the end is caught; and
// every vector version of the text kernels this processor runs against the
// plain one, on the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "text/kernels.h"
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

// One conversion kernel over `in` with `room` output units (the output
// starts zero-filled and is followed by canaries).
template <class Out>
struct Conversion {
  vrk::text::Transcode result;
  size_t consumed, produced;
  std::vector<Out> out;
};

template <class In, class Out, class Kernel>
Conversion<Out> Convert(Kernel kernel, const std::vector<In>& in, size_t room) {
  Conversion<Out> c{};
  c.out.assign(room + 16, Out(0));
  for (size_t i = room; i < c.out.size(); ++i) c.out[i] = Out(0xA5);
  const In* ip = in.data();
  Out* op = c.out.data();
  c.result = kernel(ip, in.data() + in.size(), op, c.out.data() + room);
  c.consumed = size_t(ip - in.data());
  c.produced = size_t(op - c.out.data());
  return c;
}

// Every vector kernel gives what the plain one gives: the same result, the
// same stopping point for a room taken from the input, the same bytes (for
// UTF-16 output the whole buffer, which must stay zero past the result), and
// the same ASCII runs.
void KernelsAgree(const uint8_t* data, size_t size) {
  using namespace vrk::text;
  const std::vector<uint8_t> bytes(data, data + size);
  std::vector<uint16_t> units(size / 2);
  if (!units.empty()) std::memcpy(units.data(), data, units.size() * 2);
  const size_t room8 = size == 0 ? 0 : data[0] * units.size() / 85 + 1;  // up to 3 bytes a unit
  const size_t room16 = size < 2 ? 0 : data[1] * size / 127 + 1;          // up to 2 units a byte
  const Kernels& plain = KernelsFor(Isa::kPlain);
  const size_t half = size / 2;
  const uint8_t stop = size != 0 && data[size - 1] & 1 ? uint8_t('I') : uint8_t(0x80);
  std::vector<uint8_t> expected_fold(size), fold(size);
  const uint32_t expected_run = plain.fold_ascii(data, expected_fold.data(), uint32_t(size), stop);
  const uint32_t expected_equal = plain.equal_ascii(data, data + half, uint32_t(half), stop);
  for (const Isa isa : kIsas) {
    if (isa == Isa::kPlain || !IsaSupported(isa)) continue;
    const Kernels& k = KernelsFor(isa);
    for (const size_t room : {3 * units.size() + 1, room8}) {
      const auto a = Convert<uint16_t, uint8_t>(plain.utf16_to_utf8, units, room);
      const auto b = Convert<uint16_t, uint8_t>(k.utf16_to_utf8, units, room);
      Check(a.result == b.result && a.consumed == b.consumed && a.produced == b.produced);
      Check(std::memcmp(a.out.data(), b.out.data(), a.produced) == 0);
      Check(std::memcmp(a.out.data() + room, b.out.data() + room, 16) == 0);
    }
    for (const size_t room : {size + 2, room16}) {
      const auto a = Convert<uint8_t, uint16_t>(plain.utf8_to_utf16, bytes, room);
      const auto b = Convert<uint8_t, uint16_t>(k.utf8_to_utf16, bytes, room);
      Check(a.result == b.result && a.consumed == b.consumed && a.produced == b.produced && a.out == b.out);
    }
    fold.assign(size, 0);
    Check(k.fold_ascii(data, fold.data(), uint32_t(size), stop) == expected_run && fold == expected_fold);
    Check(k.equal_ascii(data, data + half, uint32_t(half), stop) == expected_equal);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 1 << 16) return 0;
  Utf16RoundTrip(data, size);
  Utf8RoundTrip(data, size);
  StringFunctions(data, size);
  KernelsAgree(data, size);
  return 0;
}
