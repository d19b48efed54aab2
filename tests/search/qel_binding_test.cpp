// Binding of the analysis module "qel.dll" and forwarding of pattern
// searches to it. Binding happens once per process and the dynamic loader
// reads its search path only at start, so every case runs as a fresh copy of
// this test binary (QelChild.*, selected by a gtest filter) whose search path
// reaches one stand-in module; the stand-in logs its calls to a file.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "search/pattern_reference.h"
#include "support/child_process.h"
#include "vrk_search.h"

namespace {

using vrk::patterns::Table;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;
using Env = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kChildFlag = "VRK_QEL_CHILD";
const std::string kDoubles = VRK_QEL_DOUBLES;

// Runs QelChild.<name> in a new process whose loader search path is
// `search_path`, with the stand-in's log in a fresh file.
void RunChildCase(const std::string& name, const std::string& search_path, const Env& env = {}) {
  char log[] = "/tmp/vrk_qel_log_XXXXXX";
  const int fd = mkstemp(log);
  ASSERT_GE(fd, 0);
  close(fd);
  const std::string filter = "--gtest_filter=QelChild." + name;
  const vrk::test::ChildResult r = vrk::test::RunInChild([&] {
    setenv("LD_LIBRARY_PATH", search_path.c_str(), 1);
    setenv(kChildFlag, "1", 1);
    setenv("QEL_DOUBLE_LOG", log, 1);
    for (const auto& [key, value] : env) setenv(key.c_str(), value.c_str(), 1);
    execl("/proc/self/exe", "qel_child", filter.c_str(), static_cast<char*>(nullptr));
    std::perror("execl");
    return 127;
  });
  unlink(log);
  EXPECT_TRUE(r.exited && r.status == 0) << r.output;
  EXPECT_NE(r.output.find("[  PASSED  ] 1 test"), std::string::npos) << "child case did not run:\n" << r.output;
}

TEST(QelBinding, MissingModuleIsTriedOnce) {
  char dir[] = "/tmp/vrk_qel_dir_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  RunChildCase("MissingModuleIsTriedOnce", dir,
               {{"QEL_FILL_DIR", dir}, {"QEL_COMPLETE", kDoubles + "/complete/qel.dll"}});
  unlink((std::string(dir) + "/qel.dll").c_str());
  rmdir(dir);
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
  const struct {
    const char* folder;
    const char* info;
    const char* log;  // the module's calls, joined by '|'
    const char* loaded;
  } kCases[] = {
      {"complete", "1", "QELInitBoard|QELGetInfoString 1 4", "1"},
      {"complete", "0", "QELInitBoard|QELGetInfoString 1 4", "1"},
      {"complete", "0xFFFFFFFD", "QELInitBoard|QELGetInfoString 1 4", "1"},
      {"complete", "none", "QELInitBoard|QELGetInfoString 1 4", "1"},
      {"no_free", "3", "QELInitBoard|QELReleaseBoard", "0"},
      {"init_fails", "3", "QELInitBoard", "0"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.folder) + " " + c.info);
    RunChildCase("StaysLocal", kDoubles + "/" + c.folder,
                 {{"QEL_DOUBLE_INFO", c.info}, {"QEL_EXPECT_LOG", c.log}, {"QEL_EXPECT_LOADED", c.loaded}});
  }
}

// ---- Child side -------------------------------------------------------------

#define CHILD_ONLY() \
  if (!std::getenv(kChildFlag)) GTEST_SKIP() << "runs only in a child process started by QelBinding.*"

// The stand-in's log from line `from` on.
Lines Log(size_t from = 0) {
  Lines lines;
  std::ifstream in(std::getenv("QEL_DOUBLE_LOG"));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return Lines(lines.begin() + std::min(from, lines.size()), lines.end());
}

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

// Two tables, in slots 0 and 3, with hits in the sample data.
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
  EXPECT_EQ(Log(), Lines{});
}

TEST(QelChild, ForwardsEverySearch) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  SEARCH_BuscaTblRegisterTable(f.tables, 3);
  EXPECT_EQ(Log(), (Lines{"QELInitBoard", "QELGetInfoString 1 4"}));
  // The first search hands over the whole registry, once.
  size_t mark = Log().size();
  const auto hits_a = Search(f.tables, 0, f.data);
  EXPECT_EQ(hits_a, Expected(f.tables[0], f.data));
  EXPECT_EQ(hits_a.size(), 4u);
  EXPECT_EQ(Log(mark), (Lines{"QELLoadPatterns 15", SlotLine(0, f.tables[0]), SlotLine(3, f.tables[3]),
                              "QELBuscaTbl length 7 positions 6 table 0", "QELFreeBuscaTbl"}));
  mark = Log().size();
  EXPECT_EQ(Search(f.tables, 3, f.data), Expected(f.tables[3], f.data));
  EXPECT_EQ(Log(mark), (Lines{"QELBuscaTbl length 7 positions 6 table 3", "QELFreeBuscaTbl"}));
  // No hits: nothing to free.
  mark = Log().size();
  EXPECT_TRUE(Search(f.tables, 0, Bytes(16, 0)).empty());
  EXPECT_EQ(Log(mark), (Lines{"QELBuscaTbl length 16 positions 15 table 0"}));
  // A full list drops the module's later hits too.
  EXPECT_EQ(Search(f.tables, 0, f.data, 1), (std::vector<const uint8_t*>{hits_a[0]}));
  // A registration (here: another table under number 0) makes the next
  // search hand the registry over again, and the module sees the new table.
  Table c = Build({{"DA", "44 41"}, {"AC", "41 43"}});
  f.tables[0] = c.desc();
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  mark = Log().size();
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(c.desc(), f.data));
  EXPECT_EQ(Log(mark), (Lines{"QELLoadPatterns 15", SlotLine(0, f.tables[0]), SlotLine(3, f.tables[3]),
                              "QELBuscaTbl length 7 positions 6 table 0", "QELFreeBuscaTbl"}));
  const Lines all = Log();
  EXPECT_EQ(std::count(all.begin(), all.end(), "QELInitBoard"), 1);  // one binding for the whole process
}

TEST(QelChild, StaysLocal) {
  CHILD_ONLY();
  Fixture f;
  SEARCH_BuscaTblRegisterTable(f.tables, 0);
  SEARCH_BuscaTblRegisterTable(f.tables, 3);
  EXPECT_EQ(Search(f.tables, 0, f.data), Expected(f.tables[0], f.data));
  EXPECT_EQ(Search(f.tables, 3, f.data), Expected(f.tables[3], f.data));
  std::string log;
  for (const std::string& line : Log()) log += (log.empty() ? "" : "|") + line;
  EXPECT_EQ(log, std::getenv("QEL_EXPECT_LOG"));
  void* loaded = dlopen("qel.dll", RTLD_NOW | RTLD_NOLOAD);
  EXPECT_EQ(loaded != nullptr, std::string(std::getenv("QEL_EXPECT_LOADED")) == "1");
  if (loaded) dlclose(loaded);
}

}  // namespace
