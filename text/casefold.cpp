// Case folding over the generated Unicode 3.2.0 table (casefold_table.inc).
#include "text/casefold.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <iterator>
#include <pthread.h>

#include "frame/block.h"
#include "text/kernels.h"
#include "text/utf8.h"
#include "vrk_text.h"
#include "vrkalloc.h"

namespace vrk::text {
namespace {

// A record's kind, as the generated table numbers it.
enum FoldKind : uint8_t {
  kSameLength = 0,   // common or full mapping, same UTF-8 length
  kSimple = 1,       // simple mapping (same length by construction)
  kTurkic = 2,       // Turkic mapping
  kOtherLength = 3,  // common or full mapping that changes the length
};

struct FoldRecord {
  uint8_t kind;
  char src[7];         // source bytes, zero-filled
  const char* folded;  // NUL-terminated, at most 6 bytes
};

#define VRK_FOLD_TABLE_BEGIN(length, count) constexpr FoldRecord kFold##length[count] = {
#define VRK_FOLD(kind, status, code_point, src, folded) {kind, src, folded},
#define VRK_FOLD_TABLE_END(length) \
  }                                \
  ;
#include "casefold_table.inc"
#undef VRK_FOLD_TABLE_BEGIN
#undef VRK_FOLD
#undef VRK_FOLD_TABLE_END

constexpr std::array<const FoldRecord*, 4> kFoldTables = {kFold1, kFold2, kFold3, kFold4};
constexpr std::array<uint32_t, 4> kFoldCounts = {std::size(kFold1), std::size(kFold2), std::size(kFold3),
                                                    std::size(kFold4)};
static_assert(kFoldCounts[0] == 27 && kFoldCounts[1] == 417 && kFoldCounts[2] == 385 &&
              kFoldCounts[3] == 38);

constexpr int CompareSource(const char* a, const char* b, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const uint8_t x = uint8_t(a[i]);
    const uint8_t y = uint8_t(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

// The binary search over the records of a lead byte relies on each
// sub-table ascending by source, with the records of one source side by side.
constexpr bool TablesAreSorted() {
  for (uint32_t t = 0; t < 4; ++t) {
    for (uint32_t i = 1; i < kFoldCounts[t]; ++i) {
      if (CompareSource(kFoldTables[t][i - 1].src, kFoldTables[t][i].src, int32_t(t + 1)) > 0) return false;
    }
  }
  return true;
}
static_assert(TablesAreSorted(), "case-folding sub-tables must ascend by source bytes");

constexpr uint32_t FoldedLength(const FoldRecord& r) {
  uint32_t n = 0;
  while (r.folded[n] != 0) ++n;
  return n;
}

// Same-length kinds really keep the length: in-place folding depends on it.
constexpr bool SameLengthKindsKeepLength() {
  for (uint32_t t = 0; t < 4; ++t) {
    for (uint32_t i = 0; i < kFoldCounts[t]; ++i) {
      const FoldRecord& r = kFoldTables[t][i];
      if (r.kind <= kSimple && FoldedLength(r) != t + 1) return false;
    }
  }
  return true;
}
static_assert(SameLengthKindsKeepLength());

// Kinds a lookup admits, as a bit mask over the kind numbers: in place
// (same length only), strict, and strict with the Turkic mappings.
using KindFilter = uint8_t;
constexpr KindFilter kInPlaceKinds = (1u << kSameLength) | (1u << kSimple);
constexpr KindFilter kStrictKinds = kInPlaceKinds | (1u << kOtherLength);
constexpr KindFilter kTurkicKinds = kStrictKinds | (1u << kTurkic);
constexpr KindFilter kFilters[3] = {kInPlaceKinds, kStrictKinds, kTurkicKinds};

constexpr KindFilter FilterFor(int flags) { return (flags & UTF8_FOLD_TURKIC) ? kTurkicKinds : kStrictKinds; }
constexpr uint32_t FilterIndex(KindFilter filter) {
  return filter == kInPlaceKinds ? 0 : filter == kStrictKinds ? 1 : 2;
}

// Direct slots for 1- and 2-byte sources, which most text consists of: per
// filter, the position of the first admitted record of each source, found
// without a search. A 2-byte character's slot is the 11 payload bits of its
// two bytes, which tells apart every pair of a lead byte (0xC0 to 0xDF) and
// a continuation byte; the callers have checked both.
constexpr uint16_t kNoRecord = 0xFFFF;

constexpr uint32_t Slot2(const char* p) { return (uint32_t(uint8_t(p[0]) & 0x1F) << 6) | (uint8_t(p[1]) & 0x3F); }

template <uint32_t kSlots, uint32_t kLength>
constexpr std::array<std::array<uint16_t, kSlots>, 3> AdmittedBySlot() {
  std::array<std::array<uint16_t, kSlots>, 3> slots{};
  for (uint32_t f = 0; f < 3; ++f) {
    slots[f].fill(kNoRecord);
    // Backwards, so that the first admitted record of a source is kept.
    for (uint32_t i = kFoldCounts[kLength - 1]; i-- > 0;) {
      const FoldRecord& r = kFoldTables[kLength - 1][i];
      if (!(kFilters[f] & (1u << r.kind))) continue;
      slots[f][kLength == 1 ? uint8_t(r.src[0]) : Slot2(r.src)] = uint16_t(i);
    }
  }
  return slots;
}

constexpr auto kAdmitted1 = AdmittedBySlot<128, 1>();
constexpr auto kAdmitted2 = AdmittedBySlot<2048, 2>();

// Folded lengths of the records (the source's for the same-length kinds),
// so that no lookup measures a string.
template <uint32_t kLength, uint32_t kCount>
constexpr std::array<uint8_t, kCount> FoldedLengths() {
  std::array<uint8_t, kCount> lengths{};
  for (uint32_t i = 0; i < kCount; ++i) {
    const FoldRecord& r = kFoldTables[kLength - 1][i];
    lengths[i] = uint8_t(r.kind <= kSimple ? kLength : FoldedLength(r));
  }
  return lengths;
}

constexpr auto kFoldedLengths1 = FoldedLengths<1, kFoldCounts[0]>();
constexpr auto kFoldedLengths2 = FoldedLengths<2, kFoldCounts[1]>();
constexpr auto kFoldedLengths3 = FoldedLengths<3, kFoldCounts[2]>();
constexpr auto kFoldedLengths4 = FoldedLengths<4, kFoldCounts[3]>();
constexpr std::array<const uint8_t*, 4> kFoldedLengths = {kFoldedLengths1.data(), kFoldedLengths2.data(),
                                                          kFoldedLengths3.data(), kFoldedLengths4.data()};

// ASCII folded by the first admitted record, per filter, when that gives
// one ASCII byte; kSlowPath where it does not (the Turkic I), which then
// takes the general route.
constexpr uint8_t kSlowPath = 0xFF;

constexpr std::array<std::array<uint8_t, 128>, 3> kAsciiFold = [] {
  std::array<std::array<uint8_t, 128>, 3> fold{};
  for (uint32_t f = 0; f < 3; ++f) {
    for (uint32_t c = 0; c < 128; ++c) {
      fold[f][c] = uint8_t(c);
      const uint16_t i = kAdmitted1[f][c];
      if (i == kNoRecord) continue;
      const char* folded = kFold1[i].folded;
      fold[f][c] = (folded[1] == 0 && uint8_t(folded[0]) < 0x80) ? uint8_t(folded[0]) : kSlowPath;
    }
  }
  return fold;
}();
static_assert(kAsciiFold[1]['K'] == 'k' && kAsciiFold[1]['I'] == 'i' && kAsciiFold[2]['I'] == kSlowPath &&
              kAsciiFold[0]['I'] == 'i' && kAsciiFold[1]['k'] == 'k' && kAsciiFold[1][0] == 0);

// Outside the Turkic I, every filter folds ASCII as A-Z to a-z, which is
// what the vector runs of kernels.h do.
constexpr bool AsciiFoldsAsLetters() {
  for (uint32_t f = 0; f < 3; ++f) {
    for (uint32_t c = 0; c < 128; ++c) {
      const uint32_t letter = c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c;
      if (kAsciiFold[f][c] != letter && !(f == 2 && c == 'I' && kAsciiFold[f][c] == kSlowPath)) return false;
    }
  }
  return true;
}
static_assert(AsciiFoldsAsLetters());

constexpr bool InPlaceAsciiIsDirect() {
  for (const uint8_t f : kAsciiFold[0]) {
    if (f == kSlowPath) return false;
  }
  return true;
}
static_assert(InPlaceAsciiIsDirect(), "in-place folding of ASCII must never need the general route");

// 2-byte characters folded by the first admitted record, per filter and
// slot, as their two folded bytes in one big-endian word (so words compare
// like the bytes), when the folded form is two bytes; 0 where it is not,
// which then takes the general route. Without a record a character stands
// for itself, rebuilt here from its slot.
constexpr std::array<std::array<uint16_t, 2048>, 3> kFold2Key = [] {
  std::array<std::array<uint16_t, 2048>, 3> keys{};
  for (uint32_t f = 0; f < 3; ++f) {
    for (uint32_t slot = 0; slot < 2048; ++slot) {
      const uint16_t i = kAdmitted2[f][slot];
      if (i == kNoRecord) {
        keys[f][slot] = uint16_t(((0xC0 | (slot >> 6)) << 8) | 0x80 | (slot & 0x3F));
      } else if (kFoldedLengths2[i] == 2) {
        keys[f][slot] = uint16_t((uint8_t(kFold2[i].folded[0]) << 8) | uint8_t(kFold2[i].folded[1]));
      }
    }
  }
  return keys;
}();

// Lead-byte index: [L][b] is the first record of the (L + 1)-byte sub-table
// whose source begins with b, or that sub-table's count. Built once on the
// first lookup. g_fold_ready is set, with release order, only after all
// 1024 entries are written, so a reader that sees it set sees the whole
// index; pthread_once makes concurrent first callers wait for one build.
constinit uint32_t g_fold_index[4][256] = {};
constinit std::atomic<uint32_t> g_fold_ready{0};
constinit pthread_once_t g_fold_once = PTHREAD_ONCE_INIT;

void BuildFoldIndex() {
  for (uint32_t t = 0; t < 4; ++t) {
    for (uint32_t b = 0; b < 256; ++b) {
      uint32_t first = kFoldCounts[t];
      for (uint32_t i = 0; i < kFoldCounts[t]; ++i) {
        if (uint8_t(kFoldTables[t][i].src[0]) == b) {
          first = i;
          break;
        }
      }
      g_fold_index[t][b] = first;
    }
  }
  g_fold_ready.store(1, std::memory_order_release);
}

[[gnu::always_inline]] inline void EnsureIndex() {
  if (g_fold_ready.load(std::memory_order_acquire) == 0) pthread_once(&g_fold_once, BuildFoldIndex);
}

struct Folded {
  const char* bytes;
  int32_t length;
};

// The position of the first record of the n-byte source at p that `filter`
// admits, or kNoRecord. Records of one source are side by
// side in the table's order; 1- and 2-byte sources are found through the
// direct slots, longer ones through the lead-byte index and a binary search
// over the records of that lead byte, all of them sorted by source.
[[gnu::always_inline]] inline uint32_t FindRecord(const char* p, int32_t n, KindFilter filter) {
  EnsureIndex();
  if (n == 1) return kAdmitted1[FilterIndex(filter)][uint8_t(p[0]) & 0x7F];
  if (n == 2) return kAdmitted2[FilterIndex(filter)][Slot2(p)];
  const uint32_t t = uint32_t(n - 1);
  const uint32_t count = kFoldCounts[t];
  const uint32_t start = g_fold_index[t][uint8_t(p[0])];
  if (start == count) return kNoRecord;
  const FoldRecord* const table = kFoldTables[t];
  const FoldRecord* it = std::lower_bound(table + start, table + count, p, [n](const FoldRecord& r, const char* key) {
    return CompareSource(r.src, key, n) < 0;
  });
  for (; it != table + count && CompareSource(it->src, p, n) == 0; ++it) {
    if (filter & (1u << it->kind)) return uint32_t(it - table);
  }
  return kNoRecord;
}

// The folded form of the n-byte character at p: its record's text, or the
// character itself when no record is admitted.
[[gnu::always_inline]] inline Folded FoldChar(const char* p, int32_t n, KindFilter filter) {
  const uint32_t found = FindRecord(p, n, filter);
  if (found == kNoRecord) return {p, n};
  const uint32_t t = uint32_t(n - 1);
  return {kFoldTables[t][found].folded, kFoldedLengths[t][found]};
}

constexpr int32_t LeadLengthOf(const char* p) { return LeadLength(uint8_t(*p)); }

const uint8_t* Bytes(const char* p) { return reinterpret_cast<const uint8_t*>(p); }

constexpr FoldOrder OrderOf(bool less) { return less ? FoldOrder::kLess : FoldOrder::kGreater; }

// Byte order of two folded forms, the shorter first when one is a prefix of
// the other.
[[gnu::always_inline]] inline FoldOrder CompareBytes(const char* a, int32_t la, const char* b, int32_t lb) {
  const int order = CompareSource(a, b, std::min(la, lb));
  if (order != 0) return OrderOf(order < 0);
  if (la == lb) return FoldOrder::kEqual;
  return OrderOf(la < lb);
}

// The order of the characters at pa and pb after folding each.
[[gnu::always_inline]] inline FoldOrder CompareChar(const char* pa, const char* pb, int flags) {
  const int32_t na = LeadLengthOf(pa);
  const int32_t nb = LeadLengthOf(pb);
  if (na < 0 || nb < 0) return FoldOrder::kMalformed;
  if (!TrailIsValid(Bytes(pa), na) || !TrailIsValid(Bytes(pb), nb)) return FoldOrder::kMalformed;
  const KindFilter filter = FilterFor(flags);
  const Folded fa = FoldChar(pa, na, filter);
  const Folded fb = FoldChar(pb, nb, filter);
  if ((flags & UTF8_CMP_LENGTHFIRST) && fa.length != fb.length) return OrderOf(fa.length < fb.length);
  return CompareBytes(fa.bytes, fa.length, fb.bytes, fb.length);
}

// Output capacity grows in fixed steps the product's allocator accounts for.
constexpr uint32_t kFoldGrowthStep = 2048;

// The byte that ends a vector run of ASCII under `flags`: the Turkic I,
// which folds to a 2-byte letter, or none (0x80 is no ASCII byte).
constexpr uint8_t RunStop(int flags) { return (flags & UTF8_FOLD_TURKIC) ? uint8_t('I') : uint8_t(0x80); }

// Equal ASCII characters in a row after which the comparison goes on a
// vector at a time. Setting that up (finding how far both strings go) costs
// about what 20 characters through the table do, so short strings and text
// of other scripts stay with the table; long runs (paths, addresses) gain.
constexpr ptrdiff_t kAsciiStreak = 48;

// Runs of ASCII are folded many bytes per step only where they are long
// enough for that to pay: at least kLongRun bytes are left (known to come
// before the terminator) and the first eight are ASCII (the Turkic I among
// them just ends the vector run early).
constexpr uint32_t kLongRun = 16;

// The length of the run of equal ASCII at a and b, found many bytes at a
// time. How far the strings go is learnt a window at a time (strnlen), so
// that a run that ends early has not looked far ahead. Kept out of line and
// without state between calls: the comparison's own loop needs every
// register it can get on this target.
[[gnu::noinline]] uint32_t EqualAsciiAhead(const char* a, const char* b, int flags) {
  uint32_t run = 0;
  for (uint32_t window = 256;; window = window < (1u << 16) ? window * 2 : window) {
    const size_t known_a = strnlen(a + run, window);
    const size_t known_b = strnlen(b + run, window);
    const uint32_t known = uint32_t(known_a < known_b ? known_a : known_b);
    const uint32_t more = EqualAsciiRun(Bytes(a + run), Bytes(b + run), known, RunStop(flags));
    run += more;
    if (more < window) return run;  // the run or a string ended inside the window
  }
}

constexpr uint8_t FoldLetter(uint8_t c) { return c >= 'A' && c <= 'Z' ? uint8_t(c + ('a' - 'A')) : c; }

inline bool StartsLongRun(const char* p) {
  uint32_t w[2];
  std::memcpy(w, p, sizeof w);
  return ((w[0] | w[1]) & 0x80808080u) == 0;
}

}  // namespace

char* FoldInPlace(char* s) {
  EnsureIndex();  // the set-up runs on the first call, whatever the text
  char* p = s;
  char* const end = s + std::strlen(s);
  while (p != end) {
    const uint8_t c = uint8_t(*p);
    if (c < 0x80) {  // every in-place folding of ASCII is one byte
      if (end - p < ptrdiff_t(kLongRun) || !StartsLongRun(p)) {
        *p++ = char(FoldLetter(c));
        continue;
      }
      uint8_t* const run = reinterpret_cast<uint8_t*>(p);
      p += FoldAsciiRun(run, run, uint32_t(end - p), RunStop(0));
      continue;
    }
    const int32_t n = LeadLength(c);
    if (n < 0 || !IsValidChar(Bytes(p))) break;
    const Folded f = FoldChar(p, n, kInPlaceKinds);
    if (f.bytes != p) std::memcpy(p, f.bytes, size_t(n));
    p += n;
  }
  return s;
}

char* FoldCopy(const char* s, int flags) {
  const KindFilter filter = FilterFor(flags);
  const std::array<uint16_t, 2048>& keys = kFold2Key[FilterIndex(filter)];
  const uint8_t stop = RunStop(flags);
  Block<char> output;
  uint32_t capacity = 0;
  uint32_t length = 0;
  EnsureIndex();  // the set-up runs on the first call, whatever the text
  const char* p = s;
  const char* const end = s + std::strlen(s);
  // Raises the capacity by one step; a refused growth keeps the old block,
  // which the holder frees.
  const auto grow = [&] {
    if (capacity > UINT32_MAX - kFoldGrowthStep || !output.Grow(capacity + kFoldGrowthStep)) return false;
    capacity += kFoldGrowthStep;
    return true;
  };
  // Each character is appended when its folded bytes and the terminator
  // fit, after one growth if they do not.
  while (p != end) {
    const uint8_t c = uint8_t(*p);
    if (c < 0x80 && c != stop) {
      if (length + 2 > capacity && !grow()) return nullptr;
      if (end - p >= ptrdiff_t(kLongRun) && capacity - length > kLongRun && StartsLongRun(p)) {
        // A long run of ASCII, as far as the room goes without growing:
        // each byte needs room for itself and the terminator.
        const uint32_t fits = capacity - 1 - length;
        const uint32_t left = uint32_t(end - p);
        const uint32_t run = FoldAsciiRun(Bytes(p), reinterpret_cast<uint8_t*>(output.get()) + length,
                                          left < fits ? left : fits, stop);
        p += run;
        length += run;
        continue;
      }
      output[length++] = char(FoldLetter(c));
      ++p;
      continue;
    }
    // 2-byte characters that fold to two bytes, from the direct table.
    if ((c & 0xE0) == 0xC0 && IsContinuation(uint8_t(p[1]))) {
      const uint16_t key = keys[Slot2(p)];
      if (key != 0) {
        if (length + 3 > capacity && !grow()) return nullptr;
        output[length] = char(key >> 8);
        output[length + 1] = char(key & 0xFF);
        length += 2;
        p += 2;
        continue;
      }
    }
    const int32_t n = LeadLength(c);
    if (n < 0 || !IsValidChar(Bytes(p))) {
      // Released with the null-safe call, even before anything was
      // allocated.
      void* block = output.release();
      PSafeFree(&block);
      return nullptr;
    }
    const Folded f = FoldChar(p, n, filter);
    if (length + uint32_t(f.length) + 1 > capacity && !grow()) return nullptr;
    char* const at = output.get() + length;
    for (int32_t i = 0; i < f.length; ++i) at[i] = f.bytes[i];  // 1 to 6 bytes
    length += uint32_t(f.length);
    p += n;
  }
  if (!output) return nullptr;  // an empty string
  output[length] = 0;
  (void)output.Grow(length + 1);  // when refused, the larger block serves
  return output.release();
}

FoldOrder CompareFolded(const char* a, const char* b, int flags) {
  if (a == nullptr || b == nullptr) return FoldOrder::kNullArgument;
  const uint32_t filter = FilterIndex(FilterFor(flags));
  const std::array<uint8_t, 128>& ascii = kAsciiFold[filter];
  const std::array<uint16_t, 2048>& keys = kFold2Key[filter];
  const char* vector_at = a + kAsciiStreak;  // where a run of equal ASCII goes vector
  EnsureIndex();  // the set-up runs on the first call, whatever the text
  for (;;) {
    // Two ASCII characters whose foldings are single bytes compare as those
    // bytes, whatever the flags: both folded forms are one byte long. The
    // loop is bound by how many branches a round takes, so an equal pair
    // goes through as few as can be: equal foldings, and one test that the
    // folding is neither the terminator's (0) nor kSlowPath.
    const uint8_t x = uint8_t(*a);
    const uint8_t y = uint8_t(*b);
    // A run that has gone on for kAsciiStreak characters goes on a vector at
    // a time. Reaching that place is folded into the ASCII test as its high
    // bit, so the loop takes no branch of its own for it.
    const uint32_t streak_done = uint32_t(a == vector_at) << 7;
    if (((x | y) | streak_done) < 0x80) {
      const uint8_t fx = ascii[x];
      const uint8_t fy = ascii[y];
      if (__builtin_expect(fx == fy, 1)) {
        if (__builtin_expect(uint8_t(fx - 1) < kSlowPath - 1, 1)) {
          ++a;
          ++b;
          continue;
        }
        if (fx == 0) return FoldOrder::kEqual;  // both at their terminators
      } else if (fx != kSlowPath && fy != kSlowPath) {
        return OrderOf(fx < fy);
      }
    } else if ((x | y) < 0x80) {
      const uint32_t run = EqualAsciiAhead(a, b, flags);
      a += run;
      b += run;
      vector_at = a + kAsciiStreak;
      continue;
    }
    // Two 2-byte characters whose foldings are two bytes each compare as
    // those bytes, likewise whatever the flags.
    if ((x & 0xE0) == 0xC0 && (y & 0xE0) == 0xC0 && IsContinuation(uint8_t(a[1])) &&
        IsContinuation(uint8_t(b[1]))) {
      const uint16_t ka = keys[Slot2(a)];
      const uint16_t kb = keys[Slot2(b)];
      if (ka != 0 && kb != 0) {
        if (ka != kb) return OrderOf(ka < kb);
        a += 2;
        b += 2;
        vector_at = a + kAsciiStreak;
        continue;
      }
    }
    const FoldOrder order = CompareChar(a, b, flags);
    if (order != FoldOrder::kEqual) return order;
    if (*a == 0) return FoldOrder::kEqual;
    // The two characters may differ in length (U+004B against U+212A).
    a += LeadLengthOf(a);
    b += LeadLengthOf(b);
    vector_at = a + kAsciiStreak;
  }
}

}  // namespace vrk::text
