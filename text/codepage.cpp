// Code-page registry: the constant table, its two sorted copies and the
// lookups over them.
#include "text/codepage.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "frame/block.h"

namespace vrk::text {
namespace {

constexpr charconv_CPEntry charconv_CPTable[] = {
#define VRK_CODEPAGE(number, name) {name, number},
#include "text/codepage_table.inc"
#undef VRK_CODEPAGE
};

static_assert(std::size(charconv_CPTable) == kCodePageRows);

constexpr int ConstexprCompare(const char* a, const char* b) {
  while (*a && *a == *b) ++a, ++b;
  return static_cast<unsigned char>(*a) - static_cast<unsigned char>(*b);
}

// The table's own order is what the "first name" fallback and the stable
// sort by number both rely on.
constexpr bool TableIsOrdered() {
  const auto& t = charconv_CPTable;
  for (uint32_t i = 1; i + 1 < kCodePageRows; ++i) {
    if (t[i - 1].codepage > t[i].codepage) return false;
    if (t[i - 1].codepage == t[i].codepage && ConstexprCompare(t[i - 1].name, t[i].name) >= 0) return false;
  }
  const auto& last = t[kCodePageRows - 1];
  return last.codepage == -1 && ConstexprCompare(last.name, "LAST") == 0;
}
static_assert(TableIsOrdered(), "code-page rows must ascend by number, then name, and end with LAST");

// Sorted copies, owned from load to unload; null when refused at load.
constinit charconv_CPEntry* charconv_CPByNumber = nullptr;
constinit charconv_CPEntry* charconv_CPByName = nullptr;

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

using Compare = int (*)(const charconv_CPEntry&, const charconv_CPEntry&);

// A stable sort that needs no scratch memory: binary insertion, each row
// going behind the rows that compare equal to it.
void StableSort(charconv_CPEntry* rows, uint32_t n, Compare compare) {
  for (uint32_t i = 1; i < n; ++i) {
    const charconv_CPEntry row = rows[i];
    charconv_CPEntry* slot = std::upper_bound(
        rows, rows + i, row, [compare](const charconv_CPEntry& a, const charconv_CPEntry& b) { return compare(a, b) < 0; });
    std::move_backward(slot, rows + i, rows + i + 1);
    *slot = row;
  }
}

charconv_CPEntry* SortedCopy(Compare compare) {
  Block<charconv_CPEntry> copy = Block<charconv_CPEntry>::Calloc(kCodePageRows, sizeof(charconv_CPEntry));
  if (!copy) return nullptr;
  std::copy(std::begin(charconv_CPTable), std::end(charconv_CPTable), copy.get());
  StableSort(copy.get(), kCodePageRows, compare);
  return copy.release();
}

// The halving search: it stops at the first equal row it probes, which is
// what decides the name returned for code pages with several names.
const charconv_CPEntry* HalvingSearch(const charconv_CPEntry* rows, const charconv_CPEntry& key, Compare compare) {
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
const charconv_CPEntry* Scan(Match match) {
  for (const charconv_CPEntry& row : charconv_CPTable) {
    if (match(row)) return &row;
  }
  return nullptr;
}

}  // namespace

const charconv_CPEntry* CodePageTable() { return charconv_CPTable; }

// A caller's key can be any 32-bit number, so no subtraction: it could
// overflow for keys far from the table's values.
int charconv_CompareCPNumber(const charconv_CPEntry& a, const charconv_CPEntry& b) {
  return (a.codepage > b.codepage) - (a.codepage < b.codepage);
}

int charconv_CompareCPName(const charconv_CPEntry& a, const charconv_CPEntry& b) { return CompareNames(a.name, b.name); }

void charconv_InitCPIndex() {
  charconv_CPByNumber = SortedCopy(charconv_CompareCPNumber);
  charconv_CPByName = SortedCopy(charconv_CompareCPName);
}

void charconv_FreeCPIndex() {
  if (charconv_CPByNumber) Pfree(std::exchange(charconv_CPByNumber, nullptr));
  if (charconv_CPByName) Pfree(std::exchange(charconv_CPByName, nullptr));
}

int32_t CodePageOfName(const char* name) {
  const charconv_CPEntry key{name, 0};
  const charconv_CPEntry* row =
      charconv_CPByName ? HalvingSearch(charconv_CPByName, key, charconv_CompareCPName)
                        : Scan([name](const charconv_CPEntry& r) { return CompareNames(r.name, name) == 0; });
  return row ? row->codepage : -1;
}

const char* NameOfCodePage(int32_t codepage) {
  const charconv_CPEntry key{"", codepage};
  const charconv_CPEntry* row =
      charconv_CPByNumber ? HalvingSearch(charconv_CPByNumber, key, charconv_CompareCPNumber)
                          : Scan([codepage](const charconv_CPEntry& r) { return r.codepage == codepage; });
  return row ? row->name : nullptr;
}

}  // namespace vrk::text
