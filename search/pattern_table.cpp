// Pattern search tables: the 16-bit key index with its presence bitmap, the
// two-byte and gap rules, the pattern programs, and forwarding to the
// analysis module. The local search never allocates.
#include "search/pattern_table.h"

#include <cstdint>
#include <cstring>

#include "search/qel_binding.h"

namespace vrk::search {
namespace {

constexpr uint8_t kGapCode = SEARCH_BUSCATBL_CODE_GAP;
constexpr uint8_t kEndCode = SEARCH_BUSCATBL_CODE_END;
constexpr uint32_t kGapKeyHigh = SEARCH_BUSCATBL_GAP_KEY(0u);
static_assert(QEL_PATTERN_SLOTS == SEARCH_BUSCATBL_TABLES, "one registry slot per table number");
constexpr int kIndexedFrom = 256;  // positions from which the gap index pays

// Library-wide and unlocked: registrations must not overlap each other or
// searches (the callers' contract).
constinit uint32_t g_module_caps = 0;
constinit SEARCH_BuscaTblSlot g_slots[QEL_PATTERN_SLOTS] = {};
constinit bool g_patterns_loaded = false;

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

void AddHit(SEARCH_BuscaTblList* out, const uint8_t* pattern) {
  if (out->count < out->capacity) out->items[out->count++] = pattern;
}

bool RunProgram(const uint8_t* d, const uint8_t* prog, uint32_t remaining);

// Goes on after a gap's byte N found at `q`, with `left` bytes after it;
// `next` is the program after the gap. The literal after N, if any, is
// checked here instead of one call deeper.
inline bool MatchAfterCandidate(const uint8_t* q, const uint8_t* next, uint32_t left) {
  const uint8_t after = *next;
  if (after == kEndCode) return true;
  if (after != kGapCode) return left != 0 && q[1] == after && RunProgram(q + 2, next + 1, left - 1);
  return RunProgram(q + 1, next, left);
}

// Runs the program at `prog` against the `remaining` bytes at `d`.
//
// A gap tries its candidates for N one by one; the result is true when any
// candidate leads to a match, so the order in which they are tried cannot
// change it. That frees the search to take them nearest first (memchr here,
// the byte window below for the gap rule).
bool RunProgram(const uint8_t* d, const uint8_t* prog, uint32_t remaining) {
  for (;;) {
    const uint8_t code = *prog;
    if (code == kEndCode) return true;
    if (code == kGapCode) {
      const uint8_t window = prog[1];
      const uint8_t wanted = prog[2];
      const uint32_t m = remaining < window ? remaining : window;
      const uint8_t* end = d + m;
      for (const uint8_t* q = d; q < end; ++q) {
        q = static_cast<const uint8_t*>(std::memchr(q, wanted, size_t(end - q)));
        if (!q) return false;
        if (MatchAfterCandidate(q, prog + 3, remaining - uint32_t(q - d) - 1)) return true;
      }
      return false;
    }
    if (remaining == 0 || *d != code) return false;
    ++d;
    ++prog;
    --remaining;
  }
}

// Where each byte value occurs in the 255 bytes after the current position
// (the widest gap window), kept up to date in constant time per position.
// The gap rule runs every pattern of a byte's gap bucket at every position
// holding that byte, and nearly all of those programs open with a gap; with
// this index a gap whose byte N is absent from its window is rejected with
// one comparison, and the candidates that are present are visited directly.
// It lives on the stack (3 KiB): the local search allocates nothing.
class ByteWindow {
 public:
  static constexpr int32_t kSpan = 255;
  static constexpr int32_t kNone = -1;

  // The window of position 0: indices 1 .. min(kSpan, length - 1).
  ByteWindow(const uint8_t* data, int32_t length) : data_(data), length_(length) {
    for (int v = 0; v < 256; ++v) first_[v] = last_[v] = kNone;
    for (int32_t i = 1; i <= kSpan && i < length; ++i) Add(i);
  }

  // Moves from the window of position p - 1 to that of p.
  void Advance(int32_t p) {
    const uint8_t v = data_[p];  // index p leaves: it is the first of its value
    first_[v] = next_[p & 0xFF];
    if (first_[v] == kNone) last_[v] = kNone;
    if (p + kSpan < length_) Add(p + kSpan);
  }

  int32_t First(uint8_t v) const { return first_[v]; }
  int32_t Next(int32_t i) const { return next_[i & 0xFF]; }

 private:
  void Add(int32_t i) {
    const uint8_t v = data_[i];
    next_[i & 0xFF] = kNone;
    if (last_[v] == kNone) {
      first_[v] = i;
    } else {
      next_[last_[v] & 0xFF] = i;
    }
    last_[v] = i;
  }

  const uint8_t* data_;
  int32_t length_;
  int32_t first_[256];
  int32_t last_[256];
  int32_t next_[256];  // by index modulo 256: the next index of the same value
};

inline bool KeyPresent(const uint8_t* bitmap, uint32_t key) { return (bitmap[key >> 3] >> (key & 7)) & 1; }

// Whether any gap key (b + 256 * 0xDD) is marked: their 256 bits are the
// 32 bitmap bytes from key 0xDD00 on.
bool HasGapKeys(const uint8_t* bitmap) {
  uint8_t any = 0;
  for (uint32_t i = 0; i < 32; ++i) any |= bitmap[(kGapKeyHigh >> 3) + i];
  return any != 0;
}

// The bucket of `key`: its patterns run from patterns[first] on.
inline uint32_t Bucket(const uint8_t* index, uint32_t key, uint32_t& first) {
  uint16_t entry[2];
  std::memcpy(entry, index + 4 * key, sizeof entry);
  first = entry[1];
  return entry[0];
}

// Positions before which a gap-rule pattern cannot match, learnt while
// searching: a pattern whose program opens with "gap G, byte N, literal c"
// needs an N followed by c within G bytes; once the nearest such pair lies
// at j, every position before j - G fails without looking. Direct-mapped by
// pattern slot (8 KiB on the stack); a collision only forgets.
class SkipMemo {
 public:
  SkipMemo() {
    for (Entry& e : entries_) e = {0, 0};
  }
  bool Skips(uint32_t slot, int32_t p) const {
    const Entry& e = entries_[slot & (kEntries - 1)];
    return e.tag == slot + 1 && p < e.until;
  }
  void Set(uint32_t slot, int32_t until) { entries_[slot & (kEntries - 1)] = {slot + 1, until}; }

 private:
  static constexpr uint32_t kEntries = 1024;
  struct Entry {
    uint32_t tag;  // slot + 1; 0 is empty
    int32_t until;
  };
  Entry entries_[kEntries];
};

// The gap rule's program from byte 1 at position p, through the window
// when it opens with a gap (whose window then starts right after p).
inline bool GapRuleMatches(const ByteWindow& w, SkipMemo& memo, uint32_t slot, const uint8_t* data, int32_t p,
                           int32_t length, const uint8_t* prog) {
  const uint32_t remaining = uint32_t(length - p - 1);
  if (prog[0] != kGapCode) return RunProgram(data + p + 1, prog, remaining);
  if (memo.Skips(slot, p)) return false;
  const int32_t window = prog[1];
  const uint8_t after = prog[3];
  const bool literal_after = after != kEndCode && after != kGapCode;
  const int32_t limit = p + 1 + (int32_t(remaining) < window ? int32_t(remaining) : window);
  // Candidates for N, nearest first: inside the gap window they are tried;
  // the first usable one beyond it tells how far this pattern can be
  // skipped. The walk beyond the window is bounded to keep its cost in
  // proportion to what it can save.
  int32_t beyond = 0;
  int32_t i = w.First(prog[2]);
  for (; i != ByteWindow::kNone; i = w.Next(i)) {
    const bool usable = !literal_after || (i + 1 < length && data[i + 1] == after);
    if (i < limit) {
      if (usable && MatchAfterCandidate(data + i, prog + 3, uint32_t(length - i - 1))) return true;
      continue;
    }
    if (usable) {
      memo.Set(slot, i - window);
      return false;
    }
    if (++beyond == 32) break;
  }
  // No usable candidate up to i (or in the whole window span): nothing can
  // start before the last index looked at, or the span's end, minus G.
  const int32_t seen = i != ByteWindow::kNone ? i : p + ByteWindow::kSpan;
  memo.Set(slot, seen + 1 >= length ? INT32_MAX : seen + 1 - window);
  return false;
}

// kIndexed: with the byte window and the skip memo (`window` and `memo`
// non-null). kGapRule: the table has gap-rule patterns at all; without
// them the gap key's bit is known to be clear and is not read.
template <bool kIndexed, bool kGapRule>
void SearchLocally(const Table& t, const uint8_t* data, int positions, int length, SEARCH_BuscaTblList* out,
                   ByteWindow* window, SkipMemo* memo) {
  const uint8_t* bitmap = t.bitmap;
  for (int p = 0; p < positions; ++p) {
    if (kIndexed && p > 0) window->Advance(p);
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
        if (head != 0 && (d[0] != pattern[2] || std::memcmp(d, pattern + 2, head) != 0)) continue;
        if (RunProgram(d + head, pattern + 2 + head, uint32_t(after_key - head))) {
          AddHit(out, pattern);
        }
      }
    }
    const uint32_t gap_key = b0 | kGapKeyHigh;
    if (kGapRule && KeyPresent(bitmap, gap_key)) {
      uint32_t first = 0;
      for (uint32_t i = Bucket(t.index, gap_key, first); i-- > 0;) {
        const uint8_t* pattern = t.patterns[first + i];
        const bool match = kIndexed ? GapRuleMatches(*window, *memo, first + i, data, p, length, pattern + 1)
                                    : RunProgram(data + p + 1, pattern + 1, uint32_t(length - p - 1));
        if (match) AddHit(out, pattern);
      }
    }
  }
}

void RegisterWithModule(const SEARCH_BuscaTblDesc* tables, unsigned int table) {
  if (!(AnalysisModuleInfo() & QEL_INFO_PATTERN_SEARCH)) return;
  const Table t = ReadDesc(tables, table);
  g_slots[table] = {table, t.count, t.index, t.patterns};
  g_patterns_loaded = false;
}

void SearchViaModule(unsigned int table, const uint8_t* data, int length, int positions,
                              SEARCH_BuscaTblList* out) {
  if (!(AnalysisModuleInfo() & QEL_INFO_PATTERN_SEARCH)) return;
  const AnalysisModuleEntries& module = AnalysisModuleEntryPoints();
  // The whole registry goes over once after each registration.
  if (!g_patterns_loaded) {
    g_patterns_loaded = true;
    module.QELLoadPatterns(g_slots, QEL_PATTERN_SLOTS);
  }
  uint32_t* hits = nullptr;
  int hitcount = 0;
  // A failure result is not looked at: whatever hits came back still count.
  (void)module.QELBuscaTbl(data, length, positions, table, &hits, &hitcount);
  if (hitcount == 0) return;
  const uint8_t* const* patterns = g_slots[table].patterns;
  for (int i = 0; i < hitcount; ++i) {
    // Only the low 16 bits name the pattern; the module may use the rest.
    AddHit(out, patterns[hits[i] & 0xFFFFu]);
  }
  module.QELFreeBuscaTbl(hits);
}

}  // namespace

void RegisterPatternTable(const SEARCH_BuscaTblDesc* tables, unsigned int table) {
  // Binding returns 0 after its first call, so this tries once per process
  // and keeps the first non-zero word.
  if (g_module_caps == 0) g_module_caps = BindAnalysisModule();
  if (g_module_caps & QEL_INFO_PATTERN_SEARCH) RegisterWithModule(tables, table);
}

void SearchPatternTable(unsigned int table, const SEARCH_BuscaTblDesc* tables, const uint8_t* data, int positions,
                        int length, SEARCH_BuscaTblList* out) {
  if (g_module_caps & QEL_INFO_PATTERN_SEARCH) {
    SearchViaModule(table, data, length, positions, out);
    return;
  }
  if (positions <= 0) return;
  const Table t = ReadDesc(tables, table);
  // Short searches (one position at a time, say) would spend more on
  // setting the window and the memo up than they could save, and tables
  // without gap-rule patterns never consult them.
  if (!HasGapKeys(t.bitmap)) {
    SearchLocally<false, false>(t, data, positions, length, out, nullptr, nullptr);
  } else if (positions < kIndexedFrom) {
    SearchLocally<false, true>(t, data, positions, length, out, nullptr, nullptr);
  } else {
    ByteWindow window(data, length);
    SkipMemo memo;
    SearchLocally<true, true>(t, data, positions, length, out, &window, &memo);
  }
}

}  // namespace vrk::search
