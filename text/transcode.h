// UTF-16 <-> UTF-8 transcoding. The cores convert between begin/end ranges
// and stop when the output range has no room; the wrappers size, allocate,
// grow, terminate and shrink the result with the exact allocator calls the
// product's allocator accounts for. Each core runs the widest version of
// its loop that the processor has (kernels.h); every version converts and
// stops exactly where the plain one does, so the calls stay the same.
#pragma once

#include <cstdint>

namespace vrk::text {

enum class Transcode : uint8_t {
  kDone,                // the whole input is converted (or its incomplete tail dropped)
  kOutputFull,          // stopped before a character for want of room; input points at it
  kHighSurrogateAtEnd,  // UTF-16 input ends with a high surrogate
};

// UTF-16 units [in, in_end) to UTF-8 bytes at out. A character of n bytes is
// written only while more than n bytes remain before out_end, so one byte is
// always left for the terminator. Lone surrogates are written as their own
// 3-byte forms. Advances `in` and `out` over what was converted.
[[nodiscard]] Transcode Utf16ToUtf8Core(const uint16_t*& in, const uint16_t* in_end, uint8_t*& out,
                                        const uint8_t* out_end);

// Lenient UTF-8 bytes [in, in_end) to UTF-16 units at out. Stray continuation
// bytes are skipped, sequences with a bad continuation byte dropped (reading
// resumes at their last byte), values above 0x10FFFF dropped (reading resumes
// behind them), and an incomplete sequence at the end ends the conversion.
// A character is converted only while room for a surrogate pair remains
// before out_end. Advances `in` and `out` over what was converted.
[[nodiscard]] Transcode Utf8ToUtf16Core(const uint8_t*& in, const uint8_t* in_end, uint16_t*& out,
                                        const uint16_t* out_end);

// Allocating conversions behind charconv_UTF16ToUTF8 and charconv_UTF8ToUTF16:
// a length of -1 means up to the first 0 unit or byte; below -1 it counts as
// 0. The result is terminated and owned by the caller (Pfree); null when an
// allocation is refused or, for UTF-16, the input ends with a high
// surrogate. `*outlen` (if given) receives the result's length, or 0 on
// failure, except that a refused growth leaves it untouched.
char* Utf16ToUtf8(const uint16_t* src, int32_t len, int32_t* outlen);
uint16_t* Utf8ToUtf16(const uint8_t* src, int32_t len, int32_t* outlen);

}  // namespace vrk::text
