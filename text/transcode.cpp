// UTF-16 <-> UTF-8 transcoding without iconv: the allocating wrappers
// around the conversion cores (kernels.h).
#include "text/transcode.h"

#include <cstddef>

#include "frame/block.h"

namespace vrk::text {
namespace {

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
