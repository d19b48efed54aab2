// Pattern search tables: the 16-bit key index with its presence bitmap, the
// two-byte and gap rules, the pattern programs, and forwarding to the
// analysis module. The local search never allocates.
#include "search/pattern_table.h"

#include <cstdint>
#include <cstring>

#include "search/pattern_search.h"
#include "search/qel_binding.h"

namespace vrk::search {
namespace {

static_assert(QEL_PATTERN_SLOTS == SEARCH_BUSCATBL_TABLES, "one registry slot per table number");

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
  // The caller guarantees length > positions (the key at the last position
  // reads the byte after it).
  SearchLocally({t.patterns, t.index, t.bitmap}, data, uint32_t(positions), uint32_t(length), out);
}

}  // namespace vrk::search
