// Checksums beside their peers, in one run: CRC32_Mem against zlib's
// crc32(), the fingerprint against a plain byte-at-a-time reading of its
// rules, MD5 against OpenSSL, and SEARCH_CRCFile against a table of 10,000
// signatures. Prints the ratios at the end; nothing here is asserted.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#ifdef VRK_BENCH_OPENSSL
#include "openssl_peer.h"
#endif

#include "vrk_checksum.h"
#include "vrk_search.h"
#include "vrkalloc.h"

namespace {

std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> v(n);
  for (auto& b : v) b = uint8_t(rng());
  return v;
}

const std::vector<uint8_t>& Data() {
  static const std::vector<uint8_t> data = RandomBytes((1 << 20) + 64, 1);
  return data;
}

// ---- CRC-32 ----

void BM_Crc32_Vrk(benchmark::State& state) {
  const uint32_t n = uint32_t(state.range(0));
  const uint8_t* p = Data().data();
  for (auto _ : state) benchmark::DoNotOptimize(CRC32_Mem(p, 0xFFFFFFFFu, n));
  state.SetBytesProcessed(int64_t(state.iterations()) * n);
}
BENCHMARK(BM_Crc32_Vrk)->Arg(2048)->Arg(1 << 20);

void BM_Crc32_Zlib(benchmark::State& state) {
  const uint32_t n = uint32_t(state.range(0));
  const uint8_t* p = Data().data();
  for (auto _ : state) benchmark::DoNotOptimize(crc32(0, p, n));
  state.SetBytesProcessed(int64_t(state.iterations()) * n);
}
BENCHMARK(BM_Crc32_Zlib)->Arg(2048)->Arg(1 << 20);

// ---- Fingerprint ----

// The byte-at-a-time reading of the fingerprint rules that the library's
// fast path replaces: one table step per byte, every region read again.
struct PlainTable {
  uint32_t t[256];
  PlainTable() {
    for (uint32_t n = 0; n < 256; ++n) {
      uint32_t c = n;
      for (int b = 0; b < 8; ++b) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
      t[n] = c;
    }
  }
};
const PlainTable kPlain;

uint32_t PlainCrc(const uint8_t* p, uint32_t crc, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) crc = (crc >> 8) ^ kPlain.t[(crc ^ p[i]) & 0xFF];
  return crc;
}

uint32_t PlainBlock(const uint8_t* p, uint32_t start, uint32_t n) {
  if (start != 0) return PlainCrc(p, start, n);
  uint32_t i = 1;
  while (i < n && p[i] == p[0]) ++i;
  return i >= n ? 0 : PlainCrc(p, 0, n);
}

void PlainFingerprint(uint32_t* w, const uint8_t* p, int32_t length) {
  w[1] = PlainBlock(p, 0, 64);
  w[33] = PlainBlock(p + 64, w[1], 64);
  w[34] = PlainBlock(p + 128, w[33], 128);
  w[35] = PlainBlock(p + 256, w[34], 256);
  w[36] = PlainBlock(p + 512, w[35], 512);
  w[37] = PlainBlock(p + 1024, w[36], 1024);
  for (int k = 1; k <= 31 && (k == 1 || 64 * k < length); ++k) w[k + 1] = PlainBlock(p + 64 * k, 0, 64);
}

void BM_Fingerprint_Vrk(benchmark::State& state) {
  SEARCH_CRCTblEntry row[SEARCH_CRC_COLUMNS] = {};
  SEARCH_CRCList hits = {};
  SEARCH_CRCFingerprint f = {};
  const uint8_t* p = Data().data();
  for (auto _ : state) {
    SEARCH_CRCFile(p, 2048, 0, 0, &f, 0, row, &hits);
    benchmark::DoNotOptimize(f);
  }
  SEARCH_CRCFree(&hits);
}
BENCHMARK(BM_Fingerprint_Vrk);

void BM_Fingerprint_Plain(benchmark::State& state) {
  uint32_t w[SEARCH_CRC_COLUMNS] = {};
  const uint8_t* p = Data().data();
  for (auto _ : state) {
    PlainFingerprint(w, p, 2048);
    benchmark::DoNotOptimize(w);
  }
}
BENCHMARK(BM_Fingerprint_Plain);

// ---- MD5 ----

void BM_Md5_Vrk(benchmark::State& state) {
  const uint32_t n = uint32_t(state.range(0));
  const uint8_t* p = Data().data();
  unsigned char digest[16];
  for (auto _ : state) {
    MD5_CTX* ctx = MD5Init();
    MD5Update(ctx, p, n);
    MD5Final(ctx, digest);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * n);
}
BENCHMARK(BM_Md5_Vrk)->Arg(64)->Arg(1 << 20);

#ifdef VRK_BENCH_OPENSSL
void BM_Md5_OpenSSL(benchmark::State& state) {
  const uint32_t n = uint32_t(state.range(0));
  const uint8_t* p = Data().data();
  unsigned char digest[16];
  for (auto _ : state) {
    vrk::bench::OpenSslMd5(p, n, digest);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * n);
}
BENCHMARK(BM_Md5_OpenSSL)->Arg(64)->Arg(1 << 20);

// The same through OpenSSL's allocating interface, for reference.
void BM_Md5_OpenSSLEvp(benchmark::State& state) {
  const uint32_t n = uint32_t(state.range(0));
  const uint8_t* p = Data().data();
  unsigned char digest[16];
  for (auto _ : state) {
    vrk::bench::OpenSslMd5Evp(p, n, digest);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * n);
}
BENCHMARK(BM_Md5_OpenSSLEvp)->Arg(64)->Arg(1 << 20);
#endif

// ---- Signature table ----

// 10,000 random signatures spread evenly over columns 1-37 of one row,
// matched against 64 different 2048-byte buffers in turn; a few of the
// buffers' own words are planted so that hits happen and are recorded.
struct SignatureRow {
  static constexpr uint32_t kSignatures = 10000, kBuffers = 64;
  std::vector<uint8_t> buffers = RandomBytes(kBuffers * 2048, 2);
  std::vector<std::vector<uint32_t>> columns = std::vector<std::vector<uint32_t>>(SEARCH_CRC_COLUMNS);
  std::vector<SEARCH_CRCTblEntry> table = std::vector<SEARCH_CRCTblEntry>(SEARCH_CRC_COLUMNS);
  std::vector<SEARCH_CRCFingerprint> fingerprints = std::vector<SEARCH_CRCFingerprint>(kBuffers);

  SignatureRow() {
    std::mt19937 rng(3);
    for (uint32_t i = 0; i < kSignatures; ++i) columns[1 + i % 37].push_back(rng());
    for (uint32_t b = 0; b < kBuffers; ++b) {
      SEARCH_CRCTblEntry empty[SEARCH_CRC_COLUMNS] = {};
      SEARCH_CRCList none = {};
      SEARCH_CRCFile(buffers.data() + 2048 * b, 2048, 0, b, &fingerprints[b], 0, empty, &none);
      if (b % 8 == 0) columns[1 + b % 37].push_back(fingerprints[b].words[1 + b % 37]);
    }
    for (uint32_t c = 1; c < SEARCH_CRC_COLUMNS; ++c) {
      std::sort(columns[c].begin(), columns[c].end());
      SEARCH_CRCRegisterTable(table.data(), c, 0, columns[c].data(), uint32_t(columns[c].size()));
    }
  }
};

const SignatureRow& Row() {
  static const SignatureRow row;
  return row;
}

void BM_SearchCrcFile_10k(benchmark::State& state) {
  const SignatureRow& r = Row();
  auto* table = const_cast<SEARCH_CRCTblEntry*>(r.table.data());
  SEARCH_CRCFingerprint f = {};
  uint32_t next = 0;
  uint64_t hits_seen = 0;
  for (auto _ : state) {
    SEARCH_CRCList hits = {};
    SEARCH_CRCFile(r.buffers.data() + 2048 * next, 2048, 0, 0, &f, 0, table, &hits);
    hits_seen += hits.count;
    SEARCH_CRCFree(&hits);
    next = (next + 1) % SignatureRow::kBuffers;
  }
  state.counters["hits_per_buffer"] = double(hits_seen) / double(state.iterations());
}
BENCHMARK(BM_SearchCrcFile_10k);

// A fingerprint already computed, matched again (reuse non-zero): the row
// lookups alone.
void BM_SearchCrcFile_Reuse(benchmark::State& state) {
  const SignatureRow& r = Row();
  auto* table = const_cast<SEARCH_CRCTblEntry*>(r.table.data());
  auto fingerprints = r.fingerprints;
  uint32_t next = 0;
  uint64_t hits_seen = 0;
  for (auto _ : state) {
    SEARCH_CRCList hits = {};
    SEARCH_CRCFile(r.buffers.data(), 0, 0, 0, &fingerprints[next], 1, table, &hits);
    hits_seen += hits.count;
    SEARCH_CRCFree(&hits);
    next = (next + 1) % SignatureRow::kBuffers;
  }
  state.counters["hits_per_buffer"] = double(hits_seen) / double(state.iterations());
}
BENCHMARK(BM_SearchCrcFile_Reuse);

// The plain reading of the row matching: columns 37 down to 1, then 0 when
// something hit; per cell a signed binary search, back to the first equal
// value, then every equal value appended, the list grown by 100 entries.
void PlainAddHit(SEARCH_CRCList* hits, uint32_t position, uint32_t column) {
  if (hits->count >= hits->capacity) {
    if (void* grown = Prealloc(hits->entries, hits->capacity * 8 + 800)) {
      hits->entries = static_cast<SEARCH_CRCHit*>(grown);
      hits->capacity += 100;
    }
  }
  if (hits->count < hits->capacity) hits->entries[hits->count++] = {position, column};
}

void PlainLookUp(const uint32_t* crcs, uint32_t count, uint32_t column, uint32_t key, SEARCH_CRCList* hits) {
  int lo = 0, hi = int(count) - 1, mid = 0;
  bool found = false;
  while (lo <= hi) {
    mid = (lo + hi) >> 1;
    if (crcs[mid] == key) {
      found = true;
      break;
    }
    if (crcs[mid] < key) {
      lo = mid + 1;
    } else {
      hi = mid - 1;
    }
  }
  if (!found) return;
  while (mid > 0 && crcs[mid - 1] == key) --mid;
  for (uint32_t i = uint32_t(mid); i < count && crcs[i] == key; ++i) PlainAddHit(hits, i, column);
}

void PlainMatchRow(const SEARCH_CRCTblEntry* table, uint32_t row, const SEARCH_CRCFingerprint& f, SEARCH_CRCList* hits) {
  for (int column = 37; column >= 1; --column) {
    const SEARCH_CRCTblEntry& cell = table[row * 38 + uint32_t(column)];
    if (cell.count != 0) PlainLookUp(cell.crcs, cell.count, cell.index - row * 38, f.words[column], hits);
  }
  const SEARCH_CRCTblEntry& cell = table[row * 38];
  if (hits->count != 0 && cell.count != 0) PlainLookUp(cell.crcs, cell.count, 0, f.words[0], hits);
}

void BM_SearchCrcMatch_Plain(benchmark::State& state) {
  const SignatureRow& r = Row();
  uint32_t next = 0;
  uint64_t hits_seen = 0;
  for (auto _ : state) {
    SEARCH_CRCList hits = {};
    PlainMatchRow(r.table.data(), 0, r.fingerprints[next], &hits);
    hits_seen += hits.count;
    if (hits.entries) Pfree(hits.entries);
    next = (next + 1) % SignatureRow::kBuffers;
  }
  state.counters["hits_per_buffer"] = double(hits_seen) / double(state.iterations());
}
BENCHMARK(BM_SearchCrcMatch_Plain);

void BM_Crc32_Bytewise(benchmark::State& state) {
  const uint32_t n = uint32_t(state.range(0));
  const uint8_t* p = Data().data();
  for (auto _ : state) benchmark::DoNotOptimize(PlainCrc(p, 0xFFFFFFFFu, n));
  state.SetBytesProcessed(int64_t(state.iterations()) * n);
}
BENCHMARK(BM_Crc32_Bytewise)->Arg(2048);

// ---- The closing summary ----

class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        ns_[run.benchmark_name()] = run.GetAdjustedCPUTime() * Scale(run.time_unit);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintSummary() const {
    std::printf("\nSummary (speed-ups: peer CPU time / our CPU time, higher is better)\n");
    Ratio("CRC-32, 1 MiB, vs zlib crc32()", "BM_Crc32_Zlib/1048576", "BM_Crc32_Vrk/1048576");
    Ratio("CRC-32, 2 KiB, vs zlib crc32()", "BM_Crc32_Zlib/2048", "BM_Crc32_Vrk/2048");
    Ratio("Fingerprint, vs byte-at-a-time rules", "BM_Fingerprint_Plain", "BM_Fingerprint_Vrk");
    Ratio("SEARCH_CRCFile reusing a fingerprint, vs plain row matching", "BM_SearchCrcMatch_Plain",
          "BM_SearchCrcFile_Reuse");
    Ratio("MD5, 1 MiB, vs OpenSSL MD5()", "BM_Md5_OpenSSL/1048576", "BM_Md5_Vrk/1048576");
    Ratio("MD5, 64 bytes, vs OpenSSL MD5() (our context allocated)", "BM_Md5_OpenSSL/64", "BM_Md5_Vrk/64");
    Ratio("MD5, 64 bytes, vs OpenSSL EVP (both allocate)", "BM_Md5_OpenSSLEvp/64", "BM_Md5_Vrk/64");
    auto search = ns_.find("BM_SearchCrcFile_10k");
    auto crc = ns_.find("BM_Crc32_Vrk/2048");
    auto plain = ns_.find("BM_Crc32_Bytewise/2048");
    if (search != ns_.end() && crc != ns_.end() && plain != ns_.end()) {
      std::printf("  %-58s %8.0f ns per buffer (one 2048-byte CRC: %.0f ns fast, %.0f ns byte-at-a-time)\n",
                  "SEARCH_CRCFile, 10,000 signatures", search->second, crc->second, plain->second);
    }
  }

 private:
  static double Scale(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond: return 1e9;
      case benchmark::kMillisecond: return 1e6;
      case benchmark::kMicrosecond: return 1e3;
      default: return 1.0;
    }
  }
  void Ratio(const char* what, const std::string& peer, const std::string& ours) const {
    auto p = ns_.find(peer), o = ns_.find(ours);
    if (p == ns_.end() || o == ns_.end()) {
      std::printf("  %-58s (not measured)\n", what);
      return;
    }
    std::printf("  %-58s %6.2fx\n", what, p->second / o->second);
  }
  std::map<std::string, double> ns_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintSummary();
  benchmark::Shutdown();
  return 0;
}
