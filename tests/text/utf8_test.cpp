// UTF-8 character utilities: the lead-byte rule over all 256 bytes, the
// validity check, stepping, counting and the bounded copy.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "vrk_text.h"

namespace {

TEST(Utf8, CharLenOfEveryLeadByte) {
  for (int b = 0; b < 256; ++b) {
    const char s[2] = {char(b), 0};
    const int expected = b < 0x80 ? 1 : b < 0xC0 ? -1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
    EXPECT_EQ(utf8charlen(s), expected) << "byte " << b;
  }
}

// Each input through the validity check of its first character, the step
// to the next one (-1: null) and the character count.
TEST(Utf8, ValidNextAndLen) {
  const struct {
    const char* bytes;
    int valid, next, len;
  } kCases[] = {
      {"", 1, -1, 0},  // the terminator is a valid one-byte character, with no next
      {"a\xC3\xA9" "b", 1, 1, 3},
      {"\xC3\xA9" "A", 1, 2, 2},
      {"\xE2\x82\xAC", 1, 3, 1},
      {"\xF0\x9F\x98\x80\xF0\x9F\x98\x80", 1, 4, 2},
      {"\xC0\x80", 1, 2, 1},        // overlong forms are accepted
      {"\xED\xA0\x80", 1, 3, 1},    // so are encoded surrogates
      {"\xF8\x80\x80\x80", 1, 4, 1},  // 0xF8 counts as a 4-byte lead
      {"\xC3\x41\x42", 0, -1, 2},  // utf8len steps over trail bytes unchecked
      {"\x80", 0, -1, -1},
      {"a\x80", 1, 1, -1},
      {"\xF0\x9F\x41\x80", 0, -1, 1},
      {"ab\xC3", 1, 1, -1},  // last character cut short
      {"\xF0\x9F", 0, -1, -1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(std::string(c.bytes)));
    EXPECT_EQ(utf8isvalidchar(c.bytes), c.valid);
    EXPECT_EQ(utf8nextchar(c.bytes), c.next < 0 ? nullptr : c.bytes + c.next);
    EXPECT_EQ(utf8len(c.bytes), c.len);
  }
}

// The terminator of a cut-short character sits on the last readable byte:
// utf8len must not step over it.
TEST(Utf8, LenNeverReadsPastTheTerminator) {
  for (const char lead : {'\xC3', '\xE2', '\xF0'}) {
    char* s = static_cast<char*>(std::malloc(2));
    s[0] = lead;
    s[1] = 0;
    EXPECT_EQ(utf8len(s), -1);
    std::free(s);
  }
}

TEST(Utf8, StrNCopy) {
  const char* aeb = "a\xC3\xA9" "b";  // a U+00E9 b
  const struct {
    const char *name, *src;
    size_t size;
    const char* copied;  // null: nothing written at all
    size_t result;
  } cases[] = {
      {"size 4 takes a and U+00E9", aeb, 4, "a\xC3\xA9", 3},
      {"size 3 leaves no room behind U+00E9", aeb, 3, "a", 1},
      {"size 1 writes only the terminator", aeb, 1, "", 0},
      {"size 0 writes nothing", aeb, 0, nullptr, 0},
      {"large size copies all", aeb, 100, aeb, 4},
      {"stops before a malformed character", "a\xC3\x41" "b", 100, "a", 1},
      {"stops before a stray continuation byte", "ab\x80" "cd", 100, "ab", 2},
      {"stops before a character cut short", "ab\xE2\x82", 100, "ab", 2},
      {"U+1F600 needs five bytes of room", "\xF0\x9F\x98\x80", 4, "", 0},
      {"U+1F600 fits in five", "\xF0\x9F\x98\x80", 5, "\xF0\x9F\x98\x80", 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    char dst[16];
    std::memset(dst, '#', sizeof dst);
    EXPECT_EQ(utf8strncpy(dst, c.src, c.size), c.result);
    if (c.copied == nullptr) {
      EXPECT_EQ(dst[0], '#');
    } else {
      EXPECT_STREQ(dst, c.copied);
      EXPECT_EQ(dst[std::strlen(c.copied) + 1], '#') << "wrote past the terminator";
    }
  }
  char dst[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(utf8strncpy(dst, nullptr, 4), 0u);
  EXPECT_EQ(utf8strncpy(nullptr, "abc", 4), 0u);
  EXPECT_EQ(dst[0], '#');
}

}  // namespace
