// SEARCH_BuscaTbl over 16 MiB, beside a plain reading of the same table
// rules (the tests' reference matcher: every position, both rules, buckets
// walked record by record, gaps tried farthest first) and memchr over the
// same buffer as the bandwidth bound. Prints the ratios at the end.
//
// Tables are random signature sets as scanners carry them (see
// signature_sets.h), filed by the table builder under their opening bytes:
// 8-24 bytes of any value, a third with gaps, some right after the first
// byte; "common" sets have 1% of patterns opening with bytes frequent in
// files (00 00, FF FF, 55 8B EC, ...), which makes crowded buckets; "nogap"
// sets have no pattern filed under a gap key. Data is "mixed" (text, random,
// zero-heavy and code-like pieces) or uniformly "random".
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench/patterns/signature_sets.h"
#include "search/pattern_builder.h"
#include "tests/search/pattern_reference.h"
#include "vrk_search.h"

namespace {

using vrk::bench::Bytes;
using vrk::bench::DataKind;
using vrk::bench::SetShape;
namespace builder = vrk::search::builder;

constexpr size_t kDataSize = 16u << 20;
constexpr uint32_t kCapacity = 1u << 20;

struct Case {
  const char* name;
  DataKind data;
  SetShape shape;
  bool plain;  // also time the plain reading (slow on large tables)
};

// Index = the benchmark argument.
const Case kCases[] = {
    {"mixed/5000", DataKind::kMixed, {5000, true, 0}, true},
    {"random/5000", DataKind::kRandom, {5000, true, 0}, true},
    {"mixed/5000/nogap", DataKind::kMixed, {5000, false, 0}, true},
    {"random/5000/nogap", DataKind::kRandom, {5000, false, 0}, true},
    {"mixed/1000", DataKind::kMixed, {1000, true, 0}, true},
    {"mixed/10000", DataKind::kMixed, {10000, true, 0}, false},
    {"mixed/50000", DataKind::kMixed, {50000, true, 0}, false},
    {"random/50000", DataKind::kRandom, {50000, true, 0}, false},
    {"mixed/50000/common", DataKind::kMixed, {50000, true, 0.01}, false},
    {"zeroheavy/50000/common", DataKind::kZeroHeavy, {50000, true, 0.01}, false},
    {"mixed/5000/common", DataKind::kMixed, {5000, true, 0.01}, true},
};

struct Setup {
  Bytes data;
  builder::Table table;
  std::vector<const unsigned char*> items = std::vector<const unsigned char*>(kCapacity);
};

Setup& GetSetup(int64_t which) {
  static std::map<int64_t, Setup> cache;
  auto [it, fresh] = cache.try_emplace(which);
  Setup& s = it->second;
  if (fresh) {
    const Case& c = kCases[which];
    s.data = vrk::bench::MakeData(c.data, kDataSize, 7);
    builder::Refusal refusal;
    if (!builder::BuildTable(vrk::bench::SignatureSet(c.shape, 11 + uint32_t(c.shape.patterns)), s.table, refusal)) {
      std::fprintf(stderr, "pattern %zu: %s\n", refusal.pattern, refusal.reason.c_str());
      std::abort();
    }
    // Identical hits in identical order, or the comparison means nothing.
    // The check runs the plain reading once, so only where it is timed.
    if (c.plain) {
      const int length = int(s.data.size());
      SEARCH_BuscaTblList out{kCapacity, 0, s.items.data()};
      SEARCH_BuscaTbl(0, s.table.mutable_desc(), s.data.data(), length - 1, length, &out);
      std::vector<const uint8_t*> reference;
      vrk::test::ReferenceSearch(s.table.desc(), s.data.data(), length - 1, length, reference);
      if (reference.size() > kCapacity) reference.resize(kCapacity);
      if (reference.size() != out.count || !std::equal(reference.begin(), reference.end(), s.items.begin())) {
        std::fprintf(stderr, "%s: library and plain reading disagree\n", c.name);
        std::abort();
      }
    }
  }
  return s;
}

void Library(benchmark::State& state) {
  Setup& s = GetSetup(state.range(0));
  const int length = int(s.data.size());
  uint32_t hits = 0;
  for (auto _ : state) {
    SEARCH_BuscaTblList out{kCapacity, 0, s.items.data()};
    SEARCH_BuscaTbl(0, s.table.mutable_desc(), s.data.data(), length - 1, length, &out);
    hits = out.count;
    benchmark::DoNotOptimize(out);
  }
  state.SetLabel(kCases[state.range(0)].name);
  state.counters["hits"] = hits;
  state.SetBytesProcessed(int64_t(state.iterations()) * length);
}

void Plain(benchmark::State& state) {
  Setup& s = GetSetup(state.range(0));
  const int length = int(s.data.size());
  uint32_t hits = 0;
  for (auto _ : state) {
    SEARCH_BuscaTblList out{kCapacity, 0, s.items.data()};
    vrk::test::ReferenceSearchTo(s.table.desc(), s.data.data(), length - 1, length, [&](const uint8_t* p) {
      if (out.count < out.capacity) out.items[out.count++] = p;
    });
    hits = out.count;
    benchmark::DoNotOptimize(out);
  }
  state.SetLabel(kCases[state.range(0)].name);
  state.counters["hits"] = hits;
  state.SetBytesProcessed(int64_t(state.iterations()) * length);
}

// Every occurrence of the data's rarest byte, found with memchr: one pass
// over the whole buffer at the C library's speed.
void Memchr(benchmark::State& state) {
  Setup& s = GetSetup(0);
  size_t histogram[256] = {};
  for (uint8_t b : s.data) ++histogram[b];
  const int rarest = int(std::min_element(histogram, histogram + 256) - histogram);
  const uint8_t* end = s.data.data() + s.data.size();
  size_t found = 0;
  for (auto _ : state) {
    found = 0;
    for (const uint8_t* p = s.data.data(); p < end; ++p, ++found) {
      p = static_cast<const uint8_t*>(std::memchr(p, rarest, size_t(end - p)));
      if (!p) break;
    }
    benchmark::DoNotOptimize(found);
  }
  state.SetLabel("mixed");
  state.counters["found"] = double(found);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(s.data.size()));
}

void Register() {
  for (int64_t i = 0; i < int64_t(std::size(kCases)); ++i) {
    benchmark::RegisterBenchmark("Library", Library)->Arg(i)->Unit(benchmark::kMillisecond);
    if (kCases[i].plain) {
      benchmark::RegisterBenchmark("Plain", Plain)->Arg(i)->Unit(benchmark::kMillisecond)->Iterations(1);
    }
  }
  benchmark::RegisterBenchmark("Memchr", Memchr)->Unit(benchmark::kMillisecond);
}

// Prints, per case, MB/s of both searches and their ratio.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      const double seconds = run.GetAdjustedCPUTime() / Scale(run.time_unit);
      auto& row = rows_[run.report_label];
      (run.run_name.function_name == "Plain" ? row.plain : row.library) = double(kDataSize) / 1e6 / seconds;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintSummary() const {
    std::printf("\n%-24s %14s %14s %8s\n", "case (16 MiB)", "library MB/s", "plain MB/s", "ratio");
    for (const Case& c : kCases) {
      const auto it = rows_.find(c.name);
      if (it == rows_.end() || it->second.library == 0) continue;
      const auto& r = it->second;
      if (r.plain > 0) {
        std::printf("%-24s %14.1f %14.2f %7.1fx\n", c.name, r.library, r.plain, r.library / r.plain);
      } else {
        std::printf("%-24s %14.1f %14s %8s\n", c.name, r.library, "-", "-");
      }
    }
  }

 private:
  struct Row {
    double library = 0, plain = 0;
  };
  static double Scale(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond: return 1;
      case benchmark::kMillisecond: return 1e3;
      case benchmark::kMicrosecond: return 1e6;
      default: return 1e9;
    }
  }
  std::map<std::string, Row> rows_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Register();
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintSummary();
  return 0;
}
