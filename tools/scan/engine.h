// The scanning job: a signature database compiled into the library's
// structures (one CRC table row, one pattern table, a set of MD5 digests)
// and the scan of one file through the virtual-file library.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "scan/database.h"
#include "search/pattern_builder.h"
#include "vrk_search.h"

namespace vrk::scan {

struct Detection {
  std::string name;
  bool has_offset = false;  // patterns report where they matched
  uint64_t offset = 0;
};

struct FileReport {
  std::vector<Detection> detections;
  uint64_t bytes = 0;
  std::string error;  // non-empty when the file could not be read
};

class CompiledDatabase {
 public:
  // Compiles `db`. On failure returns null and sets `error` to
  // "file:line: message" naming the signature that could not be compiled.
  static std::unique_ptr<CompiledDatabase> Compile(const Database& db, std::string& error);

  // Makes the pattern table known to the library (table number 0). Call
  // once before any scan: registrations must not overlap searches.
  void Register();

  size_t signature_count() const { return names_.size(); }
  bool has_patterns() const { return pattern_table_.size() > 0; }
  bool has_crcs() const { return crc_cells_used_; }
  bool has_md5() const { return !md5_.empty(); }
  // Bytes a pattern match can span at most, gaps included.
  uint32_t longest_pattern() const { return longest_pattern_; }

  // Scans one file, reading it in pieces of `chunk` bytes (plus the overlap
  // that a match across a piece border needs). Safe to call from several
  // threads at once. Path "-" is standard input, scanned as it streams in.
  FileReport ScanFile(const std::string& path, uint32_t chunk = 1u << 20) const;

 private:
  CompiledDatabase() = default;

  // Reports the patterns not seen yet that match at start positions
  // [lo, hi) of data[0, length), with their first offsets (base + position).
  void Locate(const unsigned char* data, uint32_t length, uint32_t lo, uint32_t hi, uint32_t base,
              std::vector<const unsigned char*>& items, std::vector<bool>& seen, std::vector<Detection>& out) const;
  void CrcDetections(const unsigned char* head, uint32_t length, std::vector<Detection>& out) const;
  // Scans bytes delivered by `read` (false on a read error). `size` is the
  // length when known in advance, else -1.
  template <class Read>
  FileReport Scan(Read read, int64_t size, uint32_t chunk) const;
  // Whether a file of `size` bytes (-1: not known yet) must be hashed.
  bool WantsMd5(int64_t size) const;

  std::vector<std::string> names_;  // signature names, by signature number

  // CRC signatures: row 0 of a one-row table; per column the sorted values
  // and, in the same order, the signature each belongs to.
  std::array<SEARCH_CRCTblEntry, SEARCH_CRC_COLUMNS> crc_row_{};
  std::array<std::vector<uint32_t>, SEARCH_CRC_COLUMNS> crc_values_;
  std::array<std::vector<int>, SEARCH_CRC_COLUMNS> crc_signatures_;
  bool crc_cells_used_ = false;

  search::builder::Table pattern_table_;
  std::vector<int> pattern_signatures_;  // pattern number -> signature number
  uint32_t longest_pattern_ = 0;

  // MD5 signatures sorted by digest: digest, size (-1: any), signature.
  struct Md5Signature {
    std::array<uint8_t, 16> digest;
    int64_t size;
    int signature;
    bool operator<(const Md5Signature& o) const { return digest < o.digest; }
  };
  std::vector<Md5Signature> md5_;
  std::vector<int64_t> md5_sizes_;  // sorted; empty when some signature has no size
};

}  // namespace vrk::scan
