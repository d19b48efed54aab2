// The pattern-table builder: readable patterns to records, buckets, index
// and bitmap.
#include "pattern_builder.h"
#include "text_lines.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

namespace vrk::patterns {
namespace {

constexpr uint8_t kGapCode = 0xDD;
constexpr uint8_t kEndCode = 0xDF;
constexpr uint32_t kMaxHead = 255;
constexpr uint32_t kMaxSkip = 254;  // the gap code's window G = skip + 1 is one byte
constexpr uint32_t kKeys = 65536;

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
bool AppendProgram(const std::vector<Element>& e, size_t from, std::vector<uint8_t>& record, std::string& error) {
  for (size_t i = from; i < e.size(); ++i) {
    if (e[i].gap) {
      // ParsePattern guarantees a byte after every gap.
      record.push_back(kGapCode);
      record.push_back(uint8_t(e[i].max_skip + 1));
      record.push_back(e[++i].byte);
    } else if (e[i].byte == kGapCode || e[i].byte == kEndCode) {
      error = "literal byte " + Hex(e[i].byte) + " (element " + std::to_string(i + 1) +
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

bool ParsePattern(std::string_view text, std::vector<Element>& out, std::string& error) {
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
        error = "malformed gap at offset " + std::to_string(i) + " (write {0-K})";
        return false;
      }
      ++i;
      if (low != 0) {
        error = "gap {" + std::to_string(low) + "-" + std::to_string(high) +
                "} must start at 0: the layout has no gap with a minimum length";
        return false;
      }
      if (high > kMaxSkip) {
        error = "gap {0-" + std::to_string(high) + "} is longer than the layout allows ({0-254})";
        return false;
      }
      if (out.empty()) {
        error = "a pattern must begin with a byte, not a gap";
        return false;
      }
      if (out.back().gap) {
        error = "two gaps in a row: a gap must be followed by a byte";
        return false;
      }
      out.push_back({true, 0, uint8_t(high)});
    } else if (HexValue(c) >= 0) {
      if (i + 1 >= text.size() || HexValue(text[i + 1]) < 0) {
        error = "odd hex digit at offset " + std::to_string(i) + ": bytes are two hex digits";
        return false;
      }
      out.push_back({false, uint8_t(HexValue(c) * 16 + HexValue(text[i + 1])), 0});
      i += 2;
    } else if (c == '?') {
      error = "wildcard at offset " + std::to_string(i) + " has no form in the layout; use a gap {0-K} before a byte";
      return false;
    } else {
      error = std::string("unexpected character '") + c + "' at offset " + std::to_string(i);
      return false;
    }
  }
  if (!out.empty() && out.back().gap) {
    error = "a pattern cannot end with a gap: a gap must be followed by a byte";
    return false;
  }
  if (out.size() < 2) {
    error = out.empty() ? "empty pattern" : "a pattern needs a second element (a byte or a gap) after its first byte";
    return false;
  }
  return true;
}

std::string FormatPattern(const std::vector<Element>& elements) {
  std::string s;
  for (const Element& e : elements) {
    if (!s.empty()) s += ' ';
    s += e.gap ? "{0-" + std::to_string(e.max_skip) + "}" : Hex(e.byte);
  }
  return s;
}

bool EncodePattern(const std::vector<Element>& e, uint16_t& key, std::vector<uint8_t>& record, std::string& error) {
  record.clear();
  if (e.size() < 2 || e[0].gap) {
    error = "a pattern needs a first byte and a second element";
    return false;
  }
  if (e[1].gap) {
    // Filed under the gap key of the first byte; the gap rule runs the
    // program from byte 1, so byte 1 is the gap code itself.
    key = uint16_t(e[0].byte | kGapCode << 8);
    record = {0, kGapCode, uint8_t(e[1].max_skip + 1), e[2].byte};
    if (!AppendProgram(e, 3, record, error)) return false;
    // Data whose second byte is 0xDD has this same key under the two-byte
    // rule, which reads byte 0 as a head length. The longest head that
    // still leaves a program ending inside the record makes that reading
    // compare the most bytes literally and never read past the record.
    const size_t longest = std::min<size_t>(kMaxHead, record.size() - 3);
    for (size_t head = longest + 1; head-- > 0;) {
      if (ProgramEndsInside(record, 2 + head)) {
        record[0] = uint8_t(head);
        return true;
      }
    }
    error = "no head length lets the two-byte reading of its record end inside it";
    return false;
  }
  if (e[1].byte == kGapCode) {
    error = "its second byte DD makes its key the gap key of its first byte, which the gap rule would also read";
    return false;
  }
  key = uint16_t(e[0].byte | e[1].byte << 8);
  // Byte 1 is read only by the gap rule, which never sees this key.
  record = {0, 0};
  size_t i = 2;
  while (i < e.size() && !e[i].gap && i - 2 < kMaxHead) record.push_back(e[i++].byte);
  record[0] = uint8_t(i - 2);
  return AppendProgram(e, i, record, error);
}

int Table::NumberOf(const unsigned char* record) const {
  const auto it = numbers_.find(record);
  return it == numbers_.end() ? -1 : it->second;
}

bool BuildTable(const std::vector<PatternSource>& patterns, Table& out, std::string& error) {
  out = Table();
  if (patterns.size() > 0xFFFF) {
    error = "too many patterns: a table holds at most 65535";
    return false;
  }
  for (const PatternSource& source : patterns) {
    std::vector<Element> elements;
    uint16_t key = 0;
    std::vector<uint8_t> record;
    if (!ParsePattern(source.text, elements, error) || !EncodePattern(elements, key, record, error)) {
      error = "pattern \"" + source.name + "\": " + error;
      out = Table();
      return false;
    }
    out.names_.push_back(source.name);
    out.keys_.push_back(key);
    out.records_.push_back(std::move(record));
  }
  const size_t n = patterns.size();
  // Buckets in key order; inside a bucket, later patterns first.
  std::vector<uint32_t> order(n);
  std::iota(order.begin(), order.end(), 0u);
  std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    return out.keys_[a] != out.keys_[b] ? out.keys_[a] < out.keys_[b] : a > b;
  });
  out.index_.assign(kKeys, SEARCH_BuscaTblBucket{0, 0});
  out.bitmap_.assign(kKeys / 8, 0);
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
    out.pointers_[pos] = out.records_[number].data();
    out.numbers_[out.pointers_[pos]] = int(number);
  }
  out.desc_.patterns = out.pointers_.data();
  out.desc_.index = out.index_.data();
  out.desc_.bitmap = out.bitmap_.data();
  out.desc_.count = uint16_t(n);
  return true;
}

bool ParsePatternList(std::string_view text, std::vector<PatternSource>& out, std::string& error) {
  return ForEachContentLine(text, [&](std::string_view line, size_t line_number) {
    PatternSource source;
    if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
      std::string_view name = line.substr(0, colon);
      while (!name.empty() && IsBlank(name.back())) name.remove_suffix(1);
      if (name.empty()) {
        error = "line " + std::to_string(line_number) + ": empty pattern name before ':'";
        return false;
      }
      source.name = std::string(name);
      source.text = std::string(line.substr(colon + 1));
    } else {
      source.name = "line " + std::to_string(line_number);
      source.text = std::string(line);
    }
    out.push_back(std::move(source));
    return true;
  });
}

bool ReadPatternFile(const std::string& path, std::vector<PatternSource>& out, std::string& error) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    error = "cannot open pattern file " + path;
    return false;
  }
  std::string text;
  char buffer[4096];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, got);
  const bool failed = std::ferror(f) != 0;
  std::fclose(f);
  if (failed) {
    error = "cannot read pattern file " + path;
    return false;
  }
  if (!ParsePatternList(text, out, error)) {
    error = path + ": " + error;
    return false;
  }
  return true;
}

}  // namespace vrk::patterns
