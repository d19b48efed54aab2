// Fuzz target of the checksums and the CRC signature table: CRC-32 split at
// an input-chosen point equals one pass and the byte step; MD5 fed in three
// input-chosen pieces equals one pass; a buffer's own fingerprint, registered
// as a table row, hits every column with all its equal values.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "vrk_checksum.h"
#include "vrk_search.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

void Md5Pieces(const uint8_t* data, size_t size, size_t a, size_t b, unsigned char digest[16]) {
  MD5_CTX* ctx = MD5Init();
  Check(ctx != nullptr);
  MD5Update(ctx, data, uint32_t(a));
  MD5Update(ctx, data + a, uint32_t(b - a));
  MD5Update(ctx, data + b, uint32_t(size - b));
  MD5Final(ctx, digest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > (1u << 20)) return 0;
  const size_t a = data[0] * size / 256, b = a + (data[1] * (size - a)) / 256;

  // CRC-32.
  uint32_t step = 0x12345678u;
  for (size_t i = 0; i < size; ++i) step = GET1CRC32(step, data[i]);
  const uint32_t whole = CRC32_Mem(data, 0x12345678u, uint32_t(size));
  Check(whole == step);
  Check(CRC32_Mem(data + a, CRC32_Mem(data, 0x12345678u, uint32_t(a)), uint32_t(size - a)) == whole);

  // MD5.
  unsigned char one[16], pieces[16];
  Md5Pieces(data, size, 0, 0, one);
  Md5Pieces(data, size, a, b, pieces);
  Check(std::memcmp(one, pieces, 16) == 0);

  // The fingerprint matched against a row made of itself: every column of
  // the row holds its own word, once or (for column 5) three times.
  SEARCH_CRCFingerprint f = {};
  SEARCH_CRCTblEntry empty[SEARCH_CRC_COLUMNS] = {};
  SEARCH_CRCList none = {};
  Check(SEARCH_CRCFile(data, int32_t(size), 0, 0xFEED, &f, 0, empty, &none) == 1);
  Check(none.count == 0);
  std::vector<SEARCH_CRCTblEntry> table(2 * SEARCH_CRC_COLUMNS);
  uint32_t cells[SEARCH_CRC_COLUMNS][3];
  for (uint32_t c = 0; c < SEARCH_CRC_COLUMNS; ++c) {
    const uint32_t n = c == 5 ? 3 : 1;
    std::fill(cells[c], cells[c] + n, f.words[c]);
    SEARCH_CRCRegisterTable(table.data(), c, 1, cells[c], n);
  }
  SEARCH_CRCList hits = {};
  Check(SEARCH_CRCFile(data, int32_t(size), 1, 0xFEED, &f, 1, table.data(), &hits) == 1);
  Check(hits.count == SEARCH_CRC_COLUMNS + 2);
  uint32_t i = 0;
  for (uint32_t c = SEARCH_CRC_COLUMNS - 1; c >= 1; --c) {
    for (uint32_t p = 0; p < (c == 5 ? 3u : 1u); ++p, ++i) {
      Check(hits.entries[i].column == c && hits.entries[i].position == p);
    }
  }
  Check(hits.entries[i].column == 0);
  SEARCH_CRCFree(&hits);
  return 0;
}
