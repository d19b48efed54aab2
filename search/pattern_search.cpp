// The library's own pattern search: every start position, the two-byte rule
// and the gap rule, pattern programs with bounded gaps. The hits and their
// order are those of the rules read word for word; what changes is how
// little a position, a bucket and a gap cost:
//
// - Positions are classified a block at a time: one bit test for the
//   two-byte key, one for the gap key of the first byte (only in tables
//   that have gap keys), so a position with neither costs a few
//   instructions and the gap rule costs nothing where the byte has no gap
//   key.
// - Bucket entries, pattern pointers and records are fetched ahead, a word
//   of positions at a time, instead of one dependent load after another.
// - A crowded bucket is walked through a per-search filter of the byte each
//   of its patterns needs right after the key, so a key that is common in
//   the data costs little more than a rare one.
// - Where the gap rule is tried often, a block is swept backward keeping,
//   per byte value, its nearest index ahead and a chain to the next: a
//   pattern whose first gap's byte is not within reach is passed without
//   reading its record, and one whose byte is finds its candidates without
//   reading its window. The matches wait and are reported in position
//   order.
// - Gaps are resolved only where they are tried, nearest candidate first,
//   and what a gap learnt about the data is kept, for the whole search, for
//   the programs tried recently: a pattern tried at every position of a run
//   of one byte looks at each byte once per gap.
//
// Everything per search lives on the stack (about 28 KiB); nothing is
// allocated and nothing is read outside data[0 .. length).
#include "search/pattern_search.h"

#include <cstring>

namespace vrk::search {
namespace {

constexpr uint8_t kGapCode = SEARCH_BUSCATBL_CODE_GAP;
constexpr uint8_t kEndCode = SEARCH_BUSCATBL_CODE_END;
constexpr uint32_t kHeadAt = SEARCH_BUSCATBL_REC_HEAD;
constexpr uint32_t kGapRuleAt = SEARCH_BUSCATBL_REC_GAP_START;
constexpr uint32_t kGapKeyRow = SEARCH_BUSCATBL_GAP_KEY(0u) >> 3;  // bitmap bytes of the 256 gap keys
constexpr uint32_t kMaxWindow = SEARCH_BUSCATBL_MAX_WINDOW;
constexpr uint32_t kNone = UINT32_MAX;

// Searches shorter than this go position by position: the block set-up
// would cost more than it saves.
constexpr uint32_t kShortSearch = 512;

inline uint32_t LoadKey(const uint8_t* p) {
  uint16_t key;
  std::memcpy(&key, p, sizeof key);  // little-endian: b0 + 256 * b1
  return key;
}

inline uint32_t LoadWord(const uint8_t* p) {
  uint32_t w;
  std::memcpy(&w, p, sizeof w);
  return w;
}

// Bit `key` of a bitmap, read as the 32-bit word that holds it.
inline uint32_t KeyBit(const uint8_t* bitmap, uint32_t key) { return (LoadWord(bitmap + (key >> 5) * 4) >> (key & 31)) & 1u; }

struct Bucket {
  uint32_t count;
  uint32_t first;
};

inline Bucket ReadBucket(const uint8_t* index, uint32_t key) {
  uint16_t entry[2];
  std::memcpy(entry, index + 4 * key, sizeof entry);
  return {entry[0], entry[1]};
}

inline uint32_t GapKey(uint8_t b0) { return SEARCH_BUSCATBL_GAP_KEY(uint32_t(b0)); }

inline void AddHit(SEARCH_BuscaTblList* out, const uint8_t* pattern) {
  if (out->count < out->capacity) out->items[out->count++] = pattern;
}

inline void Prefetch(const void* p) { __builtin_prefetch(p, 0, 3); }

// What one gap of a program knows about the data: no index in [from, to)
// holds its byte N followed by a match of the rest of the program, and when
// `found` is set, index `to` does. Whether an index leads to a match does
// not depend on where the gap was entered, so what is known stays true for
// any later entry; it grows downward or upward as entries move, and is
// dropped only when an entry lands beyond what it covers.
struct GapKnowledge {
  uint32_t from;
  uint32_t to;
  bool found;
};

// Identifies a program in a search: the pattern's slot and the rule that
// reads it (the two rules start reading a record at different bytes).
inline uint32_t ProgramIdent(uint32_t slot, uint32_t rule) { return slot << 1 | rule; }
constexpr uint32_t kTwoByteRule = 0;
constexpr uint32_t kGapRule = 1;
constexpr uint32_t kNoIdent = UINT32_MAX;

// Knowledge of the gaps of recently run programs, kept for the whole
// search: a pattern tried at many positions (a common key, a run of one
// byte) looks at each data byte once per gap, not once per position.
// Direct-mapped by program, with the gaps of one program in distinct
// entries (a program's gaps are in use together); a collision only
// forgets.
class GapMemory {
 public:
  static constexpr uint32_t kDepths = 4;  // deeper gaps are remembered only within one run

  GapMemory() {
    for (Entry& e : entries_) e.tag = 0;
  }

  // The knowledge of gap `depth` of program `ident` (nothing known at x
  // when none was kept).
  GapKnowledge& For(uint32_t ident, uint32_t depth, uint32_t x) {
    Entry& e = At(ident, depth);
    if (e.tag != ident + 1) e = {ident + 1, {x, x, false}};
    return e.knowledge;
  }

  // Whether the first gap of program `ident` has knowledge kept that
  // touches the window [x, limit).
  bool Remembers(uint32_t ident, uint32_t x, uint32_t limit) {
    const Entry& e = At(ident, 0);
    return e.tag == ident + 1 && x <= e.knowledge.to && limit >= e.knowledge.from;
  }

 private:
  static constexpr uint32_t kIdentBits = 7;
  struct Entry;
  Entry& At(uint32_t ident, uint32_t depth) {
    return entries_[((ident * 0x9E3779B1u) >> (32 - kIdentBits)) * kDepths + depth];
  }
  struct Entry {
    uint32_t tag;  // ident + 1; 0 is empty
    GapKnowledge knowledge;
  };
  Entry entries_[kDepths << kIdentBits];
};

// Runs pattern programs against data[0 .. end). A gap tries its candidates
// nearest first and keeps what it learnt (GapKnowledge): the gap after it is
// entered candidate after candidate at ascending indices, so each data byte
// is looked at once per gap rather than once per combination of candidates
// (the rules' farthest-first backtracking grows with the product of the
// windows). Which candidate is tried first cannot change the result: any
// candidate that leads to a match makes the gap match.
class ProgramRunner {
 public:
  ProgramRunner(const uint8_t* data, uint32_t end, GapMemory* memory) : data_(data), end_(end), memory_(memory) {}

  // Whether the program at `prog` matches from data index x on. `ident`
  // names the program for the search-wide memory (kNoIdent: none).
  bool Run(uint32_t x, const uint8_t* prog, uint32_t ident) {
    Begin(ident);
    return Continue(x, prog, 0);
  }

  // For callers that look through a first gap themselves: Begin once per
  // program, then Leads for each candidate y of the gap at `prog` (its
  // byte N is at y): whether the rest of the program matches after it.
  void Begin(uint32_t ident) {
    known_ = 0;
    ident_ = memory_ ? ident : kNoIdent;
  }
  bool Leads(uint32_t y, const uint8_t* prog) { return LeadsToMatch(y, prog + 3, 0); }

  // Whether the first gap of program `ident` is remembered from earlier
  // runs near the window [x, limit) (running it whole is then cheaper than
  // trying candidates).
  bool Remembers(uint32_t ident, uint32_t x, uint32_t limit) const {
    return memory_ && memory_->Remembers(ident, x, limit);
  }

 private:
  static constexpr uint32_t kLocalDepths = 16;  // deeper still: tried without memory

  bool Continue(uint32_t x, const uint8_t* prog, uint32_t depth) {
    for (;;) {
      const uint8_t code = *prog;
      if (code == kEndCode) return true;
      if (code == kGapCode) {
        if (ident_ != kNoIdent && depth < GapMemory::kDepths) return Gap(memory_->For(ident_, depth, x), x, prog, depth);
        if (depth >= kLocalDepths) return Candidates(x, Limit(x, prog), prog, depth) != kNone;
        if (!(known_ & (1u << depth))) {
          known_ |= 1u << depth;
          levels_[depth] = {x, x, false};
        }
        return Gap(levels_[depth], x, prog, depth);
      }
      if (x >= end_ || data_[x] != code) return false;
      ++x;
      ++prog;
    }
  }

  // The end of the window of the gap at `prog` entered at x.
  uint32_t Limit(uint32_t x, const uint8_t* prog) const { return end_ - x < prog[1] ? end_ : x + prog[1]; }

  // Whether N at index y is followed by a match of the program after the
  // gap. The literal after N, if any, is checked before going deeper.
  bool LeadsToMatch(uint32_t y, const uint8_t* next, uint32_t depth) {
    const uint8_t after = *next;
    if (after == kEndCode) return true;
    if (after == kGapCode) return Continue(y + 1, next, depth + 1);
    return y + 1 < end_ && data_[y + 1] == after && Continue(y + 2, next + 1, depth + 1);
  }

  // The first index in [y, limit) that holds N and leads to a match, or
  // kNone.
  uint32_t Candidates(uint32_t y, uint32_t limit, const uint8_t* prog, uint32_t depth) {
    for (; y < limit; ++y) {
      const void* at = std::memchr(data_ + y, prog[2], limit - y);
      if (!at) return kNone;
      y = uint32_t(static_cast<const uint8_t*>(at) - data_);
      if (LeadsToMatch(y, prog + 3, depth)) return y;
    }
    return kNone;
  }

  // Gap "0xDD G N" entered at index x: N at some index in [x, x + G) that
  // leads to a match. Only what `k` does not cover is looked at.
  bool Gap(GapKnowledge& k, uint32_t x, const uint8_t* prog, uint32_t depth) {
    const uint32_t limit = Limit(x, prog);
    if (x > k.to || (x < k.from && k.from > limit)) {
      k = {x, x, false};  // what is known does not touch the window
    } else if (x < k.from) {
      // Below what is known: look through [x, from) first.
      const uint32_t y = Candidates(x, k.from, prog, depth);
      if (y != kNone) {
        k = {x, y, true};
        return true;
      }
      k.from = x;
    }
    if (k.found) return k.to < limit;
    const uint32_t y = Candidates(k.to, limit, prog, depth);
    if (y != kNone) {
      k.to = y;
      k.found = true;
      return true;
    }
    if (k.to < limit) k.to = limit;
    return false;
  }

  const uint8_t* data_;
  uint32_t end_;
  GapMemory* memory_;
  uint32_t ident_ = kNoIdent;
  uint32_t known_ = 0;  // bit d: levels_[d] belongs to the current run
  GapKnowledge levels_[kLocalDepths];
};

// Filters of crowded buckets, built on a bucket's first walk in a search:
// per pattern, the four bytes the data must hold right after the key (from
// its head, then its program's literals). Patterns that fix all four are
// sorted by them and found by binary search; the few that fix fewer are
// tested one by one. Only the patterns that pass are read, in reverse bucket
// order. A bucket also remembers the last data word that passed nothing:
// in a run of one byte the same word comes back position after position.
// Direct-mapped by key; when the room runs out, all filters are dropped and
// built again as needed.
class CrowdedFilters {
 public:
  static constexpr uint32_t kCrowded = 8;  // smaller buckets are walked directly
  static constexpr uint32_t kRoom = 1024;  // words of room; buckets that do not fit are walked directly
  static constexpr uint32_t kMaxPassing = 64;

  CrowdedFilters() {
    for (Slot& s : slots_) s.tag = 0;
  }

  // The bucket positions (descending) of the patterns of the bucket of
  // `key` that `word` passes, into `passing`; returns their number, or
  // kNotFiltered when the bucket is walked directly.
  static constexpr uint32_t kNotFiltered = UINT32_MAX;
  uint32_t Passing(uint32_t key, const Bucket& bucket, const uint8_t* const* patterns, uint32_t word,
                   uint16_t* passing) {
    Slot* s = Find(key, bucket, patterns);
    if (!s) return kNotFiltered;
    if (s->failed_valid && s->failed == word) return 0;
    uint32_t n = 0;
    // Full words: the equal run found by binary search.
    const uint32_t* full = room_ + s->at;  // pairs (word, position)
    uint32_t lo = 0, hi = s->full;
    while (lo < hi) {
      const uint32_t mid = (lo + hi) / 2;
      if (full[2 * mid] < word) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    for (; lo < s->full && full[2 * lo] == word; ++lo) {
      if (n == kMaxPassing) return kNotFiltered;
      passing[n++] = uint16_t(full[2 * lo + 1]);
    }
    const uint32_t* partial = full + 2 * s->full;  // triples (word, mask, position)
    for (uint32_t i = 0; i < s->partial; ++i) {
      if ((word ^ partial[3 * i]) & partial[3 * i + 1]) continue;
      if (n == kMaxPassing) return kNotFiltered;
      passing[n++] = uint16_t(partial[3 * i + 2]);
    }
    if (n == 0) {
      s->failed = word;
      s->failed_valid = true;
      return 0;
    }
    // Reverse bucket order (insertion sort: the list is short).
    for (uint32_t i = 1; i < n; ++i) {
      const uint16_t v = passing[i];
      uint32_t j = i;
      for (; j > 0 && passing[j - 1] < v; --j) passing[j] = passing[j - 1];
      passing[j] = v;
    }
    return n;
  }

 private:
  struct Slot {
    uint32_t tag;  // key + 1; 0 is empty
    uint32_t at;
    uint32_t full;
    uint32_t partial;
    uint32_t failed;  // the last word that passed nothing
    bool failed_valid;
  };

  Slot* Find(uint32_t key, const Bucket& bucket, const uint8_t* const* patterns) {
    Slot& s = slots_[(key ^ (key >> 7)) & (kSlots - 1)];
    if (s.tag == key + 1) return &s;
    // At most three words per pattern.
    if (3 * bucket.count > kRoom) return nullptr;
    if (used_ + 3 * bucket.count > kRoom) {
      for (Slot& t : slots_) t.tag = 0;
      used_ = 0;
    }
    s = {key + 1, used_, 0, 0, 0, false};
    // Full words first (sorted afterwards), then the partial ones after
    // them, written from the end of this bucket's room and moved down.
    uint32_t* full = room_ + used_;
    uint32_t partial_words[3 * 64];
    uint32_t partial = 0;
    for (uint32_t i = 0; i < bucket.count; ++i) {
      uint32_t want = 0, mask = 0;
      Describe(patterns[bucket.first + i], want, mask);
      if (mask == UINT32_MAX) {
        full[2 * s.full] = want;
        full[2 * s.full + 1] = i;
        ++s.full;
      } else if (partial < 64) {
        partial_words[3 * partial] = want;
        partial_words[3 * partial + 1] = mask;
        partial_words[3 * partial + 2] = i;
        ++partial;
      } else {
        s.tag = 0;  // too many that fix few bytes: not worth a filter
        return nullptr;
      }
    }
    SortPairs(full, s.full);
    std::memcpy(full + 2 * s.full, partial_words, 3 * partial * sizeof(uint32_t));
    s.partial = partial;
    used_ += 2 * s.full + 3 * partial;
    return &s;
  }

  // Sorts (word, position) pairs by word (insertion sort over a bucket's
  // patterns, once per bucket and search).
  static void SortPairs(uint32_t* pairs, uint32_t n) {
    for (uint32_t i = 1; i < n; ++i) {
      const uint32_t w = pairs[2 * i], pos = pairs[2 * i + 1];
      uint32_t j = i;
      for (; j > 0 && pairs[2 * (j - 1)] > w; --j) {
        pairs[2 * j] = pairs[2 * (j - 1)];
        pairs[2 * j + 1] = pairs[2 * (j - 1) + 1];
      }
      pairs[2 * j] = w;
      pairs[2 * j + 1] = pos;
    }
  }

  // The bytes a record read by the two-byte rule fixes right after the key:
  // its head, then program literals up to the first gap or end.
  static void Describe(const uint8_t* record, uint32_t& want, uint32_t& mask) {
    want = mask = 0;
    const uint32_t head = record[0];
    const uint8_t* b = record + kHeadAt;
    for (uint32_t i = 0; i < 4; ++i) {
      if (i >= head && (b[i] == kGapCode || b[i] == kEndCode)) return;
      want |= uint32_t(b[i]) << (8 * i);
      mask |= 0xFFu << (8 * i);
    }
  }

  static constexpr uint32_t kSlots = 32;
  Slot slots_[kSlots];
  uint32_t used_ = 0;
  uint32_t room_[kRoom];
};

// The gap-rule patterns of a table, read once per search into a compact
// list: per pattern filed under a gap key, in bucket order, its first gap's
// byte N and window G, so that a sweep tests "is N within G bytes" without
// reading the record. A pattern whose program does not open with a gap is
// marked to be run in full. The bytes whose buckets do not fit the room
// read their records.
class GapPatterns {
 public:
  static constexpr uint32_t kRoom = 4096;
  // A window of 0 never matches, so G = 0 is free to mark "run in full".
  static constexpr uint16_t kRunInFull = 1;

  struct List {
    const uint16_t* entries;  // N | G << 8, or kRunInFull; null: read the records
    uint32_t count;
    uint32_t first;  // the bucket's first position in the pattern array
  };

  // Lists the buckets of the gap keys marked in `gap_row`.
  void Read(const uint8_t* gap_row, const uint8_t* index, const uint8_t* const* patterns) {
    uint32_t used = 0;
    for (uint32_t b = 0; b < 256; ++b) {
      const Bucket bucket = ReadBucket(index, GapKey(uint8_t(b)));
      const bool marked = (uint32_t(gap_row[b >> 3]) >> (b & 7)) & 1u;
      lists_[b] = {kUnlisted, uint16_t(marked ? bucket.count : 0), uint16_t(bucket.first)};
      if (!marked || bucket.count > kRoom - used) continue;
      lists_[b].start = uint16_t(used);
      for (uint32_t k = 0; k < bucket.count; ++k) entries_[used++] = Entry(patterns[bucket.first + k] + kGapRuleAt);
    }
  }

  List Of(uint8_t b0) const {
    const Compact& c = lists_[b0];
    return {c.start == kUnlisted ? nullptr : entries_ + c.start, c.count, c.first};
  }

  // The entry of the program at `prog` (record byte 1 on).
  static uint16_t Entry(const uint8_t* prog) {
    if (prog[0] != kGapCode || prog[1] == 0) return kRunInFull;
    return uint16_t(prog[2] | prog[1] << 8);
  }

 private:
  static constexpr uint16_t kUnlisted = UINT16_MAX;
  struct Compact {
    uint16_t start;
    uint16_t count;
    uint16_t first;
  };
  Compact lists_[256];
  uint16_t entries_[kRoom];
};

// Matches of the gap rule found by a backward sweep of a block, waiting to
// be reported in position order.
struct PendingGapMatch {
  uint32_t position;
  const uint8_t* record;
};

// One search.
class Search {
 public:
  // `memory`: the search-wide memory of gaps, or null.
  Search(const PatternTableView& t, const uint8_t* data, uint32_t length, SEARCH_BuscaTblList* out, bool gap_rule,
         GapMemory* memory)
      : t_(t), data_(data), length_(length), out_(out), gap_rule_(gap_rule), runner_(data, length, memory) {}

  // Per byte value, whether its gap key is present.
  void ReadGapKeys() {
    for (uint32_t b = 0; b < 256; ++b) gap_of_[b] = GapKeyPresent(uint8_t(b));
  }

  // Position by position, with nothing set up.
  void Short(uint32_t positions) {
    for (uint32_t p = 0; p < positions; ++p) {
      const uint32_t key = LoadKey(data_ + p);
      if (KeyBit(t_.bitmap, key)) TwoByteRule(p, key, nullptr);
      if (gap_rule_ && GapKeyPresent(data_[p])) GapRuleForward(p);
    }
  }

  // A block of positions at a time.
  void Long(uint32_t positions) {
    for (uint32_t base = 0; base < positions && !Full(); base += kBlock) {
      const uint32_t end = positions - base < kBlock ? positions : base + kBlock;
      uint32_t two[kWords] = {};  // position base + i has a two-byte bucket: bit i
      uint32_t gap[kWords] = {};  // ... its first byte has a gap key
      uint32_t gap_positions = Classify(base, end, two, gap);
      // Where the gap rule is tried often, one backward sweep finds every
      // first gap's candidates in constant time; where rarely, each gap is
      // looked through where it is tried.
      uint32_t pending = 0;
      const bool swept = gap_positions >= kSweepFrom && Sweep(base, end, pending);
      for (uint32_t w = 0; w < kWords && !Full(); ++w) {
        const uint32_t bits = two[w] | (swept ? 0 : gap[w]);
        if (!bits) continue;
        uint32_t list[32];
        uint32_t n = 0;
        for (uint32_t b = bits; b; b &= b - 1) list[n++] = base + 32 * w + uint32_t(__builtin_ctz(b));
        FetchAhead(list, n, two[w], base + 32 * w);
        for (uint32_t i = 0; i < n; ++i) {
          const uint32_t p = list[i];
          const uint32_t bit = 1u << (p & 31);
          // Swept matches of earlier positions come first; those of p
          // after its two-byte rule.
          while (pending > 0 && pending_[pending - 1].position < p) AddHit(out_, pending_[--pending].record);
          if (two[w] & bit) TwoByteRule(p, LoadKey(data_ + p), &filters_);
          if (!swept && (gap[w] & bit)) GapRuleForward(p);
        }
      }
      while (pending > 0) AddHit(out_, pending_[--pending].record);
    }
  }

 private:
  static constexpr uint32_t kBlock = 2048;
  static constexpr uint32_t kWords = kBlock / 32;
  static constexpr uint32_t kSweepFrom = 64;  // gap-rule positions per block from which a sweep pays
  static constexpr uint32_t kMatchRoom = 256;  // gap-rule matches a sweep holds
  static constexpr uint32_t kChainTries = 8;   // candidates of a first gap tried along the chain
  static constexpr uint16_t kNoLink = UINT16_MAX;
  static_assert(kBlock + kMaxWindow < kNoLink, "chain links are offsets in a block and its reach");

  bool Full() const { return out_->count >= out_->capacity; }
  bool GapKeyPresent(uint8_t b0) const { return (uint32_t(t_.bitmap[kGapKeyRow + (b0 >> 3)]) >> (b0 & 7)) & 1u; }

  // Marks the positions of [base, end) that have a bucket under each rule;
  // returns how many have one under the gap rule.
  uint32_t Classify(uint32_t base, uint32_t end, uint32_t* two, uint32_t* gap) const {
    const uint8_t* bitmap = t_.bitmap;
    uint32_t gap_positions = 0;
    for (uint32_t w = 0; base + 32 * w < end; ++w) {
      const uint32_t first = base + 32 * w;
      const uint32_t n = end - first < 32 ? end - first : 32;
      uint32_t t = 0, g = 0;
      if (gap_rule_) {
        for (uint32_t k = 0; k < n; ++k) {
          const uint8_t* d = data_ + first + k;
          t |= KeyBit(bitmap, LoadKey(d)) << k;
          g |= uint32_t(gap_of_[d[0]]) << k;
        }
      } else if (n == 32) {
        const uint8_t* d = data_ + first;
#pragma GCC unroll 32
        for (uint32_t k = 0; k < 32; ++k) t |= KeyBit(bitmap, LoadKey(d + k)) << k;
      } else {
        for (uint32_t k = 0; k < n; ++k) t |= KeyBit(bitmap, LoadKey(data_ + first + k)) << k;
      }
      two[w] = t;
      gap[w] = g;
      gap_positions += uint32_t(__builtin_popcount(g));
    }
    return gap_positions;
  }

  // The record in `slot` read from byte 0 at position p: head, then program.
  bool TwoByteMatch(uint32_t p, const uint8_t* record, uint32_t slot) {
    const uint32_t head = record[0];
    const uint32_t at = p + 2;
    if (head > length_ - at) return false;
    const uint8_t* d = data_ + at;
    const uint8_t* h = record + kHeadAt;
    for (uint32_t i = 0; i < head; ++i) {
      if (d[i] != h[i]) return false;
    }
    const uint8_t* prog = h + head;
    return *prog == kEndCode || runner_.Run(at + head, prog, ProgramIdent(slot, kTwoByteRule));
  }

  void TwoByteRule(uint32_t p, uint32_t key, CrowdedFilters* filters) {
    const Bucket bucket = ReadBucket(t_.index, key);
    const uint8_t* const* patterns = t_.patterns + bucket.first;
    // The filter reads four bytes after the key: only where they are.
    if (filters && bucket.count >= CrowdedFilters::kCrowded && length_ - (p + 2) >= 4) {
      uint16_t passing[CrowdedFilters::kMaxPassing];
      const uint32_t n = filters->Passing(key, bucket, t_.patterns, LoadWord(data_ + p + 2), passing);
      if (n != CrowdedFilters::kNotFiltered) {
        for (uint32_t i = 0; i < n; ++i) {
          const uint8_t* record = patterns[passing[i]];
          if (TwoByteMatch(p, record, bucket.first + passing[i])) AddHit(out_, record);
        }
        return;
      }
    }
    // Reverse bucket order; the record of the next pattern is fetched while
    // this one is compared.
    for (uint32_t i = bucket.count; i-- > 0;) {
      if (i > 0) Prefetch(patterns[i - 1]);
      const uint8_t* record = patterns[i];
      if (TwoByteMatch(p, record, bucket.first + i)) AddHit(out_, record);
    }
  }

  // The gap rule's reading of the record in `slot` at position p: its
  // program from byte 1 against the data after p.
  bool GapRuleMatch(uint32_t p, uint32_t slot) {
    const uint8_t* prog = t_.patterns[slot] + kGapRuleAt;
    return *prog == kEndCode || runner_.Run(p + 1, prog, ProgramIdent(slot, kGapRule));
  }

  void GapRuleForward(uint32_t p) {
    const Bucket bucket = ReadBucket(t_.index, GapKey(data_[p]));
    for (uint32_t i = bucket.count; i-- > 0;) {
      if (GapRuleMatch(p, bucket.first + i)) AddHit(out_, t_.patterns[bucket.first + i]);
    }
  }

  // Runs the gap rule at the positions of [base, end) from the last to the
  // first, keeping for each byte value its nearest index after the position
  // (one store per byte): a pattern whose first gap's byte N is not within
  // its window is passed without reading its record. The matches wait in
  // pending_ (last position first; within a position in bucket order, so
  // that taking them from the end gives reverse bucket order). False, with
  // nothing kept, when they do not fit: the block then runs the gap rule
  // forward.
  bool Sweep(uint32_t base, uint32_t end, uint32_t& pending) {
    if (!gap_patterns_read_) {
      gap_patterns_.Read(t_.bitmap + kGapKeyRow, t_.index, t_.patterns);
      gap_patterns_read_ = true;
    }
    uint32_t next[256];
    for (uint32_t& n : next) n = kNone;
    // The farthest index a gap tried in this block can reach; beyond the
    // block's last position the indices are only recorded.
    const uint32_t top = length_ - end < kMaxWindow ? length_ - 1 : end - 1 + kMaxWindow;
    for (uint32_t i = top; i >= end; --i) Record(next, i, base);
    pending = 0;
    for (uint32_t p = end; p-- > base;) {
      const uint8_t b0 = data_[p];
      if (gap_of_[b0]) {
        const GapPatterns::List list = gap_patterns_.Of(b0);
        for (uint32_t k = 0; k < list.count; ++k) {
          if (!SweptGapRule(p, list, k, next, base)) continue;
          if (pending == kMatchRoom) {
            pending = 0;
            return false;
          }
          pending_[pending++] = {p, t_.patterns[list.first + k]};
        }
      }
      if (p > base) Record(next, p, base);
    }
    return true;
  }

  // Index i (above base) becomes the nearest of its value.
  void Record(uint32_t* next, uint32_t i, uint32_t base) {
    const uint8_t v = data_[i];
    chain_[i - base] = next[v] == kNone ? kNoLink : uint16_t(next[v] - base);
    next[v] = i;
  }

  // The gap rule for pattern k of `list` at position p during a sweep.
  bool SweptGapRule(uint32_t p, const GapPatterns::List& list, uint32_t k, const uint32_t* next, uint32_t base) {
    const uint32_t slot = list.first + k;
    const uint32_t e = list.entries ? list.entries[k] : GapPatterns::Entry(t_.patterns[slot] + kGapRuleAt);
    if (e == GapPatterns::kRunInFull) return GapRuleMatch(p, slot);
    // N within G bytes after p, or the record is not read.
    uint32_t y = next[e & 0xFF];
    const uint32_t limit = p + 1 + (e >> 8);
    if (y >= limit) return false;
    // The candidates, nearest first, along the chain of N's indices. A
    // window crowded with N (a run of it) goes to the runner instead, whose
    // memory of this gap makes each index count once for all positions.
    const uint32_t ident = ProgramIdent(slot, kGapRule);
    if (runner_.Remembers(ident, p + 1, limit)) return GapRuleMatch(p, slot);
    const uint8_t* prog = t_.patterns[slot] + kGapRuleAt;
    runner_.Begin(ident);
    for (uint32_t tries = 0; y < limit; ++tries) {
      if (tries == kChainTries) return GapRuleMatch(p, slot);
      if (runner_.Leads(y, prog)) return true;
      if (chain_[y - base] == kNoLink) return false;
      y = base + chain_[y - base];
    }
    return false;
  }

  // Fetches what the two-byte rule will read at the positions of `list`
  // (those marked in `two`, bit 0 standing for position `first`): bucket
  // entries first, then the last pattern pointer of each bucket (tried
  // first), then its record, each stage issued for every position before
  // the next stage needs it.
  void FetchAhead(const uint32_t* list, uint32_t n, uint32_t two, uint32_t first) const {
    const uint8_t* const* last[32];
    uint32_t m = 0;
    for (uint32_t i = 0; i < n; ++i) {
      if (two >> (list[i] - first) & 1u) Prefetch(t_.index + 4 * LoadKey(data_ + list[i]));
    }
    for (uint32_t i = 0; i < n; ++i) {
      if (!(two >> (list[i] - first) & 1u)) continue;
      const Bucket b = ReadBucket(t_.index, LoadKey(data_ + list[i]));
      if (b.count == 0) continue;
      last[m] = t_.patterns + b.first + b.count - 1;
      Prefetch(last[m++]);
    }
    for (uint32_t i = 0; i < m; ++i) Prefetch(*last[i]);
  }

  const PatternTableView& t_;
  const uint8_t* data_;
  uint32_t length_;
  SEARCH_BuscaTblList* out_;
  bool gap_rule_;
  ProgramRunner runner_;
  CrowdedFilters filters_;
  uint8_t gap_of_[256];
  bool gap_patterns_read_ = false;
  GapPatterns gap_patterns_;
  uint16_t chain_[kBlock + kMaxWindow];  // per index of the sweep, the next index of the same value
  PendingGapMatch pending_[kMatchRoom];
};

}  // namespace

void SearchLocally(const PatternTableView& t, const uint8_t* data, uint32_t positions, uint32_t length,
                   SEARCH_BuscaTblList* out) {
  // Tables without any gap-rule pattern never look at the gap keys.
  uint8_t gap_keys = 0;
  for (uint32_t i = 0; i < 32; ++i) gap_keys |= t.bitmap[kGapKeyRow + i];
  if (positions < kShortSearch) {
    Search(t, data, length, out, gap_keys != 0, nullptr).Short(positions);
    return;
  }
  GapMemory memory;
  Search search(t, data, length, out, gap_keys != 0, &memory);
  if (gap_keys) search.ReadGapKeys();
  search.Long(positions);
}

}  // namespace vrk::search
