// Case folding over the generated Unicode 3.2.0 table (casefold_table.inc).
#include "text/casefold.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <iterator>
#include <pthread.h>

#include "frame/block.h"
#include "text/utf8.h"
#include "vrk_text.h"

namespace vrk::text {
namespace {

enum : uint8_t {
  UTF8FOLD_SAMELEN = 0,   // common or full mapping, same UTF-8 length
  UTF8FOLD_SIMPLE = 1,    // simple mapping (same length by construction)
  UTF8FOLD_TURKIC = 2,    // Turkic mapping
  UTF8FOLD_OTHERLEN = 3,  // common or full mapping that changes the length
};

struct utf8foldrec {
  uint8_t kind;
  char src[7];         // source bytes, zero-filled
  const char* folded;  // NUL-terminated, at most 6 bytes
};

#define VRK_FOLD_TABLE_BEGIN(length, count) constexpr utf8foldrec kFold##length[count] = {
#define VRK_FOLD(kind, status, code_point, src, folded) {kind, src, folded},
#define VRK_FOLD_TABLE_END(length) \
  }                                \
  ;
#include "casefold_table.inc"
#undef VRK_FOLD_TABLE_BEGIN
#undef VRK_FOLD
#undef VRK_FOLD_TABLE_END

constexpr std::array<const utf8foldrec*, 4> utf8foldtables = {kFold1, kFold2, kFold3, kFold4};
constexpr std::array<uint32_t, 4> utf8foldcounts = {std::size(kFold1), std::size(kFold2), std::size(kFold3),
                                                    std::size(kFold4)};
static_assert(utf8foldcounts[0] == 27 && utf8foldcounts[1] == 417 && utf8foldcounts[2] == 385 &&
              utf8foldcounts[3] == 38);

constexpr int CompareSource(const char* a, const char* b, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const uint8_t x = uint8_t(a[i]);
    const uint8_t y = uint8_t(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

// The lookup's binary search relies on each sub-table ascending by source,
// with the records of one source side by side.
constexpr bool TablesAreSorted() {
  for (uint32_t t = 0; t < 4; ++t) {
    for (uint32_t i = 1; i < utf8foldcounts[t]; ++i) {
      if (CompareSource(utf8foldtables[t][i - 1].src, utf8foldtables[t][i].src, int32_t(t + 1)) > 0) return false;
    }
  }
  return true;
}
static_assert(TablesAreSorted(), "case-folding sub-tables must ascend by source bytes");

// Same-length kinds really keep the length: in-place folding depends on it.
constexpr bool SameLengthKindsKeepLength() {
  for (uint32_t t = 0; t < 4; ++t) {
    for (uint32_t i = 0; i < utf8foldcounts[t]; ++i) {
      const utf8foldrec& r = utf8foldtables[t][i];
      if (r.kind > UTF8FOLD_SIMPLE) continue;
      uint32_t n = 0;
      while (r.folded[n] != 0) ++n;
      if (n != t + 1) return false;
    }
  }
  return true;
}
static_assert(SameLengthKindsKeepLength());

// Lead-byte index: [L][b] is the first record of the (L + 1)-byte sub-table
// whose source begins with b, or that sub-table's count. Built once on the
// first lookup. utf8foldready is set, with release order, only after all
// 1024 entries are written, so a reader that sees it set sees the whole
// index; pthread_once makes concurrent first callers wait for one build.
constinit uint32_t utf8foldindex[4][256] = {};
constinit std::atomic<uint32_t> utf8foldready{0};
constinit pthread_once_t utf8foldonce = PTHREAD_ONCE_INIT;

void utf8foldinit() {
  for (uint32_t t = 0; t < 4; ++t) {
    for (uint32_t b = 0; b < 256; ++b) {
      uint32_t first = utf8foldcounts[t];
      for (uint32_t i = 0; i < utf8foldcounts[t]; ++i) {
        if (uint8_t(utf8foldtables[t][i].src[0]) == b) {
          first = i;
          break;
        }
      }
      utf8foldindex[t][b] = first;
    }
  }
  utf8foldready.store(1, std::memory_order_release);
}

void EnsureIndex() {
  if (utf8foldready.load(std::memory_order_acquire) == 0) pthread_once(&utf8foldonce, utf8foldinit);
}

// Kinds a lookup admits, as a bit mask over the kind numbers.
using KindFilter = uint8_t;
constexpr KindFilter kInPlaceKinds = (1u << UTF8FOLD_SAMELEN) | (1u << UTF8FOLD_SIMPLE);
constexpr KindFilter FilterFor(int flags) {
  KindFilter filter = kInPlaceKinds | (1u << UTF8FOLD_OTHERLEN);
  if (flags & UTF8_FOLD_TURKIC) filter |= 1u << UTF8FOLD_TURKIC;
  return filter;
}

// The first record admitted by `filter` whose source is the n bytes at p, or
// null. The records of one lead byte are contiguous and sorted, so a binary
// search from the index entry finds the first record of that source; its
// records (at most two) follow in the table's order, first one first.
const utf8foldrec* utf8foldfind(const char* p, int32_t n, KindFilter filter) {
  EnsureIndex();
  const uint32_t t = uint32_t(n - 1);
  const uint32_t count = utf8foldcounts[t];
  const uint32_t start = utf8foldindex[t][uint8_t(p[0])];
  if (start == count) return nullptr;
  const utf8foldrec* const table = utf8foldtables[t];
  const utf8foldrec* it = std::lower_bound(table + start, table + count, p, [n](const utf8foldrec& r, const char* key) {
    return CompareSource(r.src, key, n) < 0;
  });
  for (; it != table + count && CompareSource(it->src, p, n) == 0; ++it) {
    if (filter & (1u << it->kind)) return it;
  }
  return nullptr;
}

struct Folded {
  const char* bytes;
  int32_t length;
};

// The folded form of the n-byte character at p: its record's text, or the
// character itself when no record is admitted.
Folded utf8foldchar(const char* p, int32_t n, KindFilter filter) {
  const utf8foldrec* r = utf8foldfind(p, n, filter);
  if (r == nullptr) return {p, n};
  if (r->kind <= UTF8FOLD_SIMPLE) return {r->folded, n};
  return {r->folded, int32_t(std::strlen(r->folded))};
}

constexpr int32_t LeadLengthOf(const char* p) { return LeadLength(uint8_t(*p)); }

bool utf8checktrail(const char* p, int32_t n) { return TrailIsValid(reinterpret_cast<const uint8_t*>(p), n); }

int utf8cmpbytes(const char* a, int32_t la, const char* b, int32_t lb) {
  const int order = CompareSource(a, b, std::min(la, lb));
  if (order != 0) return order;
  if (la == lb) return 0;
  return la < lb ? -1 : 1;
}

int utf8cmpchar(const char* pa, const char* pb, int flags) {
  const int32_t na = LeadLengthOf(pa);
  const int32_t nb = LeadLengthOf(pb);
  if (na < 0 || nb < 0) return UTF8_ERR_INVALID;
  if (!utf8checktrail(pa, na) || !utf8checktrail(pb, nb)) return UTF8_ERR_INVALID;
  const KindFilter filter = FilterFor(flags);
  const Folded fa = utf8foldchar(pa, na, filter);
  const Folded fb = utf8foldchar(pb, nb, filter);
  if ((flags & UTF8_CMP_LENGTHFIRST) && fa.length != fb.length) return fa.length < fb.length ? -1 : 1;
  return utf8cmpbytes(fa.bytes, fa.length, fb.bytes, fb.length);
}

// Output capacity grows in fixed steps the product's allocator accounts for.
constexpr uint32_t kFoldGrowthStep = 2048;

}  // namespace

char* FoldInPlace(char* s) {
  for (char* p = s; *p != 0;) {
    const int32_t n = LeadLengthOf(p);
    if (n < 0 || !IsValidChar(reinterpret_cast<const uint8_t*>(p))) break;
    if (const utf8foldrec* r = utf8foldfind(p, n, kInPlaceKinds)) std::memcpy(p, r->folded, size_t(n));
    p += n;
  }
  return s;
}

char* FoldCopy(const char* s, int flags) {
  const KindFilter filter = FilterFor(flags);
  void* output = nullptr;
  uint32_t capacity = 0;
  uint32_t length = 0;
  for (const char* p = s; *p != 0;) {
    const int32_t n = LeadLengthOf(p);
    if (n < 0 || !IsValidChar(reinterpret_cast<const uint8_t*>(p))) {
      PSafeFree(&output);
      return nullptr;
    }
    const Folded f = utf8foldchar(p, n, filter);
    if (length + uint32_t(f.length) + 1 > capacity) {
      if (capacity > UINT32_MAX - kFoldGrowthStep) {
        Pfree(output);
        return nullptr;
      }
      void* grown = Prealloc(output, capacity + kFoldGrowthStep);
      if (grown == nullptr) {
        if (output != nullptr) Pfree(output);
        return nullptr;
      }
      output = grown;
      capacity += kFoldGrowthStep;
    }
    std::memcpy(static_cast<char*>(output) + length, f.bytes, size_t(f.length));
    length += uint32_t(f.length);
    p += n;
  }
  if (output == nullptr) return nullptr;  // an empty string
  static_cast<char*>(output)[length] = 0;
  if (void* shrunk = Prealloc(output, length + 1)) output = shrunk;
  return static_cast<char*>(output);
}

int CompareFolded(const char* a, const char* b, int flags) {
  if (a == nullptr || b == nullptr) return UTF8_ERR_NULLARG;
  for (;;) {
    const int order = utf8cmpchar(a, b, flags);
    if (order != 0) return order;
    if (*a == 0) return 0;
    // The two characters may differ in length (U+004B against U+212A).
    a += LeadLengthOf(a);
    b += LeadLengthOf(b);
  }
}

}  // namespace vrk::text
