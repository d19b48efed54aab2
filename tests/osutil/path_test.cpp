// Path splitting and joining: the split rules over real and missing paths,
// hostile separators and dots, the buffer limits under overlong input, the
// system gate, and joining with its round trip through a split.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "scratch.h"
#include "vrk_osutil.h"
#include "vrk_standin_ctl.h"

namespace {

using osutil_test::Guarded;
using osutil_test::ScratchDir;

struct Split {
  std::string drive, dir, fname, ext;
};

// Splits with guarded buffers of the documented sizes and checks, for every
// case, that no buffer was written past its size and that the file name is
// zero-filled to its end.
Split SplitGuarded(const std::string& path) {
  Guarded<1> drive;
  Guarded<OSUTIL_MAX_PATH> dir;
  Guarded<OSUTIL_MAX_FNAME> fname;
  Guarded<OSUTIL_MAX_EXT> ext;
  OSUtil_splitpathUTF8(path.c_str(), drive.get(), dir.get(), fname.get(), ext.get());
  EXPECT_TRUE(drive.GuardIntact());
  EXPECT_TRUE(dir.GuardIntact());
  EXPECT_TRUE(fname.GuardIntact());
  EXPECT_TRUE(ext.GuardIntact());
  Split out{drive.get(), dir.get(), fname.get(), ext.get()};
  // A file name is zero-filled to the end of its buffer.
  if (!out.fname.empty()) {
    for (size_t i = out.fname.size(); i < OSUTIL_MAX_FNAME; ++i) EXPECT_EQ(fname.bytes[i], '\0') << "byte " << i;
  }
  return out;
}

// Each test runs inside a scratch folder holding a directory, a regular
// file and two symbolic links, so that relative names are deterministic.
class SplitPath : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(scratch_.path().empty());
    ASSERT_NE(getcwd(old_cwd_, sizeof old_cwd_), nullptr);
    ASSERT_EQ(chdir(scratch_.path().c_str()), 0);
    ASSERT_EQ(mkdir("sub", 0700), 0);
    ASSERT_TRUE(osutil_test::Touch("archive.tar.gz"));
    ASSERT_EQ(symlink("sub", "link_to_sub"), 0);
    ASSERT_EQ(symlink("missing", "dangling.lnk"), 0);
  }
  void TearDown() override { ASSERT_EQ(chdir(old_cwd_), 0); }

  ScratchDir scratch_;
  char old_cwd_[4096];
};

struct SplitCase {
  const char* path;
  const char* dir;
  const char* fname;
  const char* ext;
};

TEST_F(SplitPath, Table) {
  const SplitCase kCases[] = {
      // Existing directories go whole into dir, with a "/" added once.
      {"/usr/lib", "/usr/lib/", "", ""},
      {"/usr/lib/", "/usr/lib/", "", ""},
      {"sub", "sub/", "", ""},
      {"sub/", "sub/", "", ""},
      {"link_to_sub", "link_to_sub/", "", ""},  // links are followed
      {".", "./", "", ""},
      {"..", "../", "", ""},
      {"/", "/", "", ""},
      {"////", "////", "", ""},
      {"sub//", "sub//", "", ""},
      // Anything else is a file name, existing or not.
      {"archive.tar.gz", "", "archive.tar", ".gz"},
      {"dir/archive.tar.gz", "dir/", "archive.tar", ".gz"},
      {"sub/archive.tar.gz", "sub/", "archive.tar", ".gz"},
      {"dangling.lnk", "", "dangling", ".lnk"},
      {"/vrk-missing-file", "/", "vrk-missing-file", ""},
      {"file", "", "file", ""},
      {"", "", "", ""},
      {"missing/", "missing/", "", ""},
      {"x.tar.gz/", "x.tar.gz/", "", ""},
      // Dots: never the first character, never a trailing one.
      {".profile", "", ".profile", ""},
      {"name.", "", "name.", ""},
      {"a.b", "", "a", ".b"},
      {"a.b.c.", "", "a.b.c.", ""},
      {"...", "", "...", ""},
      {"..x", "", ".", ".x"},
      {"x/.hidden.txt", "x/", ".hidden", ".txt"},
      {"dir.d/file", "dir.d/", "file", ""},
      {"dir.d/.", "dir.d/", ".", ""},
      // Separators: only the last "/" counts, runs of them stay in dir, and
      // a backslash is an ordinary character.
      {"a//b.c", "a//", "b", ".c"},
      {"//vrk-missing", "//", "vrk-missing", ""},
      {"missing/./x", "missing/./", "x", ""},
      {"C:\\dir\\file.txt", "", "C:\\dir\\file", ".txt"},
      {"a/b\\c.d", "a/", "b\\c", ".d"},
      // UTF-8 passes through byte for byte.
      {"dossier/\xC3\xA9t\xC3\xA9.doc", "dossier/", "\xC3\xA9t\xC3\xA9", ".doc"},
  };
  for (const SplitCase& c : kCases) {
    SCOPED_TRACE(c.path);
    const Split s = SplitGuarded(c.path);
    EXPECT_EQ(s.drive, "");
    EXPECT_EQ(s.dir, c.dir);
    EXPECT_EQ(s.fname, c.fname);
    EXPECT_EQ(s.ext, c.ext);
  }
}

TEST_F(SplitPath, NullBuffersAreSkipped) {
  char fname[OSUTIL_MAX_FNAME];
  OSUtil_splitpathUTF8("dir/archive.tar.gz", nullptr, nullptr, fname, nullptr);
  EXPECT_STREQ(fname, "archive.tar");
  char dir[OSUTIL_MAX_PATH];
  OSUtil_splitpathUTF8("sub", nullptr, dir, nullptr, nullptr);
  EXPECT_STREQ(dir, "sub/");
  OSUtil_splitpathUTF8("sub/a.b", nullptr, nullptr, nullptr, nullptr);
}

TEST_F(SplitPath, NameAndExtensionLimits) {
  const std::string n254(254, 'n'), n255(255, 'n'), e118(118, 'e'), e119(119, 'e');
  const struct {
    std::string path, fname, ext;
  } kCases[] = {
      {n254, n254, ""},
      {n255, n254, ""},
      {std::string(3000, 'n'), n254, ""},
      {"d/" + n255 + ".txt", n254, ".txt"},
      {"f." + e118, "f", "." + e118},
      {"f." + e119, "f", "." + e118},
      {"f." + std::string(4000, 'e'), "f", "." + e118},
      {n255 + "." + e119, n254, "." + e118},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.path.size());
    const Split s = SplitGuarded(c.path);
    EXPECT_EQ(s.fname, c.fname);
    EXPECT_EQ(s.ext, c.ext);
  }
}

TEST_F(SplitPath, OnlyTheFirst4095BytesAreRead) {
  const std::string n4095(4095, 'n');
  // What lies beyond byte 4095 is never seen: neither a "/" nor a ".".
  Split s = SplitGuarded(n4095 + "/x.txt");
  EXPECT_EQ(s.dir, "");
  EXPECT_EQ(s.fname, std::string(254, 'n'));
  EXPECT_EQ(s.ext, "");

  s = SplitGuarded("f" + std::string(4094, 'x') + ".txt");
  EXPECT_EQ(s.ext, "");

  // A "/" as byte 4095 still ends the directory, which then fills its
  // buffer to the last byte.
  const std::string d4094 = "d/" + std::string(4092, 'd');
  s = SplitGuarded(d4094 + "/" + "tail.txt");
  EXPECT_EQ(s.dir, d4094 + "/");
  EXPECT_EQ(s.fname, "");

  s = SplitGuarded(std::string(6000, '/'));  // the root, 4095 times over
  EXPECT_EQ(s.dir, std::string(4095, '/'));
}

TEST_F(SplitPath, DirectoriesAtTheLengthLimit) {
  const std::string base = osutil_test::MakeDirOfLength(scratch_.path(), 4092);
  ASSERT_FALSE(base.empty());
  const std::string d4094 = base + "/y", d4095 = base + "/yz";
  ASSERT_EQ(mkdir(d4094.c_str(), 0700), 0);
  ASSERT_EQ(mkdir(d4095.c_str(), 0700), 0);

  // The added "/" still fits after 4094 characters...
  EXPECT_EQ(SplitGuarded(d4094).dir, d4094 + "/");
  EXPECT_EQ(SplitGuarded(d4094 + "/").dir, d4094 + "/");
  // ...but not after 4095: the directory comes back empty, not cut.
  Split s = SplitGuarded(d4095);
  EXPECT_EQ(s.dir, "");
  EXPECT_EQ(s.fname, "");
  EXPECT_EQ(s.ext, "");
  // A longer path whose first 4095 bytes name that directory is the same.
  EXPECT_EQ(SplitGuarded(d4095 + "/more.txt").dir, "");
  // Cut right after the "/", the path is the directory with its "/".
  EXPECT_EQ(SplitGuarded(d4094 + "/abc.txt").dir, d4094 + "/");
}

struct GateCase {
  int type, version;
  bool works;
};

constexpr GateCase kGateCases[] = {
    {3, 0x2001, true}, {3, 0, true}, {0, 0x2001, true}, {2, 0x2001, true},
    {2, 0x1000, false}, {0, 0, false}, {4, 0x1000, false}, {-3, 0x2002, false},
};

TEST_F(SplitPath, SystemGate) {
  for (const GateCase& g : kGateCases) {
    SCOPED_TRACE(testing::Message() << "type " << g.type << " version " << g.version);
    vrkalloc_set_os(g.type, g.version);
    Guarded<1> drive;
    Guarded<OSUTIL_MAX_PATH> dir;
    Guarded<OSUTIL_MAX_FNAME> fname;
    Guarded<OSUTIL_MAX_EXT> ext;
    OSUtil_splitpathUTF8("dir/archive.tar.gz", drive.get(), dir.get(), fname.get(), ext.get());
    if (g.works) {
      EXPECT_STREQ(dir.get(), "dir/");
      EXPECT_STREQ(ext.get(), ".gz");
    } else {
      EXPECT_TRUE(drive.Untouched() && dir.Untouched() && fname.Untouched() && ext.Untouched());
    }
  }
}

TEST(MakePath, Table) {
  const struct {
    const char *dir, *fname, *ext, *want;
  } kCases[] = {
      {"a", "b", "txt", "a/b.txt"},
      {"a", "b", ".txt", "a/b.txt"},
      {"a/", "b", "txt", "a/b.txt"},
      {nullptr, nullptr, nullptr, ""},
      {"", "", "", ""},
      {"/", "b", nullptr, "/b"},
      {"a", nullptr, nullptr, "a/"},
      {nullptr, "b", nullptr, "b"},
      {nullptr, nullptr, "txt", ".txt"},
      {"a//", "b", "", "a//b"},
      {"a", "b.", "txt", "a/b..txt"},
      {"a", "b", "..txt", "a/b..txt"},
      {"a", "/b", nullptr, "a//b"},  // parts are joined, not cleaned up
      {"C:\\x", "y", "z", "C:\\x/y.z"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.want);
    Guarded<64> dst;
    OSUtil_makepathUTF8(dst.get(), "C:", c.dir, c.fname, c.ext);
    EXPECT_STREQ(dst.get(), c.want);
    // Exactly the result and its terminator are written.
    EXPECT_TRUE(dst.Untouched(std::string(c.want).size() + 1));
  }
}

TEST(MakePath, SystemGate) {
  for (const GateCase& g : kGateCases) {
    SCOPED_TRACE(testing::Message() << "type " << g.type << " version " << g.version);
    vrkalloc_set_os(g.type, g.version);
    Guarded<16> dst;
    OSUtil_makepathUTF8(dst.get(), nullptr, "a", "b", "c");
    if (g.works) {
      EXPECT_STREQ(dst.get(), "a/b.c");
    } else {
      EXPECT_TRUE(dst.Untouched());
    }
  }
}

TEST(MakePath, SplitUndoesMake) {
  // Over paths that do not exist, a split gives back the joined parts (the
  // directory with its "/", the extension with its ".").
  const char* kDirs[] = {"", "a", "a/b/", "/vrk-missing/x", "..."};
  // No name with an inner dot: alone, its tail would read as an extension.
  const char* kNames[] = {"f", ".rc", "f..", "f-tar", "\xE2\x82\xAC"};
  const char* kExts[] = {"", "gz", ".c", "longer-extension"};
  for (const char* dir : kDirs) {
    for (const char* name : kNames) {
      for (const char* ext : kExts) {
        char joined[128];
        OSUtil_makepathUTF8(joined, nullptr, dir, name, ext);
        SCOPED_TRACE(joined);
        const Split s = SplitGuarded(joined);
        std::string want_dir = dir;
        if (!want_dir.empty() && want_dir.back() != '/') want_dir += '/';
        std::string want_ext = ext;
        if (!want_ext.empty() && want_ext[0] != '.') want_ext.insert(0, ".");
        EXPECT_EQ(s.dir, want_dir);
        EXPECT_EQ(s.fname, name);
        EXPECT_EQ(s.ext, want_ext);
      }
    }
  }
}

}  // namespace
