// Reading signature databases.
#include "scan/database.h"

#include "patterns/text_lines.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

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

bool ParseUnsigned(std::string_view text, uint64_t max, uint64_t& out) {
  if (text.empty() || text.size() > 20) return false;
  std::string s(text);
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(s.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || s[0] == '-' || s[0] == '+' || v > max) return false;
  out = v;
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Parses one non-empty, non-comment line into `sig`; a message on failure.
std::string ParseLine(std::string_view line, Signature& sig) {
  const std::string_view name = NextWord(line);
  for (char c : name) {
    if (!IsNameChar(c)) return "invalid character in signature name '" + std::string(name) + "'";
  }
  sig.name = name;
  const std::string_view kind = NextWord(line);
  if (kind.empty()) return "signature '" + std::string(sig.name) + "' has no kind (crc, pattern or md5)";
  if (kind == "crc") {
    sig.kind = SignatureKind::kCrc;
    const std::string_view column = NextWord(line);
    const std::string_view value = NextWord(line);
    uint64_t c = 0, v = 0;
    if (!ParseUnsigned(column, 37, c) || c < 1) return "crc column must be a number from 1 to 37";
    if (!ParseUnsigned(value, 0xffffffffu, v)) return "crc value must be a 32-bit number";
    if (!line.empty()) return "unexpected text after the crc value";
    sig.column = uint32_t(c);
    sig.crc = uint32_t(v);
  } else if (kind == "pattern") {
    sig.kind = SignatureKind::kPattern;
    if (line.empty()) return "pattern is empty";
    sig.pattern = line;
  } else if (kind == "md5") {
    sig.kind = SignatureKind::kMd5;
    const std::string_view hex = NextWord(line);
    if (hex.size() != 32 || !line.empty()) return "md5 must be 32 hexadecimal digits";
    for (size_t i = 0; i < 16; ++i) {
      const int hi = HexDigit(hex[2 * i]), lo = HexDigit(hex[2 * i + 1]);
      if (hi < 0 || lo < 0) return "md5 must be 32 hexadecimal digits";
      sig.md5[i] = uint8_t(hi * 16 + lo);
    }
  } else {
    return "unknown signature kind '" + std::string(kind) + "' (crc, pattern or md5)";
  }
  return "";
}

}  // namespace

namespace {

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
  }
  return ok;
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
