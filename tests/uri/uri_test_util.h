// Helpers shared by the URI tests: a one-line description of a record that
// tables compare against, and parses with chosen allocations refused.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <initializer_list>
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
  auto field = [&](const char* name, const char* text, long long number) {
    if (text == nullptr && number == 0) return;
    out += (out.empty() ? "" : " ") + std::string(name) + (text ? "='" : "=");
    if (!text) out += std::to_string(number);
    for (const char* p = text; p && *p; ++p) {
      const auto c = static_cast<unsigned char>(*p);
      char hex[8];
      if (c < 0x20 || c >= 0x7f) {
        std::snprintf(hex, sizeof hex, "\\x%02x", c);
        out += hex;
        continue;
      }
      if (c == '\'' || c == '\\') out += '\\';
      out += char(c);
    }
    if (text) out += '\'';
  };
  field("scheme", r->scheme, 0);
  field("opaque", r->opaque, 0);
  field("reg_name", r->reg_name, 0);
  field("host", r->host, 0);
  field("userinfo", r->userinfo, 0);
  field("port", nullptr, r->port);
  field("path", r->path, 0);
  field("query", r->query, 0);
  field("fragment", r->fragment, 0);
  field("flags", nullptr, r->flags);
  return out.empty() ? "{}" : out;
}

// Describes and releases a record.
inline std::string Described(URI_Record* r) {
  std::string d = Describe(r);
  URI_Free(r);
  return d;
}
inline std::string Parsed(const std::string& text) { return Described(URI_Parse(text.c_str())); }
inline std::string Server(const std::string& text) { return Described(URI_GetServer(text.c_str())); }

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

// A table of texts and the record each gives, written as Describe() prints it.
struct Case {
  const char* input;
  const char* expected;
};

inline void Check(std::initializer_list<Case> cases, std::string (*read)(const std::string&) = Parsed) {
  for (const Case& c : cases) EXPECT_EQ(read(c.input), c.expected) << "input: " << c.input;
}

}  // namespace vrk::test
