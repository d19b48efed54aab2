// SEARCH_BuscaTbl over 16 MiB, beside a straightforward reading of the same
// table rules (the tests' reference matcher) and memchr over the same buffer
// as the bandwidth bound. Tables of 1,000 and 10,000 patterns are sampled
// from the data itself, a fifth of them filed under gap keys.
//
// "exe" data is the i386 shared libraries of this machine concatenated (and
// repeated) up to 16 MiB, synthetic x86-like bytes when there are none;
// "random" data is uniformly random bytes.
#include <benchmark/benchmark.h>
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/search/pattern_reference.h"
#include "search/pattern_builder.h"
#include "vrk_search.h"

namespace {

constexpr size_t kDataSize = 16u << 20;
constexpr uint32_t kCapacity = 1u << 22;

using Bytes = std::vector<uint8_t>;

Bytes SyntheticCode(std::mt19937& rng) {
  // Common i386 opcodes and operands, zero padding and some text.
  static const uint8_t kOps[] = {0x8B, 0x89, 0x55, 0x5D, 0xC3, 0xE8, 0x83, 0xFF, 0x74, 0x75,
                                 0x50, 0x51, 0x8D, 0x85, 0xC0, 0x00, 0x00, 0x00, 0x45, 0x08};
  Bytes out;
  while (out.size() < kDataSize) {
    const unsigned kind = rng() % 10;
    if (kind == 0) {
      out.insert(out.end(), 16 + rng() % 64, 0);
    } else if (kind == 1) {
      for (int i = 0; i < 20; ++i) out.push_back(uint8_t('a' + rng() % 26));
    } else {
      for (int i = 0; i < 32; ++i) out.push_back(kOps[rng() % std::size(kOps)]);
    }
  }
  out.resize(kDataSize);
  return out;
}

Bytes ExecutableData() {
  Bytes out;
  const char* dir = "/usr/lib/i386-linux-gnu";
  std::vector<std::string> files;
  if (DIR* d = opendir(dir)) {
    while (dirent* e = readdir(d)) {
      if (std::strstr(e->d_name, ".so")) files.push_back(std::string(dir) + "/" + e->d_name);
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  for (const std::string& f : files) {
    if (FILE* in = std::fopen(f.c_str(), "rb")) {
      uint8_t buffer[65536];
      size_t got;
      while ((got = std::fread(buffer, 1, sizeof buffer, in)) > 0) out.insert(out.end(), buffer, buffer + got);
      std::fclose(in);
    }
  }
  if (out.size() < (1u << 20)) {
    std::mt19937 rng(1);
    return SyntheticCode(rng);
  }
  const size_t original = out.size();
  while (out.size() < kDataSize) out.push_back(out[out.size() - original]);
  out.resize(kDataSize);
  return out;
}

Bytes RandomData() {
  std::mt19937 rng(2);
  Bytes out(kDataSize);
  for (uint8_t& b : out) b = uint8_t(rng());
  return out;
}

std::string HexByte(uint8_t b) {
  char s[4];
  std::snprintf(s, sizeof s, "%02X", b);
  return s;
}

// Signature-like bytes: not padding, not a run, several distinct values.
bool Distinctive(const uint8_t* p, size_t n) {
  bool seen[256] = {};
  int distinct = 0;
  for (size_t i = 0; i < n; ++i) {
    if (i >= 2 && p[i] == p[i - 1] && p[i] == p[i - 2]) return false;
    if (!seen[p[i]]) seen[p[i]] = true, ++distinct;
  }
  return distinct >= int(n) / 2 + 1;
}

// Patterns taken from the data at random offsets, so that they hit: most
// with a two-byte key (a third of them with a gap inside), a fifth as one
// byte and a gap, filed under that byte's gap key.
namespace builder = vrk::search::builder;

std::vector<builder::Pattern> SamplePatterns(const Bytes& data, int count) {
  std::mt19937 rng(3 + count);
  std::vector<builder::Pattern> out;
  while (int(out.size()) < count) {
    const size_t at = rng() % (data.size() - 64);
    if (!Distinctive(&data[at + 1], 12)) continue;
    std::string text = HexByte(data[at]);
    size_t i = at + 1;
    if (rng() % 5 == 0) {
      const unsigned skip = 2 + rng() % 31;
      const unsigned used = rng() % (skip + 1);
      text += " {0-" + std::to_string(skip) + "}";
      i += used;
      for (unsigned n = 0, len = 5 + rng() % 4; n < len; ++n) text += " " + HexByte(data[i++]);
    } else {
      const unsigned len = 5 + rng() % 11;
      const unsigned gap_at = rng() % 3 == 0 ? 3 + rng() % (len - 3) : 0;
      for (unsigned n = 1; n < len; ++n) {
        if (n == gap_at) {
          const unsigned skip = 1 + rng() % 8;
          const unsigned used = rng() % (skip + 1);
          text += " {0-" + std::to_string(skip) + "}";
          i += used;
        }
        text += " " + HexByte(data[i++]);
      }
    }
    builder::Pattern e;
    builder::Filed filed;
    std::string reason;
    if (!builder::ParsePattern(text, e, reason) || !builder::EncodePattern(e, filed, reason)) continue;
    out.push_back(std::move(e));
  }
  return out;
}

struct Setup {
  Bytes data;
  builder::Table table;
  std::vector<const unsigned char*> items = std::vector<const unsigned char*>(kCapacity);
};

Setup& GetSetup(bool executable, int patterns) {
  static std::map<std::pair<bool, int>, Setup> cache;
  auto [it, fresh] = cache.try_emplace({executable, patterns});
  Setup& s = it->second;
  if (fresh) {
    s.data = executable ? ExecutableData() : RandomData();
    builder::Refusal refusal;
    if (!builder::BuildTable(SamplePatterns(s.data, patterns), s.table, refusal)) {
      std::fprintf(stderr, "%s\n", refusal.reason.c_str());
      std::abort();
    }
    // Identical hits in identical order, or the comparison means nothing.
    const int length = int(s.data.size());
    SEARCH_BuscaTblList out{kCapacity, 0, s.items.data()};
    SEARCH_BuscaTbl(0, s.table.mutable_desc(), s.data.data(), length - 1, length, &out);
    std::vector<const uint8_t*> reference;
    vrk::test::ReferenceSearch(s.table.desc(), s.data.data(), length - 1, length, reference);
    if (reference.size() > kCapacity) reference.resize(kCapacity);
    if (reference.size() != out.count || !std::equal(reference.begin(), reference.end(), s.items.begin())) {
      std::fprintf(stderr, "library and straightforward search disagree\n");
      std::abort();
    }
  }
  return s;
}

void Library(benchmark::State& state, bool executable) {
  Setup& s = GetSetup(executable, int(state.range(0)));
  const int length = int(s.data.size());
  uint32_t hits = 0;
  for (auto _ : state) {
    SEARCH_BuscaTblList out{kCapacity, 0, s.items.data()};
    SEARCH_BuscaTbl(0, s.table.mutable_desc(), s.data.data(), length - 1, length, &out);
    hits = out.count;
    benchmark::DoNotOptimize(out);
  }
  state.counters["hits"] = hits;
  state.SetBytesProcessed(int64_t(state.iterations()) * length);
}

void Straightforward(benchmark::State& state, bool executable) {
  Setup& s = GetSetup(executable, int(state.range(0)));
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
  state.counters["hits"] = hits;
  state.SetBytesProcessed(int64_t(state.iterations()) * length);
}

// Every occurrence of the data's rarest byte, found with memchr: one pass
// over the whole buffer at the C library's speed.
void Memchr(benchmark::State& state, bool executable) {
  Setup& s = GetSetup(executable, 1000);
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
  state.counters["found"] = double(found);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(s.data.size()));
}

}  // namespace

BENCHMARK_CAPTURE(Library, exe, true)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Straightforward, exe, true)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Library, random, false)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Straightforward, random, false)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Memchr, exe, true)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
