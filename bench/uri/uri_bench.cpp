// URI_Parse + URI_Free and URI_GetServer beside uriparser's
// uriParseSingleUriA + uriFreeUriMembersA over one generated corpus, with a
// profile of the allocator calls first and the rate ratios at the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "corpus.h"
#include "vrk_standin_ctl.h"
#include "vrk_uri.h"
#include "vrkalloc.h"

#ifdef VRK_HAVE_URIPARSER
#include <uriparser/Uri.h>
#endif

namespace {

constexpr uint32_t kCorpusSize = 20000;

const std::vector<std::string>& Corpus() {
  static const std::vector<std::string> corpus = vrk::bench::MakeUriCorpus(kCorpusSize);
  return corpus;
}

void BM_UriParse(benchmark::State& state) {
  const auto& corpus = Corpus();
  for (auto _ : state) {
    for (const std::string& url : corpus) {
      URI_Record* r = URI_Parse(url.c_str());
      benchmark::DoNotOptimize(r);
      URI_Free(r);
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(corpus.size()));
}
BENCHMARK(BM_UriParse)->Unit(benchmark::kMillisecond);

void BM_UriGetServer(benchmark::State& state) {
  const auto& corpus = Corpus();
  for (auto _ : state) {
    for (const std::string& url : corpus) {
      URI_Record* r = URI_GetServer(url.c_str());
      benchmark::DoNotOptimize(r);
      URI_Free(r);
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(corpus.size()));
}
BENCHMARK(BM_UriGetServer)->Unit(benchmark::kMillisecond);

// The allocator calls URI_Parse makes over the corpus, replayed alone with
// the same sizes and in the same order: the part of the parse's time that
// belongs to the allocator library.
void BM_UriParseAllocatorShare(benchmark::State& state) {
  struct Call {
    int op;
    uint32_t a, b;
    int slot;  // allocation: where its block goes; free: which block
  };
  std::vector<Call> calls;
  std::vector<void*> slots;
  {
    std::map<void*, int> live;
    vrkalloc_log_enable(1);
    for (const std::string& url : Corpus()) {
      URI_Free(URI_Parse(url.c_str()));
      for (uint32_t i = 0; i < vrkalloc_log_size(); ++i) {
        const VrkAllocCall& c = *vrkalloc_log_at(i);
        if (c.op == VRKALLOC_PFREE) {
          calls.push_back({c.op, 0, 0, live[c.block]});
          live.erase(c.block);
        } else {
          live[c.result] = int(slots.size());
          calls.push_back({c.op, c.a, c.b, int(slots.size())});
          slots.push_back(nullptr);
        }
      }
      vrkalloc_log_enable(1);  // clears the log
    }
    vrkalloc_log_enable(0);
  }
  for (auto _ : state) {
    for (const Call& c : calls) {
      switch (c.op) {
        case VRKALLOC_PMALLOC: slots[c.slot] = Pmalloc(c.a, 0); break;
        case VRKALLOC_PCALLOC: slots[c.slot] = Pcalloc(c.a, c.b, 0); break;
        case VRKALLOC_PFREE: Pfree(slots[c.slot]); break;
      }
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(Corpus().size()));
}
BENCHMARK(BM_UriParseAllocatorShare)->Unit(benchmark::kMillisecond);

#ifdef VRK_HAVE_URIPARSER
void BM_Uriparser(benchmark::State& state) {
  const auto& corpus = Corpus();
  for (auto _ : state) {
    for (const std::string& url : corpus) {
      UriUriA uri;
      const char* error = nullptr;
      const int rc = uriParseSingleUriA(&uri, url.c_str(), &error);
      benchmark::DoNotOptimize(rc);
      if (rc == URI_SUCCESS) uriFreeUriMembersA(&uri);
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(corpus.size()));
}
BENCHMARK(BM_Uriparser)->Unit(benchmark::kMillisecond);
#endif

// What a parse costs besides scanning: allocator requests per URL and how
// many references are read twice (behind the "http://" prefix).
void PrintProfile() {
  const auto& corpus = Corpus();
  uint64_t parse_requests = 0, server_requests = 0, parsed = 0, served = 0, prefixed = 0;
  uint64_t bytes = 0;
  for (const std::string& url : corpus) {
    bytes += url.size();
    vrkalloc_log_enable(1);
    URI_Record* r = URI_Parse(url.c_str());
    for (uint32_t i = 0; i < vrkalloc_log_size(); ++i) {
      const VrkAllocCall& c = *vrkalloc_log_at(i);
      if (c.op == VRKALLOC_PFREE) continue;
      ++parse_requests;
      if (c.op == VRKALLOC_PMALLOC && c.a == url.size() + 8) ++prefixed;
    }
    parsed += r != nullptr;
    URI_Free(r);
    vrkalloc_log_enable(0);
    const uint32_t before = vrkalloc_requests();
    r = URI_GetServer(url.c_str());
    server_requests += vrkalloc_requests() - before;
    served += r != nullptr;
    URI_Free(r);
  }
  const double n = double(corpus.size());
  std::printf("corpus: %zu URLs, %.1f bytes on average\n", corpus.size(), double(bytes) / n);
  std::printf("URI_Parse:     %.1f%% parsed, %.2f allocations per URL, %.1f%% read again behind \"http://\"\n",
              100.0 * double(parsed) / n, double(parse_requests) / n, 100.0 * double(prefixed) / n);
  std::printf("URI_GetServer: %.1f%% found a server, %.2f allocations per URL\n", 100.0 * double(served) / n,
              double(server_requests) / n);
#ifdef VRK_HAVE_URIPARSER
  uint64_t ok = 0;
  for (const std::string& url : corpus) {
    UriUriA uri;
    const char* error = nullptr;
    if (uriParseSingleUriA(&uri, url.c_str(), &error) == URI_SUCCESS) {
      ++ok;
      uriFreeUriMembersA(&uri);
    }
  }
  std::printf("uriparser:     %.1f%% parsed\n", 100.0 * double(ok) / n);
#endif
  std::printf("\n");
}

// Keeps each benchmark's rate so that the ratios can be printed at the end.
class RateReporter : public benchmark::ConsoleReporter {
 public:
  // With --benchmark_repetitions the median of the repetitions is kept,
  // else the single run's rate.
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      auto it = run.counters.find("items_per_second");
      if (it == run.counters.end()) continue;
      const std::string& name = run.run_name.function_name;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        rates_[name] = it->second.value;
        medians_[name] = true;
      } else if (run.run_type == Run::RT_Iteration && !medians_[name]) {
        rates_[name] = it->second.value;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() const {
    std::printf("\n");
    for (const auto& [name, rate] : rates_) std::printf("%-28s %12.0f URLs/s\n", name.c_str(), rate);
    auto peer = rates_.find("BM_Uriparser");
    if (peer == rates_.end() || peer->second <= 0) return;
    for (const char* ours : {"BM_UriParse", "BM_UriGetServer"}) {
      auto it = rates_.find(ours);
      if (it != rates_.end()) std::printf("%s / uriparser: %.2fx\n", ours, it->second / peer->second);
    }
  }

 private:
  std::map<std::string, double> rates_;
  std::map<std::string, bool> medians_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  PrintProfile();
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
