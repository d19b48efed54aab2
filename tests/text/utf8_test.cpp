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

struct ValidCase {
  const char* name;
  const char* bytes;
  int valid;
};

TEST(Utf8, IsValidChar) {
  const ValidCase cases[] = {
      {"empty string: the NUL is a one-byte character", "", 1},
      {"U+0041 LATIN CAPITAL LETTER A", "A", 1},
      {"U+00E9 LATIN SMALL LETTER E WITH ACUTE", "\xC3\xA9", 1},
      {"overlong U+0000", "\xC0\x80", 1},
      {"encoded surrogate U+D800", "\xED\xA0\x80", 1},
      {"0xF8 counts as a 4-byte lead", "\xF8\x80\x80\x80", 1},
      {"second byte not a continuation", "\xC3\x41", 0},
      {"cut short by the terminator", "\xE2\x82", 0},
      {"lone continuation byte", "\x80", 0},
      {"4-byte lead, third byte bad", "\xF0\x9F\x41\x80", 0},
  };
  for (const ValidCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(utf8isvalidchar(c.bytes), c.valid);
  }
}

TEST(Utf8, NextChar) {
  EXPECT_EQ(utf8nextchar(""), nullptr);
  const char e_acute[] = "\xC3\xA9" "A";  // U+00E9 then U+0041
  EXPECT_EQ(utf8nextchar(e_acute), e_acute + 2);
  EXPECT_EQ(utf8nextchar("\xC3" "A"), nullptr);
  EXPECT_EQ(utf8nextchar("\x80"), nullptr);
  const char euro[] = "\xE2\x82\xAC";  // U+20AC EURO SIGN
  EXPECT_EQ(utf8nextchar(euro), euro + 3);
}

struct LenCase {
  const char* name;
  const char* bytes;
  int length;
};

TEST(Utf8, Len) {
  const LenCase cases[] = {
      {"empty", "", 0},
      {"a U+00E9 b", "a\xC3\xA9" "b", 3},
      {"stray continuation byte", "a\x80", -1},
      {"trail bytes are stepped over unchecked", "\xC3\x41\x42", 2},
      {"2-byte lead cut short", "ab\xC3", -1},
      {"4-byte lead cut short after two bytes", "\xF0\x9F", -1},
      {"U+1F600 twice", "\xF0\x9F\x98\x80\xF0\x9F\x98\x80", 2},
  };
  for (const LenCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(utf8len(c.bytes), c.length);
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

struct CopyCase {
  const char* name;
  const char* src;
  size_t size;
  const char* copied;  // null: nothing written at all
  size_t result;
};

TEST(Utf8, StrNCopy) {
  const char* aeb = "a\xC3\xA9" "b";  // a U+00E9 b
  const CopyCase cases[] = {
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
  for (const CopyCase& c : cases) {
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
