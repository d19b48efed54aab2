// Pattern search tables: the library's own search over the caller's tables,
// and the forwarding of searches to the analysis module when it offers them.
#pragma once

#include <cstdint>

#include "vrk_search.h"

namespace vrk::search {

// First registration binds the analysis module; with a module that searches,
// the table's description goes into the registry handed to it.
void RegisterPatternTable(const SEARCH_BuscaTblDesc* tables, unsigned int table);

// Searches positions 0 .. positions - 1 of data[0 .. length) against table
// number `table`, locally or through the module, appending hits to `out`.
void SearchPatternTable(unsigned int table, const SEARCH_BuscaTblDesc* tables, const uint8_t* data, int positions,
                        int length, SEARCH_BuscaTblList* out);

}  // namespace vrk::search
