// JSON strings (see json.h).
#include "json.h"

#include <cstdio>

namespace vrkutil {
namespace {

// Length of the well-formed UTF-8 sequence at the start of `s`, or 0.
size_t WellFormed(std::string_view s) {
  const auto b = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char lead = b(0);
  if (lead < 0x80) return 1;
  size_t n = 0;
  unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    n = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    n = 3;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    n = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (s.size() < n || b(1) < low || b(1) > high) return 0;
  for (size_t i = 2; i < n; ++i) {
    if (b(i) < 0x80 || b(i) > 0xBF) return 0;
  }
  return n;
}

}  // namespace

std::string JsonString(std::string_view bytes) {
  std::string out = "\"";
  char escape[8];
  while (!bytes.empty()) {
    const auto c = static_cast<unsigned char>(bytes[0]);
    size_t n = 1;
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out += escape;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
    } else if ((n = WellFormed(bytes)) != 0) {
      out.append(bytes.substr(0, n));
    } else {
      n = 1;
      std::snprintf(escape, sizeof escape, "\\udc%02x", c);
      out += escape;
    }
    bytes.remove_prefix(n);
  }
  return out + "\"";
}

}  // namespace vrkutil
