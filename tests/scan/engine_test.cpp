// The scanning job: compiled databases, detections by each kind of
// signature, matches across the borders of the pieces a file is read in,
// and files that cannot be read.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>

#include "scan/engine.h"
#include "scan/samples.h"
#include "search/pattern_reference.h"
#include "support/temp_dir.h"

namespace {

using vrk::scan::CompiledDatabase;
using vrk::scan::Database;
using vrk::scan::Detection;

std::unique_ptr<CompiledDatabase> Compile(const std::string& text) {
  Database db;
  std::string error;
  EXPECT_TRUE(vrk::scan::ParseDatabase(text, "db", db, error)) << error;
  auto compiled = CompiledDatabase::Compile(db, error);
  EXPECT_TRUE(compiled) << error;
  if (compiled) compiled->Register();
  return compiled;
}

// A file holding `data` in a scratch folder of its own.
struct TempFile {
  vrk::test::TempDir dir;
  std::string path;
  explicit TempFile(const std::string& data) : path(dir.Write("data", data)) {}
};

std::string Found(const std::vector<Detection>& ds) {
  std::string out;
  for (const Detection& d : ds) {
    out += d.name;
    if (d.has_offset) out += "@" + std::to_string(d.offset);
    out += ' ';
  }
  return out;
}

TEST(Scan, DefaultDatabaseOnTheSampleTree) {
  const vrk::test::TempDir scratch;
  const std::string& dir = scratch.path();
  std::string error;
  ASSERT_TRUE(vrk::scan::WriteSampleTree(dir, 3 << 20, error)) << error;
  auto db = Compile(std::string(vrk::scan::DefaultDatabaseText()));
  ASSERT_TRUE(db);
  const struct {
    const char* file;
    const char* found;
  } cases[] = {
      {"/clean/readme.txt", ""},
      {"/clean/empty", ""},
      {"/clean/almost.txt", ""},
      {"/infected/test-file.com", "Test.File.Crc Test.File.Pattern@0 Test.File.Md5 "},
      {"/infected/embedded.bin", "Test.File.Pattern@1237 "},
      {"/own/counting.bin", "Vrk.Sample.Block4 Vrk.Sample.Block2 "},
      {"/own/gap.txt", "Vrk.Sample.Gap@2001 "},
      {"/large.bin", "Test.File.Pattern@1048546 "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const auto report = db->ScanFile(dir + c.file);
    EXPECT_EQ(report.error, "");
    EXPECT_EQ(Found(report.detections), c.found);
  }
}

TEST(Scan, MatchesAcrossPieceBordersAreFoundOnce) {
  // A gap pattern spanning up to 14 bytes, planted at every offset around
  // the borders of 4096-byte pieces.
  auto db = Compile("P pattern 41 42 43 {0-5} 44 45 46 47 48 49\n");
  ASSERT_TRUE(db);
  for (uint32_t border : {4096u, 8192u}) {
    for (uint32_t at = border - 16; at <= border + 2; ++at) {
      SCOPED_TRACE(at);
      std::string data(3 * 4096 + 7, 'x');
      data.replace(at, 12, "ABC..DEFGHI");
      TempFile f(data);
      const auto report = db->ScanFile(f.path, 4096);
      EXPECT_EQ(Found(report.detections), "P@" + std::to_string(at) + " ");
    }
  }
}

TEST(Scan, PieceSizeDoesNotChangeResults) {
  std::mt19937 rng(7);
  std::string text;
  std::vector<std::string> planted;
  for (int i = 0; i < 40; ++i) {
    std::string p;
    for (int j = 0; j < 6; ++j) p += char('a' + rng() % 26);
    text += "S" + std::to_string(i) + " pattern ";
    for (char c : p) {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%02X ", static_cast<unsigned char>(c));
      text += hex;
    }
    text += "{0-3} 21\n";
    planted.push_back(p + "..!");
  }
  auto db = Compile(text);
  ASSERT_TRUE(db);
  std::string data(50000, '.');
  for (int i = 0; i < 40; ++i) data.replace(rng() % (data.size() - 20), planted[i].size(), planted[i]);
  TempFile f(data);
  const std::string whole = Found(db->ScanFile(f.path, 1 << 20).detections);
  EXPECT_NE(whole, "");
  for (uint32_t piece : {2048u, 2049u, 3000u, 4096u, 65536u}) {
    EXPECT_EQ(Found(db->ScanFile(f.path, piece).detections), whole) << piece;
  }
}

// Random signatures of every shape the syntax allows (any byte values,
// 0xDD and 0xDF included, gaps anywhere after the first byte, crowds of
// patterns sharing bytes) over data made of their own bytes with planted
// matches: every detection and its first offset are what the signature
// means, found by trying every start; pieces of several sizes.
TEST(Scan, DetectionsAreWhatTheSignaturesMean) {
  namespace builder = vrk::search::builder;
  std::mt19937 rng(11);
  static const uint8_t kBytes[] = {0x00, 0x00, 0x41, 0x42, 0xDD, 0xDF, 0xFF, 0x8B, 0x20};
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    std::string text;
    std::vector<builder::Pattern> patterns;
    for (int i = 0; i < 60; ++i) {
      builder::Pattern e;
      for (int k = 0, n = 2 + int(rng() % 7); k < n; ++k) {
        if (k > 0 && rng() % 4 == 0) e.push_back({true, 0, uint8_t(rng() % 3 == 0 ? rng() % 200 : rng() % 4)});
        e.push_back({false, kBytes[rng() % std::size(kBytes)], 0});
      }
      text += "S" + std::to_string(i) + " pattern " + builder::FormatPattern(e) + "\n";
      patterns.push_back(e);
    }
    auto db = Compile(text);
    ASSERT_TRUE(db);
    std::string data(3000 + rng() % 9000, '\0');
    for (char& c : data) c = char(kBytes[rng() % std::size(kBytes)]);
    for (int i = 0; i < 30; ++i) {
      size_t at = rng() % data.size();
      for (const builder::Element& el : patterns[rng() % patterns.size()]) {
        at += el.gap ? rng() % (el.max_skip + 1u) : 0;
        if (!el.gap && at < data.size()) data[at++] = char(el.byte);
      }
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
    std::vector<std::pair<uint64_t, std::string>> meant;
    for (size_t n = 0; n < patterns.size(); ++n) {
      for (size_t at = 0; at < data.size(); ++at) {
        if (vrk::test::PatternMatches(patterns[n], 0, bytes, int64_t(at), int64_t(data.size()))) {
          meant.push_back({at, "S" + std::to_string(n)});
          break;
        }
      }
    }
    std::sort(meant.begin(), meant.end());
    TempFile f(data);
    for (uint32_t piece : {2048u, 2500u, 1u << 20}) {
      std::vector<std::pair<uint64_t, std::string>> found;
      for (const Detection& d : db->ScanFile(f.path, piece).detections) found.push_back({d.offset, d.name});
      std::sort(found.begin(), found.end());
      EXPECT_EQ(found, meant) << "piece " << piece;
    }
  }
}

TEST(Scan, UnreadableFilesAndBadDatabases) {
  auto db = Compile("X md5 44d88612fea8a8f36de82e1278abb02f\n");
  ASSERT_TRUE(db);
  EXPECT_EQ(db->ScanFile("/nonexistent/file").error, "No such file or directory");

  const struct {
    const char* text;
    const char* error_start;
  } bad[] = {
      {"ok crc 1 1\nP pattern 41 {2-3} 42\n", "db:2: "},
      {"P pattern 41 {0-300} 42\n", "db:1: "},
      {"P pattern zz\n", "db:1: "},
  };
  for (const auto& c : bad) {
    SCOPED_TRACE(c.text);
    Database parsed;
    std::string error;
    ASSERT_TRUE(vrk::scan::ParseDatabase(c.text, "db", parsed, error));
    EXPECT_EQ(CompiledDatabase::Compile(parsed, error), nullptr);
    EXPECT_EQ(error.rfind(c.error_start, 0), 0u) << error;
  }
}

}  // namespace
