// The virtual-file stand-in: files from memory and from disk, read by
// copying or in place, with injected failures and the read log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include <cstdio>
#include <cstring>
#include <string>

#include "support/temp_dir.h"
#include "vrk_standin_ctl.h"
#include "vrkvfile.h"

namespace {

const char kText[] = "0123456789abcdef";  // 16 bytes

struct Handle {
  VFileHandle h;
  explicit Handle(VFileHandle handle) : h(handle) {}
  ~Handle() { vrkvfile_close(h); }
};


TEST(VFileStandin, ReadsInBothModes) {
  const vrk::test::TempDir dir;
  const std::string path = dir.Write("text", kText);
  struct Source {
    const char* what;
    VFileHandle handle;
    bool in_place;
  } sources[] = {
      {"memory, copy", vrkvfile_open_memory(kText, 16, VRKVFILE_COPY), false},
      {"memory, in place", vrkvfile_open_memory(kText, 16, VRKVFILE_IN_MEMORY), true},
      {"path, copy", vrkvfile_open_path(path.c_str(), VRKVFILE_COPY), false},
      {"path, in place", vrkvfile_open_path(path.c_str(), VRKVFILE_IN_MEMORY), true},
  };
  for (const Source& s : sources) {
    SCOPED_TRACE(s.what);
    Handle f(s.handle);
    ASSERT_NE(f.h, nullptr);
    EXPECT_EQ(VFilelength(f.h), 16u);
    char buffer[32] = {};
    EXPECT_EQ(VRead(buffer, 1, 4, f.h), 4u);
    EXPECT_EQ(std::string(buffer, 4), "0123");
    EXPECT_EQ(VTell(f.h), 4);

    void* p = buffer;
    EXPECT_EQ(VReadPtr(&p, 1, 100, f.h), 12u);  // short at the end of file
    EXPECT_EQ(p != buffer, s.in_place);
    EXPECT_EQ(std::string(static_cast<char*>(p), 12), "456789abcdef");
    EXPECT_EQ(VReadPtr(&p, 1, 1, f.h), 0u);

    EXPECT_EQ(VSeek(f.h, 14, 0), 0);
    EXPECT_EQ(VRead(buffer, 2, 5, f.h), 1u);  // whole elements only
    EXPECT_EQ(VSeek(f.h, -1, 0), -1);
    EXPECT_EQ(VTell(f.h), 16);
    EXPECT_EQ(VSeek(f.h, 100, 0), 0);  // past the end is allowed, reads give nothing
    EXPECT_EQ(VRead(buffer, 1, 1, f.h), 0u);

    ASSERT_EQ(vrkvfile_log_size(f.h), 8u);
    const VrkVFileCall* c = vrkvfile_log_at(f.h, 1);
    EXPECT_EQ(c->op, VRKVFILE_READPTR);
    EXPECT_EQ(c->position, 4u);
    EXPECT_EQ(c->count, 100u);
    EXPECT_EQ(c->result, 12u);
    EXPECT_EQ(c->in_place, s.in_place ? 1 : 0);
  }
}

TEST(VFileStandin, InjectedFailures) {
  Handle f(vrkvfile_open_memory(kText, 16, VRKVFILE_COPY));
  vrkvfile_fail_length(f.h, 1);
  EXPECT_EQ(VFilelength(f.h), 0xffffffffu);
  vrkvfile_fail_length(f.h, 0);
  EXPECT_EQ(VFilelength(f.h), 16u);

  vrkvfile_fail_seek(f.h, 1);
  EXPECT_NE(VSeek(f.h, 3, 0), 0);
  EXPECT_EQ(VTell(f.h), 0);
  vrkvfile_fail_seek(f.h, 0);

  vrkvfile_fail_reads_from(f.h, 6);
  char buffer[16];
  EXPECT_EQ(VRead(buffer, 1, 16, f.h), 6u);
  EXPECT_EQ(VRead(buffer, 1, 16, f.h), 0u);
  vrkvfile_fail_reads_from(f.h, 0xffffffffu);
  EXPECT_EQ(VRead(buffer, 1, 16, f.h), 10u);
}

TEST(VFileStandin, OpenCountsAndMissingFiles) {
  const uint32_t open = vrkvfile_open_count();
  EXPECT_EQ(vrkvfile_open_path("/nonexistent/file", VRKVFILE_COPY), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(vrkvfile_open_path("/tmp", VRKVFILE_COPY), nullptr);  // not a regular file
  EXPECT_EQ(errno, EISDIR);
  VFileHandle h = vrkvfile_open_memory(nullptr, 0, VRKVFILE_IN_MEMORY);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(VFilelength(h), 0u);
  EXPECT_EQ(vrkvfile_open_count(), open + 1);
  vrkvfile_close(h);
  EXPECT_EQ(vrkvfile_open_count(), open);
}

// Lengths and positions are 32-bit: a file of 2 GiB or more opens and reads
// up to 4 GiB - 2 bytes; one of 4 GiB does not open, and says why.
TEST(VFileStandin, LargeSparseFiles) {
  const vrk::test::TempDir d;
  const std::string path = d / "sparse";
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_LARGEFILE, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite64(fd, "end", 3, 0xC0000000ll), 3);  // 3 GiB in
  {
    Handle f(vrkvfile_open_path(path.c_str(), VRKVFILE_COPY));
    ASSERT_NE(f.h, nullptr);
    EXPECT_EQ(VFilelength(f.h), 0xC0000003u);
    ASSERT_EQ(VSeek(f.h, -3, 2), 0);
    char end[3];
    EXPECT_EQ(VRead(end, 1, 3, f.h), 3u);
    EXPECT_EQ(std::string(end, 3), "end");
  }
  ASSERT_EQ(ftruncate64(fd, 0x100000000ll), 0);
  close(fd);
  EXPECT_EQ(vrkvfile_open_path(path.c_str(), VRKVFILE_COPY), nullptr);
  EXPECT_EQ(errno, EFBIG);
}

}  // namespace
