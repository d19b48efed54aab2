// UTF-16 <-> UTF-8 transcoding without iconv: lenient cores over ranges and
// the allocating wrappers around them.
#include "text/transcode.h"

#include <array>
#include <cstddef>
#include <cstring>

#include "frame/block.h"
#include "text/utf8.h"

namespace vrk::text {
namespace {

// Lead-byte marks and the offsets left by summing an n-byte sequence with a
// 6-bit shift between its bytes (the marks and the continuation tags of all
// n bytes), both indexed by the sequence length.
constexpr std::array<uint8_t, 5> kLeadMark = {0x00, 0x00, 0xC0, 0xE0, 0xF0};
constexpr std::array<uint32_t, 5> kSumOffset = {0, 0, 0x3080, 0xE2080, 0x3C82080};

constexpr bool IsHighSurrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
constexpr bool IsLowSurrogate(uint32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

constexpr uint32_t kReplacement = 0xFFFD;
constexpr uint32_t kMaxCodePoint = 0x10FFFF;

constexpr uint32_t Utf8Length(uint32_t value) {
  if (value < 0x80) return 1;
  if (value < 0x800) return 2;
  if (value < 0x10000) return 3;
  if (value <= kMaxCodePoint) return 4;
  return 3;  // written as U+FFFD
}

// Writes `value` in `length` bytes, last byte first.
void PutUtf8(uint32_t value, uint32_t length, uint8_t* out) {
  if (value > kMaxCodePoint) value = kReplacement;
  for (uint32_t i = length - 1; i > 0; --i) {
    out[i] = uint8_t(0x80 | (value & 0x3F));
    value >>= 6;
  }
  out[0] = uint8_t(kLeadMark[length] | value);
}

// Units before the first 0 unit or byte.
template <class T>
int32_t TerminatedLength(const T* s) {
  int32_t n = 0;
  while (s[n] != 0) ++n;
  return n;
}

// -1: up to the terminator; other negative lengths count as empty.
template <class T>
int32_t SourceLength(const T* src, int32_t len) {
  if (len == -1) return TerminatedLength(src);
  return len < 0 ? 0 : len;
}

void SetLength(int32_t* outlen, int32_t value) {
  if (outlen != nullptr) *outlen = value;
}

// Copies the run of ASCII units at `in` (at most `limit` of them) as bytes and
// returns how many were copied. The target has no SIMD to lean on, so 32-bit
// words stand in: eight units are tested and packed into two words at a time.
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

namespace {

// The cores work on local cursors: byte stores through `out` could alias the
// caller's pointer variables, which would keep the compiler from holding the
// cursors in registers.
Transcode Utf16ToUtf8Run(const uint16_t*& in_ref, const uint16_t* in_end, uint8_t*& out_ref, const uint8_t* out_end) {
  const uint16_t* in = in_ref;
  uint8_t* out = out_ref;
  const auto finish = [&](Transcode result) {
    in_ref = in;
    out_ref = out;
    return result;
  };
  while (in != in_end) {
    const ptrdiff_t room = out_end - out;
    uint32_t value = in[0];
    // The common characters are written directly; each needs more room than
    // its byte count, so that one byte always stays for the terminator.
    if (value < 0x80) {
      if (room <= 1) return finish(Transcode::kOutputFull);
      // A run of ASCII may fill all but the last byte of the room.
      const ptrdiff_t left = in_end - in;
      const uint32_t run = CopyAsciiUnits(in, out, uint32_t(left < room - 1 ? left : room - 1));
      in += run;
      out += run;
      continue;
    }
    if (value < 0x800) {
      if (room <= 2) return finish(Transcode::kOutputFull);
      out[0] = uint8_t(0xC0 | (value >> 6));
      out[1] = uint8_t(0x80 | (value & 0x3F));
      out += 2;
      ++in;
      continue;
    }
    if (!IsHighSurrogate(value) && !IsLowSurrogate(value)) {
      if (room <= 3) return finish(Transcode::kOutputFull);
      // A run of 3-byte characters (most CJK text), each with the same
      // room rule, without going round the outer loop.
      do {
        out[0] = uint8_t(0xE0 | (value >> 12));
        out[1] = uint8_t(0x80 | ((value >> 6) & 0x3F));
        out[2] = uint8_t(0x80 | (value & 0x3F));
        out += 3;
        ++in;
        if (in == in_end || out_end - out <= 3) break;
        value = in[0];
      } while (value >= 0x800 && (value < 0xD800 || value > 0xDFFF));
      continue;
    }
    // Surrogates: a pair makes one character; a lone one stands for itself
    // and comes out in its 3-byte form.
    uint32_t consumed = 1;
    if (IsHighSurrogate(value)) {
      if (in_end - in == 1) return finish(Transcode::kHighSurrogateAtEnd);
      if (IsLowSurrogate(in[1])) {
        value = ((value - 0xD800) << 10) + (in[1] - 0xDC00) + 0x10000;
        consumed = 2;
      }
    }
    const uint32_t length = Utf8Length(value);
    if (room <= ptrdiff_t(length)) return finish(Transcode::kOutputFull);
    PutUtf8(value, length, out);
    out += length;
    in += consumed;
  }
  return finish(Transcode::kDone);
}

Transcode Utf8ToUtf16Run(const uint8_t*& in_ref, const uint8_t* in_end, uint16_t*& out_ref, const uint16_t* out_end) {
  const uint8_t* in = in_ref;
  uint16_t* out = out_ref;
  const auto finish = [&](Transcode result) {
    in_ref = in;
    out_ref = out;
    return result;
  };
  while (in != in_end) {
    const uint8_t lead = in[0];
    // Every converted character needs room for a surrogate pair, ASCII
    // included; a run of ASCII may therefore fill all but the last unit.
    if (lead < 0x80) {
      if (out_end - out < 2) return finish(Transcode::kOutputFull);
      const ptrdiff_t left = in_end - in;
      const ptrdiff_t room = out_end - out - 1;
      const uint32_t run = CopyAsciiBytes(in, out, uint32_t(left < room ? left : room));
      in += run;
      out += run;
      continue;
    }
    // A run of well-formed 3-byte sequences (most CJK text), each needing
    // room for a surrogate pair like any character.
    if ((lead & 0xF0) == 0xE0) {
      const uint8_t* p = in;
      uint16_t* o = out;
      while (in_end - p >= 3 && out_end - o >= 2 && (p[0] & 0xF0) == 0xE0 && IsContinuation(p[1]) &&
             IsContinuation(p[2])) {
        *o++ = uint16_t(((p[0] & 0x0F) << 12) | ((p[1] & 0x3F) << 6) | (p[2] & 0x3F));
        p += 3;
      }
      if (p != in) {
        in = p;
        out = o;
        continue;
      }
    }
    const int32_t length = LeadLength(lead);
    if (length < 0) {  // a stray continuation byte
      ++in;
      continue;
    }
    if (in_end - in < length) {  // the tail is cut short: drop it and finish
      in = in_end;
      break;
    }
    if (!TrailIsValid(in, length)) {
      // Resume at the sequence's last byte, which may begin a character.
      in += length - 1;
      continue;
    }
    if (out_end - out < 2) return finish(Transcode::kOutputFull);
    // With valid continuation bytes the sum of the bytes less the offset is
    // the payload bits; 2- and 3-byte leads carry no bits beyond their mask.
    if (length == 2) {
      *out++ = uint16_t(((lead & 0x1F) << 6) | (in[1] & 0x3F));
      in += 2;
      continue;
    }
    if (length == 3) {
      *out++ = uint16_t(((lead & 0x0F) << 12) | ((in[1] & 0x3F) << 6) | (in[2] & 0x3F));
      in += 3;
      continue;
    }
    // Four bytes, summed as such: leads 0xF8 to 0xFF carry more bits than a
    // mask would keep, and give values above 0x10FFFF.
    uint32_t value = lead;
    for (int32_t i = 1; i < 4; ++i) value = (value << 6) + in[i];
    value -= kSumOffset[4];
    in += 4;
    if (value <= 0xFFFF) {
      *out++ = uint16_t(value);  // an overlong 4-byte form
    } else if (value <= kMaxCodePoint) {
      value -= 0x10000;
      *out++ = uint16_t(0xD800 + (value >> 10));
      *out++ = uint16_t(0xDC00 + (value & 0x3FF));
    }
    // Above 0x10FFFF (a 4-byte lead of 0xF4 with a high second byte, or of
    // 0xF5 and up): nothing is written and reading goes on behind it.
  }
  return finish(Transcode::kDone);
}

}  // namespace

Transcode Utf16ToUtf8Core(const uint16_t*& in, const uint16_t* in_end, uint8_t*& out, const uint8_t* out_end) {
  return Utf16ToUtf8Run(in, in_end, out, out_end);
}

Transcode Utf8ToUtf16Core(const uint8_t*& in, const uint8_t* in_end, uint16_t*& out, const uint16_t* out_end) {
  return Utf8ToUtf16Run(in, in_end, out, out_end);
}

char* Utf16ToUtf8(const uint16_t* src, int32_t len, int32_t* outlen) {
  if (src == nullptr) {
    SetLength(outlen, 0);
    return nullptr;
  }
  const int32_t units = SourceLength(src, len);
  if (units == 0) {
    SetLength(outlen, 0);
    return static_cast<char*>(Pcalloc(1, 1, 0));
  }
  // Room for mostly ASCII text up front; texts of other scripts grow in
  // quarter steps of the unit count.
  uint32_t capacity = units <= 1023 ? 2048 : uint32_t(units);
  const uint32_t step = uint32_t(units) / 4;
  Block<uint8_t> buffer = Block<uint8_t>::Malloc(capacity);
  if (!buffer) {
    SetLength(outlen, 0);
    return nullptr;
  }
  const uint16_t* in = src;
  const uint16_t* const in_end = src + units;
  uint32_t written = 0;
  for (;;) {
    uint8_t* out = buffer.get() + written;
    const Transcode result = Utf16ToUtf8Core(in, in_end, out, buffer.get() + capacity);
    written = uint32_t(out - buffer.get());
    if (result == Transcode::kDone) break;
    if (result == Transcode::kHighSurrogateAtEnd) {
      SetLength(outlen, 0);
      return nullptr;
    }
    // Out of room; a growth refused leaves *outlen untouched.
    if (step == 0 || !buffer.Grow(capacity + step)) return nullptr;
    capacity += step;
  }
  if (written + 1 < capacity && buffer.Grow(written + 1)) capacity = written + 1;
  buffer[written] = 0;
  SetLength(outlen, int32_t(written));
  return reinterpret_cast<char*>(buffer.release());
}

uint16_t* Utf8ToUtf16(const uint8_t* src, int32_t len, int32_t* outlen) {
  if (src == nullptr) {
    SetLength(outlen, 0);
    return nullptr;
  }
  const int32_t bytes = SourceLength(src, len);
  if (bytes == 0) {
    SetLength(outlen, 0);
    return static_cast<uint16_t*>(Pcalloc(2, 1, 0));
  }
  // Four bytes per source byte, at least 512; the same amount is the growth
  // step. Sources too long for that to fit in 32 bits cannot be converted.
  if (uint32_t(bytes) > (UINT32_MAX - 4) / 4) {
    SetLength(outlen, 0);
    return nullptr;
  }
  const uint32_t step = uint32_t(bytes) * 4 < 512 ? 512 : uint32_t(bytes) * 4;
  uint32_t capacity = step;
  Block<uint16_t> buffer = Block<uint16_t>::Calloc(capacity, 1);
  if (!buffer) {
    SetLength(outlen, 0);
    return nullptr;
  }
  const uint8_t* in = src;
  const uint8_t* const in_end = src + bytes;
  uint32_t units = 0;
  for (;;) {
    uint16_t* out = buffer.get() + units;
    // Room is reckoned at 4 bytes per unit: a character is converted while
    // units * 4 + 4 stays below the capacity.
    const Transcode result = Utf8ToUtf16Core(in, in_end, out, buffer.get() + capacity / 4);
    units = uint32_t(out - buffer.get());
    if (result == Transcode::kDone) break;
    if (capacity > UINT32_MAX - step || !buffer.Grow(capacity + step)) {
      void* block = buffer.release();
      PSafeFree(&block);
      return nullptr;
    }
    capacity += step;
  }
  buffer[units] = 0;
  if (units + 1 < capacity) (void)buffer.Grow((units + 1) * 4);
  SetLength(outlen, int32_t(units));
  return buffer.release();
}

}  // namespace vrk::text
