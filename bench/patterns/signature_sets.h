// Signature sets and data like the ones scanners meet, for the pattern
// benchmark: the same rules as bench/scan/make_corpus.py.
//
// Patterns: 8 to 24 literal bytes of any value; a third with one or two
// gaps of up to 254 bytes, a quarter of those right after the first byte
// (filed under that byte's gap key); optionally a share opening with bytes
// common in files (zeros, 0xFF runs, instruction prologues, text).
//
// Data: text, uniformly random bytes, zero-heavy blocks and executable-like
// code, in pieces of 4 to 256 KiB.
#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "search/pattern_builder.h"

namespace vrk::bench {

using Bytes = std::vector<uint8_t>;
namespace builder = vrk::search::builder;

struct SetShape {
  int patterns = 5000;
  bool gap_keys = true;        // some gaps right after the first byte
  double common_opening = 0;   // share of patterns that open with common bytes
};

inline const std::vector<Bytes>& CommonOpenings() {
  static const std::vector<Bytes> kOpenings = {
      {0x00, 0x00}, {0x00, 0x00, 0x00, 0x00}, {0xFF, 0xFF}, {0xFF, 0xFF, 0xFF, 0xFF}, {0x55, 0x8B, 0xEC},
      {0x4D, 0x5A, 0x90, 0x00}, {0x8B, 0x45, 0x08}, {0x89, 0x45, 0xFC}, {0xE8, 0x00, 0x00, 0x00},
      {0x20, 0x20}, {0x74, 0x68, 0x65, 0x20}, {0x0D, 0x0A}};
  return kOpenings;
}

// One pattern of the set, in elements.
inline builder::Pattern RandomSignature(std::mt19937& rng, const SetShape& shape) {
  const int n = 8 + int(rng() % 17);
  Bytes lits(static_cast<size_t>(n));
  for (uint8_t& b : lits) b = uint8_t(rng());
  if (shape.common_opening > 0 && double(rng() % 1000000) < shape.common_opening * 1e6) {
    const Bytes& opening = CommonOpenings()[rng() % CommonOpenings().size()];
    std::copy(opening.begin(), opening.end(), lits.begin());
  }
  // A second byte 0xDD can only be filed under the gap key: not in sets
  // without gap keys.
  if (!shape.gap_keys && lits[1] == SEARCH_BUSCATBL_CODE_GAP) lits[1] = uint8_t(rng() % 0xDD);
  // Where gaps go: before literal i (i >= 1). A gap after the first byte
  // files the pattern under that byte's gap key.
  std::vector<int> cuts;
  if (rng() % 3 == 0) {
    const int gaps = 1 + int(rng() % 2);
    for (int g = 0; g < gaps; ++g) {
      const int at = (g == 0 && shape.gap_keys && rng() % 4 == 0) ? 1 : 2 + int(rng() % uint32_t(n - 3));
      if (std::find(cuts.begin(), cuts.end(), at) == cuts.end()) cuts.push_back(at);
    }
  }
  builder::Pattern e;
  for (int i = 0; i < n; ++i) {
    if (std::find(cuts.begin(), cuts.end(), i) != cuts.end()) {
      const uint32_t skip = rng() % 2 ? rng() % 17 : 17 + rng() % (builder::kMaxSkip - 16);
      e.push_back({true, 0, uint8_t(skip)});
    }
    e.push_back({false, lits[size_t(i)], 0});
  }
  return e;
}

// The same meaning in a form the builder accepts: a literal 0xDD or 0xDF
// that only a program could hold becomes "{0-0} XX", and so does a second
// byte 0xDD (which would otherwise make the key a gap key).
inline builder::Pattern Expressible(const builder::Pattern& e) {
  builder::Pattern out;
  bool in_head = true;  // literals right after the key, before any gap
  for (size_t i = 0; i < e.size(); ++i) {
    const builder::Element& x = e[i];
    if (x.gap) in_head = false;
    const bool code = !x.gap && (x.byte == SEARCH_BUSCATBL_CODE_GAP || x.byte == SEARCH_BUSCATBL_CODE_END);
    const bool after_gap = i > 0 && e[i - 1].gap;
    if (code && !after_gap &&
        ((i == 1 && x.byte == SEARCH_BUSCATBL_CODE_GAP) || (i >= 2 && (!in_head || i - 2 >= 255)))) {
      out.push_back({true, 0, 0});
      in_head = false;
    }
    out.push_back(x);
  }
  return out;
}

inline std::vector<builder::Pattern> SignatureSet(const SetShape& shape, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<builder::Pattern> out;
  out.reserve(size_t(shape.patterns));
  while (int(out.size()) < shape.patterns) out.push_back(Expressible(RandomSignature(rng, shape)));
  return out;
}

// ---- data ----

inline void AppendText(std::mt19937& rng, Bytes& out, size_t n) {
  static const char* kWords[] = {"the ",   "scan ",  "file ",   "value ",  "return ", "int ",    "data ",
                                 "buffer ", "error ", "config ", "user ",   "table\n", "{ ",      "} ",
                                 "= ",     "0x10;\n", "if (x) ", "while ",  "<div>",   "</div>\n", "http://"};
  const size_t end = out.size() + n;
  while (out.size() < end) {
    const char* w = kWords[rng() % std::size(kWords)];
    while (*w && out.size() < end) out.push_back(uint8_t(*w++));
  }
}

inline void AppendRandom(std::mt19937& rng, Bytes& out, size_t n) {
  for (size_t i = 0; i < n; ++i) out.push_back(uint8_t(rng()));
}

// Mostly zeros: sparse words and short runs of other bytes.
inline void AppendZeroHeavy(std::mt19937& rng, Bytes& out, size_t n) {
  const size_t end = out.size() + n;
  while (out.size() < end) {
    const size_t zeros = std::min<size_t>(end - out.size(), 16 + rng() % 512);
    out.insert(out.end(), zeros, 0);
    for (uint32_t i = 0, k = rng() % 8; i < k && out.size() < end; ++i) out.push_back(uint8_t(rng() % 4 ? rng() : 0xFF));
  }
}

// Code-like bytes: common i386 instructions with random operands, zero
// padding between functions and ASCII names.
inline void AppendCode(std::mt19937& rng, Bytes& out, size_t n) {
  static const Bytes kInstr[] = {{0x55, 0x8B, 0xEC},       {0x8B, 0x45, 0x08}, {0x89, 0x45, 0xFC}, {0x83, 0xEC},
                                 {0x8B, 0xFF, 0x55, 0x8B}, {0x5D, 0xC3},       {0xC3},             {0x50},
                                 {0x51},                   {0xE8},             {0xFF, 0x15},       {0x74},
                                 {0x75},                   {0x85, 0xC0},       {0x33, 0xC0},       {0x8D, 0x45},
                                 {0x6A, 0x00},             {0x83, 0xC4, 0x04}, {0x8B, 0x4D},       {0xC7, 0x45}};
  const size_t end = out.size() + n;
  while (out.size() < end) {
    const uint32_t kind = rng() % 40;
    if (kind == 0) {
      out.insert(out.end(), std::min<size_t>(end - out.size(), 4 + rng() % 28), uint8_t(rng() % 2 ? 0x00 : 0xCC));
    } else if (kind == 1) {
      AppendText(rng, out, std::min<size_t>(end - out.size(), 6 + rng() % 20));
      if (out.size() < end) out.push_back(0);
    } else {
      const Bytes& ins = kInstr[rng() % std::size(kInstr)];
      for (uint8_t b : ins) out.push_back(b);
      for (uint32_t i = 0, k = rng() % 5; i < k; ++i) out.push_back(uint8_t(rng() % 3 ? rng() % 16 : rng()));
    }
  }
  out.resize(end);
}

enum class DataKind { kMixed, kRandom, kText, kZeroHeavy, kCode };

inline Bytes MakeData(DataKind kind, size_t size, uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes out;
  out.reserve(size + 64);
  while (out.size() < size) {
    const size_t piece = std::min<size_t>(size - out.size(), 4096 + rng() % (252u << 10));
    DataKind k = kind;
    if (k == DataKind::kMixed) k = DataKind(1 + rng() % 4);
    switch (k) {
      case DataKind::kRandom: AppendRandom(rng, out, piece); break;
      case DataKind::kText: AppendText(rng, out, piece); break;
      case DataKind::kZeroHeavy: AppendZeroHeavy(rng, out, piece); break;
      default: AppendCode(rng, out, piece); break;
    }
  }
  out.resize(size);
  return out;
}

}  // namespace vrk::bench
