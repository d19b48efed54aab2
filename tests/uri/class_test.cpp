// Every byte value against every character class, each class reached
// through the component that uses it. The expected sets are spelled out
// here from the RFC 2396 grammar, independently of the library's tables.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "uri_test_util.h"

namespace {

using vrk::test::Parsed;

bool In(const char* members, int c) { return c != 0 && std::strchr(members, c) != nullptr; }
bool Alpha(int c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool Digit(int c) { return c >= '0' && c <= '9'; }
bool Alphanum(int c) { return Alpha(c) || Digit(c); }
bool Hex(int c) { return Digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool Unreserved(int c) { return Alphanum(c) || In("-_.!~*'()", c); }
bool Uric(int c) { return Unreserved(c) || In(";/?:@&=+$,", c); }
bool RegNameChar(int c) { return Unreserved(c) || In("$,;:@&=+", c); }

std::string Byte(int c) { return std::string(1, char(c)); }

// The field `member` of the record parsed from `text`, or "<null>".
std::string Field(const std::string& text, char* URI_Record::*member) {
  URI_Record* r = URI_Parse(text.c_str());
  std::string out = !r ? "<null>" : (r->*member ? r->*member : "<absent>");
  URI_Free(r);
  return out;
}

// Runs `probe` (does the byte behave as a member?) over bytes 1 to 255 (0
// ends every text) and compares with `expected`.
void Sweep(const std::function<bool(int)>& probe, const std::function<bool(int)>& expected) {
  for (int c = 1; c < 256; ++c) EXPECT_EQ(probe(c), expected(c)) << "byte 0x" << std::hex << c;
}

// The byte is a member when `before` + byte + `after` parses into a field
// holding `field_before` + byte + `field_after`.
struct ClassCase {
  const char *before, *after;
  char* URI_Record::*field;
  const char *field_before, *field_after;
  bool (*expected)(int);
};

TEST(UriClass, ByteInComponent) {
  const ClassCase kCases[] = {
      {"", "x:y", &URI_Record::scheme, "", "x", Alpha},
      {"a", ":y", &URI_Record::scheme, "a", "", [](int c) { return Alphanum(c) || In("+-.", c); }},
      {"s:", "y", &URI_Record::opaque, "", "y", [](int c) { return Uric(c) && c != '/'; }},
      {"s:x", "y", &URI_Record::opaque, "x", "y", Uric},
      {"http://h.example/?x", "y", &URI_Record::query, "x", "y", Uric},
      {"http://h.example/#x", "y", &URI_Record::fragment, "x", "y",
       [](int c) { return Uric(c) || In("{}|\\^[]`", c); }},
      {"http://h.example/x", "y", &URI_Record::path, "/x", "y",
       [](int c) { return Unreserved(c) || In(":@&=+$,;/\\", c); }},
      {"http://x", "y@h.example/", &URI_Record::userinfo, "x", "y",
       [](int c) { return Unreserved(c) || In(";:&=+$,", c) || c == 0x01; }},
      // "a..b" is no host name, so the authority is read as a registry name
      // as far as its class reaches.
      {"http://a..b", "c..d", &URI_Record::reg_name, "a..b", "c..d", RegNameChar},
      {"http://", "a..b", &URI_Record::reg_name, "", "a..b", RegNameChar},
      {"http://a", "b.example/", &URI_Record::host, "a", "b.example",
       [](int c) { return Alphanum(c) || c == '-' || c == '.'; }},
  };
  for (const ClassCase& k : kCases) {
    SCOPED_TRACE(std::string(k.before) + "<byte>" + k.after);
    Sweep([&](int c) { return Field(k.before + Byte(c) + k.after, k.field) == k.field_before + Byte(c) + k.field_after; },
          k.expected);
  }
}

TEST(UriClass, RelSegment) {
  // "/" passes too: it ends the segment and starts the path after it.
  Sweep([](int c) {
    const std::string text = "x" + Byte(c) + "y";
    vrkalloc_fail_size(uint32_t(text.size() + 8), 1);  // keeps the first reading
    URI_Record* r = URI_Parse(text.c_str());
    vrkalloc_fail_size(0, 0);
    const bool member = r && !r->scheme && r->path && r->path == text && !r->query && !r->fragment;
    URI_Free(r);
    return member;
  }, [](int c) { return Unreserved(c) || In(";@&=+$,/", c); });
}

TEST(UriClass, PortDigitsAndTrailingWhiteSpace) {
  Sweep([](int c) { return Parsed("http://h.example:1" + Byte(c)) == "scheme='http' host='h.example' port=1" + Byte(c); },
        Digit);
  Sweep([](int c) { return Parsed("http://h.example/x" + Byte(c)) == "scheme='http' host='h.example' path='/x'"; },
        [](int c) { return In(" \t\n\r", c); });
}

TEST(UriClass, EscapeHexDigits) {
  auto value = [](int c) { return Digit(c) ? c - '0' : (c | 0x20) - 'a' + 10; };
  Sweep([&](int c) {
    return Field("http://h.example/?%4" + Byte(c), &URI_Record::query) == Byte(Hex(c) ? 0x40 + value(c) : 0);
  }, Hex);
  Sweep([&](int c) {
    return Field("http://h.example/?%" + Byte(c) + "1", &URI_Record::query) == Byte(Hex(c) ? value(c) * 16 + 1 : 0);
  }, Hex);
}

}  // namespace
