// vrkutil scan: the scanning job, as the product's scanners do it.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "io/file_input.h"
#include "json.h"
#include "scan/database.h"
#include "scan/engine.h"
#include "scan/walk.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kDatabase, kRecursive, kJobs, kJson, kSort, kFileList, kExclude, kMaxFileSize, kAllowEmpty };
constexpr Option kOptions[] = {
    {kDatabase, 'd', "database", true},    {kRecursive, 'r', "recursive", false}, {kJobs, 'j', "jobs", true},
    {kJson, 0, "json", false},             {kSort, 0, "sort", false},             {kFileList, 0, "file-list", true},
    {kExclude, 0, "exclude", true},        {kMaxFileSize, 0, "max-filesize", true},
    {kAllowEmpty, 0, "allow-empty", false},
};

const Command kScan{
    "scan", "[OPTIONS] PATH...", "scan files for signatures",
    "Scans each file PATH, and the files in each directory PATH, against the\n"
    "signature databases given with -d (default: the database built into\n"
    "vrkutil). PATH '-' is standard input, scanned as it streams in. Prints\n"
    "'PATH: NAME FOUND' per detection (patterns with '@ OFFSET', the first\n"
    "offset), then a summary. A name holding a backslash or a newline is\n"
    "escaped as md5 escapes it, and its line starts with a backslash.\n"
    "\n"
    "  -d, --database DB     read signatures from DB (repeatable)\n"
    "  -r, --recursive       scan whole trees; symbolic links are followed only\n"
    "                        to files inside the tree\n"
    "  -j, --jobs N          scan on N threads (default: one per core); output\n"
    "                        comes in the order files finish\n"
    "  --sort                print each file's lines in the order the files were\n"
    "                        named and found, whatever -j is (runs compare)\n"
    "  --file-list FILE      also scan the paths listed in FILE, one per line\n"
    "                        ('-': standard input)\n"
    "  --exclude GLOB        leave out files and directories whose name or path\n"
    "                        matches the shell pattern GLOB (repeatable)\n"
    "  --max-filesize N      skip files larger than N bytes (suffix K, M or G);\n"
    "                        each is reported as 'PATH: SKIPPED' and counted\n"
    "  --json                one JSON object per line instead: {\"file\", \"signature\",\n"
    "                        \"offset\"} per detection, {\"file\", \"error\"} per\n"
    "                        unreadable file, {\"file\", \"skipped\", \"size\"}, and\n"
    "                        {\"summary\": {...}} last; names are UTF-8, other\n"
    "                        bytes as \\udc80-\\udcff surrogate escapes\n"
    "  --allow-empty         scan even when the databases hold no signature\n"
    "\n"
    "Signature databases hold one signature per line ('#' starts a comment):\n"
    "  NAME crc COLUMN HEX       fingerprint word COLUMN (1-37) is HEX (as\n"
    "                            'vrkutil fingerprint' prints it; 0x optional)\n"
    "  NAME pattern HEX...       hex bytes, '{0-K}' skips 0 to K bytes (K <= 254)\n"
    "  NAME md5 HEX32 [SIZE]     MD5 of a whole file; with SIZE only files of a\n"
    "                            listed size are hashed\n"
    "A database with an error is refused whole ('file:line: message').\n"
    "\n"
    "The summary counts files scanned, errors and skipped files apart.\n"
    "Exit status 0 when nothing was found, 1 when something was, 2 on errors\n"
    "(unreadable files are reported and the scan goes on).",
    Run, kOptions};

struct Options {
  std::vector<std::string> databases;
  std::vector<std::string> paths;
  vrk::scan::WalkOptions walk;
  unsigned threads = 0;
  bool json = false;
  bool sort = false;
  bool allow_empty = false;
  uint64_t max_size = UINT64_MAX;
};

// A size with an optional K, M or G suffix (powers of 1024).
bool ParseSize(std::string_view text, uint64_t& out) {
  uint64_t unit = 1;
  if (!text.empty()) {
    switch (text.back()) {
      case 'K': case 'k': unit = 1ull << 10; break;
      case 'M': case 'm': unit = 1ull << 20; break;
      case 'G': case 'g': unit = 1ull << 30; break;
      default: break;
    }
    if (unit != 1) text.remove_suffix(1);
  }
  long long n = 0;
  if (!ParseInt(text, n) || n < 0 || static_cast<uint64_t>(n) > (1ull << 40)) return false;
  out = static_cast<uint64_t>(n) * unit;
  return true;
}

int ParseOptions(const Invocation& in, Options& o) {
  long long threads = 0;
  if (NumberOption(kScan, in, kJobs, 1, 256, threads) != kExitOk) return kExitUsage;
  o.threads = static_cast<unsigned>(threads);
  o.walk.recursive = in.Has(kRecursive);
  o.json = in.Has(kJson);
  o.sort = in.Has(kSort);
  o.allow_empty = in.Has(kAllowEmpty);
  for (const char* db : in.Values(kDatabase)) o.databases.push_back(db);
  for (const char* glob : in.Values(kExclude)) o.walk.excludes.push_back(glob);
  if (const char* size = in.Value(kMaxFileSize); size && !ParseSize(size, o.max_size)) {
    return UsageError(kScan, "--max-filesize needs a byte count such as 1048576, 512K or 20M, not '%s'", size);
  }
  for (const char* path : in.operands()) o.paths.push_back(path);
  for (const char* list : in.Values(kFileList)) {
    std::vector<uint8_t> text;
    std::string error;
    if (!vrktool::ReadWholeFile(list, text, error)) return Fail(kExitUsage, "%s: %s", list, error.c_str());
    std::string line;
    for (size_t i = 0; i <= text.size(); ++i) {
      if (i == text.size() || text[i] == '\n') {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) o.paths.push_back(line);
        line.clear();
      } else {
        line += static_cast<char>(text[i]);
      }
    }
  }
  if (o.paths.empty()) return UsageError(kScan, "expected at least one PATH (or --file-list)");
  return kExitOk;
}

// A progress line on a terminal, for scans that take longer than a second.
class Progress {
 public:
  explicit Progress(const std::atomic<uint64_t>& files, const std::atomic<uint64_t>& bytes)
      : files_(files), bytes_(bytes), enabled_(isatty(2) == 1) {
    if (enabled_) thread_ = std::thread([this] { Loop(); });
  }
  ~Progress() {
    if (!enabled_) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    wake_.notify_all();
    thread_.join();
    if (visible_) std::fputs("\r\033[K", stderr);
  }
  std::mutex& output_mutex() { return mutex_; }
  // Clears the progress line before other output (hold output_mutex()).
  void ClearLocked() {
    if (visible_) std::fputs("\r\033[K", stderr);
    visible_ = false;
  }

 private:
  void Loop() {
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::milliseconds(250), [this] { return done_; })) {
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (seconds < 1.0) continue;
      std::fprintf(stderr, "\r\033[K%llu files, %.0f files/s, %.1f MB/s", static_cast<unsigned long long>(files_.load()),
                   double(files_.load()) / seconds, double(bytes_.load()) / 1e6 / seconds);
      visible_ = true;
    }
  }

  const std::atomic<uint64_t>& files_;
  const std::atomic<uint64_t>& bytes_;
  const bool enabled_;
  bool done_ = false;
  bool visible_ = false;  // on the screen now
  std::mutex mutex_;
  std::condition_variable wake_;
  std::thread thread_;
};

// What happened to one file.
struct Outcome {
  std::string path;
  vrk::scan::FileReport report;
  bool skipped = false;
  uint64_t size = 0;  // when skipped
};

// "PATH: TEXT", the path escaped as the checksum lines escape names.
void PrintLine(FILE* out, const std::string& path, const std::string& text) {
  if (path.find_first_of("\\\n") == std::string::npos) {
    std::fprintf(out, "%s: %s\n", path.c_str(), text.c_str());
    return;
  }
  std::string escaped = "\\";
  for (char c : path) escaped += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : std::string(1, c);
  std::fprintf(out, "%s: %s\n", escaped.c_str(), text.c_str());
}

void PrintOutcome(const Outcome& o, bool json) {
  const std::string file = json ? JsonString(o.path) : "";
  if (o.skipped) {
    if (json) {
      std::printf("{\"file\": %s, \"skipped\": \"max-filesize\", \"size\": %llu}\n", file.c_str(),
                  static_cast<unsigned long long>(o.size));
    } else {
      PrintLine(stdout, o.path, "SKIPPED (" + std::to_string(o.size) + " bytes, over --max-filesize)");
    }
    return;
  }
  if (!o.report.error.empty()) {
    PrintLine(stderr, o.path, "ERROR " + o.report.error);
    if (json) std::printf("{\"file\": %s, \"error\": %s}\n", file.c_str(), JsonString(o.report.error).c_str());
  }
  for (const vrk::scan::Detection& d : o.report.detections) {
    if (json) {
      std::printf("{\"file\": %s, \"signature\": %s", file.c_str(), JsonString(d.name).c_str());
      if (d.has_offset) std::printf(", \"offset\": %llu", static_cast<unsigned long long>(d.offset));
      std::printf("}\n");
    } else {
      PrintLine(stdout, o.path, d.name + " FOUND" + (d.has_offset ? " @ " + std::to_string(d.offset) : ""));
    }
  }
}

int Run(const Invocation& in) {
  Options o;
  if (int status = ParseOptions(in, o); status != kExitOk) return status;

  vrk::scan::Database db;
  std::string error;
  if (o.databases.empty()) {
    if (!vrk::scan::ParseDatabase(vrk::scan::DefaultDatabaseText(), "default database", db, error)) {
      return Fail(kExitUsage, "%s", error.c_str());
    }
  }
  for (const std::string& path : o.databases) {
    if (!vrk::scan::LoadDatabaseFile(path, db, error)) return Fail(kExitUsage, "%s", error.c_str());
  }
  for (const std::string& warning : db.warnings) std::fprintf(stderr, "vrkutil: warning: %s\n", warning.c_str());
  if (db.signatures.empty() && !o.allow_empty) {
    return Fail(kExitUsage, "the databases hold no signature, so nothing could be found (--allow-empty scans anyway)");
  }
  std::unique_ptr<vrk::scan::CompiledDatabase> compiled = vrk::scan::CompiledDatabase::Compile(db, error);
  if (!compiled) return Fail(kExitUsage, "%s", error.c_str());
  compiled->Register();  // before any thread searches

  const auto start = std::chrono::steady_clock::now();
  std::atomic<uint64_t> errors{0};
  std::vector<std::string> files;
  vrk::scan::Walk(
      o.paths, o.walk, [&](const std::string& path) { files.push_back(path); },
      [&](const std::string& path, const std::string& message) {
        PrintLine(stderr, path, "ERROR " + message);
        if (o.json) std::printf("{\"file\": %s, \"error\": %s}\n", JsonString(path).c_str(), JsonString(message).c_str());
        ++errors;
      });

  std::atomic<size_t> next{0};
  std::atomic<uint64_t> done_files{0}, done_bytes{0}, detections{0}, skipped{0};
  // With --sort, finished files wait here until every file before them has
  // been printed.
  std::vector<std::optional<Outcome>> waiting(o.sort ? files.size() : 0);
  size_t next_to_print = 0;
  {
    Progress progress(done_files, done_bytes);
    auto worker = [&] {
      for (size_t i; (i = next.fetch_add(1)) < files.size();) {
        Outcome outcome{files[i], {}, false, 0};
        struct stat st;
        if (o.max_size != UINT64_MAX && files[i] != "-" && stat(files[i].c_str(), &st) == 0 &&
            static_cast<uint64_t>(st.st_size) > o.max_size) {
          outcome.skipped = true;
          outcome.size = static_cast<uint64_t>(st.st_size);
          ++skipped;
        } else {
          outcome.report = compiled->ScanFile(files[i]);
          if (!outcome.report.error.empty()) ++errors;
          detections += outcome.report.detections.size();
          done_bytes += outcome.report.bytes;
          ++done_files;
        }
        std::lock_guard<std::mutex> lock(progress.output_mutex());
        progress.ClearLocked();
        if (!o.sort) {
          PrintOutcome(outcome, o.json);
        } else {
          waiting[i] = std::move(outcome);
          for (; next_to_print < waiting.size() && waiting[next_to_print]; ++next_to_print) {
            PrintOutcome(*waiting[next_to_print], o.json);
            waiting[next_to_print].reset();
          }
        }
        std::fflush(stdout);
      }
    };
    unsigned threads = o.threads ? o.threads : std::max(1u, std::thread::hardware_concurrency());
    threads = unsigned(std::min<size_t>(threads, std::max<size_t>(files.size(), 1)));
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < threads; ++t) pool.emplace_back(worker);
    worker();
    for (std::thread& t : pool) t.join();
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const auto n = [](const std::atomic<uint64_t>& v) { return static_cast<unsigned long long>(v.load()); };
  if (o.json) {
    std::printf("{\"summary\": {\"signatures\": %zu, \"files\": %llu, \"errors\": %llu, \"skipped\": %llu, "
                "\"bytes\": %llu, \"detections\": %llu, \"seconds\": %.3f}}\n",
                compiled->signature_count(), n(done_files), n(errors), n(skipped), n(done_bytes), n(detections), seconds);
  } else {
    std::printf("\n----------- SCAN SUMMARY -----------\n");
    std::printf("Signatures: %zu\nFiles: %llu\nErrors: %llu\nSkipped: %llu\nData: %.2f MB\nDetections: %llu\n"
                "Time: %.3f s\n",
                compiled->signature_count(), n(done_files), n(errors), n(skipped), double(done_bytes.load()) / 1e6,
                n(detections), seconds);
  }
  if (errors) return kExitUsage;
  return detections ? kExitFailure : kExitOk;
}

}  // namespace

VRK_COMMAND(kScan);

}  // namespace vrkutil
