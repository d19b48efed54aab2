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

  size_t signature_count() const { return name_at_.empty() ? 0 : name_at_.size() - 1; }
  bool has_patterns() const { return pattern_table_.size() > 0; }
  bool has_crcs() const { return crc_cells_used_; }
  bool has_md5() const { return !md5_.empty(); }
  // Bytes a pattern match can span at most, gaps included.
  uint32_t longest_pattern() const { return longest_pattern_; }

  // Scans one file, reading it in pieces of `chunk` bytes (plus the overlap
  // that a match across a piece border needs). Safe to call from several
  // threads at once. Each pattern is reported once, at its first offset.
  // Path "-" is standard input, scanned as it streams in.
  FileReport ScanFile(const std::string& path, uint32_t chunk = 1u << 20) const;

 private:
  CompiledDatabase() = default;

  // A pattern as the scanner files and checks it. The table holds it from
  // its anchor on: `lead_min` to `lead_max` bytes after the start of a
  // match, where the anchor's bytes `anchor` begin (for a pattern filed
  // under the gap key of its first byte, the anchor is that byte).
  // Its elements and anchor bytes live in elements_ and anchors_.
  struct PatternEntry {
    uint32_t elements_at = 0, elements_size = 0;
    uint32_t anchor_at = 0, anchor_size = 0;
    uint32_t probe = 0;  // index in the anchor of its byte least common in files
    uint32_t lead_min = 0;
    uint32_t lead_max = 0;
    int signature = 0;
  };

  // Per-file state of the pattern search (one per thread, reused).
  struct PatternScan;

  // Files each pattern under the anchor inside it that the data is least
  // likely to hold, and builds the table.
  // `origins` names each pattern's signature, for messages.
  bool CompilePatterns(const std::vector<const Signature*>& origins, std::string& error);

  // Searches one round: the anchors at positions [0, anchors) of
  // data[0, length), reporting patterns not seen yet whose matches start in
  // [0, starts) at their first offsets (base + start).
  void SearchRound(const unsigned char* data, uint32_t length, uint32_t anchors, uint32_t starts, uint64_t base,
                   PatternScan& scan, std::vector<Detection>& out) const;
  // The first start in [0, starts) of a match of the pattern whose anchor
  // lies in [0, anchors), or UINT32_MAX.
  uint32_t FirstStart(const PatternEntry& entry, const unsigned char* data, uint32_t length, uint32_t anchors,
                      uint32_t starts) const;
  void CrcDetections(const unsigned char* head, uint32_t length, std::vector<Detection>& out) const;
  // Scans bytes delivered by `read` (false on a read error). `size` is the
  // length when known in advance, else -1.
  template <class Read>
  FileReport Scan(Read read, int64_t size, uint32_t chunk) const;
  // Whether a file of `size` bytes (-1: not known yet) must be hashed.
  bool WantsMd5(int64_t size) const;

  // Signature names, by signature number, one after another.
  std::string name_text_;
  std::vector<uint32_t> name_at_;
  std::string Name(int signature) const {
    return name_text_.substr(name_at_[size_t(signature)], name_at_[size_t(signature) + 1] - name_at_[size_t(signature)]);
  }

  // CRC signatures: row 0 of a one-row table; per column the sorted values
  // and, in the same order, the signature each belongs to.
  std::array<SEARCH_CRCTblEntry, SEARCH_CRC_COLUMNS> crc_row_{};
  std::array<std::vector<uint32_t>, SEARCH_CRC_COLUMNS> crc_values_;
  std::array<std::vector<int>, SEARCH_CRC_COLUMNS> crc_signatures_;
  bool crc_cells_used_ = false;

  search::builder::Table pattern_table_;
  std::vector<PatternEntry> patterns_;  // by pattern number
  std::vector<search::builder::Element> elements_;
  std::vector<uint8_t> anchors_;
  uint32_t longest_pattern_ = 0;
  uint32_t longest_lead_ = 0;

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
