// Path splitting and joining: the split rules over real and missing paths,
// hostile separators and dots, the buffer limits under overlong input, and
// the system gate.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "scratch.h"
#include "vrk_osutil.h"
#include "vrk_standin_ctl.h"

namespace {

using osutil_test::Guarded;

struct Split {
  std::string drive, dir, fname, ext;
};

// Splits into guarded buffers of the documented sizes; checks that none is
// written past its size and that the file name is zero-filled to its end.
Split SplitGuarded(const std::string& path) {
  Guarded<1> drive;
  Guarded<OSUTIL_MAX_PATH> dir;
  Guarded<OSUTIL_MAX_FNAME> fname;
  Guarded<OSUTIL_MAX_EXT> ext;
  OSUtil_splitpathUTF8(path.c_str(), drive.get(), dir.get(), fname.get(), ext.get());
  EXPECT_TRUE(drive.GuardIntact() && dir.GuardIntact() && fname.GuardIntact() && ext.GuardIntact());
  Split out{drive.get(), dir.get(), fname.get(), ext.get()};
  if (!out.fname.empty()) {
    for (size_t i = out.fname.size(); i < OSUTIL_MAX_FNAME; ++i) EXPECT_EQ(fname.bytes[i], '\0') << i;
  }
  return out;
}

// Runs in a scratch folder holding a directory, a file and two links, so
// that relative names are deterministic.
class SplitPath : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(getcwd(old_cwd_, sizeof old_cwd_), nullptr);
    ASSERT_EQ(chdir(scratch_.path().c_str()), 0);
    ASSERT_EQ(mkdir("sub", 0700), 0);
    ASSERT_TRUE(osutil_test::Touch("archive.tar.gz"));
    ASSERT_EQ(symlink("sub", "link_to_sub"), 0);
    ASSERT_EQ(symlink("missing", "dangling.lnk"), 0);
  }
  void TearDown() override { ASSERT_EQ(chdir(old_cwd_), 0); }

  osutil_test::ScratchDir scratch_;
  char old_cwd_[4096];
};

TEST_F(SplitPath, Table) {
  const struct {
    const char *path, *dir, *fname, *ext;
  } kCases[] = {
      // Existing directories go whole into dir, with a "/" added once.
      {"/usr/lib", "/usr/lib/", "", ""},
      {"sub/", "sub/", "", ""},
      {"link_to_sub", "link_to_sub/", "", ""},  // links are followed
      {"..", "../", "", ""},
      {"/", "/", "", ""},
      {"sub//", "sub//", "", ""},
      // Anything else is split at its last "/", existing or not.
      {"archive.tar.gz", "", "archive.tar", ".gz"},
      {"dir/archive.tar.gz", "dir/", "archive.tar", ".gz"},
      {"dangling.lnk", "", "dangling", ".lnk"},
      {"/vrk-missing-file", "/", "vrk-missing-file", ""},
      {"", "", "", ""},
      {"x.tar.gz/", "x.tar.gz/", "", ""},
      // Dots: never the first character, never a trailing one.
      {".profile", "", ".profile", ""},
      {"a.b.c.", "", "a.b.c.", ""},
      {"..x", "", ".", ".x"},
      {"x/.hidden.txt", "x/", ".hidden", ".txt"},
      {"dir.d/file", "dir.d/", "file", ""},
      // Runs of "/" stay in dir; a backslash is an ordinary character.
      {"a//b.c", "a//", "b", ".c"},
      {"C:\\dir\\file.txt", "", "C:\\dir\\file", ".txt"},
      {"dossier/\xC3\xA9t\xC3\xA9.doc", "dossier/", "\xC3\xA9t\xC3\xA9", ".doc"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.path);
    const Split s = SplitGuarded(c.path);
    EXPECT_EQ(s.drive, "");
    EXPECT_EQ(s.dir, c.dir);
    EXPECT_EQ(s.fname, c.fname);
    EXPECT_EQ(s.ext, c.ext);
  }
  // Any buffer may be null.
  char fname[OSUTIL_MAX_FNAME];
  OSUtil_splitpathUTF8("dir/archive.tar.gz", nullptr, nullptr, fname, nullptr);
  EXPECT_STREQ(fname, "archive.tar");
  OSUtil_splitpathUTF8("sub/a.b", nullptr, nullptr, nullptr, nullptr);
}

TEST_F(SplitPath, OverlongInput) {
  const std::string n254(254, 'n'), n255(255, 'n'), e118(118, 'e');
  const struct {
    std::string path, dir, fname, ext;
  } kCases[] = {
      {n255, "", n254, ""},
      {"d/" + n255 + ".txt", "d/", n254, ".txt"},
      {"f." + e118 + "e", "", "f", "." + e118},
      {n255 + "." + std::string(4000, 'e'), "", n254, "." + e118},
      // Only the first 4095 bytes are read: a "/" or "." beyond is not seen.
      {std::string(4095, 'n') + "/x.txt", "", n254, ""},
      {"f" + std::string(4094, 'x') + ".txt", "", "f" + std::string(253, 'x'), ""},
      // A "/" as byte 4095 still ends the directory, filling its buffer.
      {"d/" + std::string(4092, 'd') + "/tail.txt", "d/" + std::string(4092, 'd') + "/", "", ""},
      {std::string(6000, '/'), std::string(4095, '/'), "", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.path.size());
    const Split s = SplitGuarded(c.path);
    EXPECT_EQ(s.dir, c.dir);
    EXPECT_EQ(s.fname, c.fname);
    EXPECT_EQ(s.ext, c.ext);
  }
}

TEST_F(SplitPath, DirectoriesAtTheLengthLimit) {
  const std::string base = osutil_test::MakeDirOfLength(scratch_.path(), 4092);
  ASSERT_FALSE(base.empty());
  const std::string d4094 = base + "/y", d4095 = base + "/yz";
  ASSERT_EQ(mkdir(d4094.c_str(), 0700), 0);
  ASSERT_EQ(mkdir(d4095.c_str(), 0700), 0);
  // The added "/" still fits after 4094 characters...
  EXPECT_EQ(SplitGuarded(d4094).dir, d4094 + "/");
  EXPECT_EQ(SplitGuarded(d4094 + "/abc.txt").dir, d4094 + "/");
  // ...but not after 4095: the directory comes back empty, not cut.
  for (const std::string& path : {d4095, d4095 + "/more.txt"}) {
    const Split s = SplitGuarded(path);
    EXPECT_EQ(s.dir + s.fname + s.ext, "");
  }
}

TEST(MakePath, Table) {
  const struct {
    const char *dir, *fname, *ext, *want;
  } kCases[] = {
      {"a", "b", "txt", "a/b.txt"},
      {"a/", "b", ".txt", "a/b.txt"},
      {nullptr, nullptr, nullptr, ""},
      {"", "", "", ""},
      {"a", nullptr, nullptr, "a/"},
      {nullptr, nullptr, "txt", ".txt"},
      {"a", "b.", "..txt", "a/b...txt"},
      {"a//", "/b", nullptr, "a///b"},  // parts are joined, not cleaned up
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.want);
    Guarded<64> dst;
    OSUtil_makepathUTF8(dst.get(), "C:", c.dir, c.fname, c.ext);
    EXPECT_STREQ(dst.get(), c.want);
    EXPECT_TRUE(dst.Untouched(std::string(c.want).size() + 1)) << "written past the terminator";
  }
}

// Both path functions work only on the platforms the OS answers name, and
// otherwise write nothing at all.
TEST(PathFunctions, SystemGate) {
  const struct {
    int type, version;
    bool works;
  } kCases[] = {
      {3, 0x2001, true},  {3, 0, true},  {0, 0x2001, true},  {2, 0x2001, true},
      {2, 0x1000, false}, {0, 0, false}, {4, 0x1000, false}, {-3, 0x2002, false},
  };
  for (const auto& g : kCases) {
    SCOPED_TRACE(testing::Message() << "type " << g.type << " version " << g.version);
    vrkalloc_set_os(g.type, g.version);
    Guarded<1> drive;
    Guarded<OSUTIL_MAX_PATH> dir, made;
    Guarded<OSUTIL_MAX_FNAME> fname;
    Guarded<OSUTIL_MAX_EXT> ext;
    OSUtil_splitpathUTF8("dir/archive.tar.gz", drive.get(), dir.get(), fname.get(), ext.get());
    OSUtil_makepathUTF8(made.get(), nullptr, "a", "b", "c");
    if (g.works) {
      EXPECT_STREQ(dir.get(), "dir/");
      EXPECT_STREQ(ext.get(), ".gz");
      EXPECT_STREQ(made.get(), "a/b.c");
    } else {
      EXPECT_TRUE(drive.Untouched() && dir.Untouched() && fname.Untouched() && ext.Untouched());
      EXPECT_TRUE(made.Untouched());
    }
  }
}

}  // namespace
