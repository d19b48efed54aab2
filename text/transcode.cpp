// UTF-16 <-> UTF-8 transcoding without iconv: lenient cores over ranges and
// the allocating wrappers around them.
#include "text/transcode.h"

#include <array>

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

}  // namespace

Transcode Utf16ToUtf8Core(const uint16_t*& in, const uint16_t* in_end, uint8_t*& out, const uint8_t* out_end) {
  while (in != in_end) {
    uint32_t value = in[0];
    uint32_t consumed = 1;
    if (IsHighSurrogate(value)) {
      if (in_end - in == 1) return Transcode::kHighSurrogateAtEnd;
      if (IsLowSurrogate(in[1])) {
        value = ((value - 0xD800) << 10) + (in[1] - 0xDC00) + 0x10000;
        consumed = 2;
      }
    }
    const uint32_t length = Utf8Length(value);
    if (out_end - out <= int32_t(length)) return Transcode::kOutputFull;
    PutUtf8(value, length, out);
    out += length;
    in += consumed;
  }
  return Transcode::kDone;
}

Transcode Utf8ToUtf16Core(const uint8_t*& in, const uint8_t* in_end, uint16_t*& out, const uint16_t* out_end) {
  while (in != in_end) {
    const int32_t length = LeadLength(in[0]);
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
    // A 0 byte is an ordinary one-byte character here: explicit lengths may
    // hold them and they are converted like any other.
    uint32_t value = in[0];
    for (int32_t i = 1; i < length; ++i) value = (value << 6) + in[i];
    value -= kSumOffset[length];
    // Every converted character, even one that is then dropped, needs room
    // for a surrogate pair.
    if (out_end - out < 2) return Transcode::kOutputFull;
    in += length;
    if (value <= 0xFFFF) {
      *out++ = uint16_t(value);
    } else if (value <= kMaxCodePoint) {
      value -= 0x10000;
      *out++ = uint16_t(0xD800 + (value >> 10));
      *out++ = uint16_t(0xDC00 + (value & 0x3FF));
    }
    // Above 0x10FFFF (a 4-byte lead of 0xF4 with a high second byte, or of
    // 0xF5 and up): nothing is written and reading goes on behind it.
  }
  return Transcode::kDone;
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
