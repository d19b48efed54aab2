// Binding of the analysis module "qel.dll" and forwarding of pattern
// searches to it. Binding happens once per process and the dynamic loader
// reads its search path only at start, so every case runs as a fresh copy of
// this test binary (QelChild.*, selected by a gtest filter) whose search path
// reaches one stand-in module; the stand-in logs its calls to a file.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "search/pattern_reference.h"
#include "support/child_process.h"
#include "vrk_search.h"

namespace {

using vrk::patterns::Table;
using Bytes = std::vector<uint8_t>;
using Env = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kChildFlag = "VRK_QEL_CHILD";
const std::string kDoubles = VRK_QEL_DOUBLES;

// ---- Parent side ----------------------------------------------------------

std::string TempName(const char* tag) {
  std::string path = std::string("/tmp/vrk_") + tag + "_XXXXXX";
  const int fd = mkstemp(path.data());
  if (fd >= 0) close(fd);
  return path;
}

// Runs QelChild.<name> in a new process whose loader search path is
// `search_path`, with the stand-in's log in a fresh file.
void RunChildCase(const std::string& name, const std::string& search_path, const Env& env = {}) {
  const std::string log = TempName("qel_log");
  const std::string filter = "--gtest_filter=QelChild." + name;
  const vrk::test::ChildResult r = vrk::test::RunInChild([&] {
    setenv("LD_LIBRARY_PATH", search_path.c_str(), 1);
    setenv(kChildFlag, "1", 1);
    setenv("QEL_DOUBLE_LOG", log.c_str(), 1);
    for (const auto& [key, value] : env) setenv(key.c_str(), value.c_str(), 1);
    execl("/proc/self/exe", "qel_child", filter.c_str(), static_cast<char*>(nullptr));
    std::perror("execl");
    return 127;
  });
  unlink(log.c_str());
  EXPECT_TRUE(r.exited && r.status == 0) << r.output;
  EXPECT_NE(r.output.find("[  PASSED  ] 1 test"), std::string::npos) << "child case did not run:\n" << r.output;
}

TEST(QelBinding, DefaultProcessFindsNoModule) {
  void* module = dlopen("qel.dll", RTLD_NOW);
  EXPECT_EQ(module, nullptr);
  if (module) dlclose(module);
}

TEST(QelBinding, MissingModuleIsTriedOnce) {
  char dir[] = "/tmp/vrk_qel_dir_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  RunChildCase("MissingModuleIsTriedOnce", dir,
               {{"QEL_FILL_DIR", dir}, {"QEL_COMPLETE", kDoubles + "/complete/qel.dll"}});
  unlink((std::string(dir) + "/qel.dll").c_str());
  rmdir(dir);
}

TEST(QelBinding, CompleteModuleTakesOverTheSearch) {
  RunChildCase("ForwardsEverySearch", kDoubles + "/complete", {{"QEL_DOUBLE_INFO", "3"}});
}

TEST(QelBinding, ModuleSearchFailureKeepsItsHits) {
  RunChildCase("FailedSearchKeepsHits", kDoubles + "/complete", {{"QEL_DOUBLE_BUSCA_RESULT", "1"}});
}

TEST(QelBinding, ModuleWithoutPatternSearchIsNeverCalled) {
  for (const char* info : {"1", "0", "0xFFFFFFFD", "none"}) {
    SCOPED_TRACE(info);
    RunChildCase("BoundButNotUsed", kDoubles + "/complete", {{"QEL_DOUBLE_INFO", info}});
  }
}

TEST(QelBinding, ModuleLackingAnEntryPointIsStoppedAndClosed) {
  RunChildCase("LackingEntryPoint", kDoubles + "/no_free");
}

TEST(QelBinding, ModuleThatFailsToStartIsClosedUnreleased) {
  RunChildCase("InitBoardFails", kDoubles + "/init_fails");
}

// ---- Child side -------------------------------------------------------------

#define CHILD_ONLY() \
  if (!std::getenv(kChildFlag)) GTEST_SKIP() << "runs only in a child process started by QelBinding.*"

std::vector<std::string> LogLines() {
  std::vector<std::string> lines;
  std::ifstream in(std::getenv("QEL_DOUBLE_LOG"));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Log lines from `from` on.
std::vector<std::string> LogSince(size_t from) {
  std::vector<std::string> lines = LogLines();
  return std::vector<std::string>(lines.begin() + std::min(from, lines.size()), lines.end());
}

using Lines = std::vector<std::string>;

std::string SlotLine(int slot, const SEARCH_BuscaTblDesc& d) {
  SEARCH_BuscaTblDesc copy;
  std::memcpy(&copy, &d, sizeof copy);
  char line[160];
  std::snprintf(line, sizeof line, "slot %d: table %d count %u index %p patterns %p", slot, slot, unsigned(copy.count),
                copy.index, static_cast<const void*>(copy.patterns));
  return line;
}

Table Build(const std::vector<vrk::patterns::PatternSource>& sources) {
  Table t;
  std::string error;
  EXPECT_TRUE(vrk::patterns::BuildTable(sources, t, error)) << error;
  return t;
}

// Two tables with hits in the sample data, and the data.
struct Fixture {
  Table a = Build({{"AB", "41 42"}, {"A~C", "41 {0-2} 43"}, {"BC", "42 43 {0-1} 44"}});
  Table b = Build({{"CD", "43 44"}});
  SEARCH_BuscaTblDesc tables[4] = {a.desc(), {}, {}, b.desc()};
  Bytes data = {0x41, 0x42, 0x43, 0x44, 0x41, 0x43, 0x00};
};

std::vector<const uint8_t*> Search(SEARCH_BuscaTblDesc* tables, unsigned table, const Bytes& data,
                                   uint32_t capacity = 64) {
  std::vector<const unsigned char*> items(capacity);
  SEARCH_BuscaTblList out{capacity, 0, items.data()};
  SEARCH_BuscaTbl(table, tables, data.data(), int(data.size()) - 1, int(data.size()), &out);
  return std::vector<const uint8_t*>(items.begin(), items.begin() + out.count);
}

std::vector<const uint8_t*> Expected(const SEARCH_BuscaTblDesc& desc, const Bytes& data) {
  std::vector<const uint8_t*> hits;
  vrk::test::ReferenceSearch(desc, data.data(), int(data.size()) - 1, int(data.size()), hits);
  return hits;
}

TEST(QelChild, MissingModuleIsTriedOnce) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(f.tables[0], f.data));
  // Now a module appears on the search path; the process must not look
  // for it again.
  {
    std::ifstream in(std::getenv("QEL_COMPLETE"), std::ios::binary);
    std::ofstream out(std::string(std::getenv("QEL_FILL_DIR")) + "/qel.dll", std::ios::binary);
    out << in.rdbuf();
  }
  void* reachable = dlopen("qel.dll", RTLD_NOW);
  ASSERT_NE(reachable, nullptr) << "the copied module should now be found";
  dlclose(reachable);
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  SEARCH_BuscaTblRegisterTable(f.tables, 3);
  EXPECT_EQ(Search(f.tables, 3, f.data), Expected(f.tables[3], f.data));
  EXPECT_EQ(LogLines(), Lines{});
}

TEST(QelChild, ForwardsEverySearch) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  SEARCH_BuscaTblRegisterTable(f.tables, 3);
  EXPECT_EQ(LogLines(), (Lines{"QELInitBoard", "QELGetInfoString 1 4"}));

  // The first search hands over the whole registry, once.
  size_t mark = LogLines().size();
  const auto hits_a = Search(f.tables, 0, f.data);
  EXPECT_EQ(hits_a, Expected(f.tables[0], f.data));
  EXPECT_EQ(hits_a.size(), 4u);
  EXPECT_EQ(LogSince(mark), (Lines{"QELLoadPatterns 15", SlotLine(0, f.tables[0]), SlotLine(3, f.tables[3]),
                                   "QELBuscaTbl length 7 positions 6 table 0", "QELFreeBuscaTbl"}));

  mark = LogLines().size();
  EXPECT_EQ(Search(f.tables, 3, f.data), Expected(f.tables[3], f.data));
  EXPECT_EQ(LogSince(mark), (Lines{"QELBuscaTbl length 7 positions 6 table 3", "QELFreeBuscaTbl"}));

  // No hits: nothing to free.
  mark = LogLines().size();
  EXPECT_TRUE(Search(f.tables, 0, Bytes(16, 0)).empty());
  EXPECT_EQ(LogSince(mark), (Lines{"QELBuscaTbl length 16 positions 15 table 0"}));

  // A full list drops the module's later hits too.
  EXPECT_EQ(Search(f.tables, 0, f.data, 1), (std::vector<const uint8_t*>{hits_a[0]}));

  // A registration (here: another table under number 0) makes the next
  // search hand the registry over again, and the module sees the new table.
  Table c = Build({{"DA", "44 41"}, {"AC", "41 43"}});
  f.tables[0] = c.desc();
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  mark = LogLines().size();
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(c.desc(), f.data));
  EXPECT_EQ(LogSince(mark), (Lines{"QELLoadPatterns 15", SlotLine(0, f.tables[0]), SlotLine(3, f.tables[3]),
                                   "QELBuscaTbl length 7 positions 6 table 0", "QELFreeBuscaTbl"}));
  // One binding for the whole process.
  int inits = 0;
  for (const std::string& line : LogLines()) inits += line == "QELInitBoard";
  EXPECT_EQ(inits, 1);
}

TEST(QelChild, FailedSearchKeepsHits) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(f.tables[0], f.data));
  EXPECT_EQ(LogLines().back(), "QELFreeBuscaTbl");
}

TEST(QelChild, BoundButNotUsed) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  SEARCH_BuscaTblRegisterTable(f.tables, 3);
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(f.tables[0], f.data));
  EXPECT_EQ(Search(f.tables, 3, f.data), Expected(f.tables[3], f.data));
  // Started and asked for its word once; stays loaded, never called again.
  EXPECT_EQ(LogLines(), (Lines{"QELInitBoard", "QELGetInfoString 1 4"}));
  void* still_loaded = dlopen("qel.dll", RTLD_NOW | RTLD_NOLOAD);
  EXPECT_NE(still_loaded, nullptr);
  if (still_loaded) dlclose(still_loaded);
}

TEST(QelChild, LackingEntryPoint) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(f.tables[0], f.data));
  EXPECT_EQ(LogLines(), (Lines{"QELInitBoard", "QELReleaseBoard"}));
  EXPECT_EQ(dlopen("qel.dll", RTLD_NOW | RTLD_NOLOAD), nullptr) << "the module was not closed";
}

TEST(QelChild, InitBoardFails) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(f.tables[0], f.data));
  EXPECT_EQ(LogLines(), (Lines{"QELInitBoard"}));
  EXPECT_EQ(dlopen("qel.dll", RTLD_NOW | RTLD_NOLOAD), nullptr) << "the module was not closed";
}

}  // namespace
