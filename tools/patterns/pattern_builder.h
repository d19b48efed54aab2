// Builds pattern search tables in the caller-owned layout that
// SEARCH_BuscaTbl reads, from patterns written as hex bytes with gaps:
//
//   4D 5A {0-3} 50 45 00 00
//
// Two hex digits are one literal byte (digits may also run together:
// "4D5A"); "{0-K}" is a gap of 0 to K arbitrary bytes (K at most 254), and
// must be followed by a byte, which is then looked for within the next K + 1
// bytes. A pattern begins with a byte. Patterns that the layout cannot
// express are refused with a message naming them; nothing is rewritten.
// Used by the tests, the benchmark and vrkutil; not part of the library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "vrk_search.h"

namespace vrk::patterns {

// One element of a parsed pattern: a literal byte, or a gap of 0 to
// `max_skip` arbitrary bytes.
struct Element {
  bool gap = false;
  uint8_t byte = 0;
  uint8_t max_skip = 0;
};

struct PatternSource {
  std::string name;
  std::string text;
};

// Parses `text`. On failure returns false and sets `error` (without the
// pattern's name).
bool ParsePattern(std::string_view text, std::vector<Element>& out, std::string& error);

// Formats elements back into the readable form ("4D 5A {0-3} 50").
std::string FormatPattern(const std::vector<Element>& elements);

// Encodes one parsed pattern as a record: the key it is filed under and the
// record bytes. On failure returns false and sets `error`.
bool EncodePattern(const std::vector<Element>& elements, uint16_t& key, std::vector<uint8_t>& record,
                   std::string& error);

// A built table: owns every array that its description points to.
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

  size_t size() const { return names_.size(); }
  // The input position of a pattern record reported as a hit, or -1.
  int NumberOf(const unsigned char* record) const;
  const std::string& Name(int number) const { return names_[number]; }
  uint16_t Key(int number) const { return keys_[number]; }
  const std::vector<uint8_t>& Record(int number) const { return records_[number]; }
  // Position of the pattern in the table's pattern array.
  uint16_t Slot(int number) const { return slots_[number]; }

 private:
  friend bool BuildTable(const std::vector<PatternSource>&, Table&, std::string&);

  std::vector<std::string> names_;
  std::vector<uint16_t> keys_;
  std::vector<std::vector<uint8_t>> records_;
  std::vector<uint16_t> slots_;
  std::vector<const unsigned char*> pointers_;
  std::vector<SEARCH_BuscaTblBucket> index_;
  std::vector<uint8_t> bitmap_;
  std::unordered_map<const unsigned char*, int> numbers_;
  SEARCH_BuscaTblDesc desc_{};
};

// Builds a table of `patterns`. Within a bucket the patterns are stored in
// reverse input order, so that the search, which reads buckets backward,
// reports the hits at one position and rule in input order. On failure
// returns false with `error` naming the first refused pattern.
bool BuildTable(const std::vector<PatternSource>& patterns, Table& out, std::string& error);

// Reads a pattern file: one pattern per line, "NAME: PATTERN" or just
// "PATTERN" (named "line N"); '#' starts a comment; blank lines are skipped.
bool ReadPatternFile(const std::string& path, std::vector<PatternSource>& out, std::string& error);
bool ParsePatternList(std::string_view text, std::vector<PatternSource>& out, std::string& error);

}  // namespace vrk::patterns
