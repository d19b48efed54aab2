// The pattern-table builder: readable patterns to the records, buckets,
// index and bitmap that SEARCH_BuscaTbl reads (the format is documented in
// vrk_search.h). A host-side library for callers, tests and tools; it is
// not part of libVrkutil.so, which only reads the tables its callers build.
//
// Readable patterns are hex bytes with gaps:
//
//   4D 5A {0-3} 50 45 00 00
//
// Two hex digits are one literal byte (digits may also run together:
// "4D5A"); "{0-K}" is a gap of 0 to K arbitrary bytes (K at most 254), and
// must be followed by a byte, which is then looked for within the next K + 1
// bytes. A pattern begins with a byte. Patterns that the layout cannot
// express are refused with the reason; nothing is rewritten.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vrk_search.h"

namespace vrk::search::builder {

// One element of a parsed pattern: a literal byte, or a gap of 0 to
// `max_skip` arbitrary bytes (always followed by a byte).
struct Element {
  bool gap = false;
  uint8_t byte = 0;
  uint8_t max_skip = 0;
};

using Pattern = std::vector<Element>;

inline constexpr uint32_t kMaxSkip = SEARCH_BUSCATBL_MAX_WINDOW - 1;

// Parses `text`. On failure returns false and sets `reason`.
bool ParsePattern(std::string_view text, Pattern& out, std::string& reason);

// Formats elements back into the readable form ("4D 5A {0-3} 50").
std::string FormatPattern(const Pattern& pattern);

// Bytes one match can cover: every literal, plus the most each gap skips.
uint32_t Span(const Pattern& pattern);

// A record and the key it is filed under.
struct Filed {
  uint16_t key = 0;
  std::vector<uint8_t> record;
};

// Encodes a pattern as the search reads it: filed under its first two bytes
// or, when its second element is a gap, under the gap key of its first
// byte. On failure returns false and sets `reason`.
bool EncodePattern(const Pattern& pattern, Filed& out, std::string& reason);

// Why a table was not built: the input position of the refused pattern
// (kWholeTable when no single pattern is to blame) and the reason.
struct Refusal {
  static constexpr size_t kWholeTable = SIZE_MAX;
  size_t pattern = kWholeTable;
  std::string reason;
};

// A built table: owns every array that its description points to. Moving
// it keeps the description valid.
class Table {
 public:
  Table() = default;
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  Table(Table&&) = default;
  Table& operator=(Table&&) = default;

  // The description to hand to SEARCH_BuscaTbl (valid while this lives).
  const SEARCH_BuscaTblDesc& desc() const { return desc_; }
  SEARCH_BuscaTblDesc* mutable_desc() { return &desc_; }

  size_t size() const { return keys_.size(); }
  // The input position of the pattern whose record a hit points to, or -1.
  int NumberOf(const unsigned char* record) const;
  uint16_t Key(size_t number) const { return keys_[number]; }
  std::span<const uint8_t> Record(size_t number) const {
    return {arena_.data() + offsets_[number], offsets_[number + 1] - offsets_[number]};
  }
  // Position of the pattern in the table's pattern array.
  uint16_t Slot(size_t number) const { return slots_[number]; }

  // Builds a table of records already encoded, in input order. Within a
  // bucket the records are stored in reverse input order, so that the
  // search, which reads buckets backward, reports the hits at one position
  // and rule in input order. Refuses only more than 65535 records.
  static bool Build(std::span<const Filed> filed, Table& out, Refusal& refusal);

 private:
  std::vector<uint16_t> keys_;
  std::vector<uint8_t> arena_;   // every record, in input order
  std::vector<size_t> offsets_;  // record n is arena_[offsets_[n], offsets_[n + 1])
  std::vector<uint16_t> slots_;
  std::vector<const unsigned char*> pointers_;
  std::vector<SEARCH_BuscaTblBucket> index_;
  std::vector<uint8_t> bitmap_;
  SEARCH_BuscaTblDesc desc_{};
};

// Encodes every pattern and builds their table. On failure returns false
// with `refusal` naming the first refused pattern by its input position.
bool BuildTable(std::span<const Pattern> patterns, Table& out, Refusal& refusal);

// The same from readable text, parsing each pattern once.
bool BuildTable(std::span<const std::string> texts, Table& out, Refusal& refusal);

}  // namespace vrk::search::builder
