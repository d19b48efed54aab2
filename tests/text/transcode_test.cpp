// UTF-16 <-> UTF-8 transcoders: the lenient rules case by case, lone
// surrogates at every index, random text against an encoder written in the
// tests, and the exact allocator calls, refusals included.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "text_support.h"
#include "vrk_standin_ctl.h"
#include "vrk_text.h"

namespace {

using Units = std::vector<uint16_t>;
using Bytes = std::string;

using vrk::test::PutUtf8;

void PutUtf16(char32_t c, Units& out) {
  if (c < 0x10000) return out.push_back(uint16_t(c));
  out.push_back(uint16_t(0xD800 + ((c - 0x10000) >> 10)));
  out.push_back(uint16_t(0xDC00 + ((c - 0x10000) & 0x3FF)));
}

// ---- Calls through the library, results copied out and released ----

template <typename T>
struct Result {
  bool ok;
  T data;
  int outlen;
};

// The result copied out and released; it must be terminated.
template <typename T, typename Unit, typename Convert>
Result<T> Call(Convert convert, const Unit* src, int len) {
  int outlen = -12345;
  auto* r = convert(src, len, &outlen);
  Result<T> result{r != nullptr, {}, outlen};
  if (r != nullptr) {
    result.data.assign(r, r + outlen);
    EXPECT_EQ(r[outlen], 0) << "result not terminated";
    char* block = reinterpret_cast<char*>(r);
    charconv_FreeBuffer(&block);
  }
  return result;
}
Result<Bytes> ToUtf8(const uint16_t* src, int len) { return Call<Bytes>(charconv_UTF16ToUTF8, src, len); }
Result<Bytes> ToUtf8(const Units& u) { return ToUtf8(u.data(), int(u.size())); }
Result<Units> ToUtf16(const char* src, int len) { return Call<Units>(charconv_UTF8ToUTF16, src, len); }
Result<Units> ToUtf16(const Bytes& b) { return ToUtf16(b.data(), int(b.size())); }

// ---- UTF-16 to UTF-8 ----

// Lone surrogates one at a time are covered below, at every index.
TEST(Utf16ToUtf8, Cases) {
  const struct {
    const char* name;
    Units units;
    Bytes bytes;
  } kCases[] = {
      // A, U+00E9, U+20AC, U+1F600 as a pair; a byte-order mark is an ordinary character.
      {"one character of each length", {0x0041, 0x00E9, 0x20AC, 0xD83D, 0xDE00, 0xFEFF},
       "\x41\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xEF\xBB\xBF"},
      {"two high surrogates, the second paired", {0xD800, 0xD83D, 0xDE00}, "\xED\xA0\x80\xF0\x9F\x98\x80"},
      {"low before high is two lone surrogates", {0xDC00, 0xD800, 0x0041}, "\xED\xB0\x80\xED\xA0\x80\x41"},
      {"embedded 0 unit counts", {0x0041, 0x0000, 0x0042}, Bytes("A\0B", 3)},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const Result<Bytes> r = ToUtf8(c.units);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.data, c.bytes);
    EXPECT_EQ(r.outlen, int(c.bytes.size()));
  }
}

// Every lone surrogate, at every position of a short mixed text: low ones
// anywhere and high ones before a non-surrogate come out as their 3-byte
// forms (and go back unchanged); a high one in last place fails.
TEST(Utf16ToUtf8, EveryLoneSurrogateAtEveryIndex) {
  const Units base = {0x0041, 0x00E9, 0x20AC, 0x0042, 0x4E2D};  // A, E ACUTE, EURO, B, CJK U+4E2D
  for (char32_t s = 0xD800; s <= 0xDFFF; ++s) {
    for (size_t at = 0; at <= base.size(); ++at) {
      Units units = base;
      units.insert(units.begin() + at, uint16_t(s));
      const bool high_last = s <= 0xDBFF && at == base.size();
      Bytes expected;
      for (const uint16_t u : units) PutUtf8(u, expected);
      const Result<Bytes> r = ToUtf8(units);
      ASSERT_EQ(r.ok, !high_last) << std::hex << unsigned(s) << " at " << at;
      if (high_last) {
        EXPECT_EQ(r.outlen, 0);
        continue;
      }
      ASSERT_EQ(r.data, expected) << std::hex << unsigned(s) << " at " << at;
      ASSERT_EQ(ToUtf16(r.data).data, units) << std::hex << unsigned(s) << " at " << at;
    }
  }
}

// ---- UTF-8 to UTF-16 ----

// Valid text of every length is covered by the random round trips.
TEST(Utf8ToUtf16, Cases) {
  const struct {
    const char* name;
    Bytes bytes;
    Units units;
  } kCases[] = {
      {"stray continuation byte skipped", "\x41\x80\x42", {0x0041, 0x0042}},
      {"bad second byte: resume at it", "\xC3\x41", {0x0041}},
      {"bad 3-byte sequence: resume at its last byte", "\xE2\x41\x42", {0x0042}},
      {"bad 4-byte sequence: resume at its last byte", "\xF0\x9F\x41\x42\x43", {0x0042, 0x0043}},
      {"incomplete 4-byte tail dropped", "\x41\xF0\x9F\x98", {0x0041}},
      {"overlong U+0000 accepted", Bytes("\xC0\x80", 2), {0x0000}},
      {"encoded surrogate passes through", "\xED\xA0\x80", {0xD800}},
      {"reading resumes right behind a dropped value", "\xF4\x90\x80\x80" "ABC", {'A', 'B', 'C'}},
      {"0xFF lead dropped, then resume", "\xFF\xBF\xBF\xBF" "AB", {'A', 'B'}},
      {"embedded 0 byte converted", Bytes("A\0B", 3), {'A', 0, 'B'}},
      {"0 byte inside a sequence: resume at it", Bytes("\xC3\0" "A", 3), {0, 'A'}},
      {"byte-order mark kept", "\xEF\xBB\xBF" "A", {0xFEFF, 'A'}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const Result<Units> r = ToUtf16(c.bytes);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.data, c.units);
    EXPECT_EQ(r.outlen, int(c.units.size()));
  }
}

TEST(Transcode, LengthsNullAndEmptyInput) {
  const uint16_t abc16[] = {'a', 'b', 'c', 0, 'd'};
  EXPECT_EQ(ToUtf8(abc16, -1).data, "abc");
  EXPECT_EQ(ToUtf8(abc16, 5).data, Bytes("abc\0d", 5));
  EXPECT_EQ(ToUtf16("abc\0d", -1).data, (Units{'a', 'b', 'c'}));
  EXPECT_EQ(ToUtf16("abc\0d", 5).data, (Units{'a', 'b', 'c', 0, 'd'}));
  EXPECT_EQ(ToUtf16("abcdef", 2).data, (Units{'a', 'b'}));
  const uint16_t empty16[] = {0, 'x'};
  EXPECT_TRUE(ToUtf8(empty16, -1).ok && ToUtf8(empty16, -1).outlen == 0);
  // Lengths below -1 count as 0: an empty result, never a huge size.
  for (const int len : {0, -2, -100000}) {
    SCOPED_TRACE(len);
    const Result<Bytes> r8 = ToUtf8(abc16, len);
    const Result<Units> r16 = ToUtf16("abc", len);
    EXPECT_TRUE(r8.ok && r8.data.empty() && r8.outlen == 0);
    EXPECT_TRUE(r16.ok && r16.data.empty() && r16.outlen == 0);
  }
  int outlen = 7;
  EXPECT_EQ(charconv_UTF16ToUTF8(nullptr, 3, &outlen), nullptr);
  EXPECT_EQ(outlen, 0);
  outlen = 7;
  EXPECT_EQ(charconv_UTF8ToUTF16(nullptr, 3, &outlen), nullptr);
  EXPECT_EQ(outlen, 0);
  char* r = charconv_UTF16ToUTF8(abc16, 3, nullptr);  // outlen is optional
  EXPECT_STREQ(r, "abc");
  charconv_FreeBuffer(&r);
}

// ---- Round trips of random valid text ----

// Random scalar values drawn by UTF-8 length, so that every length is well
// represented whatever the sizes of the ranges.
char32_t RandomScalar(std::mt19937& rng) {
  switch (rng() % 4) {
    case 0: return char32_t(rng() % 0x80);
    case 1: return char32_t(0x80 + rng() % (0x800 - 0x80));
    case 2: {
      char32_t c;
      do c = char32_t(0x800 + rng() % (0x10000 - 0x800));
      while (c >= 0xD800 && c <= 0xDFFF);
      return c;
    }
    default: return char32_t(0x10000 + rng() % (0x110000 - 0x10000));
  }
}

TEST(Transcode, RandomRoundTripsAgainstReference) {
  std::mt19937 rng(20261122);
  for (int round = 0; round < 300; ++round) {
    const size_t count = rng() % 3000;  // crosses both initial capacities
    Units units;
    Bytes bytes;
    for (size_t i = 0; i < count; ++i) {
      const char32_t c = RandomScalar(rng);
      PutUtf16(c, units);
      PutUtf8(c, bytes);
    }
    SCOPED_TRACE(round);
    const Result<Bytes> to8 = ToUtf8(units);
    ASSERT_TRUE(to8.ok);
    ASSERT_EQ(to8.data, bytes);
    const Result<Units> to16 = ToUtf16(bytes);
    ASSERT_TRUE(to16.ok);
    ASSERT_EQ(to16.data, units);
  }
}

// ---- Allocation pattern ----

TEST(TranscodeAlloc, Patterns) {
  const Units abc = {'a', 'b', 'c'};
  vrk::test::StartTrace();
  EXPECT_EQ(ToUtf8(abc).data, "abc");
  EXPECT_EQ(vrk::test::Trace(), "Pmalloc(2048,0) Prealloc(4) Pfree ");

  // 3000 units of U+20AC EURO SIGN: one byte per unit up front, then steps
  // of 750 until 3 bytes fit with one to spare, then the exact shrink.
  const Units euros(3000, 0x20AC);
  vrk::test::StartTrace();
  const Result<Bytes> r = ToUtf8(euros);
  EXPECT_EQ(r.outlen, 9000);
  EXPECT_EQ(vrk::test::Trace(),
            "Pmalloc(3000,0) Prealloc(3750) Prealloc(4500) Prealloc(5250) Prealloc(6000) Prealloc(6750) "
            "Prealloc(7500) Prealloc(8250) Prealloc(9000) Prealloc(9750) Prealloc(9001) Pfree ");

  // 681 euro signs and two U+00E9 make 2047 bytes: with the terminator
  // they fill the 2048-byte start exactly, so there is no shrink.
  Units fill(681, 0x20AC);
  fill.insert(fill.end(), {0xE9, 0xE9});
  vrk::test::StartTrace();
  EXPECT_EQ(ToUtf8(fill).outlen, 2047);
  EXPECT_EQ(vrk::test::Trace(), "Pmalloc(2048,0) Pfree ");

  // Above 1023 units the start is one byte per unit.
  vrk::test::StartTrace();
  EXPECT_EQ(ToUtf8(Units(2000, 'x')).outlen, 2000);
  EXPECT_EQ(vrk::test::Trace(), "Pmalloc(2000,0) Prealloc(2500) Prealloc(2001) Pfree ");

  vrk::test::StartTrace();
  EXPECT_EQ(ToUtf8(abc.data(), 0).outlen, 0);
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(1,1,0) Pfree ");


  vrk::test::StartTrace();
  EXPECT_EQ(ToUtf16("abc").outlen, 3);
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(512,1,0) Prealloc(16) Pfree ");

  // 200 ASCII bytes: 800 bytes up front; the room check at the last
  // character (199 * 4 + 4 is not below 800) grows by another 800, and the
  // shrink keeps 4 bytes per unit.
  vrk::test::StartTrace();
  EXPECT_EQ(ToUtf16(Bytes(200, 'x')).outlen, 200);
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(800,1,0) Prealloc(1600) Prealloc(804) Pfree ");

  vrk::test::StartTrace();
  EXPECT_EQ(ToUtf16("", 0).outlen, 0);
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(2,1,0) Pfree ");
}

TEST(TranscodeAlloc, RefusedAllocations) {
  const Units euros(3000, 0x20AC);
  int outlen = 77;

  vrkalloc_fail_nth(1);  // the first buffer
  EXPECT_EQ(charconv_UTF16ToUTF8(euros.data(), 3000, &outlen), nullptr);
  EXPECT_EQ(outlen, 0);

  outlen = 77;
  vrk::test::StartTrace();
  vrkalloc_fail_nth(2);  // the first growth: *outlen is left alone
  EXPECT_EQ(charconv_UTF16ToUTF8(euros.data(), 3000, &outlen), nullptr);
  EXPECT_EQ(outlen, 77);
  EXPECT_EQ(vrk::test::Trace(), "Pmalloc(3000,0) Prealloc(3750)! Pfree ");

  vrkalloc_fail_nth(11);  // the final shrink: the larger buffer serves
  EXPECT_EQ(ToUtf8(euros).outlen, 9000);

  const Bytes ascii(200, 'x');
  outlen = 77;
  vrkalloc_fail_nth(1);
  EXPECT_EQ(charconv_UTF8ToUTF16(ascii.data(), 200, &outlen), nullptr);
  EXPECT_EQ(outlen, 0);

  outlen = 77;
  vrk::test::StartTrace();
  vrkalloc_fail_nth(2);
  EXPECT_EQ(charconv_UTF8ToUTF16(ascii.data(), 200, &outlen), nullptr);
  EXPECT_EQ(outlen, 77);
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(800,1,0) Prealloc(1600)! PSafeFree ");

  vrkalloc_fail_nth(3);
  EXPECT_EQ(ToUtf16(ascii).data, Units(200, 'x'));

  vrkalloc_fail_all(1);
  EXPECT_EQ(charconv_UTF16ToUTF8(euros.data(), 0, &outlen), nullptr);
  EXPECT_EQ(charconv_UTF8ToUTF16("", 0, &outlen), nullptr);
  vrkalloc_fail_all(0);
}

}  // namespace
