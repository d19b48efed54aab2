// CRC signature table inside the library: the 38-word fingerprint of the
// first 2048 bytes of a buffer and its matching against one row of a
// caller's table, with hits collected in a caller's list.
#pragma once

#include <cstdint>

#include "frame/status.h"
#include "vrk_search.h"

namespace vrk::search {

inline constexpr uint32_t kColumns = SEARCH_CRC_COLUMNS;
inline constexpr uint32_t kFingerprintBytes = 2048;

// Fills cell row * 38 + column; the array is referenced, not copied.
void RegisterCrcCell(SEARCH_CRCTblEntry* table, uint32_t column, uint32_t row, const uint32_t* crcs,
                     uint32_t count);

// Appends (position, column) for every element of the sorted `crcs` equal
// to `key`, in ascending positions. Hits the list cannot take are dropped.
void LookUpCrc(const uint32_t* crcs, uint32_t count, uint32_t column, uint32_t key, SEARCH_CRCList* hits);

// Fills words 1 to 37 of `fingerprint` from `data` (non-null). kNoMemory
// when the padded copy of a short buffer is refused: the words are then
// left as they were.
[[nodiscard]] Status BuildFingerprint(SEARCH_CRCFingerprint* fingerprint, const uint8_t* data, int32_t length);

// Looks every word up in its cell of `row`, columns 37 down to 1, then
// column 0 only if the list already holds a hit.
void MatchRow(const SEARCH_CRCTblEntry* table, uint32_t row, const SEARCH_CRCFingerprint* fingerprint,
              SEARCH_CRCList* hits);

// Releases the list's entries (the record's fields are left as they are).
void FreeHitList(SEARCH_CRCList* hits);

}  // namespace vrk::search
