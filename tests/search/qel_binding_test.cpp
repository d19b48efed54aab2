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
#include <string>
#include <utility>
#include <vector>

#include "search/named_table.h"
#include "search/pattern_reference.h"
#include "support/child_process.h"
#include "support/temp_dir.h"
#include "vrk_search.h"

namespace {

using vrk::test::TempDir;

using vrk::search::builder::Table;
using vrk::test::Hits;
using Bytes = std::vector<uint8_t>;
using Env = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kChildFlag = "VRK_QEL_CHILD";
const std::string kDoubles = VRK_QEL_DOUBLES;

// Runs QelChild.<name> in a new process whose loader search path is
// `search_path`, with the stand-in's log in a fresh file.
void RunChildCase(const std::string& name, const std::string& search_path, const Env& env = {}) {
  SCOPED_TRACE(name + " reaching " + search_path);
  const std::string log = "/tmp/vrk_qel_log_" + std::to_string(getpid());
  unlink(log.c_str());  // the stand-in appends
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

TEST(QelBinding, MissingModuleIsTriedOnce) {
  const TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  RunChildCase("MissingModuleIsTriedOnce", dir.path(),
               {{"QEL_FILL_DIR", dir.path()}, {"QEL_COMPLETE", kDoubles + "/complete/qel.dll"}});
}

// A module offering pattern search takes every search over, whether or not
// its search reports failure.
TEST(QelBinding, CompleteModuleTakesOverTheSearch) {
  RunChildCase("ForwardsEverySearch", kDoubles + "/complete");
  RunChildCase("ForwardsEverySearch", kDoubles + "/complete", {{"QEL_DOUBLE_BUSCA_RESULT", "1"}});
}

// Modules that do not offer pattern search (information word without the
// value 2), lack an entry point, or fail to start: searches stay local, and
// the module is stopped and closed as far as it was started.
TEST(QelBinding, OtherModulesLeaveTheSearchLocal) {
  for (const char* info : {"1", "0", "0xFFFFFFFD", "none"}) {
    RunChildCase("StaysLocal", kDoubles + "/complete", {{"QEL_DOUBLE_INFO", info}});
  }
  RunChildCase("StaysLocal", kDoubles + "/no_free");
  RunChildCase("StaysLocal", kDoubles + "/init_fails");
}

// ---- Child side -------------------------------------------------------------

#define CHILD_ONLY() \
  if (!std::getenv(kChildFlag)) GTEST_SKIP() << "runs only in a child process started by QelBinding.*"

// The stand-in's calls since the last look, joined by '|'.
std::string TakeLog() {
  std::string log;
  std::ifstream in(std::getenv("QEL_DOUBLE_LOG"));
  for (std::string line; std::getline(in, line);) log += (log.empty() ? "" : "|") + line;
  std::ofstream(std::getenv("QEL_DOUBLE_LOG"), std::ios::trunc);
  return log;
}

// The registry hand-over, as the stand-in logs it, with the tables of slots 0 and 3.
std::string HandOver(const SEARCH_BuscaTblDesc* tables) {
  std::string log = "QELLoadPatterns 15";
  for (int slot : {0, 3}) {
    char line[160];
    std::snprintf(line, sizeof line, "|slot %d: table %d count %u index %p patterns %p", slot, slot,
                  unsigned(tables[slot].count), static_cast<const void*>(tables[slot].index),
                  static_cast<const void*>(tables[slot].patterns));
    log += line;
  }
  return log;
}

Table Build(const std::vector<std::pair<std::string, std::string>>& patterns) {
  return vrk::test::BuildNamed(patterns).table;
}

// Two tables, in slots 0 and 3, with hits in the sample data.
struct Fixture {
  Table a = Build({{"AB", "41 42"}, {"A~C", "41 {0-2} 43"}, {"BC", "42 43 {0-1} 44"}});
  Table b = Build({{"CD", "43 44"}});
  SEARCH_BuscaTblDesc tables[4] = {a.desc(), {}, {}, b.desc()};
  Bytes data = {0x41, 0x42, 0x43, 0x44, 0x41, 0x43, 0x00};
};

Hits Search(SEARCH_BuscaTblDesc* tables, unsigned table, const Bytes& data, uint32_t capacity = 64) {
  return vrk::test::LibraryHits(tables, table, data.data(), int(data.size()) - 1, int(data.size()), capacity);
}

Hits Expected(const SEARCH_BuscaTblDesc& desc, const Bytes& data) {
  return vrk::test::ReferenceHits(desc, data.data(), int(data.size()) - 1, int(data.size()));
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
  EXPECT_EQ(TakeLog(), "");
}

TEST(QelChild, ForwardsEverySearch) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  SEARCH_BuscaTblRegisterTable(f.tables, 3);
  EXPECT_EQ(TakeLog(), "QELInitBoard|QELGetInfoString 1 4");
  // The first search hands over the whole registry, once.
  const Hits hits_a = Search(f.tables, 0, f.data);
  EXPECT_EQ(hits_a, Expected(f.tables[0], f.data));
  EXPECT_EQ(hits_a.size(), 4u);
  EXPECT_EQ(TakeLog(), HandOver(f.tables) + "|QELBuscaTbl length 7 positions 6 table 0|QELFreeBuscaTbl");
  EXPECT_EQ(Search(f.tables, 3, f.data), Expected(f.tables[3], f.data));
  EXPECT_EQ(TakeLog(), "QELBuscaTbl length 7 positions 6 table 3|QELFreeBuscaTbl");
  // No hits: nothing to free.
  EXPECT_TRUE(Search(f.tables, 0, Bytes(16, 0)).empty());
  EXPECT_EQ(TakeLog(), "QELBuscaTbl length 16 positions 15 table 0");
  // A full list drops the module's later hits too.
  EXPECT_EQ(Search(f.tables, 0, f.data, 1), Hits{hits_a[0]});
  EXPECT_EQ(TakeLog(), "QELBuscaTbl length 7 positions 6 table 0|QELFreeBuscaTbl");
  // A registration (here: another table under number 0) makes the next
  // search hand the registry over again, and the module sees the new table.
  Table c = Build({{"DA", "44 41"}, {"AC", "41 43"}});
  f.tables[0] = c.desc();
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(c.desc(), f.data));
  EXPECT_EQ(TakeLog(), HandOver(f.tables) + "|QELBuscaTbl length 7 positions 6 table 0|QELFreeBuscaTbl");
}

TEST(QelChild, StaysLocal) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  SEARCH_BuscaTblRegisterTable(f.tables, 3);
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(f.tables[0], f.data));
  EXPECT_EQ(Search(f.tables, 3, f.data), Expected(f.tables[3], f.data));
  // The stand-in the search path reaches decides what it has seen.
  const std::string path = std::getenv("LD_LIBRARY_PATH"), kind = path.substr(path.rfind('/') + 1);
  EXPECT_EQ(TakeLog(), kind == "no_free"      ? "QELInitBoard|QELReleaseBoard"
                       : kind == "init_fails" ? "QELInitBoard"
                                              : "QELInitBoard|QELGetInfoString 1 4");
  void* loaded = dlopen("qel.dll", RTLD_NOW | RTLD_NOLOAD);
  EXPECT_EQ(loaded != nullptr, kind == "complete");
  if (loaded) dlclose(loaded);
}

}  // namespace
