// Helpers shared by the URI tests: a one-line description of a record that
// tables compare against, and parses with chosen allocations refused.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "vrk_standin_ctl.h"
#include "vrk_uri.h"

namespace vrk::test {

// "null" for no record, "{}" for one with every field absent, else the
// present fields in record order as name='text' (non-printable bytes,
// quotes and backslashes escaped) and port=N when the port is not 0.
inline std::string Describe(const URI_Record* r) {
  if (!r) return "null";
  std::string out;
  auto text = [&](const char* name, const char* value) {
    if (!value) return;
    if (!out.empty()) out += ' ';
    out += name;
    out += "='";
    for (const char* p = value; *p; ++p) {
      const auto c = static_cast<unsigned char>(*p);
      if (c == '\'' || c == '\\') {
        out += '\\';
        out += char(c);
      } else if (c < 0x20 || c >= 0x7f) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02x", c);
        out += hex;
      } else {
        out += char(c);
      }
    }
    out += '\'';
  };
  auto number = [&](const char* name, long long value) {
    if (value == 0) return;
    if (!out.empty()) out += ' ';
    out += name;
    out += '=';
    out += std::to_string(value);
  };
  text("scheme", r->scheme);
  text("opaque", r->opaque);
  text("reg_name", r->reg_name);
  text("host", r->host);
  text("userinfo", r->userinfo);
  number("port", r->port);
  text("path", r->path);
  text("query", r->query);
  text("fragment", r->fragment);
  number("flags", r->flags);
  return out.empty() ? "{}" : out;
}

// Parses, describes and releases.
inline std::string Parsed(const std::string& text) {
  URI_Record* r = URI_Parse(text.c_str());
  std::string d = Describe(r);
  URI_Free(r);
  return d;
}

inline std::string Server(const std::string& text) {
  URI_Record* r = URI_GetServer(text.c_str());
  std::string d = Describe(r);
  URI_Free(r);
  return d;
}

// The record of the first reading alone: a reference without a scheme is
// returned as it was read when the copy behind "http://" (text length + 8
// bytes, larger than any component block of the same text) is refused.
// (A text of 32 bytes would collide with the 40-byte record.)
inline std::string FirstReading(const std::string& text) {
  if (text.size() + 8 == sizeof(URI_Record)) return "unusable probe length";
  vrkalloc_fail_size(uint32_t(text.size() + 8), 1);
  std::string d = Parsed(text);
  vrkalloc_fail_size(0, 0);
  return d;
}

}  // namespace vrk::test
