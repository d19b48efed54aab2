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

namespace builder = search::builder;

constexpr uint32_t kFingerprintBytes = 2048;
constexpr uint32_t kNoStart = UINT32_MAX;
// Literal bytes an anchor should have from it to the pattern's end.
constexpr uint32_t kAnchorLiterals = 6;

// How common each byte value is in the files scanners meet, roughly and
// relatively: zero and 0xFF fill, text, and the bytes of common i386
// instructions (prologues, moves, calls, jumps, stack offsets).
constexpr std::array<uint8_t, 256> kByteWeights = [] {
  std::array<uint8_t, 256> w{};
  for (uint8_t& x : w) x = 1;
  for (int c = 'a'; c <= 'z'; ++c) w[size_t(c)] = 10;
  for (int c = 'A'; c <= 'Z'; ++c) w[size_t(c)] = 6;
  for (int c = '0'; c <= '9'; ++c) w[size_t(c)] = 6;
  for (const char* c = "etaoinsr"; *c; ++c) w[size_t(*c)] = 14;
  for (const char* c = ".,;:-_/()<>=\"'\r\n\t"; *c; ++c) w[size_t(*c)] = 6;
  for (int b : {0x8B, 0x89, 0x55, 0x83, 0xE8, 0x45, 0xEC, 0x5D, 0xC3, 0x74, 0x75, 0x85, 0xC0, 0x24, 0x04, 0x08,
                0x10, 0x01, 0x02, 0x03, 0x0C, 0x0F, 0x14, 0x18, 0x1C, 0x50, 0x51, 0x52, 0x53, 0x56, 0x57, 0x5E,
                0x5F, 0x6A, 0x8D, 0xCC, 0x90, 0xFC, 0xF8, 0x33, 0xC7, 0x4D, 0xE9, 0xEB, 0xFE, 0x80}) {
    w[size_t(b)] = 6;
  }
  w[0x20] = 16;
  w[0xFF] = 24;
  w[0x00] = 64;
  return w;
}();

// How often a two-byte key turns up: runs of one byte (fill, padding) are
// the commonest of all. At most 64 * 64 * 4 (15 bits).
uint32_t PairWeight(uint8_t a, uint8_t b) {
  const uint32_t w = uint32_t(kByteWeights[a]) * kByteWeights[b];
  return a == b ? 4 * w : w;
}

// Whether the pattern's elements from k on match data[p, length).
bool Matches(std::span<const builder::Element> e, size_t k, const unsigned char* data, uint32_t p, uint32_t length) {
  for (; k < e.size(); ++k) {
    if (!e[k].gap) {
      if (p >= length || data[p] != e[k].byte) return false;
      ++p;
      continue;
    }
    const uint8_t wanted = e[k + 1].byte;
    for (uint32_t skip = 0; skip <= e[k].max_skip && p + skip < length; ++skip) {
      if (data[p + skip] == wanted && Matches(e, k + 2, data, p + skip + 1, length)) return true;
    }
    return false;
  }
  return true;
}

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
  std::vector<const Signature*> pattern_origin;
  std::array<std::vector<std::pair<uint32_t, int>>, SEARCH_CRC_COLUMNS> crc_cells;
  out->name_at_.reserve(db.signatures.size() + 1);
  out->name_at_.push_back(0);
  builder::Pattern pattern;  // reused: parsed elements are kept in one array

  for (const Signature& sig : db.signatures) {
    const int number = int(out->name_at_.size() - 1);
    out->name_text_ += sig.name;
    out->name_at_.push_back(uint32_t(out->name_text_.size()));
    switch (sig.kind) {
      case SignatureKind::kCrc:
        crc_cells[sig.column].emplace_back(sig.crc, number);
        break;
      case SignatureKind::kMd5:
        out->md5_.push_back({sig.md5, sig.size, number});
        break;
      case SignatureKind::kPattern: {
        std::string reason;
        if (!builder::ParsePattern(sig.pattern, pattern, reason)) {
          error = sig.origin() + ": " + reason;
          return nullptr;
        }
        out->longest_pattern_ = std::max(out->longest_pattern_, builder::Span(pattern));
        PatternEntry entry;
        entry.elements_at = uint32_t(out->elements_.size());
        entry.elements_size = uint32_t(pattern.size());
        entry.signature = number;
        out->elements_.insert(out->elements_.end(), pattern.begin(), pattern.end());
        out->patterns_.push_back(entry);
        pattern_origin.push_back(&sig);
        break;
      }
    }
  }

  if (!out->patterns_.empty() && !out->CompilePatterns(pattern_origin, error)) return nullptr;

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

bool CompiledDatabase::CompilePatterns(const std::vector<const Signature*>& origins, std::string& error) {
  // Each pattern is filed under the pair of adjacent bytes inside it that
  // files hold least often, so that the table's keys rarely turn up in the
  // data (an atom, as other scanners call it); its bytes before the anchor
  // are checked here, at the few places where the rest matched. A key that
  // already has patterns costs less than a new one: its bucket is read
  // anyway wherever the key occurs.
  std::vector<uint16_t> key_use(SEARCH_BUSCATBL_KEYS, 0);
  builder::TableBuilder table;
  table.Reserve(patterns_.size(), 3 * elements_.size() + 4 * patterns_.size());
  builder::Filed filed;
  for (size_t n = 0; n < patterns_.size(); ++n) {
    PatternEntry& entry = patterns_[n];
    const std::span<const builder::Element> e(elements_.data() + entry.elements_at, entry.elements_size);
    size_t anchor = SIZE_MAX;
    uint32_t best_cost = UINT32_MAX;
    uint32_t lead_min = 0, lead_max = 0;
    // The library reports an anchor wherever it and the rest of the pattern
    // after it match, and each report makes the scanner look for the
    // anchor's occurrences: an anchor needs enough literal bytes from it to
    // the end that the data rarely holds them by chance.
    uint32_t literals_after = 0;
    for (const builder::Element& x : e) literals_after += x.gap ? 0 : 1;
    const uint32_t needed_after = std::min(literals_after, kAnchorLiterals);
    for (size_t j = 0; j + 1 < e.size(); ++j) {
      const uint32_t from_here = literals_after;
      literals_after -= e[j].gap ? 0 : 1;
      if (from_here < needed_after) break;
      if (!e[j].gap && !e[j + 1].gap && e[j + 1].byte != SEARCH_BUSCATBL_CODE_GAP) {
        const uint32_t key = uint32_t(SEARCH_BUSCATBL_KEY(e[j].byte, e[j + 1].byte));
        // Cost first; then an anchor at a fixed distance from the start,
        // then a nearer one, which are cheaper to check back from.
        const uint32_t cost = (PairWeight(e[j].byte, e[j + 1].byte) * (key_use[key] ? 1 : 2)) << 16 |
                              uint32_t(lead_max != lead_min) << 15 | std::min<uint32_t>(lead_max, 0x7FFF);
        if (cost < best_cost) {
          best_cost = cost;
          anchor = j;
          entry.lead_min = lead_min;
          entry.lead_max = lead_max;
        }
      }
      lead_max += e[j].gap ? e[j].max_skip : 1;
      lead_min += e[j].gap ? 0 : 1;
    }
    std::string reason;
    bool encoded;
    entry.anchor_at = uint32_t(anchors_.size());
    if (anchor != SIZE_MAX) {
      encoded = builder::EncodeFrom(e, anchor, filed, reason);
      for (size_t j = anchor; j < e.size() && !e[j].gap; ++j) anchors_.push_back(e[j].byte);
    } else {
      // No two adjacent bytes: filed under the gap key of the first byte
      // ("b0 b1" as "b0 {0-0} b1").
      builder::Pattern gapped = {e[0]};
      if (!e[1].gap) gapped.push_back({true, 0, 0});
      gapped.insert(gapped.end(), e.begin() + 1, e.end());
      encoded = builder::EncodeFrom(gapped, 0, filed, reason);
      anchors_.push_back(e[0].byte);
      entry.lead_min = entry.lead_max = 0;
    }
    if (!encoded) {
      error = origins[n]->origin() + ": pattern '" + std::string(origins[n]->name) + "': " + reason;
      return false;
    }
    entry.anchor_size = uint32_t(anchors_.size()) - entry.anchor_at;
    table.Add(filed.key, filed.record);
    ++key_use[filed.key];
    const uint8_t* a = anchors_.data() + entry.anchor_at;
    for (uint32_t i = 1; i < entry.anchor_size; ++i) {
      if (kByteWeights[a[i]] < kByteWeights[a[entry.probe]]) entry.probe = i;
    }
    longest_lead_ = std::max(longest_lead_, entry.lead_max);
  }
  builder::Refusal refusal;
  if (!table.Finish(pattern_table_, refusal)) {
    error = refusal.pattern < origins.size() ? origins[refusal.pattern]->origin() + ": " + refusal.reason
                                             : refusal.reason;
    return false;
  }
  return true;
}

// The pattern search state of one thread, kept from file to file.
struct CompiledDatabase::PatternScan {
  std::vector<const unsigned char*> items;  // the library's result list
  std::vector<uint32_t> seen;               // per pattern: the file number when it was reported
  std::vector<uint8_t> listed;              // per pattern: taken as a candidate this round
  std::vector<uint32_t> candidates;
  uint32_t file = 0;
};

uint32_t CompiledDatabase::FirstStart(const PatternEntry& entry, const unsigned char* data, uint32_t length,
                                      uint32_t anchors, uint32_t starts) const {
  // The anchor's occurrences, found by its least common byte, nearest
  // first; each leads back to the starts it can belong to. A later
  // occurrence can still give an earlier start while it lies within the
  // longest lead of the best start so far.
  const uint8_t* a = anchors_.data() + entry.anchor_at;
  const uint32_t size = entry.anchor_size;
  const std::span<const builder::Element> elements(elements_.data() + entry.elements_at, entry.elements_size);
  const uint32_t probe = entry.probe;
  const uint32_t end = std::min(length, anchors + probe);
  uint32_t best = kNoStart;
  for (uint32_t i = probe; i < end; ++i) {
    const void* at = std::memchr(data + i, a[probe], end - i);
    if (!at) break;
    i = uint32_t(static_cast<const unsigned char*>(at) - data);
    const uint32_t q = i - probe;
    if (best != kNoStart && q >= best + entry.lead_max) break;
    if (size > length - q || std::memcmp(data + q, a, size) != 0 || q < entry.lead_min) continue;
    const uint32_t first = q >= entry.lead_max ? q - entry.lead_max : 0;
    const uint32_t last = std::min({q - entry.lead_min, starts - 1, best == kNoStart ? UINT32_MAX : best - 1});
    for (uint32_t s = first; s <= last && s < starts; ++s) {
      if (Matches(elements, 0, data, s, length)) {
        best = s;
        break;
      }
    }
  }
  return best;
}

void CompiledDatabase::SearchRound(const unsigned char* data, uint32_t length, uint32_t anchors, uint32_t starts,
                                   uint64_t base, PatternScan& scan, std::vector<Detection>& out) const {
  if (anchors == 0) return;
  auto* tables = const_cast<SEARCH_BuscaTblDesc*>(&pattern_table_.desc());
  // The patterns whose anchor and the rest after it occur: the library's
  // hits carry no position, and a full list may have dropped some, so a
  // range whose list filled up is searched again in halves.
  scan.candidates.clear();
  std::vector<std::pair<uint32_t, uint32_t>> ranges = {{0, anchors}};
  while (!ranges.empty()) {
    const auto [lo, hi] = ranges.back();
    ranges.pop_back();
    SEARCH_BuscaTblList list{uint32_t(scan.items.size()), 0, scan.items.data()};
    SEARCH_BuscaTbl(0, tables, data + lo, int(hi - lo), int(length - lo), &list);
    if (list.count == list.capacity && hi - lo > 1) {
      const uint32_t mid = lo + (hi - lo) / 2;
      ranges.push_back({mid, hi});
      ranges.push_back({lo, mid});
      continue;
    }
    for (uint32_t i = 0; i < list.count; ++i) {
      const int number = pattern_table_.NumberOf(list.items[i]);
      if (number < 0 || scan.seen[size_t(number)] == scan.file || scan.listed[size_t(number)]) continue;
      scan.listed[size_t(number)] = 1;
      scan.candidates.push_back(uint32_t(number));
    }
  }
  std::vector<std::pair<uint32_t, uint32_t>> found;  // (start, pattern)
  for (uint32_t n : scan.candidates) {
    scan.listed[n] = 0;
    const uint32_t start = FirstStart(patterns_[n], data, length, anchors, starts);
    if (start != kNoStart) found.push_back({start, n});
  }
  std::sort(found.begin(), found.end());
  for (const auto& [start, n] : found) {
    scan.seen[n] = scan.file;
    out.push_back({Name(patterns_[n].signature), true, base + start});
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
    out.push_back({Name(crc_signatures_[hit.column][hit.position]), false, 0});
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
  thread_local PatternScan scan;
  if (has_patterns()) {
    // Room for every hit at one position (each pattern under both rules),
    // so that halving a range always ends with complete lists.
    scan.items.resize(std::max<size_t>(4096, 2 * patterns_.size() + 2));
    scan.seen.resize(patterns_.size());
    scan.listed.resize(patterns_.size());
    if (++scan.file == 0) std::fill(scan.seen.begin(), scan.seen.end(), 0u), scan.file = 1;
  }

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
      // This round owns the starts [base, base + chunk) (at the end, all
      // that are left); their anchors lie up to the longest lead further.
      // The library reads the byte after the last position it tries.
      const uint32_t anchors = at_end ? filled - 1 : std::min(chunk + longest_lead_, filled - 1);
      SearchRound(buffer.data(), filled, anchors, at_end ? filled : chunk, base, scan, report.detections);
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
      if (it->size < 0 || uint64_t(it->size) == read_total) report.detections.push_back({Name(it->signature), false, 0});
    }
  }
  return report;
}

}  // namespace vrk::scan
