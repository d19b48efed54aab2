// Every byte value against every character class, each class reached
// through the component that uses it. The expected sets are spelled out
// here from the RFC 2396 grammar, independently of the library's tables.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "uri_test_util.h"

namespace {

bool In(const char* members, int c) { return c != 0 && std::strchr(members, c) != nullptr; }
bool Alpha(int c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool Digit(int c) { return c >= '0' && c <= '9'; }
bool Alphanum(int c) { return Alpha(c) || Digit(c); }
bool Hex(int c) { return Digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool Unreserved(int c) { return Alphanum(c) || In("-_.!~*'()", c); }
bool Reserved(int c) { return In(";/?:@&=+$,", c); }
bool Uric(int c) { return Reserved(c) || Unreserved(c); }
bool Unwise(int c) { return In("{}|\\^[]`", c); }
bool Pchar(int c) { return Unreserved(c) || In(":@&=+$,", c); }

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
  for (int c = 1; c < 256; ++c) {
    EXPECT_EQ(probe(c), expected(c)) << "byte 0x" << std::hex << c;
  }
}

TEST(UriClass, SchemeFirstIsAlpha) {
  Sweep([](int c) { return Field(Byte(c) + "x:y", &URI_Record::scheme) == Byte(c) + "x"; }, Alpha);
}

TEST(UriClass, SchemeRest) {
  Sweep([](int c) { return Field("a" + Byte(c) + ":y", &URI_Record::scheme) == "a" + Byte(c); },
        [](int c) { return Alphanum(c) || In("+-.", c); });
}

TEST(UriClass, OpaqueFirstIsUricNoSlash) {
  Sweep([](int c) { return Field("s:" + Byte(c) + "y", &URI_Record::opaque) == Byte(c) + "y"; },
        [](int c) { return Uric(c) && c != '/'; });
}

TEST(UriClass, OpaqueRestIsUric) {
  Sweep([](int c) { return Field("s:x" + Byte(c) + "y", &URI_Record::opaque) == "x" + Byte(c) + "y"; }, Uric);
}

TEST(UriClass, QueryIsUric) {
  Sweep([](int c) { return Field("http://h.example/?x" + Byte(c) + "y", &URI_Record::query) == "x" + Byte(c) + "y"; },
        Uric);
}

TEST(UriClass, FragmentIsUricAndUnwise) {
  Sweep([](int c) {
    return Field("http://h.example/#x" + Byte(c) + "y", &URI_Record::fragment) == "x" + Byte(c) + "y";
  }, [](int c) { return Uric(c) || Unwise(c); });
}

TEST(UriClass, PathSegments) {
  Sweep([](int c) { return Field("http://h.example/x" + Byte(c) + "y", &URI_Record::path) == "/x" + Byte(c) + "y"; },
        [](int c) { return Pchar(c) || In(";/\\", c); });
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
  },
        [](int c) { return Unreserved(c) || In(";@&=+$,/", c); });
}

TEST(UriClass, Userinfo) {
  Sweep([](int c) {
    return Field("http://x" + Byte(c) + "y@h.example/", &URI_Record::userinfo) == "x" + Byte(c) + "y";
  }, [](int c) { return Unreserved(c) || In(";:&=+$,", c) || c == 0x01; });
}

TEST(UriClass, RegName) {
  // "a..b" and "c..d" are no host names, so the whole authority is always
  // read as a registry name, as far as its class reaches.
  Sweep([](int c) {
    return Field("http://a..b" + Byte(c) + "c..d", &URI_Record::reg_name) == "a..b" + Byte(c) + "c..d";
  }, [](int c) { return Unreserved(c) || In("$,;:@&=+", c); });
  Sweep([](int c) { return Field("http://" + Byte(c) + "a..b", &URI_Record::reg_name) == Byte(c) + "a..b"; },
        [](int c) { return Unreserved(c) || In("$,;:@&=+", c); });
}

TEST(UriClass, HostName) {
  Sweep([](int c) {
    return Field("http://a" + Byte(c) + "b.example/", &URI_Record::host) == "a" + Byte(c) + "b.example";
  }, [](int c) { return Alphanum(c) || c == '-' || c == '.'; });
}

TEST(UriClass, PortDigits) {
  Sweep([](int c) {
    URI_Record* r = URI_Parse(("http://h.example:1" + Byte(c)).c_str());
    const bool member = r && r->host && r->port == 10 + (c - '0');
    URI_Free(r);
    return member;
  }, Digit);
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

TEST(UriClass, TrailingWhiteSpace) {
  Sweep([](int c) {
    URI_Record* r = URI_Parse(("http://h.example/x" + Byte(c)).c_str());
    const bool member = r && std::strcmp(r->path, "/x") == 0 && !r->query && !r->fragment;
    URI_Free(r);
    return member;
  }, [](int c) { return In(" \t\n\r", c); });
}

}  // namespace
