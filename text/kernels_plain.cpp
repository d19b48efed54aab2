// The plain versions of the text kernels: the reference the vector versions
// are checked against, and what runs on processors without SSE2.
#include <cstring>

#include "text/kernels.h"
#include "text/transcode_loops.h"

namespace vrk::text::plain {
namespace {

constexpr uint8_t FoldLetter(uint8_t c) { return c >= 'A' && c <= 'Z' ? uint8_t(c + ('a' - 'A')) : c; }

// Copies the run of ASCII units at `in` (at most `limit` of them) as bytes and
// returns how many were copied. Without vector registers 32-bit words stand
// in: eight units are tested and packed into two words at a time.
uint32_t CopyAsciiUnits(const uint16_t* in, uint8_t* out, uint32_t limit) {
  uint32_t i = 0;
  for (; i + 8 <= limit; i += 8) {
    uint32_t w[4];
    std::memcpy(w, in + i, sizeof w);
    if (((w[0] | w[1] | w[2] | w[3]) & 0xFF80FF80u) != 0) break;
    // Little-endian: each word holds two units, the first in its low half.
    const uint32_t lo = (w[0] & 0xFF) | ((w[0] >> 8) & 0xFF00) | ((w[1] & 0xFF) << 16) | ((w[1] << 8) & 0xFF000000u);
    const uint32_t hi = (w[2] & 0xFF) | ((w[2] >> 8) & 0xFF00) | ((w[3] & 0xFF) << 16) | ((w[3] << 8) & 0xFF000000u);
    std::memcpy(out + i, &lo, 4);
    std::memcpy(out + i + 4, &hi, 4);
  }
  while (i < limit && in[i] < 0x80) {
    out[i] = uint8_t(in[i]);
    ++i;
  }
  return i;
}

// The same for ASCII bytes becoming units: four bytes spread into two words.
uint32_t CopyAsciiBytes(const uint8_t* in, uint16_t* out, uint32_t limit) {
  uint32_t i = 0;
  for (; i + 4 <= limit; i += 4) {
    uint32_t w;
    std::memcpy(&w, in + i, sizeof w);
    if ((w & 0x80808080u) != 0) break;
    const uint32_t lo = (w & 0xFF) | ((w & 0xFF00) << 8);
    const uint32_t hi = ((w >> 16) & 0xFF) | ((w >> 8) & 0xFF0000);
    std::memcpy(out + i, &lo, 4);
    std::memcpy(out + i + 2, &hi, 4);
  }
  while (i < limit && in[i] < 0x80) {
    out[i] = in[i];
    ++i;
  }
  return i;
}

}  // namespace

Transcode Utf16ToUtf8(const uint16_t*& in, const uint16_t* in_end, uint8_t*& out, const uint8_t* out_end) {
  return Utf16ToUtf8Loop<CopyAsciiUnits>(in, in_end, out, out_end);
}

Transcode Utf8ToUtf16(const uint8_t*& in, const uint8_t* in_end, uint16_t*& out, const uint16_t* out_end) {
  return Utf8ToUtf16Loop<CopyAsciiBytes>(in, in_end, out, out_end);
}

uint32_t FoldAscii(const uint8_t* in, uint8_t* out, uint32_t n, uint8_t stop) {
  uint32_t i = 0;
  for (; i < n && in[i] < 0x80 && in[i] != stop; ++i) out[i] = FoldLetter(in[i]);
  return i;
}

uint32_t EqualAscii(const uint8_t* a, const uint8_t* b, uint32_t n, uint8_t stop) {
  uint32_t i = 0;
  for (; i < n; ++i) {
    const uint8_t x = a[i];
    const uint8_t y = b[i];
    if ((x | y) >= 0x80 || x == stop || y == stop || FoldLetter(x) != FoldLetter(y)) break;
  }
  return i;
}

}  // namespace vrk::text::plain
