// C boundary of the CRC signature table.
#include "search/crc_table.h"
#include "vrk_search.h"

extern "C" {

void SEARCH_CRCRegisterTable(SEARCH_CRCTblEntry* table, uint32_t column, uint32_t row, const uint32_t* crcs,
                             uint32_t count) noexcept {
  vrk::search::RegisterCrcCell(table, column, row, crcs, count);
}

int32_t SEARCH_CRCFile(const unsigned char* data, int32_t length, uint32_t row, uint32_t key0,
                       SEARCH_CRCFingerprint* fingerprint, int32_t reuse, SEARCH_CRCTblEntry* table,
                       SEARCH_CRCList* hits) noexcept {
  if (!data || !fingerprint || !table || !hits) return 0;
  if (reuse == 0) {
    // A refused padded copy leaves words 1-37 as they were; the row is
    // still matched and the call still succeeds.
    static_cast<void>(vrk::search::BuildFingerprint(fingerprint, data, length));
    fingerprint->words[0] = key0;
  }
  vrk::search::MatchRow(table, row, fingerprint, hits);
  return 1;
}

uint32_t SEARCH_CRC(const uint32_t* crcs, uint32_t count, uint32_t column, uint32_t key,
                    SEARCH_CRCList* hits) noexcept {
  vrk::search::LookUpCrc(crcs, count, column, key, hits);
  return hits->count;
}

void SEARCH_CRCFree(SEARCH_CRCList* hits) noexcept { vrk::search::FreeHitList(hits); }

}  // extern "C"
