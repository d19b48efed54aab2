// Walking trees for a scan: what is visited with and without recursion, and
// that symbolic links never lead out of the tree.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "scan/walk.h"
#include "support/temp_dir.h"

namespace {

struct TempTree {
  vrk::test::TempDir dir;
  std::string root = dir.path();
  void File(const std::string& rel) { dir.Write(rel, "x"); }
  void Dir(const std::string& rel) { dir.MakeDir(rel); }
  void Link(const std::string& target, const std::string& rel) { dir.Link(target, rel); }
};

std::vector<std::string> Visit(const std::vector<std::string>& roots, bool recursive,
                               std::vector<std::string>* problems = nullptr, std::vector<std::string> excludes = {}) {
  std::vector<std::string> files;
  vrk::scan::Walk(
      roots, {recursive, std::move(excludes)}, [&](const std::string& p) { files.push_back(p); },
      [&](const std::string& p, const std::string&) {
        if (problems) problems->push_back(p);
      });
  return files;
}

TEST(Walk, RecursionAndLinks) {
  TempTree outside;
  outside.File("secret");
  TempTree t;
  t.File("a");
  t.Dir("sub");
  t.File("sub/b");
  t.Dir("sub/deeper");
  t.File("sub/deeper/c");
  t.Link(t.root + "/a", "link-inside");          // followed: a file in the tree
  t.Link(outside.root + "/secret", "link-out");  // not followed: leaves the tree
  t.Link(t.root + "/sub", "link-dir");           // directories: never followed
  t.Link(t.root + "/missing", "dangling");

  const std::vector<std::string> flat = Visit({t.root}, false);
  EXPECT_EQ(flat, (std::vector<std::string>{t.root + "/a", t.root + "/link-inside"}));

  const std::vector<std::string> deep = Visit({t.root}, true);
  EXPECT_EQ(deep, (std::vector<std::string>{t.root + "/a", t.root + "/link-inside", t.root + "/sub/b",
                                            t.root + "/sub/deeper/c"}));
}

TEST(Walk, NamedFilesAndProblems) {
  TempTree t;
  t.File("a");
  std::vector<std::string> problems;
  const auto files = Visit({t.root + "/a", t.root + "/nope"}, false, &problems);
  EXPECT_EQ(files, (std::vector<std::string>{t.root + "/a"}));
  EXPECT_EQ(problems, (std::vector<std::string>{t.root + "/nope"}));
}

}  // namespace
