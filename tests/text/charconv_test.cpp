// Conversion through iconv: the handle, whole-buffer conversion with its
// fixed buffer sizing, appending to UTF-8, names from the code-page
// registry, and refused allocations at each step.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/codepage_rows.h"
#include "text_support.h"
#include "vrk_standin_ctl.h"
#include "vrk_text.h"

namespace {

struct Converted {
  int status;
  std::string bytes;
  size_t outlen;
};

Converted Convert(const char* from, const char* to, const std::string& in) {
  char* out = nullptr;
  size_t outlen = 12345;
  const int status = charconv_convert(from, to, in.data(), in.size(), &out, &outlen);
  Converted c{status, {}, outlen};
  if (status == 0) {
    EXPECT_NE(out, nullptr);
    c.bytes.assign(out, outlen);
    EXPECT_EQ(out[outlen], 0) << "result not terminated";
    charconv_FreeBuffer(&out);
  } else {
    EXPECT_EQ(out, nullptr);
  }
  return c;
}

// A charconv step hands iconv's answer and errno back unchanged.
TEST(CharconvHandle, ConvertsAndPassesIconvErrorsThrough) {
  const struct {
    const char *to, *from, *in, *out;
    size_t result, consumed;
    int err;
  } kCases[] = {
      {"utf-8", "iso-8859-1", "caf\xE9", "caf\xC3\xA9", 0, 4, 0},
      {"iso-8859-1", "utf-8", "a\xE2\x82\xAC", "a", size_t(-1), 1, EILSEQ},  // no Latin-1 euro sign
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.in);
    charconv_t* conv = charconv_open(c.to, c.from);
    ASSERT_NE(conv, nullptr);
    char in[8], out[16] = {};
    std::strcpy(in, c.in);
    char *inp = in, *outp = out;
    size_t inleft = std::strlen(in), outleft = sizeof out;
    errno = 0;
    EXPECT_EQ(charconv(conv, &inp, &inleft, &outp, &outleft), c.result);
    EXPECT_EQ(errno, c.err);
    EXPECT_EQ(inp, in + c.consumed);
    EXPECT_STREQ(out, c.out);
    EXPECT_EQ(charconv_close(conv), 0);
  }
  EXPECT_EQ(charconv_open("no-such-charset", "utf-8"), nullptr);
  EXPECT_EQ(charconv_close(nullptr), 0);
  vrk::test::StartTrace();
  EXPECT_EQ(charconv_open("utf-8", "no-such-charset"), nullptr);
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(1,4,0) Pfree ");
  vrkalloc_fail_nth(1);
  EXPECT_EQ(charconv_open("utf-8", "utf-16le"), nullptr);
}

TEST(CharconvConvert, Cases) {
  const struct {
    const char *name, *from, *to;
    std::string in, out;
  } kCases[] = {
      {"Latin-1 to UTF-8", "iso-8859-1", "utf-8", "caf\xE9", "caf\xC3\xA9"},
      {"UTF-8 to UTF-16LE", "utf-8", "utf-16le", "A\xC3\xA9", std::string("A\0\xE9\0", 4)},
      {"windows-1252 euro sign", "windows-1252", "utf-8", "\x80", "\xE2\x82\xAC"},
      {"empty input", "utf-8", "iso-8859-1", "", ""},
      {"embedded NUL is kept", "iso-8859-1", "utf-8", std::string("a\0b", 3), std::string("a\0b", 3)},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const Converted r = Convert(c.from, c.to, c.in);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.bytes, c.out);
    EXPECT_EQ(r.outlen, c.out.size());
  }
}

TEST(CharconvConvert, Failures) {
  // Unknown names, an invalid sequence, input ending inside a sequence.
  EXPECT_EQ(Convert("no-such-charset", "utf-8", "abc").status, 1);
  EXPECT_EQ(Convert("utf-8", "no-such-charset", "abc").status, 1);
  for (const char* bad : {"a\xC3\x41", "a\xE2\x82"}) EXPECT_EQ(Convert("utf-8", "utf-16le", bad).status, 1);

  EXPECT_EQ(charconv_convert("utf-8", "utf-8", "a", 1, nullptr, nullptr), 1);
  char preset[] = "mine";
  char* out = preset;
  vrk::test::StartTrace();
  EXPECT_EQ(charconv_convert("utf-8", "utf-8", "a", 1, &out, nullptr), 1);
  EXPECT_EQ(out, preset);
  EXPECT_EQ(vrk::test::Trace(), "");  // nothing allocated
  // outlen is optional on success.
  out = nullptr;
  ASSERT_EQ(charconv_convert("iso-8859-1", "utf-8", "\xE9", 1, &out, nullptr), 0);
  EXPECT_STREQ(out, "\xC3\xA9");
  charconv_FreeBuffer(&out);
}

// Characters without a counterpart are accepted when iconv transliterates
// them and counts them as irreversible.
TEST(CharconvConvert, IrreversibleConversionsAreAccepted) {
  const Converted r = Convert("utf-8", "ascii//TRANSLIT", "a\xE2\x82\xAC" "b");  // a, U+20AC EURO SIGN, b
  ASSERT_EQ(r.status, 0);
  EXPECT_TRUE(r.bytes.front() == 'a' && r.bytes.back() == 'b') << r.bytes;
}

TEST(CharconvConvert, AllocationPattern) {
  // Any output at all grows the buffer once more before the empty call that
  // ends the loop; the result is shrunk to its exact size.
  vrk::test::StartTrace();
  EXPECT_EQ(Convert("iso-8859-1", "utf-8", "abc").bytes, "abc");
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(8192,1,0) Pcalloc(1,4,0) Prealloc(12288) Pfree Prealloc(4) Pfree ");

  vrk::test::StartTrace();
  EXPECT_EQ(Convert("iso-8859-1", "utf-8", "").outlen, 0u);
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(8192,1,0) Pcalloc(1,4,0) Pfree Prealloc(1) Pfree ");

  // 20000 bytes of 0xE9 make 40000: 8192 grows by 4096 until iconv has
  // room for all of it, once more after the last output, then the shrink.
  const std::string latin(20000, '\xE9');
  vrk::test::StartTrace();
  const Converted r = Convert("latin1", "utf-8", latin);
  EXPECT_EQ(r.outlen, 40000u);
  std::string expected = "Pcalloc(8192,1,0) Pcalloc(1,4,0) ";
  for (uint32_t capacity = 8192 + 4096; capacity <= 40960 + 4096; capacity += 4096) {
    expected += "Prealloc(" + std::to_string(capacity) + ") ";
  }
  expected += "Pfree Prealloc(40001) Pfree ";
  EXPECT_EQ(vrk::test::Trace(), expected);
  for (size_t i = 0; i < r.bytes.size(); i += 2) {
    ASSERT_EQ(r.bytes.compare(i, 2, "\xC3\xA9"), 0) << i;
  }
}

TEST(CharconvConvert, EveryRefusedAllocationFailsCleanly) {
  const std::string latin(20000, '\xE9');
  // Buffer, handle, 9 growths and the shrink: each refusal fails the call
  // and leaves nothing allocated (the leak check verifies).
  for (uint32_t n = 1; n <= 12; ++n) {
    SCOPED_TRACE(n);
    vrkalloc_fail_nth(n);
    EXPECT_EQ(Convert("latin1", "utf-8", latin).status, 1);
  }
  vrkalloc_fail_nth(13);  // past the last request: succeeds
  EXPECT_EQ(Convert("latin1", "utf-8", latin).status, 0);

  vrk::test::StartTrace();
  vrkalloc_fail_nth(3);
  EXPECT_EQ(Convert("latin1", "utf-8", "abc").status, 1);
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(8192,1,0) Pcalloc(1,4,0) Prealloc(12288)! Pfree Pfree ");
  vrk::test::StartTrace();
  vrkalloc_fail_nth(2);
  EXPECT_EQ(Convert("latin1", "utf-8", "abc").status, 1);
  EXPECT_EQ(vrk::test::Trace(), "Pcalloc(8192,1,0) Pcalloc(1,4,0)! Pfree ");
}

TEST(CharconvToUtf8, Appends) {
  // The appended text ends at the first NUL it converts to.
  const std::string kSteps[][2] = {
      {"abc", "abc"}, {"def", "abcdef"}, {"\xE9", "abcdef\xC3\xA9"}, {std::string("x\0y", 3), "abcdef\xC3\xA9x"}};
  char* text = nullptr;
  for (const auto& [in, want] : kSteps) {
    ASSERT_EQ(charconv_ToUTF8("iso-8859-1", in.data(), in.size(), &text), 0);
    EXPECT_STREQ(text, want.c_str());
  }
  charconv_FreeBuffer(&text);
  EXPECT_EQ(text, nullptr);
  charconv_FreeBuffer(&text);  // null block and null pointer: no-ops
  charconv_FreeBuffer(nullptr);
}

TEST(CharconvToUtf8, FailuresLeaveTextAlone) {
  char* text = nullptr;
  ASSERT_EQ(charconv_ToUTF8("iso-8859-1", "abc", 3, &text), 0);
  char* const before = text;
  EXPECT_EQ(charconv_ToUTF8("no-such-charset", "def", 3, &text), 1);
  EXPECT_EQ(charconv_ToUTF8("utf-8", "\xC3\x41", 2, &text), 1);
  EXPECT_EQ(text, before);
  // Refusing each request in turn: conversion buffer, handle, growth,
  // shrink, then the joined string.
  for (uint32_t n = 1; n <= 5; ++n) {
    SCOPED_TRACE(n);
    vrkalloc_fail_nth(n);
    EXPECT_EQ(charconv_ToUTF8("iso-8859-1", "def", 3, &text), 1);
    EXPECT_EQ(text, before);
    EXPECT_STREQ(text, "abc");
  }
  vrk::test::StartTrace();
  ASSERT_EQ(charconv_ToUTF8("iso-8859-1", "def", 3, &text), 0);
  EXPECT_EQ(vrk::test::Trace(),
            "Pcalloc(8192,1,0) Pcalloc(1,4,0) Prealloc(12288) Pfree Prealloc(4) Pcalloc(7,1,0) Pfree Pfree ");
  charconv_FreeBuffer(&text);
}

// Names taken from the code-page registry go to iconv unchanged. Whichever
// of them the platform knows must carry capitals and digits there and back
// (the text ends in a newline: a decoder that holds a letter back in case an
// accent follows it would keep the last one, since nothing is flushed). The
// common ones must be among them.
TEST(CharconvRegistry, NamesFromTheRegistry) {
  int known = 0;
  for (const vrk::test::CodePageRow& row : vrk::test::kCodePageRows) {
    charconv_t* conv = charconv_open(row.name, "utf-8");
    if (conv == nullptr) continue;
    EXPECT_EQ(charconv_close(conv), 0);
    ++known;
    SCOPED_TRACE(row.name);
    const Converted there = Convert("utf-8", row.name, "AZ09\n");
    ASSERT_EQ(there.status, 0);
    const Converted back = Convert(row.name, "utf-8", there.bytes);
    ASSERT_EQ(back.status, 0);
    EXPECT_EQ(back.bytes, "AZ09\n");
  }
  EXPECT_GE(known, 200);
  for (const int32_t codepage : {28591, 20866, 65001, 1201, 437, 932, 936, 950, 37}) {
    const char* name = charconv_GetCPName(codepage);
    ASSERT_NE(name, nullptr);
    charconv_t* conv = charconv_open("utf-8", name);
    EXPECT_NE(conv, nullptr) << name;
    EXPECT_EQ(charconv_close(conv), 0);
  }
}

}  // namespace
