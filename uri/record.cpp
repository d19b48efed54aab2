// The URI record's life cycle and the percent-decoder that fills its texts.
#include <cstring>

#include "uri/char_class.h"
#include "uri/uri_internal.h"
#include "vrkalloc.h"

namespace vrk::uri {

URI_Record* NewRecord() { return static_cast<URI_Record*>(Pcalloc(1, sizeof(URI_Record), 0)); }

void ReleaseText(char*& text) {
  if (text) {
    Pfree(text);
    text = nullptr;
  }
}

void ClearRecord(URI_Record* record) {
  if (!record) return;
  ReleaseText(record->scheme);
  ReleaseText(record->host);
  ReleaseText(record->userinfo);
  ReleaseText(record->path);
  ReleaseText(record->fragment);
  ReleaseText(record->opaque);
  ReleaseText(record->reg_name);
  ReleaseText(record->query);
}

void FreeRecord(URI_Record* record) {
  if (!record) return;
  ClearRecord(record);
  Pfree(record);
}

char* Unescape(const char* text, int32_t length, char* destination) {
  if (!text) return nullptr;
  const uint32_t n = length > 0 ? uint32_t(length) : 0;
  char* out = destination ? destination : static_cast<char*>(Pmalloc(n + 1, 0));
  if (!out) return nullptr;
  // The scanners hand over only spans whose every "%" starts a complete
  // escape; the length test only keeps a wrong span from reading past its
  // end. An escape of 0x00 is written as it is and simply ends the C string
  // there.
  const char* in = text;
  const char* const end = text + n;
  // Most components hold no escape at all: copy them whole.
  if (!std::memchr(text, '%', n)) {
    std::memcpy(out, text, n);
    out[n] = '\0';
    return out;
  }
  char* o = out;
  while (in < end) {
    if (*in == '%' && end - in >= 3) {
      *o++ = char(HexValue(in[1]) << 4 | HexValue(in[2]));
      in += 3;
    } else {
      *o++ = *in++;
    }
  }
  *o = '\0';
  return out;
}

void StoreText(char*& field, const char* begin, const char* end) {
  ReleaseText(field);
  field = Unescape(begin, int32_t(end - begin), nullptr);
}

char* WithDefaultPrefix(const char* text) {
  static constexpr char kPrefix[] = "http://";
  const uint32_t length = uint32_t(std::strlen(text));
  // strlen + 8: the seven bytes of the prefix and the terminator.
  auto* block = static_cast<char*>(Pmalloc(length + 8, 0));
  if (!block) return nullptr;
  std::memcpy(block, kPrefix, 7);
  std::memcpy(block + 7, text, length + 1);
  return block;
}

bool HasInnerDot(const char* name) {
  const char* dot = std::strchr(name, '.');
  return dot && dot[1] != '\0';
}

}  // namespace vrk::uri
