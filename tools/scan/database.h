// Signature databases of the scanner: a text format, one signature per line,
// read into a list of signatures that the compiler turns into the library's
// structures.
//
//   # comment (also after a signature: " # ...")
//   NAME crc COLUMN VALUE     CRC fingerprint word COLUMN (1-37) equals VALUE
//                             (hex, with or without 0x, as fingerprint prints)
//   NAME pattern HEX...       byte pattern, hex bytes with {MIN-MAX} gaps
//   NAME md5 HEX32 [SIZE]     MD5 of a whole file (of SIZE bytes: only files
//                             of a listed size are then hashed)
//
// NAME is made of letters, digits and . _ - / : characters.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace vrk::scan {

enum class SignatureKind { kCrc, kPattern, kMd5 };

// A signature; its name and pattern text are views into the text its
// Database keeps.
struct Signature {
  std::string_view name;
  SignatureKind kind = SignatureKind::kCrc;
  uint32_t column = 0;                // kCrc: 1 to 37
  uint32_t crc = 0;                   // kCrc
  std::string_view pattern;           // kPattern: the text after "pattern"
  std::array<uint8_t, 16> md5{};      // kMd5
  int64_t size = -1;                  // kMd5: the file's size, -1 when not given
  const std::string* source = nullptr;  // the name of the file it came from
  size_t line = 0;

  // "file:line", for messages.
  std::string origin() const { return (source ? *source : std::string()) + ":" + std::to_string(line); }
};

// Signatures with the texts they were read from (not copied: the views
// point into it).
struct Database {
  Database() = default;
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  Database(Database&&) = default;
  Database& operator=(Database&&) = default;

  std::vector<Signature> signatures;
  std::deque<std::string> texts;    // each database's text, as read
  std::deque<std::string> sources;  // each database's name
  // "file:line: message" for what is legal but probably a mistake (a name
  // used twice).
  std::vector<std::string> warnings;
};

// Whether `name` may name a signature; otherwise the reason, for a message.
bool ValidSignatureName(std::string_view name, std::string& why);

// `text` for a message: bytes outside printable ASCII as \xNN, and a UTF-8
// byte-order mark named as such (it is invisible in most editors).
std::string Visible(std::string_view text);

// Parses `text`, naming it `source` in messages. On success appends every
// signature to `db` and returns true; on the first error leaves `db` as it
// was, sets `error` to "source:line: message" and returns false.
bool ParseDatabase(std::string_view text, const std::string& source, Database& db, std::string& error);

// Reads and parses a database file, as ParseDatabase.
bool LoadDatabaseFile(const std::string& path, Database& db, std::string& error);

// The database built into the tool, used when no other is given.
std::string_view DefaultDatabaseText();

// The 68-byte standard anti-malware test string.
std::string_view TestFileString();

}  // namespace vrk::scan
