// Every vector version of the text kernels against the plain one, on the
// same inputs: the result, how far input and output got, the bytes written,
// that nothing is written past the output's end (and, for UTF-16 output,
// that what lies past the result stays zero). Inputs: every range of mixed
// texts (so every alignment and every tail), every room size (the stopping
// point decides the wrappers' allocator calls), every malformed sequence and
// lone surrogate at every position across a vector's width, and random texts.
// The kernels are compiled into this test, so that each one is checked on
// this processor, not only the one the library chose.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "text/kernels.h"
#include "text_support.h"

namespace {

using vrk::text::Isa;
using vrk::text::Kernels;
using vrk::text::KernelsFor;
using vrk::text::Transcode;

using Units = std::vector<uint16_t>;
using Bytes = std::vector<uint8_t>;

constexpr uint8_t kCanary = 0xA5;

// One call of a conversion kernel on a copy of [begin, end) of `in` (so that
// a read past it is caught under the sanitizers) with `room` output units.
template <class In, class Out>
struct Run {
  Transcode result;
  size_t consumed;
  std::vector<Out> out;  // the whole output buffer after the call
  size_t produced;
  bool operator==(const Run&) const = default;
};

template <class In, class Out, class Kernel>
Run<In, Out> Convert(Kernel kernel, const std::vector<In>& text, size_t begin, size_t end, size_t room) {
  const std::vector<In> in(text.begin() + ptrdiff_t(begin), text.begin() + ptrdiff_t(end));
  // Zero-filled room, then canaries that must survive.
  std::vector<Out> buffer(room + 64, Out(0));
  std::fill(buffer.begin() + ptrdiff_t(room), buffer.end(), Out(kCanary));
  const In* ip = in.data();
  Out* op = buffer.data();
  const Transcode result = kernel(ip, in.data() + in.size(), op, buffer.data() + room);
  return {result, size_t(ip - in.data()), buffer, size_t(op - buffer.data())};
}

class TextKernel : public testing::TestWithParam<Isa> {
 protected:
  void SetUp() override {
    if (!vrk::text::IsaSupported(GetParam())) {
      GTEST_SKIP() << "this processor has no " << vrk::text::IsaName(GetParam());
    }
  }
  const Kernels& kernels() const { return KernelsFor(GetParam()); }
  static const Kernels& plain() { return KernelsFor(Isa::kPlain); }

  // The kernel and the plain version agree on [begin, end) with `room`.
  void SameUtf16(const Units& text, size_t begin, size_t end, size_t room) const {
    const auto expected = Convert<uint16_t, uint8_t>(plain().utf16_to_utf8, text, begin, end, room);
    const auto actual = Convert<uint16_t, uint8_t>(kernels().utf16_to_utf8, text, begin, end, room);
    // Past what was produced the UTF-8 output holds no defined bytes.
    ASSERT_EQ(actual.result, expected.result) << Where(begin, end, room);
    ASSERT_EQ(actual.consumed, expected.consumed) << Where(begin, end, room);
    ASSERT_EQ(actual.produced, expected.produced) << Where(begin, end, room);
    ASSERT_TRUE(std::equal(actual.out.begin(), actual.out.begin() + ptrdiff_t(actual.produced), expected.out.begin()))
        << Where(begin, end, room);
    ASSERT_TRUE(std::all_of(actual.out.begin() + ptrdiff_t(room), actual.out.end(), [](uint8_t b) { return b == kCanary; }))
        << "written past the room " << Where(begin, end, room);
  }
  void SameUtf8(const Bytes& text, size_t begin, size_t end, size_t room) const {
    const auto expected = Convert<uint8_t, uint16_t>(plain().utf8_to_utf16, text, begin, end, room);
    const auto actual = Convert<uint8_t, uint16_t>(kernels().utf8_to_utf16, text, begin, end, room);
    ASSERT_EQ(actual, expected) << Where(begin, end, room);
  }
  // Every range starting in the first 64 positions, with room to spare;
  // and from a few starts, every room size up to what the whole needs.
  void SameUtf16Everywhere(const Units& text) const {
    for (size_t begin = 0; begin <= std::min<size_t>(64, text.size()); ++begin) {
      for (size_t end = begin; end <= text.size(); ++end) SameUtf16(text, begin, end, 3 * (end - begin) + 1);
    }
    for (const size_t begin : {0, 1, 7}) {
      if (begin > text.size()) continue;
      for (size_t room = 0; room <= 3 * (text.size() - begin) + 1; ++room) SameUtf16(text, begin, text.size(), room);
    }
  }
  void SameUtf8Everywhere(const Bytes& text) const {
    for (size_t begin = 0; begin <= std::min<size_t>(64, text.size()); ++begin) {
      for (size_t end = begin; end <= text.size(); ++end) SameUtf8(text, begin, end, end - begin + 2);
    }
    for (const size_t begin : {0, 1, 7}) {
      if (begin > text.size()) continue;
      for (size_t room = 0; room <= text.size() - begin + 2; ++room) SameUtf8(text, begin, text.size(), room);
    }
  }

  static std::string Where(size_t begin, size_t end, size_t room) {
    return "range [" + std::to_string(begin) + ", " + std::to_string(end) + ") room " + std::to_string(room);
  }
};

// ---- Texts ----

void PutUtf16(char32_t c, Units& out) {
  if (c < 0x10000) return out.push_back(uint16_t(c));
  out.push_back(uint16_t(0xD800 + ((c - 0x10000) >> 10)));
  out.push_back(uint16_t(0xDC00 + ((c - 0x10000) & 0x3FF)));
}

Bytes Utf8Of(const std::u32string& text) {
  std::string s;
  for (const char32_t c : text) vrk::test::PutUtf8(c, s);
  return Bytes(s.begin(), s.end());
}

Units Utf16Of(const std::u32string& text) {
  Units u;
  for (const char32_t c : text) PutUtf16(c, u);
  return u;
}

// Runs of each UTF-8 length and their mixtures, long enough to fill the
// widest blocks several times over.
const std::u32string kMixed =
    U"Scanner reads each FILE and checks " U"\u00E9\u00FC\u00C5\u00DF\u00F1 \u0391\u03B2\u03B3 \u0416\u0436 "
    U"\u4E2D\u6587\u5B57\u7B26\u3042\u3044\u3046\u3048\u304A,\u4E00 \U0001F600\U00010400x\u20AC\u20AC\uFFFF\u0800"
    U"\u07FF\u0080\u007F\u0000end";

// Random scalar values drawn by UTF-8 length, then and again runs of one
// length, so that blocks of every make-up occur.
std::u32string RandomText(std::mt19937& rng, size_t count) {
  std::u32string text;
  uint32_t kind = 0;
  for (size_t i = 0; i < count; ++i) {
    if (rng() % 8 == 0) kind = rng() % 5;  // 4: any length, character by character
    const uint32_t k = kind == 4 ? rng() % 4 : kind;
    char32_t c;
    switch (k) {
      case 0: c = char32_t(rng() % 0x80); break;
      case 1: c = char32_t(0x80 + rng() % (0x800 - 0x80)); break;
      case 2:
        do c = char32_t(0x800 + rng() % (0x10000 - 0x800));
        while (c >= 0xD800 && c <= 0xDFFF);
        break;
      default: c = char32_t(0x10000 + rng() % (0x110000 - 0x10000));
    }
    text += c;
  }
  return text;
}

// ---- UTF-16 to UTF-8 ----

TEST_P(TextKernel, Utf16MixedTextEveryRangeAndRoom) {
  SameUtf16Everywhere(Utf16Of(kMixed));
  SameUtf16Everywhere(Utf16Of(kMixed.substr(0, 35) + kMixed.substr(0, 35) + kMixed));
}

// Lone surrogates, pairs and a high surrogate at the very end, at every
// position of the first 40 units of an ASCII text and of a CJK one (the
// fast paths of both differ).
TEST_P(TextKernel, Utf16SurrogatesAtEveryPosition) {
  const Units kInserts[] = {{0xD800}, {0xDBFF}, {0xDC00}, {0xDFFF}, {0xD83D, 0xDE00}, {0xDE00, 0xD83D}, {0xD800, 0xD800}};
  for (const std::u32string& base : {std::u32string(48, U'a'), std::u32string(48, U'\u4E2D')}) {
    for (const Units& insert : kInserts) {
      for (size_t at = 0; at <= 40; ++at) {
        Units text = Utf16Of(base);
        text.insert(text.begin() + ptrdiff_t(at), insert.begin(), insert.end());
        SCOPED_TRACE(testing::Message() << std::hex << insert[0] << " at " << std::dec << at);
        SameUtf16(text, 0, text.size(), 3 * text.size() + 1);
        SameUtf16(text, 0, at + 1, 3 * text.size() + 1);  // ends with the insert's first unit
        SameUtf16(text, 0, text.size(), 3 * text.size() / 2);
      }
    }
  }
}

// ---- UTF-8 to UTF-16 ----

TEST_P(TextKernel, Utf8MixedTextEveryRangeAndRoom) {
  SameUtf8Everywhere(Utf8Of(kMixed));
  SameUtf8Everywhere(Utf8Of(kMixed.substr(0, 35) + kMixed.substr(0, 35) + kMixed));
}

// Every kind of malformed or unusual sequence, at every position of the
// first 64 bytes of an ASCII, a Latin and a CJK text, cut off at every
// length.
TEST_P(TextKernel, Utf8MalformedAtEveryPosition) {
  const std::vector<Bytes> kSequences = {
      {0x80}, {0xBF},                          // stray continuation bytes
      {0xC3}, {0xE2, 0x82}, {0xF0, 0x9F, 0x98},  // leads cut short by what follows
      {0xC3, 0x41}, {0xE2, 0x41, 0x42}, {0xE2, 0x82, 0x41}, {0xF0, 0x41}, {0xF0, 0x9F, 0x41, 0x42},  // bad continuation
      {0xC0, 0x80}, {0xE0, 0x80, 0x80}, {0xF0, 0x80, 0x80, 0x80}, {0xC1, 0xBF},  // overlong forms
      {0xED, 0xA0, 0x80}, {0xED, 0xBF, 0xBF},                                  // encoded surrogates
      {0xF4, 0x90, 0x80, 0x80}, {0xF5, 0x80, 0x80, 0x80}, {0xFF, 0xBF, 0xBF, 0xBF},  // above U+10FFFF
      {0xF0, 0x9F, 0x98, 0x80}, {0xF4, 0x8F, 0xBF, 0xBF},                    // astral characters
      {0x00}, {0xC3, 0xA9, 0xA9}, {0xEF, 0xBB, 0xBF}};                        // NUL, extra byte, BOM
  const std::u32string kBases[] = {std::u32string(80, U'a'), std::u32string(40, U'\u00E9'),
                                   std::u32string(28, U'\u4E2D')};
  for (const std::u32string& base : kBases) {
    const Bytes base8 = Utf8Of(base);
    for (const Bytes& sequence : kSequences) {
      for (size_t at = 0; at <= 64; ++at) {
        Bytes text = base8;
        text.insert(text.begin() + ptrdiff_t(at), sequence.begin(), sequence.end());
        SCOPED_TRACE(testing::Message() << "sequence " << std::hex << int(sequence[0]) << " at " << std::dec << at);
        for (size_t end = at; end <= std::min(text.size(), at + 40); ++end) SameUtf8(text, 0, end, end + 2);
        SameUtf8(text, 0, text.size(), text.size() / 2);
      }
    }
  }
}

// ---- Random texts, both ways, and random bytes ----

TEST_P(TextKernel, RandomTextsAndBytes) {
  std::mt19937 rng(20261125);
  for (int round = 0; round < 400; ++round) {
    SCOPED_TRACE(round);
    const std::u32string text = RandomText(rng, rng() % 1500);
    const Units units = Utf16Of(text);
    const Bytes bytes = Utf8Of(text);
    SameUtf16(units, 0, units.size(), 3 * units.size() + 1);
    SameUtf8(bytes, 0, bytes.size(), bytes.size() + 2);
    // Lone surrogates and malformed UTF-8: random units and bytes, with
    // high values and continuation bytes frequent.
    Units noise16(rng() % 300);
    for (uint16_t& u : noise16) u = uint16_t(rng() % 3 == 0 ? 0xD800 + rng() % 0x800 : rng() % 0x10000);
    Bytes noise8(rng() % 300);
    for (uint8_t& b : noise8) b = uint8_t(rng() % 3 == 0 ? rng() % 0x80 : 0x80 + rng() % 0x80);
    SameUtf16(noise16, 0, noise16.size(), 3 * noise16.size() + 1);
    SameUtf8(noise8, 0, noise8.size(), noise8.size() + 2);
    SameUtf8(noise8, 0, noise8.size(), rng() % (noise8.size() + 2));
  }
}

// ---- ASCII folding and comparison ----

// Each stopper (a byte that ends a run) at every position of every length up
// to 70, in place and into another buffer, with and without a stop letter.
TEST_P(TextKernel, FoldAsciiEveryStopperPositionAndLength) {
  const uint8_t kStoppers[] = {0x80, 0xC3, 0xFF, 'I', 0x00};
  std::string letters;
  for (int i = 0; i < 80; ++i) letters += char("aZbYIcXdWe09 _-MkK"[i % 18]);
  for (const uint8_t stop : {uint8_t{0x80}, uint8_t{'I'}}) {
    for (size_t n = 0; n <= 70; ++n) {
      for (size_t at = 0; at <= n; ++at) {
        for (const uint8_t stopper : kStoppers) {
          Bytes in(letters.begin(), letters.begin() + ptrdiff_t(n));
          if (at < n) in[at] = stopper;
          SCOPED_TRACE(testing::Message() << "n " << n << " stopper " << int(stopper) << " at " << at);
          Bytes expected_out(n + 16, kCanary), out(n + 16, kCanary);
          const uint32_t expected = plain().fold_ascii(in.data(), expected_out.data(), uint32_t(n), stop);
          ASSERT_EQ(kernels().fold_ascii(in.data(), out.data(), uint32_t(n), stop), expected);
          ASSERT_EQ(out, expected_out);
          Bytes in_place = in;
          ASSERT_EQ(kernels().fold_ascii(in_place.data(), in_place.data(), uint32_t(n), stop), expected);
          ASSERT_TRUE(std::equal(in_place.begin(), in_place.begin() + expected, expected_out.begin()));
          ASSERT_TRUE(std::equal(in_place.begin() + expected, in_place.end(), in.begin() + expected));
        }
      }
    }
  }
}

// Every byte value against every other in one position of otherwise equal
// texts (letters in opposite cases), at every position up to 70.
TEST_P(TextKernel, EqualAsciiEveryDifferenceAndPosition) {
  std::string lower, upper;
  for (int i = 0; i < 72; ++i) {
    lower += char('a' + i % 26);
    upper += char('A' + (i + 0) % 26);
  }
  const Bytes a0(lower.begin(), lower.end()), b0(upper.begin(), upper.end());
  for (const uint8_t stop : {uint8_t{0x80}, uint8_t{'I'}}) {
    for (size_t n : {0, 1, 15, 16, 17, 31, 32, 33, 47, 64, 70}) {
      ASSERT_EQ(kernels().equal_ascii(a0.data(), b0.data(), uint32_t(n), stop),
                plain().equal_ascii(a0.data(), b0.data(), uint32_t(n), stop));
    }
    for (size_t at = 0; at < 70; at += (at < 40 ? 1 : 7)) {
      for (int x = 0; x < 256; ++x) {
        for (const int y : {int('a'), int('A'), int('I'), int('i'), 0x80, 0xC3, x ^ 0x20, x}) {
          Bytes a(a0.begin(), a0.begin() + 70), b(b0.begin(), b0.begin() + 70);
          a[at] = uint8_t(x);
          b[at] = uint8_t(y);
          ASSERT_EQ(kernels().equal_ascii(a.data(), b.data(), 70, stop), plain().equal_ascii(a.data(), b.data(), 70, stop))
              << "at " << at << " bytes " << x << " and " << y << " stop " << int(stop);
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Vector, TextKernel, testing::Values(Isa::kSse2, Isa::kSse41, Isa::kAvx2),
                         [](const testing::TestParamInfo<Isa>& p) {
                           return std::string(p.param == Isa::kSse41 ? "sse41" : vrk::text::IsaName(p.param));
                         });

}  // namespace
