// Code-page conversion over iconv, with the product's fixed buffer sizing:
// an 8192-byte start, 4096-byte growth, and an exact shrink at the end.
#include "text/charconv.h"

#include <cerrno>
#include <cstring>
#include <iconv.h>

#include "frame/block.h"

namespace vrk::text {
namespace {

constexpr uint32_t kInitialCapacity = 8192;
constexpr uint32_t kGrowthStep = 4096;

const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);

// The converter and the output of one ConvertBuffer call; the destructor
// gives back whatever has not been handed over.
class Conversion {
 public:
  // The buffer goes back before the converter is closed.
  ~Conversion() {
    buffer_.Reset();
    (void)CloseConverter(conv_);
  }

  Block<char>& buffer() { return buffer_; }
  void Adopt(charconv_t* conv) { conv_ = conv; }
  Status Close() {
    const Status result = CloseConverter(conv_);
    conv_ = nullptr;
    return result;
  }

 private:
  Block<char> buffer_;
  charconv_t* conv_ = nullptr;
};

}  // namespace

charconv_t* OpenConverter(const char* tocode, const char* fromcode) {
  Block<charconv_t> conv = Block<charconv_t>::Calloc(1, sizeof(charconv_t));
  if (!conv) return nullptr;
  const iconv_t cd = iconv_open(tocode, fromcode);
  if (cd == kNoDescriptor) return nullptr;
  conv.get()->cd = cd;
  return conv.release();
}

Status CloseConverter(charconv_t* conv) {
  if (conv == nullptr) return Status::kOk;
  Status result = Status::kOk;
  if (conv->cd != kNoDescriptor) {
    if (iconv_close(static_cast<iconv_t>(conv->cd)) != 0) result = Status::kBadInput;
    conv->cd = nullptr;
  }
  Pfree(conv);
  return result;
}

Status ConvertBuffer(const char* fromcode, const char* tocode, const char* in, size_t inlen, char** out,
                     size_t* outlen) {
  if (out == nullptr || *out != nullptr) return Status::kBadInput;
  Conversion conversion;
  Block<char>& buffer = conversion.buffer();
  buffer = Block<char>::Calloc(kInitialCapacity, 1);
  if (!buffer) return Status::kNoMemory;
  charconv_t* conv = OpenConverter(tocode, fromcode);
  if (conv == nullptr) return Status::kNotFound;
  conversion.Adopt(conv);

  // A null input pointer would ask iconv to reset its state and possibly
  // emit a shift sequence; an empty input must convert to nothing.
  static constexpr char kEmpty[1] = {0};
  char* inptr = const_cast<char*>(in != nullptr ? in : kEmpty);
  size_t inleft = in != nullptr ? inlen : 0;
  uint32_t capacity = kInitialCapacity;
  size_t written = 0;
  size_t room = kInitialCapacity;
  for (;;) {
    char* outptr = buffer.get() + written;
    const size_t before = room;
    const size_t converted = iconv(static_cast<iconv_t>(conv->cd), &inptr, &inleft, &outptr, &room);
    written = size_t(outptr - buffer.get());
    if (converted == size_t(-1)) {
      if (errno != E2BIG) return Status::kBadInput;  // invalid or incomplete input
    } else if (room == before && converted == 0) {
      break;  // nothing more to produce
    }
    // Out of room, or something was written: grow and call again. A call
    // that finds no input left then ends the loop.
    if (capacity > UINT32_MAX - kGrowthStep || !buffer.Grow(capacity + kGrowthStep)) return Status::kNoMemory;
    std::memset(buffer.get() + capacity, 0, kGrowthStep);
    capacity += kGrowthStep;
    room += kGrowthStep;
  }
  (void)conversion.Close();

  if (!buffer.Grow(uint32_t(written + 1))) return Status::kNoMemory;
  buffer[uint32_t(written)] = 0;
  *out = buffer.release();
  if (outlen != nullptr) *outlen = written;
  return Status::kOk;
}

Status AppendUtf8(const char* fromcode, const char* in, size_t inlen, char** text) {
  char* converted = nullptr;
  size_t converted_len = 0;
  const Status status = ConvertBuffer(fromcode, "utf-8", in, inlen, &converted, &converted_len);
  if (status != Status::kOk) return status;
  const size_t old_len = *text != nullptr ? std::strlen(*text) : 0;
  const size_t new_len = old_len + converted_len;
  char* joined = (new_len >= old_len && new_len < UINT32_MAX) ? static_cast<char*>(Pcalloc(uint32_t(new_len + 1), 1, 0))
                                                             : nullptr;
  if (joined == nullptr) {
    FreeBuffer(&converted);
    return Status::kNoMemory;
  }
  if (old_len != 0) std::memcpy(joined, *text, old_len);
  // The converted text ends at its first NUL, like the string it becomes
  // part of; the rest of the new buffer is already zero.
  const void* nul = std::memchr(converted, 0, converted_len);
  const size_t copy_len = nul != nullptr ? size_t(static_cast<const char*>(nul) - converted) : converted_len;
  std::memcpy(joined + old_len, converted, copy_len);
  joined[new_len] = 0;
  FreeBuffer(&converted);
  FreeBuffer(text);
  *text = joined;
  return Status::kOk;
}

void FreeBuffer(char** buffer) {
  if (buffer != nullptr && *buffer != nullptr) {
    Pfree(*buffer);
    *buffer = nullptr;
  }
}

}  // namespace vrk::text
