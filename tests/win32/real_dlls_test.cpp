// The Win32 layer on DLLs that nobody here wrote, fetched from Debian's
// MinGW packages at test time (fetch_dlls.sh): zlib against the system's
// zlib, the MinGW run-time DLLs loaded and unloaded with their
// dependencies, libgcrypt's digests against sha256sum and md5sum.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "win32_test_util.h"

#ifdef VRKW32_SYSTEM_ZLIB
#include <zlib.h>
#endif

namespace vrk::test {
namespace {

namespace fs = std::filesystem;

// The folder of a fetched group holding `file` (the 32-bit one: packages
// carry both), or "" when the group could not be fetched.
std::string FetchedDir(const std::string& group, const std::string& file) {
  const fs::path root = fs::path(VRKW32_FETCHED_DIR) / group;
  std::error_code error;
  if (!fs::exists(root / ".complete", error)) return "";
  for (const auto& e : fs::recursive_directory_iterator(root, error)) {
    if (e.path().filename() == file && e.path().string().find("x86_64") == std::string::npos) {
      return e.path().parent_path().string();
    }
  }
  return "";
}

#define REQUIRE_FETCHED(dir, group, package)                                                          \
  if ((dir).empty()) {                                                                                \
    GTEST_SKIP() << "the Debian package " package " could not be fetched (see fetch_dlls.sh): skipped"; \
  }

// Random bytes that compress a little and a lot: runs, text and noise.
std::vector<uint8_t> Sample(size_t size, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> out;
  out.reserve(size);
  while (out.size() < size) {
    const size_t piece = std::min<size_t>(size - out.size(), 1 + random() % 4096);
    const uint32_t kind = random() % 3;
    for (size_t i = 0; i < piece; ++i) {
      const uint8_t text = uint8_t("the quick brown fox "[i % 20]);
      out.push_back(kind == 0 ? uint8_t(random()) : kind == 1 ? text : uint8_t(seed));
    }
  }
  return out;
}

std::string Hex(const uint8_t* bytes, size_t n) {
  std::string out;
  char two[3];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(two, sizeof two, "%02x", bytes[i]);
    out += two;
  }
  return out;
}

std::string Command(const std::string& line) {
  std::string out;
  FILE* pipe = popen(line.c_str(), "r");
  char buffer[4096];
  size_t n;
  while (pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  if (pipe) pclose(pipe);
  return out;
}

std::string WriteTemp(const std::string& name, const std::vector<uint8_t>& bytes) {
  const std::string path = testing::TempDir() + "/" + name;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f) {
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  }
  return path;
}

#ifdef VRKW32_SYSTEM_ZLIB

TEST(Win32RealDll, ZlibEqualsTheSystemZlib) {
  const std::string dir = FetchedDir("zlib", "zlib1.dll");
  REQUIRE_FETCHED(dir, "zlib", "libz-mingw-w64");
  Win32Process p;
  ASSERT_NE(p.Load(dir + "/zlib1.dll"), nullptr) << p.last().text;
  char version[64] = {};
  const uint32_t text = p.Call("zlibVersion").value;
  std::snprintf(version, sizeof version, "%s", reinterpret_cast<const char*>(uintptr_t(text)));
  // Compressed bytes are only comparable between equal versions of zlib;
  // otherwise the round trips must still hold.
  const bool same_version = std::string(version) == zlibVersion();
  if (!same_version) {
    std::printf("zlib1.dll is %s, the system's %s: compress2 checked by round trip\n", version, zlibVersion());
  }
  for (size_t size : {size_t(0), size_t(1), size_t(1000), size_t(65537), size_t(1 << 20) + 3, size_t(8) << 20}) {
    SCOPED_TRACE(size);
    const std::vector<uint8_t> data = Sample(size, uint32_t(size));
    const uint32_t n = uint32_t(size);
    EXPECT_EQ(p.Call("crc32", {0, Word(data.data()), n}).value, crc32(0, data.data(), n));
    EXPECT_EQ(p.Call("adler32", {1, Word(data.data()), n}).value, adler32(1, data.data(), n));
    for (int level : {1, 6, 9}) {
      SCOPED_TRACE(level);
      const uint32_t bound = p.Call("compressBound", {n}).value;
      ASSERT_EQ(bound, compressBound(n));
      std::vector<uint8_t> theirs(bound), ours(bound), back(size + 1);
      uint32_t their_size = bound;
      uLongf our_size = bound;
      const uint32_t status =
          p.Call("compress2", {Word(theirs.data()), Word(&their_size), Word(data.data()), n, uint32_t(level)}).value;
      ASSERT_EQ(status, uint32_t(Z_OK));
      ASSERT_EQ(compress2(ours.data(), &our_size, data.data(), n, level), Z_OK);
      if (same_version) {
        EXPECT_EQ(their_size, our_size);
        EXPECT_TRUE(std::equal(ours.begin(), ours.begin() + long(our_size), theirs.begin()));
      }
      // Each side inflates what the other deflated.
      uint32_t back_size = uint32_t(back.size());
      const uint32_t inflated =
          p.Call("uncompress", {Word(back.data()), Word(&back_size), Word(ours.data()), uint32_t(our_size)}).value;
      ASSERT_EQ(inflated, uint32_t(Z_OK));
      EXPECT_TRUE(back_size == size && std::equal(data.begin(), data.end(), back.begin()));
      uLongf system_back = back.size();
      ASSERT_EQ(uncompress(back.data(), &system_back, theirs.data(), their_size), Z_OK);
      EXPECT_TRUE(system_back == size && std::equal(data.begin(), data.end(), back.begin()));
    }
  }
}

#endif  // VRKW32_SYSTEM_ZLIB

// gzopen, gzwrite and gzclose run on msvcrt's _open, _write and _close.
TEST(Win32RealDll, ZlibGzFileReadByGzip) {
  const std::string dir = FetchedDir("zlib", "zlib1.dll");
  REQUIRE_FETCHED(dir, "zlib", "libz-mingw-w64");
  if (Command("command -v gzip").empty()) GTEST_SKIP() << "no gzip on this machine";
  const std::vector<uint8_t> data = Sample(3 << 20, 7);
  const std::string path = testing::TempDir() + "/vrkw32_written.gz";
  std::remove(path.c_str());
  Win32Process p;
  ASSERT_NE(p.Load(dir + "/zlib1.dll"), nullptr) << p.last().text;
  const uint32_t file = p.Call("gzopen", {Word(path.c_str()), Word("wb9")}).value;
  ASSERT_NE(file, 0u);
  EXPECT_EQ(p.Call("gzwrite", {file, Word(data.data()), uint32_t(data.size())}).value, uint32_t(data.size()));
  EXPECT_EQ(p.Call("gzclose", {file}).value, 0u);
  const std::string read = Command("gzip -dc '" + path + "'");
  EXPECT_TRUE(read.size() == data.size() && std::memcmp(read.data(), data.data(), data.size()) == 0)
      << read.size() << " bytes read back; gzip -t says: " << Command("gzip -t '" + path + "' 2>&1");
  std::remove(path.c_str());
}

struct ImportCounts {
  int implemented = 0, stubs = 0, pe = 0;
};

void Count(void* user, const char* module, const char*, const char*, int kind) {
  auto& wanted = *static_cast<std::pair<std::string, ImportCounts>*>(user);
  if (wanted.first != module) return;
  (kind == VRKW32_IMPORT_PE ? wanted.second.pe : kind == VRKW32_IMPORT_IMPLEMENTED ? wanted.second.implemented
                                                                                     : wanted.second.stubs)++;
}

// Each DLL of the MinGW run-time loads with its dependencies, its entry
// point accepts DLL_PROCESS_ATTACH, and it unloads cleanly.
TEST(Win32RealDll, MinGwRunTimeLoadsAndUnloads) {
  const std::string winpthread = FetchedDir("winpthread", "libwinpthread-1.dll");
  REQUIRE_FETCHED(winpthread, "winpthread", "mingw-w64-i686-dev");
  const char* const kDlls[] = {"libgcc_s_dw2-1.dll", "libwinpthread-1.dll", "libstdc++-6.dll",
                               "libgomp-1.dll",      "libssp-0.dll",        "libquadmath-0.dll",
                               "libatomic-1.dll",    "libgfortran-5.dll",   "libobjc-4.dll"};
  int variants = 0;
  for (const char* variant : {"runtime-posix", "runtime-win32"}) {
    const std::string dir = FetchedDir(variant, "libgcc_s_dw2-1.dll");
    if (dir.empty()) continue;
    ++variants;
    for (const char* dll : kDlls) {
      SCOPED_TRACE(std::string(variant) + " " + dll);
      Win32Process p({dir, winpthread});
      ASSERT_NE(p.Load(dll), nullptr) << p.last().text;
      std::pair<std::string, ImportCounts> counts{dll, {}};
      VRKW32_ListImports(p.context(), Count, &counts);
      std::printf("%s %-20s %3d implemented, %2d stubs, %3d from PE modules\n", variant, dll,
                  counts.second.implemented, counts.second.stubs, counts.second.pe);
      const VRKW32_RESULT end = p.Destroy();
      EXPECT_EQ(end.status, VRKW32_OK) << end.text;
    }
  }
  if (variants == 0) GTEST_SKIP() << "neither MinGW run-time package could be fetched: skipped";
}

TEST(Win32RealDll, LibgcryptDigestsEqualSha256sumAndMd5sum) {
  const std::string dir = FetchedDir("gcrypt", "libgcrypt-20.dll");
  REQUIRE_FETCHED(dir, "gcrypt", "libgcrypt-mingw-w64-dev");
  if (Command("command -v sha256sum md5sum").empty()) GTEST_SKIP() << "no sha256sum or md5sum on this machine";
  Win32Process p;
  ASSERT_NE(p.Load(dir + "/libgcrypt-20.dll"), nullptr) << p.last().text;
  constexpr uint32_t kSha256 = 8, kMd5 = 1;  // GCRY_MD_SHA256, GCRY_MD_MD5
  for (size_t size : {size_t(0), size_t(3), size_t(1000), size_t(1 << 20) + 1}) {
    SCOPED_TRACE(size);
    const std::vector<uint8_t> data = Sample(size, 99 + uint32_t(size));
    const std::string path = WriteTemp("vrkw32_digest.bin", data);
    uint8_t sha256[32] = {}, md5[16] = {};
    for (auto [algorithm, digest] : {std::pair{kSha256, sha256}, {kMd5, md5}}) {
      const VRKW32_RESULT r =
          p.Call("gcry_md_hash_buffer", {algorithm, Word(digest), Word(data.data()), uint32_t(size)});
      EXPECT_EQ(r.status, VRKW32_OK) << r.text;
    }
    EXPECT_EQ(Hex(sha256, 32), Command("sha256sum '" + path + "'").substr(0, 64));
    EXPECT_EQ(Hex(md5, 16), Command("md5sum '" + path + "'").substr(0, 32));
    std::remove(path.c_str());
  }
}

}  // namespace
}  // namespace vrk::test
