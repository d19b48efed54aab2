// Fuzz target: tables built from fuzzer-chosen patterns, searched over
// fuzzer-chosen data, must give exactly the hits of a straightforward
// reading of the table rules.
//
// Input: byte 0 = number of patterns (low 4 bits, plus 1); then per
// pattern a length byte and that many element bytes, where 0xFE followed by
// a byte is a gap of (byte & 63) and anything else a literal; then one byte
// that shortens the positions searched; the rest is the data (at most 1024
// bytes). Gaps are kept short and few so that backtracking stays bounded.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "search/pattern_builder.h"
#include "tests/search/pattern_reference.h"
#include "vrk_search.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vrk::search::builder;
  if (size < 2) return 0;
  size_t at = 0;
  const int count = (data[at++] & 15) + 1;
  std::vector<Pattern> patterns;
  for (int n = 0; n < count && at < size; ++n) {
    const size_t length = data[at++] % 17;
    Pattern elements;
    int gaps = 0;
    for (size_t i = 0; i < length && at < size; ++i) {
      const uint8_t b = data[at++];
      if (b == 0xFE && at < size) {
        elements.push_back({true, 0, uint8_t(data[at++] & 63)});
        ++gaps;
      } else {
        elements.push_back({false, b, 0});
      }
    }
    if (gaps > 2) continue;
    // Only patterns the layout can express; the rest are refused by design.
    // The readable form goes through the parser, which checks the rest.
    Pattern parsed;
    Filed filed;
    std::string reason;
    if (!ParsePattern(FormatPattern(elements), parsed, reason) || !EncodePattern(parsed, filed, reason)) continue;
    patterns.push_back(std::move(parsed));
  }
  if (at >= size) return 0;
  const uint8_t shorten = data[at++];
  const uint8_t* buffer = data + at;
  const size_t available = size - at > 1024 ? 1024 : size - at;
  if (available < 1) return 0;
  // A private copy, so that reading past it is caught by the sanitizer.
  std::vector<uint8_t> bytes(buffer, buffer + available);
  const int length = int(bytes.size());
  const int positions = length - 1 - (shorten % 4);

  Table table;
  Refusal refusal;
  if (!BuildTable(patterns, table, refusal)) __builtin_trap();  // each pattern was accepted alone
  std::vector<const unsigned char*> items(4096);
  SEARCH_BuscaTblList out{uint32_t(items.size()), 0, items.data()};
  SEARCH_BuscaTbl(0, table.mutable_desc(), bytes.data(), positions, length, &out);
  std::vector<const uint8_t*> expected;
  vrk::test::ReferenceSearch(table.desc(), bytes.data(), positions, length, expected);
  if (expected.size() > items.size()) expected.resize(items.size());
  if (out.count != expected.size()) __builtin_trap();
  for (uint32_t i = 0; i < out.count; ++i) {
    if (items[i] != expected[i]) __builtin_trap();
  }
  return 0;
}
