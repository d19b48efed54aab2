// CRC signature table inside the library: the 38-word fingerprint of the
// first 2048 bytes of a buffer and its matching against one row of a
// caller's table, with hits collected in a caller's list.
#pragma once

#include <cstdint>

#include "vrk_search.h"

namespace vrk::search {

inline constexpr uint32_t kColumns = SEARCH_CRC_COLUMNS;
inline constexpr uint32_t kFingerprintBytes = 2048;

void SEARCH_CRCRegisterTable(SEARCH_CRCTblEntry* table, uint32_t column, uint32_t row, const uint32_t* crcs,
                             uint32_t count);

// Appends (position, column) for every element equal to `key`; returns the
// list's count. Hits the list cannot take are dropped.
uint32_t SEARCH_CRC(const uint32_t* crcs, uint32_t count, uint32_t column, uint32_t key, SEARCH_CRCList* hits);

// Fills words 1 to 37 of `fingerprint` from `data` (non-null). When the
// padded copy of a short buffer is refused, the words are left as they were.
void SEARCH_CRCBuildFingerprint(SEARCH_CRCFingerprint* fingerprint, const uint8_t* data, int32_t length);

// Looks every word up in its cell of `row`, columns 37 down to 1, then
// column 0 only if the list already holds a hit.
void SEARCH_CRCMatchRow(const SEARCH_CRCTblEntry* table, uint32_t row, const SEARCH_CRCFingerprint* fingerprint,
                        SEARCH_CRCList* hits);

void SEARCH_CRCFree(SEARCH_CRCList* hits);

}  // namespace vrk::search
