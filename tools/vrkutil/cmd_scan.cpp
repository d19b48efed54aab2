// vrkutil scan: the scanning job, as the product's scanners do it.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "scan/database.h"
#include "scan/engine.h"
#include "scan/walk.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kDatabase, kRecursive, kJobs };
constexpr Option kOptions[] = {
    {kDatabase, 'd', "database", true}, {kRecursive, 'r', "recursive", false}, {kJobs, 'j', "jobs", true}};

const Command kScan{
    "scan", "[-d DB]... [-r] [-j N] PATH...", "scan files for signatures",
    "Scans each file PATH, and the files in each directory PATH (with -r, the\n"
    "whole tree; symbolic links are followed only to files inside the tree),\n"
    "against the signature databases given with -d (default: the database\n"
    "built into vrkutil). Prints 'path: NAME FOUND' per detection (patterns\n"
    "with '@ offset'), then a summary. -j N scans on N threads (default: the\n"
    "number of cores). Exit status 0 when nothing was found, 1 when something\n"
    "was, 2 on errors (unreadable files are reported and the scan goes on).",
    Run, kOptions};

struct Options {
  std::vector<std::string> databases;
  std::vector<std::string> paths;
  bool recursive = false;
  unsigned threads = 0;
};

int ParseOptions(const Invocation& in, Options& o) {
  long long threads = 0;
  if (NumberOption(kScan, in, kJobs, 1, 256, threads) != kExitOk) return kExitUsage;
  o.threads = static_cast<unsigned>(threads);
  o.recursive = in.Has(kRecursive);
  for (const char* db : in.Values(kDatabase)) o.databases.push_back(db);
  for (const char* path : in.operands()) o.paths.push_back(path);
  if (o.paths.empty()) return UsageError(kScan, "expected at least one PATH");
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
  std::unique_ptr<vrk::scan::CompiledDatabase> compiled = vrk::scan::CompiledDatabase::Compile(db, error);
  if (!compiled) return Fail(kExitUsage, "%s", error.c_str());
  compiled->Register();  // before any thread searches

  const auto start = std::chrono::steady_clock::now();
  bool errors = false;
  std::vector<std::string> files;
  vrk::scan::Walk(
      o.paths, {o.recursive}, [&](const std::string& path) { files.push_back(path); },
      [&](const std::string& path, const std::string& message) {
        std::fprintf(stderr, "%s: ERROR %s\n", path.c_str(), message.c_str());
        errors = true;
      });

  std::atomic<size_t> next{0};
  std::atomic<uint64_t> done_files{0}, done_bytes{0}, detections{0};
  std::atomic<bool> read_errors{false};
  {
    Progress progress(done_files, done_bytes);
    auto worker = [&] {
      for (size_t i; (i = next.fetch_add(1)) < files.size();) {
        const vrk::scan::FileReport report = compiled->ScanFile(files[i]);
        std::lock_guard<std::mutex> lock(progress.output_mutex());
        if (!report.error.empty() || !report.detections.empty()) progress.ClearLocked();
        if (!report.error.empty()) {
          std::fprintf(stderr, "%s: ERROR %s\n", files[i].c_str(), report.error.c_str());
          read_errors = true;
        }
        for (const vrk::scan::Detection& d : report.detections) {
          if (d.has_offset) {
            std::printf("%s: %s FOUND @ %llu\n", files[i].c_str(), d.name.c_str(), static_cast<unsigned long long>(d.offset));
          } else {
            std::printf("%s: %s FOUND\n", files[i].c_str(), d.name.c_str());
          }
        }
        std::fflush(stdout);
        detections += report.detections.size();
        done_bytes += report.bytes;
        ++done_files;
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
  std::printf("\n----------- SCAN SUMMARY -----------\n");
  std::printf("Signatures: %zu\nFiles: %llu\nData: %.2f MB\nDetections: %llu\nTime: %.3f s\n",
              compiled->signature_count(), static_cast<unsigned long long>(done_files.load()), double(done_bytes.load()) / 1e6,
              static_cast<unsigned long long>(detections.load()), seconds);
  if (errors || read_errors) return kExitUsage;
  return detections ? kExitFailure : kExitOk;
}

}  // namespace

VRK_COMMAND(kScan);

}  // namespace vrkutil
