// The pattern-table builder: readable patterns to records, buckets, index
// and bitmap.
#include "search/pattern_builder.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

namespace vrk::search::builder {
namespace {

constexpr uint8_t kGapCode = SEARCH_BUSCATBL_CODE_GAP;
constexpr uint8_t kEndCode = SEARCH_BUSCATBL_CODE_END;
constexpr size_t kHeadAt = SEARCH_BUSCATBL_REC_HEAD;
constexpr size_t kMaxHead = SEARCH_BUSCATBL_MAX_HEAD;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string Hex(uint8_t b) {
  char s[8];
  std::snprintf(s, sizeof s, "%02X", b);
  return s;
}

uint16_t Key(uint8_t b0, uint8_t b1) { return uint16_t(SEARCH_BUSCATBL_KEY(b0, b1)); }

// Reads a decimal number of at most 9 digits at text[i], advancing i.
bool ReadNumber(std::string_view text, size_t& i, uint32_t& out) {
  const size_t start = i;
  out = 0;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i - start < 9) out = out * 10 + uint32_t(text[i++] - '0');
  return i > start && !(i < text.size() && text[i] >= '0' && text[i] <= '9');
}

// Whether a program read from `pos` reaches an end code inside the record,
// reading the way the search does (a gap code takes two more bytes).
bool ProgramEndsInside(const std::vector<uint8_t>& record, size_t pos) {
  while (pos < record.size()) {
    const uint8_t c = record[pos];
    if (c == kEndCode) return true;
    pos += c == kGapCode ? 3 : 1;
  }
  return false;
}

// Appends the program of elements[from..] and the end code. A literal 0xDD
// or 0xDF cannot be a program literal; `{0-0} XX` says the same thing in a
// form the program can hold.
bool AppendProgram(const Pattern& e, size_t from, std::vector<uint8_t>& record, std::string& reason) {
  for (size_t i = from; i < e.size(); ++i) {
    if (e[i].gap) {
      // ParsePattern guarantees a byte after every gap.
      record.push_back(kGapCode);
      record.push_back(uint8_t(e[i].max_skip + 1));
      record.push_back(e[++i].byte);
    } else if (e[i].byte == kGapCode || e[i].byte == kEndCode) {
      reason = "literal byte " + Hex(e[i].byte) + " (element " + std::to_string(i + 1) +
               ") falls where only a program can hold it, and programs use that value as a code; write {0-0} " +
               Hex(e[i].byte) + " to match it there";
      return false;
    } else {
      record.push_back(e[i].byte);
    }
  }
  record.push_back(kEndCode);
  return true;
}

}  // namespace

bool ParsePattern(std::string_view text, Pattern& out, std::string& reason) {
  out.clear();
  size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (IsBlank(c)) {
      ++i;
    } else if (c == '{') {
      ++i;
      uint32_t low = 0, high = 0;
      if (!ReadNumber(text, i, low) || i >= text.size() || text[i] != '-' || !ReadNumber(text, ++i, high) ||
          i >= text.size() || text[i] != '}') {
        reason = "malformed gap at offset " + std::to_string(i) + " (write {0-K})";
        return false;
      }
      ++i;
      if (low != 0) {
        reason = "gap {" + std::to_string(low) + "-" + std::to_string(high) +
                 "} must start at 0: the layout has no gap with a minimum length";
        return false;
      }
      if (high > kMaxSkip) {
        reason = "gap {0-" + std::to_string(high) + "} is longer than the layout allows ({0-" +
                 std::to_string(kMaxSkip) + "})";
        return false;
      }
      if (out.empty()) {
        reason = "a pattern must begin with a byte, not a gap";
        return false;
      }
      if (out.back().gap) {
        reason = "two gaps in a row: a gap must be followed by a byte";
        return false;
      }
      out.push_back({true, 0, uint8_t(high)});
    } else if (HexValue(c) >= 0) {
      if (i + 1 >= text.size() || HexValue(text[i + 1]) < 0) {
        reason = "odd hex digit at offset " + std::to_string(i) + ": bytes are two hex digits";
        return false;
      }
      out.push_back({false, uint8_t(HexValue(c) * 16 + HexValue(text[i + 1])), 0});
      i += 2;
    } else if (c == '?') {
      reason = "wildcard at offset " + std::to_string(i) + " has no form in the layout; use a gap {0-K} before a byte";
      return false;
    } else {
      reason = std::string("unexpected character '") + c + "' at offset " + std::to_string(i);
      return false;
    }
  }
  if (!out.empty() && out.back().gap) {
    reason = "a pattern cannot end with a gap: a gap must be followed by a byte";
    return false;
  }
  if (out.size() < 2) {
    reason = out.empty() ? "empty pattern" : "a pattern needs a second element (a byte or a gap) after its first byte";
    return false;
  }
  return true;
}

std::string FormatPattern(const Pattern& pattern) {
  std::string s;
  for (const Element& e : pattern) {
    if (!s.empty()) s += ' ';
    s += e.gap ? "{0-" + std::to_string(e.max_skip) + "}" : Hex(e.byte);
  }
  return s;
}

uint32_t Span(const Pattern& pattern) {
  uint32_t span = 0;
  for (const Element& e : pattern) span += e.gap ? e.max_skip : 1;
  return span;
}

bool EncodePattern(const Pattern& e, Filed& out, std::string& reason) {
  std::vector<uint8_t>& record = out.record;
  record.clear();
  if (e.size() < 2 || e[0].gap) {
    reason = "a pattern needs a first byte and a second element";
    return false;
  }
  if (e[1].gap) {
    // Filed under the gap key of the first byte; the gap rule runs the
    // program from byte 1, so byte 1 is the gap code itself.
    out.key = Key(e[0].byte, kGapCode);
    record = {0, kGapCode, uint8_t(e[1].max_skip + 1), e[2].byte};
    if (!AppendProgram(e, 3, record, reason)) return false;
    // Data whose second byte is 0xDD has this same key under the two-byte
    // rule, which reads byte 0 as a head length. The longest head that
    // still leaves a program ending inside the record makes that reading
    // compare the most bytes literally and never read past the record.
    const size_t longest = std::min(kMaxHead, record.size() - kHeadAt - 1);
    for (size_t head = longest + 1; head-- > 0;) {
      if (ProgramEndsInside(record, kHeadAt + head)) {
        record[SEARCH_BUSCATBL_REC_HEAD_LENGTH] = uint8_t(head);
        return true;
      }
    }
    reason = "no head length lets the two-byte reading of its record end inside it";
    return false;
  }
  if (e[1].byte == kGapCode) {
    reason = "its second byte DD makes its key the gap key of its first byte, which the gap rule would also read";
    return false;
  }
  out.key = Key(e[0].byte, e[1].byte);
  // Byte 1 is read only by the gap rule, which never sees this key.
  record = {0, 0};
  size_t i = 2;
  while (i < e.size() && !e[i].gap && i - 2 < kMaxHead) record.push_back(e[i++].byte);
  record[SEARCH_BUSCATBL_REC_HEAD_LENGTH] = uint8_t(i - 2);
  return AppendProgram(e, i, record, reason);
}

int Table::NumberOf(const unsigned char* record) const {
  if (keys_.empty() || record < arena_.data() || record >= arena_.data() + arena_.size()) return -1;
  const size_t offset = size_t(record - arena_.data());
  // The record that starts exactly there, if any.
  const auto it = std::lower_bound(offsets_.begin(), offsets_.end() - 1, offset);
  return it != offsets_.end() - 1 && *it == offset ? int(it - offsets_.begin()) : -1;
}

bool Table::Build(std::span<const Filed> filed, Table& out, Refusal& refusal) {
  out = Table();
  const size_t n = filed.size();
  if (n > SEARCH_BUSCATBL_MAX_PATTERNS) {
    refusal = {Refusal::kWholeTable, "too many patterns: a table holds at most 65535"};
    return false;
  }
  out.keys_.reserve(n);
  out.offsets_.reserve(n + 1);
  size_t total = 0;
  for (const Filed& f : filed) total += f.record.size();
  out.arena_.reserve(total);
  for (const Filed& f : filed) {
    out.keys_.push_back(f.key);
    out.offsets_.push_back(out.arena_.size());
    out.arena_.insert(out.arena_.end(), f.record.begin(), f.record.end());
  }
  out.offsets_.push_back(out.arena_.size());

  // Buckets in key order; inside a bucket, later patterns first.
  std::vector<uint32_t> order(n);
  std::iota(order.begin(), order.end(), 0u);
  std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    return out.keys_[a] != out.keys_[b] ? out.keys_[a] < out.keys_[b] : a > b;
  });
  out.index_.assign(SEARCH_BUSCATBL_KEYS, SEARCH_BuscaTblBucket{0, 0});
  out.bitmap_.assign(SEARCH_BUSCATBL_BITMAP_BYTES, 0);
  out.slots_.resize(n);
  out.pointers_.resize(n);
  for (size_t pos = 0; pos < n; ++pos) {
    const uint32_t number = order[pos];
    const uint16_t key = out.keys_[number];
    SEARCH_BuscaTblBucket& bucket = out.index_[key];
    if (bucket.count == 0) bucket.first = uint16_t(pos);
    ++bucket.count;
    out.bitmap_[key >> 3] = uint8_t(out.bitmap_[key >> 3] | 1u << (key & 7));
    out.slots_[number] = uint16_t(pos);
    out.pointers_[pos] = out.arena_.data() + out.offsets_[number];
  }
  out.desc_.patterns = out.pointers_.data();
  out.desc_.index = out.index_.data();
  out.desc_.bitmap = out.bitmap_.data();
  out.desc_.count = uint16_t(n);
  return true;
}

bool BuildTable(std::span<const Pattern> patterns, Table& out, Refusal& refusal) {
  std::vector<Filed> filed(patterns.size());
  for (size_t i = 0; i < patterns.size(); ++i) {
    if (!EncodePattern(patterns[i], filed[i], refusal.reason)) {
      refusal.pattern = i;
      out = Table();
      return false;
    }
  }
  return Table::Build(filed, out, refusal);
}

bool BuildTable(std::span<const std::string> texts, Table& out, Refusal& refusal) {
  std::vector<Pattern> patterns(texts.size());
  for (size_t i = 0; i < texts.size(); ++i) {
    if (!ParsePattern(texts[i], patterns[i], refusal.reason)) {
      refusal.pattern = i;
      out = Table();
      return false;
    }
  }
  return BuildTable(patterns, out, refusal);
}

}  // namespace vrk::search::builder
