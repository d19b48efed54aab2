// One character at a time, by the transcoders' lenient rules: the steps the
// vector kernels take wherever a block does not fit their fast paths
// (surrogates, malformed UTF-8, the last units of the input, the last bytes
// of room). Each step converts, skips or drops exactly what the plain loop
// does for the same character, and needs the same room.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "text/transcode.h"
#include "text/utf8.h"

namespace vrk::text {

constexpr bool IsHighSurrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
constexpr bool IsLowSurrogate(uint32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

inline constexpr uint32_t kMaxCodePoint = 0x10FFFF;

// UTF-8 bytes of a value: 1 below 0x80, 2 below 0x800, 3 below 0x10000, 4 up
// to 0x10FFFF, and 3 (U+FFFD) above, which UTF-16 cannot produce.
constexpr uint32_t Utf8Length(uint32_t value) {
  if (value < 0x80) return 1;
  if (value < 0x800) return 2;
  if (value < 0x10000) return 3;
  return value <= kMaxCodePoint ? 4 : 3;
}

// Writes `value` in `length` bytes, last byte first.
[[gnu::always_inline]] inline void PutUtf8(uint32_t value, uint32_t length, uint8_t* out) {
  constexpr std::array<uint8_t, 5> kLeadMark = {0x00, 0x00, 0xC0, 0xE0, 0xF0};
  if (value > kMaxCodePoint) value = 0xFFFD;
  for (uint32_t i = length - 1; i > 0; --i) {
    out[i] = uint8_t(0x80 | (value & 0x3F));
    value >>= 6;
  }
  out[0] = uint8_t(kLeadMark[length] | value);
}

// The character at `in` (in != in_end) to UTF-8, when more room than its
// byte count is left before out_end: kDone with both cursors past it.
// Otherwise kOutputFull, or kHighSurrogateAtEnd for a high surrogate that is
// the last unit of the input, with the cursors unchanged.
[[gnu::always_inline]] inline Transcode Utf16ToUtf8Char(const uint16_t*& in, const uint16_t* in_end, uint8_t*& out,
                                                        const uint8_t* out_end) {
  uint32_t value = in[0];
  uint32_t consumed = 1;
  if (IsHighSurrogate(value)) {
    if (in_end - in == 1) return Transcode::kHighSurrogateAtEnd;
    if (IsLowSurrogate(in[1])) {
      value = ((value - 0xD800) << 10) + (in[1] - 0xDC00u) + 0x10000;
      consumed = 2;
    }
  }
  const uint32_t length = Utf8Length(value);
  if (out_end - out <= ptrdiff_t(length)) return Transcode::kOutputFull;
  PutUtf8(value, length, out);
  out += length;
  in += consumed;
  return Transcode::kDone;
}

// What begins at `in` (in != in_end), read leniently: kDone after converting
// one character, skipping a stray continuation byte, dropping a sequence
// with a bad continuation byte (`in` then points at its last byte, which may
// begin a character) or a value above 0x10FFFF, or reaching a sequence cut
// short by the end (`in` = in_end). kOutputFull, cursors unchanged, when a
// character is due and less than a surrogate pair of room is left.
[[gnu::always_inline]] inline Transcode Utf8ToUtf16Char(const uint8_t*& in, const uint8_t* in_end, uint16_t*& out,
                                                        const uint16_t* out_end) {
  // Bytes are held in full registers: spilling one as a byte and reloading
  // it wider stalls the load.
  const uint32_t lead = in[0];
  if (lead < 0x80) {
    if (out_end - out < 2) return Transcode::kOutputFull;
    *out++ = uint16_t(lead);
    ++in;
    return Transcode::kDone;
  }
  const int32_t length = LeadLength(uint8_t(lead));
  if (length < 0) {
    ++in;
    return Transcode::kDone;
  }
  if (in_end - in < length) {
    in = in_end;
    return Transcode::kDone;
  }
  if (!TrailIsValid(in, length)) {
    in += length - 1;
    return Transcode::kDone;
  }
  // The room is checked for every complete, well-formed sequence, a dropped
  // value included.
  if (out_end - out < 2) return Transcode::kOutputFull;
  const uint32_t second = in[1] & 0x3Fu;
  if (length == 2) {
    *out++ = uint16_t(((lead & 0x1F) << 6) | second);
  } else if (length == 3) {
    *out++ = uint16_t(((lead & 0x0F) << 12) | (second << 6) | (in[2] & 0x3Fu));
  } else {
    // Four bytes summed as such: leads 0xF8 to 0xFF carry more bits than a
    // mask would keep, and give values above 0x10FFFF.
    uint32_t value = lead;
    for (int32_t i = 1; i < 4; ++i) value = (value << 6) + in[i];
    value -= 0x3C82080;  // the marks and continuation tags summed in
    if (value <= 0xFFFF) {
      *out++ = uint16_t(value);  // an overlong 4-byte form
    } else if (value <= kMaxCodePoint) {
      value -= 0x10000;
      *out++ = uint16_t(0xD800 + (value >> 10));
      *out++ = uint16_t(0xDC00 + (value & 0x3FF));
    }
  }
  in += length;
  return Transcode::kDone;
}

}  // namespace vrk::text
