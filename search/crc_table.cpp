// CRC signature table: the fingerprint (32 block checksums, 5 growing
// prefixes and the caller's key) and the binary-search matching of a row.
#include "search/crc_table.h"

#include <cstring>

#include "checksum/crc32.h"
#include "frame/block.h"

namespace vrk::search {
namespace {

constexpr uint32_t kBlockBytes = 64;
constexpr uint32_t kBlocks = kFingerprintBytes / kBlockBytes;  // 32
constexpr uint32_t kGrowEntries = 100;

// Word numbers: word 1 is block 0, words 2-32 blocks 1-31, words 33-37 the
// prefixes of 128 to 2048 bytes.
constexpr uint32_t kFirstBlockWord = 1;
constexpr uint32_t kFirstPrefixWord = 33;

// Room for 100 more entries whenever the list is full; a
// refused growth keeps the old array and drops the hit.
void AddHit(SEARCH_CRCList* hits, uint32_t position, uint32_t column) {
  if (hits->count >= hits->capacity) {
    void* grown = Prealloc(hits->entries, hits->capacity * sizeof(SEARCH_CRCHit) + kGrowEntries * sizeof(SEARCH_CRCHit));
    if (grown) {
      hits->entries = static_cast<SEARCH_CRCHit*>(grown);
      hits->capacity += kGrowEntries;
    }
  }
  if (hits->count >= hits->capacity) return;
  hits->entries[hits->count++] = SEARCH_CRCHit{position, column};
}

// What is known of each 64-byte block of the padded buffer: its register
// from 0, and whether all its bytes repeat one value (and which).
struct BlockFacts {
  uint32_t crc[kBlocks];
  bool uniform[kBlocks];
  uint8_t value[kBlocks];
};

bool IsUniform(const uint8_t* block) {
  // Word-wide comparison against the first byte repeated four times.
  const uint32_t pattern = block[0] * 0x01010101u;
  uint32_t diff = 0;
  for (uint32_t i = 0; i < kBlockBytes; i += 4) {
    uint32_t w;
    std::memcpy(&w, block + i, 4);
    diff |= w ^ pattern;
  }
  return diff == 0;
}

// Whether blocks [first, end) are all one repeated byte value together.
bool RangeUniform(const BlockFacts& f, uint32_t first, uint32_t end) {
  for (uint32_t k = first; k < end; ++k) {
    if (!f.uniform[k] || f.value[k] != f.value[first]) return false;
  }
  return true;
}

// The checksum of the blocks [first, end) carried on from `carried`: a
// region checksummed from 0 counts as 0 when it is one repeated byte value
// (so that padding and fill never match as content). The register over
// several blocks is chained from the per-block registers,
//   crc(block, c) = crc(64 zero bytes, c) ^ crc(block, 0),
// so no byte is read twice.
uint32_t BlockCrc(const BlockFacts& f, uint32_t first, uint32_t end, uint32_t carried) {
  if (carried == 0 && RangeUniform(f, first, end)) return 0;
  uint32_t crc = carried;
  for (uint32_t k = first; k < end; ++k) crc = checksum::Crc32Zeros64(crc) ^ f.crc[k];
  return crc;
}

// Buffers shorter than 2048 bytes (length taken unsigned)
// are read from a zero-padded copy; longer ones in place, first 2048 bytes
// only.
Block<uint8_t> PaddedCopy(const uint8_t* data, int32_t length) {
  const uint32_t n = static_cast<uint32_t>(length);
  if (n >= kFingerprintBytes) return Block<uint8_t>();
  Block<uint8_t> copy = Block<uint8_t>::Malloc(kFingerprintBytes);
  if (!copy) return copy;
  if (n != 0) std::memcpy(copy.get(), data, n);
  std::memset(copy.get() + n, 0, kFingerprintBytes - n);
  return copy;
}

}  // namespace

void RegisterCrcCell(SEARCH_CRCTblEntry* table, uint32_t column, uint32_t row, const uint32_t* crcs,
                     uint32_t count) {
  SEARCH_CRCTblEntry& cell = table[row * kColumns + column];
  cell.index = row * kColumns + column;
  cell.count = count;
  cell.crcs = crcs;
}

void LookUpCrc(const uint32_t* crcs, uint32_t count, uint32_t column, uint32_t key, SEARCH_CRCList* hits) {
  int32_t lo = 0;
  int32_t hi = static_cast<int32_t>(count - 1);
  int32_t found = -1;
  while (lo <= hi) {
    const int32_t mid = static_cast<int32_t>((static_cast<int64_t>(lo) + hi) >> 1);
    if (crcs[mid] == key) {
      found = mid;
      break;
    }
    if (crcs[mid] < key) {
      lo = mid + 1;
    } else {
      hi = mid - 1;
    }
  }
  if (found < 0) return;
  // Equal values stand together; report all of them from the first, in
  // order, whichever one the search met.
  uint32_t i = static_cast<uint32_t>(found);
  while (i > 0 && crcs[i - 1] == key) --i;
  for (; i < count && crcs[i] == key; ++i) AddHit(hits, i, column);
}

Status BuildFingerprint(SEARCH_CRCFingerprint* fingerprint, const uint8_t* data, int32_t length) {
  Block<uint8_t> copy = PaddedCopy(data, length);
  if (!copy && static_cast<uint32_t>(length) < kFingerprintBytes) return Status::kNoMemory;  // words unchanged
  const uint8_t* p = copy ? copy.get() : data;

  BlockFacts f;
  checksum::Crc32Blocks64(p, kBlocks, f.crc);
  for (uint32_t k = 0; k < kBlocks; ++k) {
    f.uniform[k] = IsUniform(p + k * kBlockBytes);
    f.value[k] = p[k * kBlockBytes];
  }

  uint32_t* w = fingerprint->words;
  // Block 0, then the prefixes of 128, 256, ... 2048 bytes, each continued
  // from the one before over the blocks that double it.
  w[kFirstBlockWord] = BlockCrc(f, 0, 1, 0);
  uint32_t carried = w[kFirstBlockWord];
  for (uint32_t i = 0, first = 1; first < kBlocks; ++i, first *= 2) {
    carried = BlockCrc(f, first, 2 * first, carried);
    w[kFirstPrefixWord + i] = carried;
  }
  // Blocks 1 to 31 on their own: block 1 always, later ones only while they
  // start inside the caller's length. The others keep their old words.
  for (uint32_t k = 1; k < kBlocks; ++k) {
    if (k > 1 && !(static_cast<int32_t>(kBlockBytes * k) < length)) break;
    w[kFirstBlockWord + k] = BlockCrc(f, k, k + 1, 0);
  }
  return Status::kOk;
}

void MatchRow(const SEARCH_CRCTblEntry* table, uint32_t row, const SEARCH_CRCFingerprint* fingerprint,
              SEARCH_CRCList* hits) {
  const SEARCH_CRCTblEntry* cells = table + row * kColumns;
  // The cell's own index names the column reported with its hits.
  auto match = [&](uint32_t column) {
    const SEARCH_CRCTblEntry& cell = cells[column];
    if (cell.count != 0) LookUpCrc(cell.crcs, cell.count, cell.index - row * kColumns, fingerprint->words[column], hits);
  };
  for (uint32_t column = kColumns - 1; column >= 1; --column) match(column);
  // Column 0 holds the caller's own key, which only confirms: it is looked
  // at only when some checksum (of this call or an earlier one) has hit.
  if (hits->count != 0) match(0);
}

void FreeHitList(SEARCH_CRCList* hits) {
  if (hits && hits->entries) Pfree(hits->entries);
}

}  // namespace vrk::search
