// Pattern search tables: the 16-bit key index with its presence bitmap, the
// two-byte and gap rules, the pattern programs, and forwarding to the
// analysis module. The local search never allocates.
#include "search/pattern_table.h"

#include <cstring>

#include "search/qel_binding.h"

namespace vrk::search {
namespace {

constexpr uint8_t kGapCode = 0xDD;
constexpr uint8_t kEndCode = 0xDF;
constexpr uint32_t kGapKeyHigh = uint32_t(kGapCode) << 8;

// Library-wide and unlocked: registrations must not overlap each other or
// searches (the callers' contract).
constinit uint32_t SEARCH_ModuleCaps = 0;
constinit SEARCH_BuscaTblSlot SEARCH_BuscaTblSlots[QEL_PATTERN_SLOTS] = {};
constinit int SEARCH_PatternsLoaded = 0;

// The caller's record is packed: copy its fields out rather than form
// pointers to misaligned members.
struct Table {
  const uint8_t* const* patterns;
  const uint8_t* index;
  const uint8_t* bitmap;
  uint16_t count;
};

Table ReadDesc(const SEARCH_BuscaTblDesc* tables, unsigned int table) {
  SEARCH_BuscaTblDesc d;
  std::memcpy(&d, &tables[table], sizeof d);
  return {d.patterns, static_cast<const uint8_t*>(d.index), d.bitmap, d.count};
}

void SEARCH_BuscaTblAddHit(SEARCH_BuscaTblList* out, const uint8_t* pattern) {
  if (out->count < out->capacity) out->items[out->count++] = pattern;
}

// Runs the program at `prog` against the `remaining` bytes at `d`.
//
// A gap tries its candidates for N one by one; the result is true when any
// candidate leads to a match, so the order in which they are tried cannot
// change it. That frees the search to take them nearest first through memchr
// and to test the literal that follows N before descending, which is where
// tables with many gap patterns spend their time.
bool SEARCH_BuscaTblMatchTail(const uint8_t* d, const uint8_t* prog, uint32_t remaining) {
  for (;;) {
    const uint8_t code = *prog;
    if (code == kEndCode) return true;
    if (code == kGapCode) {
      const uint8_t window = prog[1];
      const uint8_t wanted = prog[2];
      const uint8_t* next = prog + 3;
      const uint32_t m = remaining < window ? remaining : window;
      const uint8_t* end = d + m;
      const uint8_t after = *next;
      if (after == kEndCode) return m != 0 && std::memchr(d, wanted, m) != nullptr;
      for (const uint8_t* q = d; q < end; ++q) {
        q = static_cast<const uint8_t*>(std::memchr(q, wanted, size_t(end - q)));
        if (!q) return false;
        const uint32_t left = remaining - uint32_t(q - d) - 1;  // bytes after this N
        if (after != kGapCode) {
          // The literal after N, checked here instead of one call deeper.
          if (left != 0 && q[1] == after && SEARCH_BuscaTblMatchTail(q + 2, next + 1, left - 1)) return true;
        } else if (SEARCH_BuscaTblMatchTail(q + 1, next, left)) {
          return true;
        }
      }
      return false;
    }
    if (remaining == 0 || *d != code) return false;
    ++d;
    ++prog;
    --remaining;
  }
}

inline bool KeyPresent(const uint8_t* bitmap, uint32_t key) { return (bitmap[key >> 3] >> (key & 7)) & 1; }

// The bucket of `key`: its patterns run from patterns[first] on.
inline uint32_t Bucket(const uint8_t* index, uint32_t key, uint32_t& first) {
  uint16_t entry[2];
  std::memcpy(entry, index + 4 * key, sizeof entry);
  first = entry[1];
  return entry[0];
}

void SearchLocally(const Table& t, const uint8_t* data, int positions, int length, SEARCH_BuscaTblList* out) {
  const uint8_t* bitmap = t.bitmap;
  for (int p = 0; p < positions; ++p) {
    const uint32_t b0 = data[p];
    const uint32_t key = b0 | uint32_t(data[p + 1]) << 8;
    // Bytes left after the two key bytes; positions <= length - 1 keeps it
    // at -1 or more.
    const int64_t after_key = int64_t(length) - p - 2;
    if (KeyPresent(bitmap, key)) {
      uint32_t first = 0;
      // Reverse bucket order: the builder relies on it to report a bucket's
      // patterns in the order it was given them.
      for (uint32_t i = Bucket(t.index, key, first); i-- > 0;) {
        const uint8_t* pattern = t.patterns[first + i];
        const uint32_t head = pattern[0];
        if (int64_t(head) > after_key) continue;
        const uint8_t* d = data + p + 2;
        if (head != 0 && std::memcmp(d, pattern + 2, head) != 0) continue;
        if (SEARCH_BuscaTblMatchTail(d + head, pattern + 2 + head, uint32_t(after_key - head))) {
          SEARCH_BuscaTblAddHit(out, pattern);
        }
      }
    }
    const uint32_t gap_key = b0 | kGapKeyHigh;
    if (KeyPresent(bitmap, gap_key)) {
      uint32_t first = 0;
      for (uint32_t i = Bucket(t.index, gap_key, first); i-- > 0;) {
        const uint8_t* pattern = t.patterns[first + i];
        if (SEARCH_BuscaTblMatchTail(data + p + 1, pattern + 1, uint32_t(length - p - 1))) {
          SEARCH_BuscaTblAddHit(out, pattern);
        }
      }
    }
  }
}

void SEARCH_BuscaTblRegisterWithModule(const SEARCH_BuscaTblDesc* tables, unsigned int table) {
  if (!(AnalysisModuleInfo() & QEL_INFO_PATTERN_SEARCH)) return;
  const Table t = ReadDesc(tables, table);
  SEARCH_BuscaTblSlots[table] = {table, t.count, t.index, t.patterns};
  SEARCH_PatternsLoaded = 0;
}

void SEARCH_BuscaTblViaModule(unsigned int table, const uint8_t* data, int length, int positions,
                              SEARCH_BuscaTblList* out) {
  if (!(AnalysisModuleInfo() & QEL_INFO_PATTERN_SEARCH)) return;
  const AnalysisModuleEntries& module = AnalysisModule();
  // The whole registry goes over once after each registration.
  if (SEARCH_PatternsLoaded == 0) {
    SEARCH_PatternsLoaded = 1;
    module.QELLoadPatterns(SEARCH_BuscaTblSlots, QEL_PATTERN_SLOTS);
  }
  uint32_t* hits = nullptr;
  int hitcount = 0;
  // A failure result is not looked at: whatever hits came back still count.
  (void)module.QELBuscaTbl(data, length, positions, table, &hits, &hitcount);
  if (hitcount == 0) return;
  const uint8_t* const* patterns = SEARCH_BuscaTblSlots[table].patterns;
  for (int i = 0; i < hitcount; ++i) {
    // Only the low 16 bits name the pattern; the module may use the rest.
    SEARCH_BuscaTblAddHit(out, patterns[hits[i] & 0xFFFFu]);
  }
  module.QELFreeBuscaTbl(hits);
}

}  // namespace

void SEARCH_BuscaTblRegisterTable(const SEARCH_BuscaTblDesc* tables, unsigned int table) {
  // Binding returns 0 after its first call, so this tries once per process
  // and keeps the first non-zero word.
  if (SEARCH_ModuleCaps == 0) SEARCH_ModuleCaps = AnalysisModule_Bind();
  if (SEARCH_ModuleCaps & QEL_INFO_PATTERN_SEARCH) SEARCH_BuscaTblRegisterWithModule(tables, table);
}

void SEARCH_BuscaTbl(unsigned int table, const SEARCH_BuscaTblDesc* tables, const uint8_t* data, int positions,
                     int length, SEARCH_BuscaTblList* out) {
  if (SEARCH_ModuleCaps & QEL_INFO_PATTERN_SEARCH) {
    SEARCH_BuscaTblViaModule(table, data, length, positions, out);
    return;
  }
  if (positions <= 0) return;
  SearchLocally(ReadDesc(tables, table), data, positions, length, out);
}

}  // namespace vrk::search
