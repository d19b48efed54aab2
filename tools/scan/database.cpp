// Reading signature databases.
#include "scan/database.h"

#include "patterns/text_lines.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unordered_map>

namespace vrk::scan {
namespace {

bool IsNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
         c == '-' || c == '/' || c == ':';
}


// Splits off the first whitespace-separated word.
std::string_view NextWord(std::string_view& s) {
  s = patterns::TrimBlanks(s);
  size_t end = 0;
  while (end < s.size() && s[end] != ' ' && s[end] != '\t') ++end;
  std::string_view word = s.substr(0, end);
  s = patterns::TrimBlanks(s.substr(end));
  return word;
}

bool ParseDecimal(std::string_view text, uint64_t max, uint64_t& out) {
  if (text.empty() || text.size() > 19) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  if (v > max) return false;
  out = v;
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A CRC word as the fingerprint prints it: hex, 0x optional. Decimal is not
// accepted: a value pasted from fingerprint output must mean what it says.
bool ParseCrcValue(std::string_view text, uint32_t& out) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.remove_prefix(2);
  if (text.empty() || text.size() > 8) return false;
  uint32_t v = 0;
  for (char c : text) {
    const int d = HexDigit(c);
    if (d < 0) return false;
    v = v << 4 | static_cast<uint32_t>(d);
  }
  out = v;
  return true;
}

// Parses one non-empty, non-comment line into `sig`; a message on failure.
std::string ParseLine(std::string_view line, Signature& sig) {
  const std::string_view name = NextWord(line);
  if (std::string why; !ValidSignatureName(name, why)) return why;
  sig.name = name;
  const std::string_view kind = NextWord(line);
  if (kind.empty()) return "signature '" + std::string(sig.name) + "' has no kind (crc, pattern or md5)";
  if (kind == "crc") {
    sig.kind = SignatureKind::kCrc;
    const std::string_view column = NextWord(line);
    const std::string_view value = NextWord(line);
    uint64_t c = 0;
    if (!ParseDecimal(column, 37, c) || c < 1) return "crc column must be a number from 1 to 37";
    if (!ParseCrcValue(value, sig.crc)) {
      return "crc value must be 1 to 8 hex digits (0x optional), not '" + Visible(value) + "'";
    }
    // A region of one repeated byte counts as 0, and short files are padded
    // with zeros: a 0 word would match every file of a uniform or missing
    // region.
    if (sig.crc == 0) return "crc value 0 matches every file whose region is one repeated byte or lies past its end";
    if (!line.empty()) return "unexpected text after the crc value";
    sig.column = static_cast<uint32_t>(c);
  } else if (kind == "pattern") {
    sig.kind = SignatureKind::kPattern;
    if (line.empty()) return "pattern is empty";
    sig.pattern = line;
  } else if (kind == "md5") {
    sig.kind = SignatureKind::kMd5;
    const std::string_view hex = NextWord(line);
    const std::string_view size = NextWord(line);
    if (hex.size() != 32) return "md5 must be 32 hexadecimal digits";
    if (!line.empty()) return "unexpected text after the md5 size";
    uint64_t bytes = 0;
    if (!size.empty()) {
      if (!ParseDecimal(size, 0xFFFFFFFEu, bytes)) return "md5 size must be a byte count below 4 GiB";
      sig.size = static_cast<int64_t>(bytes);
    }
    for (size_t i = 0; i < 16; ++i) {
      const int hi = HexDigit(hex[2 * i]), lo = HexDigit(hex[2 * i + 1]);
      if (hi < 0 || lo < 0) return "md5 must be 32 hexadecimal digits";
      sig.md5[i] = uint8_t(hi * 16 + lo);
    }
  } else {
    return "unknown signature kind '" + Visible(kind) + "' (crc, pattern or md5)";
  }
  return "";
}

bool SameData(const Signature& a, const Signature& b) {
  return a.kind == b.kind && a.column == b.column && a.crc == b.crc && a.pattern == b.pattern && a.md5 == b.md5 &&
         a.size == b.size;
}

}  // namespace

bool ValidSignatureName(std::string_view name, std::string& why) {
  if (name.empty()) {
    why = "empty signature name";
    return false;
  }
  for (char c : name) {
    if (!IsNameChar(c)) {
      why = "invalid character in signature name '" + Visible(name) +
            "' (letters, digits and . _ - / : only)";
      return false;
    }
  }
  return true;
}

std::string Visible(std::string_view text) {
  static constexpr std::string_view kBom = "\xEF\xBB\xBF";
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.substr(i, 3) == kBom) {
      out += "<U+FEFF byte-order mark>";
      i += 2;
      continue;
    }
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02X", c);
      out += escape;
    }
  }
  return out;
}

namespace {

// One name on several lines is how one thing is found several ways (sig
// writes a line per column). The same name in another database, or the
// same line twice, is more often a copy-paste slip: warns about each
// signature from `from` on whose name an earlier one has so.
void WarnRepeatedNames(Database& db, size_t from) {
  constexpr size_t kNone = SIZE_MAX;
  // Signatures of one name are chained in order: first and last by name,
  // the next one by signature.
  std::unordered_map<std::string_view, std::pair<size_t, size_t>> chains;
  chains.reserve(db.signatures.size());
  std::vector<size_t> next(db.signatures.size(), kNone);
  for (size_t i = 0; i < db.signatures.size(); ++i) {
    const Signature& s = db.signatures[i];
    const auto [chain, added] = chains.try_emplace(s.name, i, i);
    if (added) continue;
    for (size_t k = i >= from ? chain->second.first : kNone; k != kNone; k = next[k]) {
      const Signature& first = db.signatures[k];
      const bool other_file = *first.source != *s.source;
      if (other_file || SameData(first, s)) {
        db.warnings.push_back(s.origin() + ": signature name '" + std::string(s.name) + "' is also used at " +
                              first.origin() + (other_file ? "" : " for the same data"));
        break;
      }
    }
    next[chain->second.second] = i;
    chain->second.second = i;
  }
}

// Keeps `text` in the database under the name `source` and parses it; on
// an error the database is left as it was.
bool KeepAndParse(std::string text, const std::string& source, Database& db, std::string& error) {
  db.texts.push_back(std::move(text));
  db.sources.push_back(source);
  const std::string_view kept = db.texts.back();
  // Parsed after what the database holds, and dropped again on an error.
  const size_t before = db.signatures.size();
  size_t lines = 1;
  for (const char* p = kept.data(), *end = p + kept.size();
       (p = static_cast<const char*>(std::memchr(p, '\n', size_t(end - p)))) != nullptr; ++p) {
    ++lines;
  }
  db.signatures.reserve(before + lines);
  const bool ok = patterns::ForEachContentLine(kept, [&](std::string_view line, size_t line_number) {
    Signature& sig = db.signatures.emplace_back();
    sig.source = &db.sources.back();
    sig.line = line_number;
    if (std::string message = ParseLine(line, sig); !message.empty()) {
      error = sig.origin() + ": " + message;
      return false;
    }
    return true;
  });
  if (!ok) {
    db.signatures.resize(before);
    db.texts.pop_back();
    db.sources.pop_back();
    return false;
  }
  WarnRepeatedNames(db, before);
  return true;
}

}  // namespace

bool ParseDatabase(std::string_view text, const std::string& source, Database& db, std::string& error) {
  return KeepAndParse(std::string(text), source, db, error);
}

bool LoadDatabaseFile(const std::string& path, Database& db, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = path + ": cannot read the database";
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return KeepAndParse(std::move(text).str(), path, db, error);
}

std::string_view TestFileString() {
  return "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

}  // namespace vrk::scan

namespace vrk::scan {

std::string_view DefaultDatabaseText() {
  static const char kText[] =
#include "default_db.inc"
      ;
  return std::string_view(kText, sizeof kText - 1);
}

}  // namespace vrk::scan
