// Code-page registry: the constant table, its two sorted copies and the
// lookups over them.
#include "text/codepage.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "frame/block.h"

namespace vrk::text {
namespace {

constexpr CodePageRow kCodePageTable[] = {
#define VRK_CODEPAGE(number, name) {name, number},
#include "text/codepage_table.inc"
#undef VRK_CODEPAGE
};

static_assert(std::size(kCodePageTable) == kCodePageRows);

constexpr int ConstexprCompare(const char* a, const char* b) {
  while (*a && *a == *b) ++a, ++b;
  return static_cast<unsigned char>(*a) - static_cast<unsigned char>(*b);
}

// The table's own order is what the "first name" fallback and the stable
// sort by number both rely on.
constexpr bool TableIsOrdered() {
  const auto& t = kCodePageTable;
  for (uint32_t i = 1; i + 1 < kCodePageRows; ++i) {
    if (t[i - 1].codepage > t[i].codepage) return false;
    if (t[i - 1].codepage == t[i].codepage && ConstexprCompare(t[i - 1].name, t[i].name) >= 0) return false;
  }
  const auto& last = t[kCodePageRows - 1];
  return last.codepage == -1 && ConstexprCompare(last.name, "LAST") == 0;
}
static_assert(TableIsOrdered(), "code-page rows must ascend by number, then name, and end with LAST");

// Sorted copies, owned from load to unload; null when refused at load.
constinit CodePageRow* g_by_number = nullptr;
constinit CodePageRow* g_by_name = nullptr;

// ASCII-only case folding, so that the result never depends on the
// process's locale; sorting and searching use this same comparison.
constexpr unsigned char FoldAscii(unsigned char c) { return (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c; }

int CompareNames(const char* a, const char* b) {
  for (;; ++a, ++b) {
    const unsigned char x = FoldAscii(static_cast<unsigned char>(*a));
    const unsigned char y = FoldAscii(static_cast<unsigned char>(*b));
    if (x != y || x == 0) return int(x) - int(y);
  }
}

using Compare = int (*)(const CodePageRow&, const CodePageRow&);

// A stable sort that needs no scratch memory: binary insertion, each row
// going behind the rows that compare equal to it.
void StableSort(CodePageRow* rows, uint32_t n, Compare compare) {
  for (uint32_t i = 1; i < n; ++i) {
    const CodePageRow row = rows[i];
    CodePageRow* slot = std::upper_bound(
        rows, rows + i, row, [compare](const CodePageRow& a, const CodePageRow& b) { return compare(a, b) < 0; });
    std::move_backward(slot, rows + i, rows + i + 1);
    *slot = row;
  }
}

CodePageRow* SortedCopy(Compare compare) {
  Block<CodePageRow> copy = Block<CodePageRow>::Calloc(kCodePageRows, sizeof(CodePageRow));
  if (!copy) return nullptr;
  std::copy(std::begin(kCodePageTable), std::end(kCodePageTable), copy.get());
  StableSort(copy.get(), kCodePageRows, compare);
  return copy.release();
}

// The halving search: it stops at the first equal row it probes, which is
// what decides the name returned for code pages with several names.
const CodePageRow* HalvingSearch(const CodePageRow* rows, const CodePageRow& key, Compare compare) {
  uint32_t lower = 0;
  uint32_t upper = kCodePageRows;
  while (lower < upper) {
    const uint32_t probe = (lower + upper) / 2;
    const int order = compare(key, rows[probe]);
    if (order < 0) {
      upper = probe;
    } else if (order > 0) {
      lower = probe + 1;
    } else {
      return &rows[probe];
    }
  }
  return nullptr;
}

template <class Match>
const CodePageRow* Scan(Match match) {
  for (const CodePageRow& row : kCodePageTable) {
    if (match(row)) return &row;
  }
  return nullptr;
}

// Row comparisons: by number, and by name under ASCII case folding. A
// caller's key can be any 32-bit number, so no subtraction: it could
// overflow for keys far from the table's values.
int CompareByNumber(const CodePageRow& a, const CodePageRow& b) {
  return (a.codepage > b.codepage) - (a.codepage < b.codepage);
}

int CompareByName(const CodePageRow& a, const CodePageRow& b) { return CompareNames(a.name, b.name); }

}  // namespace

void BuildCodePageIndex() {
  g_by_number = SortedCopy(CompareByNumber);
  g_by_name = SortedCopy(CompareByName);
}

void FreeCodePageIndex() {
  if (g_by_number) Pfree(std::exchange(g_by_number, nullptr));
  if (g_by_name) Pfree(std::exchange(g_by_name, nullptr));
}

const CodePageRow* RowOfName(const char* name) {
  const CodePageRow key{name, 0};
  return g_by_name ? HalvingSearch(g_by_name, key, CompareByName)
                   : Scan([name](const CodePageRow& r) { return CompareNames(r.name, name) == 0; });
}

const char* NameOfCodePage(int32_t codepage) {
  const CodePageRow key{"", codepage};
  const CodePageRow* row = g_by_number ? HalvingSearch(g_by_number, key, CompareByNumber)
                                       : Scan([codepage](const CodePageRow& r) { return r.codepage == codepage; });
  return row ? row->name : nullptr;
}

}  // namespace vrk::text
