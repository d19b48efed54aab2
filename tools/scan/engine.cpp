// Compiling signature databases and scanning files with them.
#include "scan/engine.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "io/file_input.h"
#include "vrk_checksum.h"
#include "vrk_standin_ctl.h"
#include "vrkvfile.h"

namespace vrk::scan {
namespace {

constexpr uint32_t kFingerprintBytes = 2048;
constexpr uint32_t kHitCapacity = 4096;

// An MD5 context that is always finished, so none leaks on early returns.
struct Md5 {
  MD5_CTX* ctx = nullptr;
  explicit Md5(bool wanted) : ctx(wanted ? MD5Init() : nullptr) {}
  ~Md5() {
    if (ctx) {
      unsigned char ignored[16];
      MD5Final(ctx, ignored);
    }
  }
  void Update(const unsigned char* data, uint32_t length) {
    if (ctx && length) MD5Update(ctx, data, length);
  }
  bool Final(std::array<uint8_t, 16>& digest) {
    if (!ctx) return false;
    MD5Final(std::exchange(ctx, nullptr), digest.data());
    return true;
  }
};

}  // namespace

std::unique_ptr<CompiledDatabase> CompiledDatabase::Compile(const Database& db, std::string& error) {
  std::unique_ptr<CompiledDatabase> out(new CompiledDatabase);
  std::vector<search::builder::Pattern> patterns;
  std::vector<const Signature*> pattern_origin;
  std::array<std::vector<std::pair<uint32_t, int>>, SEARCH_CRC_COLUMNS> crc_cells;

  for (const Signature& sig : db.signatures) {
    const int number = int(out->names_.size());
    out->names_.push_back(sig.name);
    switch (sig.kind) {
      case SignatureKind::kCrc:
        crc_cells[sig.column].emplace_back(sig.crc, number);
        break;
      case SignatureKind::kMd5:
        out->md5_.push_back({sig.md5, sig.size, number});
        break;
      case SignatureKind::kPattern: {
        search::builder::Pattern pattern;
        std::string reason;
        if (!search::builder::ParsePattern(sig.pattern, pattern, reason)) {
          error = sig.origin + ": " + reason;
          return nullptr;
        }
        out->longest_pattern_ = std::max(out->longest_pattern_, search::builder::Span(pattern));
        patterns.push_back(std::move(pattern));
        pattern_origin.push_back(&sig);
        out->pattern_signatures_.push_back(number);
        break;
      }
    }
  }

  if (!patterns.empty()) {
    search::builder::Refusal refusal;
    if (!search::builder::BuildTable(patterns, out->pattern_table_, refusal)) {
      const Signature* culprit =
          refusal.pattern < pattern_origin.size() ? pattern_origin[refusal.pattern] : nullptr;
      error = culprit ? culprit->origin + ": pattern '" + culprit->name + "': " + refusal.reason : refusal.reason;
      return nullptr;
    }
  }

  for (uint32_t column = 1; column < SEARCH_CRC_COLUMNS; ++column) {
    auto& cell = crc_cells[column];
    if (cell.empty()) continue;
    std::stable_sort(cell.begin(), cell.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [value, sig] : cell) {
      out->crc_values_[column].push_back(value);
      out->crc_signatures_[column].push_back(sig);
    }
    SEARCH_CRCRegisterTable(out->crc_row_.data(), column, 0, out->crc_values_[column].data(),
                            uint32_t(cell.size()));
    out->crc_cells_used_ = true;
  }

  std::stable_sort(out->md5_.begin(), out->md5_.end());
  // When every MD5 signature gives its file's size, only files of those
  // sizes are hashed.
  for (const Md5Signature& m : out->md5_) {
    if (m.size < 0) {
      out->md5_sizes_.clear();
      break;
    }
    out->md5_sizes_.push_back(m.size);
  }
  std::sort(out->md5_sizes_.begin(), out->md5_sizes_.end());
  return out;
}

void CompiledDatabase::Register() {
  if (has_patterns()) SEARCH_BuscaTblRegisterTable(pattern_table_.mutable_desc(), 0);
}

void CompiledDatabase::Locate(const unsigned char* data, uint32_t length, uint32_t lo, uint32_t hi, uint32_t base,
                              std::vector<const unsigned char*>& items, std::vector<bool>& seen,
                              std::vector<Detection>& out) const {
  if (lo >= hi) return;
  auto* tables = const_cast<SEARCH_BuscaTblDesc*>(&pattern_table_.desc());
  SEARCH_BuscaTblList list{uint32_t(items.size()), 0, items.data()};
  SEARCH_BuscaTbl(0, tables, data + lo, int(hi - lo), int(length - lo), &list);
  // A full list may have dropped hits of patterns not reported yet.
  bool unseen = list.count == list.capacity;
  for (uint32_t i = 0; i < list.count && !unseen; ++i) {
    const int number = pattern_table_.NumberOf(list.items[i]);
    unseen = number >= 0 && !seen[number];
  }
  if (!unseen) return;
  if (hi - lo > 1) {
    // Hits carry no position: halve the range, earlier half first, so each
    // pattern is reported at its first offset. One hit costs about one more
    // search of the range.
    const uint32_t mid = lo + (hi - lo) / 2;
    Locate(data, length, lo, mid, base, items, seen, out);
    Locate(data, length, mid, hi, base, items, seen, out);
    return;
  }
  for (uint32_t i = 0; i < list.count; ++i) {
    const int number = pattern_table_.NumberOf(list.items[i]);
    if (number < 0 || seen[number]) continue;
    seen[number] = true;
    out.push_back({names_[pattern_signatures_[number]], true, uint64_t(base) + lo});
  }
}

void CompiledDatabase::CrcDetections(const unsigned char* head, uint32_t length, std::vector<Detection>& out) const {
  SEARCH_CRCFingerprint fingerprint{};
  SEARCH_CRCList hits{};
  // The library reads only the row; the table itself is never written.
  auto* row = const_cast<SEARCH_CRCTblEntry*>(crc_row_.data());
  SEARCH_CRCFile(head, int32_t(length), 0, 0, &fingerprint, 0, row, &hits);
  for (uint32_t i = 0; i < hits.count; ++i) {
    const SEARCH_CRCHit& hit = hits.entries[i];
    if (hit.column == 0 || hit.column >= SEARCH_CRC_COLUMNS) continue;
    out.push_back({names_[crc_signatures_[hit.column][hit.position]], false, 0});
  }
  SEARCH_CRCFree(&hits);
}

bool CompiledDatabase::WantsMd5(int64_t size) const {
  if (!has_md5()) return false;
  if (size < 0 || md5_sizes_.empty()) return true;
  return std::binary_search(md5_sizes_.begin(), md5_sizes_.end(), size);
}

FileReport CompiledDatabase::ScanFile(const std::string& path, uint32_t chunk) const {
  if (path == "-") {
    vrktool::InputStream input;
    if (!input.Open("-")) return FileReport{{}, 0, input.error()};
    return Scan([&](unsigned char* into, uint32_t want, uint32_t& got) { return input.Read(into, want, got); }, -1,
                chunk);
  }
  vrktool::VFile file;
  if (!file.Open(path.c_str())) return FileReport{{}, 0, file.error()};
  const uint32_t size = VFilelength(file.handle());
  if (size == 0xffffffffu) return FileReport{{}, 0, "cannot tell the length"};
  uint32_t read_total = 0;
  FileReport report = Scan(
      [&](unsigned char* into, uint32_t want, uint32_t& got) {
        got = VRead(into, 1, want, file.handle());
        read_total += got;
        return got != 0 || read_total >= size;  // ending short of the length is a read error
      },
      size, chunk);
  return report;
}

template <class Read>
FileReport CompiledDatabase::Scan(Read read, int64_t size, uint32_t chunk) const {
  FileReport report;
  chunk = std::max<uint32_t>(chunk, kFingerprintBytes);
  const uint32_t overlap = longest_pattern_ + 1;
  // Small files get a small buffer; each thread keeps its own between files
  // (never zero-filled: only bytes read are looked at).
  const uint32_t expected = size < 0 ? chunk : static_cast<uint32_t>(std::max<int64_t>(size, 1));
  const size_t wanted = size_t(std::min(chunk, expected)) + overlap;
  thread_local std::unique_ptr<unsigned char[]> storage;
  thread_local size_t storage_size = 0;
  if (storage_size < wanted) {
    storage.reset(new unsigned char[wanted]);
    storage_size = wanted;
  }
  const std::span<unsigned char> buffer(storage.get(), wanted);
  Md5 md5(WantsMd5(size));
  std::vector<bool> pattern_seen(pattern_table_.size(), false);
  thread_local std::vector<const unsigned char*> items(kHitCapacity);

  // The buffer holds file bytes [base, base + filled). Each round searches
  // the start positions [base, base + chunk): every start position of the
  // file is tried exactly once, and a match starting there lies wholly in
  // the buffer because the overlap covers the longest pattern.
  uint64_t base = 0, read_total = 0;
  uint32_t filled = 0;
  bool first_round = true;  // the fingerprint reads the file's first bytes
  while (true) {
    // Fill the buffer: a stream delivers what it has, so read until the
    // buffer is full or the input ends.
    bool at_end = false;
    while (filled < buffer.size()) {
      uint32_t got = 0;
      if (!read(buffer.data() + filled, uint32_t(buffer.size()) - filled, got)) {
        report.error = "read error after " + std::to_string(read_total) + " bytes";
        at_end = true;
        break;
      }
      md5.Update(buffer.data() + filled, got);
      filled += got;
      read_total += got;
      if (got == 0 || (size >= 0 && read_total >= uint64_t(size))) {
        at_end = true;
        break;
      }
    }
    if (read_total > 0xFFFFFFFEu) {
      report.error = "input of 4 GiB or more (offsets are 32-bit)";
      break;
    }

    if (first_round) {
      if (has_crcs()) CrcDetections(buffer.data(), std::min(filled, kFingerprintBytes), report.detections);
      first_round = false;
    }

    if (has_patterns() && filled >= 2) {
      // The library reads the byte after the last start position.
      const uint32_t positions = at_end ? filled - 1 : std::min(chunk, filled - 1);
      Locate(buffer.data(), filled, 0, positions, static_cast<uint32_t>(base), items, pattern_seen, report.detections);
    }
    if (at_end || (!has_patterns() && !md5.ctx)) break;
    // Keep the bytes behind this round's start positions for the next.
    const uint32_t keep = filled > chunk ? filled - chunk : 0;
    std::memmove(buffer.data(), buffer.data() + (filled - keep), keep);
    base += filled - keep;
    filled = keep;
  }
  report.bytes = read_total;
  if (!report.error.empty()) return report;

  std::array<uint8_t, 16> digest;
  if (md5.Final(digest)) {
    auto it = std::lower_bound(md5_.begin(), md5_.end(), Md5Signature{digest, 0, 0});
    for (; it != md5_.end() && it->digest == digest; ++it) {
      if (it->size < 0 || uint64_t(it->size) == read_total) {
        report.detections.push_back({names_[it->signature], false, 0});
      }
    }
  }
  return report;
}

}  // namespace vrk::scan
