// C boundary of the pattern search tables.
#include "search/pattern_table.h"
#include "vrk_search.h"

extern "C" {

void SEARCH_BuscaTblRegisterTable(SEARCH_BuscaTblDesc* tables, unsigned int table) noexcept {
  vrk::search::RegisterPatternTable(tables, table);
}

void SEARCH_BuscaTbl(unsigned int table, SEARCH_BuscaTblDesc* tables, const unsigned char* data, int positions,
                     int length, SEARCH_BuscaTblList* out) noexcept {
  vrk::search::SearchPatternTable(table, tables, data, positions, length, out);
}

}  // extern "C"
