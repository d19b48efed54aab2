// Straightforward readings of pattern search tables, for comparison with
// the library: the table rules taken word for word, and the meaning of the
// readable patterns the builder was given.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "search/pattern_builder.h"
#include "vrk_search.h"

namespace vrk::test {

// The program rule: gap candidates farthest first, recursion per candidate.
inline bool ReferenceTail(const uint8_t* d, const uint8_t* prog, int64_t remaining) {
  for (;;) {
    if (*prog == 0xDD) {
      const int64_t m = remaining < prog[1] ? remaining : prog[1];
      if (m == 0) return false;
      for (int64_t s = m - 1; s >= 0; --s) {
        if (d[s] == prog[2] && ReferenceTail(d + s + 1, prog + 3, remaining - s - 1)) return true;
      }
      return false;
    }
    if (*prog == 0xDF) return true;
    if (remaining == 0 || *d != *prog) return false;
    ++d, ++prog, --remaining;
  }
}

// The whole search as the table rules state it, handing each hit to `add`.
template <class Add>
void ReferenceSearchTo(const SEARCH_BuscaTblDesc& desc, const uint8_t* data, int positions, int length, Add&& add) {
  SEARCH_BuscaTblDesc t;
  std::memcpy(&t, &desc, sizeof t);
  const auto* index = static_cast<const uint8_t*>(t.index);
  for (int p = 0; p < positions; ++p) {
    for (int rule = 0; rule < 2; ++rule) {
      const uint32_t key = data[p] | uint32_t(rule == 0 ? data[p + 1] : 0xDD) << 8;
      if (!((t.bitmap[key >> 3] >> (key & 7)) & 1)) continue;
      uint16_t entry[2];
      std::memcpy(entry, index + 4 * key, sizeof entry);
      for (int i = entry[0] - 1; i >= 0; --i) {
        const uint8_t* pattern = t.patterns[entry[1] + i];
        bool match;
        if (rule == 0) {
          const int head = pattern[0];
          match = p + 2 + head <= length;
          for (int j = head - 1; match && j >= 0; --j) match = pattern[2 + j] == data[p + 2 + j];
          match = match && ReferenceTail(data + p + 2 + head, pattern + 2 + head, length - p - 2 - head);
        } else {
          match = ReferenceTail(data + p + 1, pattern + 1, length - p - 1);
        }
        if (match) add(pattern);
      }
    }
  }
}

inline void ReferenceSearch(const SEARCH_BuscaTblDesc& desc, const uint8_t* data, int positions, int length,
                            std::vector<const uint8_t*>& hits) {
  ReferenceSearchTo(desc, data, positions, length, [&](const uint8_t* pattern) { hits.push_back(pattern); });
}

using Hits = std::vector<const unsigned char*>;

inline Hits ReferenceHits(const SEARCH_BuscaTblDesc& desc, const uint8_t* data, int positions, int length) {
  Hits hits;
  ReferenceSearchTo(desc, data, positions, length, [&](const uint8_t* pattern) { hits.push_back(pattern); });
  return hits;
}

// The library's answer, in a result list of `capacity` items.
inline Hits LibraryHits(SEARCH_BuscaTblDesc* tables, unsigned table, const uint8_t* data, int positions, int length,
                        uint32_t capacity = 4096) {
  Hits items(capacity);
  SEARCH_BuscaTblList out{capacity, 0, items.data()};
  SEARCH_BuscaTbl(table, tables, data, positions, length, &out);
  items.resize(out.count);
  return items;
}

// Whether the readable pattern `e` matches the bytes data[p .. length).
inline bool PatternMatches(const search::builder::Pattern& e, size_t k, const uint8_t* data, int64_t p,
                           int64_t length) {
  if (k == e.size()) return true;
  if (!e[k].gap) return p < length && data[p] == e[k].byte && PatternMatches(e, k + 1, data, p + 1, length);
  for (int64_t skip = 0; skip <= e[k].max_skip && p + skip < length; ++skip) {
    if (data[p + skip] == e[k + 1].byte && PatternMatches(e, k + 2, data, p + skip + 1, length)) return true;
  }
  return false;
}

}  // namespace vrk::test
