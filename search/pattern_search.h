// The library's own search of a pattern table (the table format is in
// vrk_search.h). Reads the caller's table in place, allocates nothing and
// reads nothing outside the data.
#pragma once

#include <cstdint>

#include "vrk_search.h"

namespace vrk::search {

// A table as the search reads it (copied out of the caller's packed record).
struct PatternTableView {
  const uint8_t* const* patterns;
  const uint8_t* index;   // SEARCH_BUSCATBL_KEYS entries of 4 bytes
  const uint8_t* bitmap;  // SEARCH_BUSCATBL_BITMAP_BYTES
};

// Tries start positions 0 .. positions - 1 of data[0 .. length) and appends
// each match to `out` while it has room: ascending positions; at one
// position the two-byte rule's hits, then the gap rule's, each in reverse
// bucket order. Needs 0 < positions <= length - 1.
void SearchLocally(const PatternTableView& table, const uint8_t* data, uint32_t positions, uint32_t length,
                   SEARCH_BuscaTblList* out);

}  // namespace vrk::search
