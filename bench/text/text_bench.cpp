// Text family benchmarks: the UTF-16/UTF-8 transcoders against glibc's iconv
// and ICU, case folding and case-insensitive comparison against ICU, each on
// the same data in the same run. Peers allocate their output per call, as
// the library does. The run ends with a table of speed ratios.
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "vrk_text.h"

#ifdef VRK_BENCH_ICU
#include <unicode/ucasemap.h>
#include <unicode/ustring.h>
#endif

namespace {

// ---- Data ----

void PutUtf8(char32_t c, std::string& out) {
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += {char(0xC0 | (c >> 6)), char(0x80 | (c & 0x3F))};
  } else if (c < 0x10000) {
    out += {char(0xE0 | (c >> 12)), char(0x80 | ((c >> 6) & 0x3F)), char(0x80 | (c & 0x3F))};
  } else {
    out += {char(0xF0 | (c >> 18)), char(0x80 | ((c >> 12) & 0x3F)), char(0x80 | ((c >> 6) & 0x3F)),
            char(0x80 | (c & 0x3F))};
  }
}

void PutUtf16(char32_t c, std::u16string& out) {
  if (c < 0x10000) {
    out += char16_t(c);
  } else {
    out += char16_t(0xD800 + ((c - 0x10000) >> 10));
    out += char16_t(0xDC00 + ((c - 0x10000) & 0x3FF));
  }
}

struct Text {
  std::string utf8;
  std::u16string utf16;
};

constexpr size_t kTextBytes = 1 << 20;

// Mostly English words, one in twelve with a Latin-1 letter or a euro sign.
Text AsciiHeavy() {
  static const char* const kWords[] = {"the", "Scanner", "reads", "each", "FILE", "and", "checks", "its",
                                       "header", "before", "loading", "Sections", "into", "memory", "of", "a"};
  static const char32_t kAccents[] = {0xE9, 0xFC, 0xC5, 0x20AC, 0xDF, 0xF1};
  std::mt19937 rng(1);
  Text t;
  while (t.utf8.size() < kTextBytes) {
    std::u32string word;
    for (const char* w = kWords[rng() % 16]; *w; ++w) word += char32_t(*w);
    if (rng() % 12 == 0) word[rng() % word.size()] = kAccents[rng() % 6];
    word += U' ';
    for (char32_t c : word) {
      PutUtf8(c, t.utf8);
      PutUtf16(c, t.utf16);
    }
  }
  return t;
}

// CJK ideographs and kana with ASCII spaces and punctuation now and then.
Text CjkHeavy() {
  std::mt19937 rng(2);
  Text t;
  while (t.utf8.size() < kTextBytes) {
    const uint32_t pick = rng() % 20;
    char32_t c;
    if (pick < 15) {
      c = 0x4E00 + rng() % 0x5200;
    } else if (pick < 18) {
      c = 0x3041 + rng() % 0x56;
    } else {
      c = pick == 18 ? U' ' : U',';
    }
    PutUtf8(c, t.utf8);
    PutUtf16(c, t.utf16);
  }
  return t;
}

const Text& Data(int which) {
  static const Text ascii = AsciiHeavy();
  static const Text cjk = CjkHeavy();
  return which == 0 ? ascii : cjk;
}

// Pairs that are equal after folding, so each comparison runs to the end.
struct Pair {
  std::string a, b;
  std::u16string a16, b16;
};

std::vector<Pair> Pairs(bool mixed_script) {
  static const char32_t kLatin[] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'k', 'l', 'm', 'n', 'o', 'p', 'r', 's', 't'};
  std::mt19937 rng(mixed_script ? 4 : 3);
  std::vector<Pair> pairs(2000);
  for (Pair& p : pairs) {
    const size_t length = 8 + rng() % 40;
    for (size_t i = 0; i < length; ++i) {
      char32_t lower;
      const uint32_t script = mixed_script ? rng() % 3 : 0;
      if (script == 0) {
        lower = kLatin[rng() % 18];
      } else if (script == 1) {
        lower = 0x3B1 + rng() % 17;  // Greek small alpha to rho
      } else {
        lower = 0x430 + rng() % 32;  // Cyrillic small a to ya
      }
      const char32_t upper = script == 0 ? lower - 0x20 : script == 1 ? lower - 0x20 : lower - 0x20;
      const bool up_a = rng() % 2, up_b = rng() % 2;
      PutUtf8(up_a ? upper : lower, p.a);
      PutUtf8(up_b ? upper : lower, p.b);
      PutUtf16(up_a ? upper : lower, p.a16);
      PutUtf16(up_b ? upper : lower, p.b16);
    }
  }
  return pairs;
}

// Long ASCII pairs equal after folding: file paths of 64 to 320 bytes in
// random case, where comparison runs far before it ends.
std::vector<Pair> PathPairs() {
  static const char* const kParts[] = {"Program Files", "Vendor", "Scanner", "Definitions", "quarantine", "Temp",
                                       "Users", "Documents and Settings", "AppData", "Local", "cache", "x86"};
  std::mt19937 rng(6);
  std::vector<Pair> pairs(2000);
  for (Pair& p : pairs) {
    std::string path = "C:";
    const size_t length = 64 + rng() % 257;
    while (path.size() < length) path += std::string("/") + kParts[rng() % 12];
    path.resize(length);
    for (const char c : path) {
      const bool up_a = rng() % 2, up_b = rng() % 2;
      const char upper = c >= 'a' && c <= 'z' ? char(c - 32) : c;
      p.a += up_a ? upper : c;
      p.b += up_b ? upper : c;
      p.a16 += char16_t(uint8_t(p.a.back()));
      p.b16 += char16_t(uint8_t(p.b.back()));
    }
  }
  return pairs;
}

const std::vector<Pair>& PairSet(int which) {
  static const std::vector<Pair> ascii = Pairs(false);
  static const std::vector<Pair> mixed = Pairs(true);
  static const std::vector<Pair> paths = PathPairs();
  return which == 0 ? ascii : which == 1 ? mixed : paths;
}

// 4,096 short strings of the kind a scanner folds one at a time (names,
// titles, paths), 27 bytes on average: words in mixed case joined by
// separators, mostly ASCII, with about one word in five from Latin-1,
// Greek or Cyrillic text, so ASCII runs are short and every string pays the
// per-call costs.
std::vector<std::string> FoldCorpus() {
  static const char* const kAscii[] = {"Setup", "README", "the", "Driver", "update", "INSTALL", "config",
                                       "Report", "data", "Photo", "Backup", "log", "TEMP", "invoice", "Music",
                                       "final", "Draft", "system32", "User", "archive"};
  static const char* const kOther[] = {"M\xC3\xBCller", "\xC3\x89" "COLE", "Stra\xC3\x9F" "e", "\xC3\x84rger",
                                       "Se\xC3\xB1or", "\xCE\x95\xCE\xBB\xCE\xBB\xCE\xAC\xCE\xB4\xCE\xB1",
                                       "\xCE\xA3\xCE\x9F\xCE\xA6\xCE\x99\xCE\x91",
                                       "\xD0\x9C\xD0\xBE\xD1\x81\xD0\xBA\xD0\xB2\xD0\xB0",
                                       "\xD0\x9E\xD0\xA2\xD0\xA7\xD0\x81\xD0\xA2", "Caf\xC3\xA9"};
  static const char kSeparators[] = {' ', '_', '-', '.', ' ', '/'};
  std::mt19937 rng(5);
  std::vector<std::string> corpus(4096);
  for (std::string& s : corpus) {
    const size_t target = 8 + rng() % 35;
    while (s.size() < target) {
      if (!s.empty()) s += kSeparators[rng() % 6];
      s += rng() % 5 == 0 ? kOther[rng() % 10] : kAscii[rng() % 20];
    }
  }
  return corpus;
}

// The strings folded by foldstrict: the first string of each pair, or the
// corpus.
const std::vector<std::string>& FoldSet(int which) {
  static const std::vector<std::string> sets[3] = {
      [] {
        std::vector<std::string> v;
        for (const Pair& p : PairSet(0)) v.push_back(p.a);
        return v;
      }(),
      [] {
        std::vector<std::string> v;
        for (const Pair& p : PairSet(1)) v.push_back(p.a);
        return v;
      }(),
      FoldCorpus()};
  return sets[which];
}

size_t TotalBytes(const std::vector<std::string>& strings) {
  size_t n = 0;
  for (const std::string& s : strings) n += s.size();
  return n;
}

size_t PairBytes(const std::vector<Pair>& pairs) {
  size_t n = 0;
  for (const Pair& p : pairs) n += p.a.size() + p.b.size();
  return n;
}

// ---- UTF-16 to UTF-8 ----

void Utf16ToUtf8Vrk(benchmark::State& state, int which) {
  const std::u16string& in = Data(which).utf16;
  for (auto _ : state) {
    int outlen = 0;
    char* out = charconv_UTF16ToUTF8(reinterpret_cast<const uint16_t*>(in.data()), int(in.size()), &outlen);
    benchmark::DoNotOptimize(out);
    charconv_FreeBuffer(&out);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size() * 2));
}

void Utf16ToUtf8Iconv(benchmark::State& state, int which) {
  const std::u16string& in = Data(which).utf16;
  iconv_t cd = iconv_open("UTF-8", "UTF-16LE");
  for (auto _ : state) {
    const size_t capacity = in.size() * 3 + 1;
    char* out = static_cast<char*>(std::malloc(capacity));
    char* inp = reinterpret_cast<char*>(const_cast<char16_t*>(in.data()));
    size_t inleft = in.size() * 2;
    char* outp = out;
    size_t outleft = capacity;
    iconv(cd, &inp, &inleft, &outp, &outleft);
    benchmark::DoNotOptimize(out);
    std::free(out);
  }
  iconv_close(cd);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size() * 2));
}

// ---- UTF-8 to UTF-16 ----

void Utf8ToUtf16Vrk(benchmark::State& state, int which) {
  const std::string& in = Data(which).utf8;
  for (auto _ : state) {
    int outlen = 0;
    uint16_t* out = charconv_UTF8ToUTF16(in.data(), int(in.size()), &outlen);
    benchmark::DoNotOptimize(out);
    char* block = reinterpret_cast<char*>(out);
    charconv_FreeBuffer(&block);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size()));
}

void Utf8ToUtf16Iconv(benchmark::State& state, int which) {
  const std::string& in = Data(which).utf8;
  iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
  for (auto _ : state) {
    const size_t capacity = in.size() * 2 + 2;
    char* out = static_cast<char*>(std::malloc(capacity));
    char* inp = const_cast<char*>(in.data());
    size_t inleft = in.size();
    char* outp = out;
    size_t outleft = capacity;
    iconv(cd, &inp, &inleft, &outp, &outleft);
    benchmark::DoNotOptimize(out);
    std::free(out);
  }
  iconv_close(cd);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size()));
}

// ---- Folding and comparison ----

void IcmpVrk(benchmark::State& state, int which) {
  const std::vector<Pair>& pairs = PairSet(which);
  for (auto _ : state) {
    int sum = 0;
    for (const Pair& p : pairs) sum += utf8icmp(p.a.c_str(), p.b.c_str(), 0);
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(PairBytes(pairs)));
}

void FoldVrk(benchmark::State& state, int which) {
  const std::vector<std::string>& strings = FoldSet(which);
  for (auto _ : state) {
    for (const std::string& s : strings) {
      char* folded = utf8foldstrict(s.c_str(), 0);
      benchmark::DoNotOptimize(folded);
      utf8freeresult(folded);
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(TotalBytes(strings)));
}

#ifdef VRK_BENCH_ICU
void Utf16ToUtf8Icu(benchmark::State& state, int which) {
  const std::u16string& in = Data(which).utf16;
  for (auto _ : state) {
    const int32_t capacity = int32_t(in.size() * 3 + 1);
    char* out = static_cast<char*>(std::malloc(size_t(capacity)));
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strToUTF8(out, capacity, &length, in.data(), int32_t(in.size()), &error);
    benchmark::DoNotOptimize(out);
    std::free(out);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size() * 2));
}

void Utf8ToUtf16Icu(benchmark::State& state, int which) {
  const std::string& in = Data(which).utf8;
  for (auto _ : state) {
    const int32_t capacity = int32_t(in.size() + 1);
    UChar* out = static_cast<UChar*>(std::malloc(size_t(capacity) * 2));
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strFromUTF8(out, capacity, &length, in.data(), int32_t(in.size()), &error);
    benchmark::DoNotOptimize(out);
    std::free(out);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size()));
}

// ICU compares its native UTF-16 form (prepared beforehand).
void IcmpIcu(benchmark::State& state, int which) {
  const std::vector<Pair>& pairs = PairSet(which);
  for (auto _ : state) {
    int sum = 0;
    for (const Pair& p : pairs) sum += u_strcasecmp(p.a16.c_str(), p.b16.c_str(), U_FOLD_CASE_DEFAULT);
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(PairBytes(pairs)));
}

// ICU folds UTF-8 directly into a buffer allocated per call.
void FoldIcu(benchmark::State& state, int which) {
  const std::vector<std::string>& strings = FoldSet(which);
  UErrorCode error = U_ZERO_ERROR;
  UCaseMap* map = ucasemap_open("", U_FOLD_CASE_DEFAULT, &error);
  for (auto _ : state) {
    for (const std::string& s : strings) {
      const int32_t capacity = int32_t(s.size() * 3 + 1);
      char* out = static_cast<char*>(std::malloc(size_t(capacity)));
      error = U_ZERO_ERROR;
      ucasemap_utf8FoldCase(map, out, capacity, s.data(), int32_t(s.size()), &error);
      benchmark::DoNotOptimize(out);
      std::free(out);
    }
  }
  ucasemap_close(map);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(TotalBytes(strings)));
}
#endif

// ---- Registration and the ratio table ----

using Body = void (*)(benchmark::State&, int);

struct Group {
  const char* name;
  const char* data[3];  // data set names, by the index the bodies take
  Body vrk;
  Body peers[2];
  const char* peer_names[2];
};

const Group kGroups[] = {
#ifdef VRK_BENCH_ICU
    {"UTF16ToUTF8", {"ascii", "cjk"}, Utf16ToUtf8Vrk, {Utf16ToUtf8Icu, Utf16ToUtf8Iconv}, {"icu", "iconv"}},
    {"UTF8ToUTF16", {"ascii", "cjk"}, Utf8ToUtf16Vrk, {Utf8ToUtf16Icu, Utf8ToUtf16Iconv}, {"icu", "iconv"}},
    {"icmp", {"ascii", "mixed", "paths"}, IcmpVrk, {IcmpIcu, nullptr}, {"icu", nullptr}},
    {"foldstrict", {"ascii", "mixed", "corpus"}, FoldVrk, {FoldIcu, nullptr}, {"icu", nullptr}},
#else
    {"UTF16ToUTF8", {"ascii", "cjk"}, Utf16ToUtf8Vrk, {Utf16ToUtf8Iconv, nullptr}, {"iconv", nullptr}},
    {"UTF8ToUTF16", {"ascii", "cjk"}, Utf8ToUtf16Vrk, {Utf8ToUtf16Iconv, nullptr}, {"iconv", nullptr}},
    {"icmp", {"ascii", "mixed", "paths"}, IcmpVrk, {nullptr, nullptr}, {nullptr, nullptr}},
    {"foldstrict", {"ascii", "mixed", "corpus"}, FoldVrk, {nullptr, nullptr}, {nullptr, nullptr}},
#endif
};

// Keeps the least CPU time per iteration of each benchmark over its
// repetitions (the run least disturbed by other work on the machine) and
// prints peer/vrk ratios of those.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.iterations == 0 || run.run_type == Run::RT_Aggregate) continue;
      const std::string name = run.run_name.str();
      const double time = run.GetAdjustedCPUTime();
      const auto it = times_.find(name);
      if (it == times_.end() || time < it->second) times_[name] = time;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() const {
    std::printf("\nBest CPU time per call and speed of libVrkutil relative to each peer "
                "(peer CPU time / libVrkutil CPU time):\n");
    for (const Group& g : kGroups) {
      for (const char* data : g.data) {
        if (data == nullptr) continue;
        const std::string base = std::string(g.name) + "/" + data + "/";
        const auto vrk = times_.find(base + "vrk");
        if (vrk == times_.end()) continue;
        std::printf("  %-24s vrk %9.1f us", (std::string(g.name) + "/" + data).c_str(), vrk->second);
        for (const char* peer : g.peer_names) {
          if (peer == nullptr) continue;
          const auto other = times_.find(base + peer);
          if (other == times_.end()) continue;
          std::printf("   %-5s %9.1f us %6.2fx", peer, other->second, other->second / vrk->second);
        }
        std::printf("\n");
      }
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  for (const Group& g : kGroups) {
    for (int which = 0; which < 3; ++which) {
      if (g.data[which] == nullptr) continue;
      const std::string base = std::string(g.name) + "/" + g.data[which] + "/";
      benchmark::RegisterBenchmark((base + "vrk").c_str(), g.vrk, which)->Unit(benchmark::kMicrosecond);
      for (int p = 0; p < 2; ++p) {
        if (g.peers[p] == nullptr) continue;
        benchmark::RegisterBenchmark((base + g.peer_names[p]).c_str(), g.peers[p], which)
            ->Unit(benchmark::kMicrosecond);
      }
    }
  }
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
