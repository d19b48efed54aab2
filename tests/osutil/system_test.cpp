// Temporary names, the program's file name, library loading, advisory locks
// between processes, the passed-on system queries and the constant answers.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "scratch.h"
#include "support/alloc_trace.h"
#include "support/child_process.h"
#include "vrk_osutil.h"
#include "vrk_standin_ctl.h"
#include "vrkalloc.h"

namespace {

using osutil_test::Guarded;
using osutil_test::ScratchDir;

// Sets or clears TMPDIR for one test and puts the old value back.
struct TmpdirOverride {
  explicit TmpdirOverride(const char* value) {
    if (const char* old = std::getenv("TMPDIR")) old_ = old;
    value ? setenv("TMPDIR", value, 1) : unsetenv("TMPDIR");
  }
  ~TmpdirOverride() { old_ ? setenv("TMPDIR", old_->c_str(), 1) : unsetenv("TMPDIR"); }
  std::optional<std::string> old_;
};

bool StartsWith(const std::string& s, const std::string& prefix) { return s.rfind(prefix, 0) == 0; }

TEST(TempFileName, DirectoryChoiceAndLengthLimit) {
  ScratchDir given, from_env;
  Guarded<OSUTIL_MAX_PATH> dst;
  {
    TmpdirOverride tmpdir(from_env.path().c_str());  // TMPDIR wins over the directory given
    ASSERT_EQ(OSUtil_GetTempFileNameUTF8(given.path().c_str(), "vrk", 7, dst.get()), 7u);
    EXPECT_TRUE(StartsWith(dst.get(), from_env.path() + "/vrk")) << dst.get();
  }
  TmpdirOverride no_tmpdir(nullptr);
  EXPECT_EQ(OSUtil_GetTempFileNameUTF8(given.path().c_str(), "vrk", 0xFFFFFFFFu, dst.get()), 0xFFFFFFFFu);
  EXPECT_EQ(OSUtil_GetTempFileNameUTF8(given.path().c_str(), "vrk", 0, dst.get()), 1u);
  EXPECT_TRUE(StartsWith(dst.get(), given.path() + "/vrk") && strlen(dst.get()) > given.path().size() + 4);
  EXPECT_NE(access(dst.get(), F_OK), 0) << "no file is created";
  // A missing directory, and none at all, fall back to the system's.
  for (const char* dir : {"/vrk-missing-dir", static_cast<const char*>(nullptr)}) {
    ASSERT_EQ(OSUtil_GetTempFileNameUTF8(dir, "vrk", 1, dst.get()), 1u);
    EXPECT_TRUE(StartsWith(dst.get(), P_tmpdir)) << dst.get();
  }
  // A name is the directory, "/", the prefix and six more characters: 4083
  // + 1 + 5 + 6 is 4095, which still fits; one more and no name comes back.
  for (const size_t length : {4083u, 4084u}) {
    const std::string base = given / std::to_string(length);
    ASSERT_EQ(mkdir(base.c_str(), 0700), 0);
    const std::string dir = osutil_test::MakeDirOfLength(base, length);
    ASSERT_FALSE(dir.empty());
    dst.Fill();
    const bool fits = length == 4083;
    EXPECT_EQ(OSUtil_GetTempFileNameUTF8(dir.c_str(), "vrkab", 3, dst.get()), fits ? 3u : 0u);
    if (fits) {
      EXPECT_TRUE(StartsWith(dst.get(), dir + "/vrkab") && strlen(dst.get()) == 4095 && dst.GuardIntact());
    } else {
      EXPECT_TRUE(dst.Untouched()) << "a failed call leaves the buffer alone";
    }
  }
}

TEST(ModuleFileName, SizesAroundTheNameLengthAndSystemGate) {
  char own[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", own, sizeof own);
  ASSERT_GT(n, 0);
  const std::string exe(own, size_t(n));
  const uint32_t length = uint32_t(exe.size());
  const struct {
    uint32_t size;
    int type, version;
    uint32_t result;
  } kCases[] = {
      {0, 3, 0x2001, 1},          {1, 3, 0x2001, 1},      {2, 3, 0x2001, 1},   {length - 1, 3, 0x2001, 1},
      {length, 3, 0x2001, 1},     {length + 1, 3, 0x2001, 0}, {4096, 3, 0x2001, 0}, {4096, 2, 0x2001, 1},
      {4096, 0, 0, 0},            {4096, 1, 0x1000, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << "size " << c.size << " type " << c.type);
    vrkalloc_set_os(c.type, c.version);
    Guarded<4096> dst;
    EXPECT_EQ(OSUtil_GetModuleFileNameUTF8(reinterpret_cast<void*>(0x1234), dst.get(), c.size), c.result);
    if (c.result == 0) {
      EXPECT_EQ(std::string(dst.get()), exe);
    } else if (c.size < 2 || c.type == 2) {
      EXPECT_TRUE(dst.Untouched()) << "too small a buffer, or a refusing system: nothing written";
    } else {
      EXPECT_EQ(dst.bytes[0], '\0') << "a name that does not fit is not handed out cut short";
    }
    EXPECT_TRUE(dst.Untouched(c.size)) << "written past the size";
  }
  EXPECT_EQ(OSUtil_GetModuleFileNameUTF8(nullptr, nullptr, 4096), 1u);
}

TEST(LoadLibrary, BindsEverySymbolBehindTheSystemGate) {
  void* handle = OSUtil_LoadLibraryExUTF8(OSUTIL_TEST_LOADABLE, nullptr, 0);
  ASSERT_NE(handle, nullptr) << dlerror();
  auto answer = reinterpret_cast<int (*)(void)>(dlsym(handle, "osutil_loadable_answer"));
  ASSERT_TRUE(answer != nullptr && answer() == 42);
  EXPECT_EQ(dlclose(handle), 0);
  // This library loads lazily, so only binding at once refuses it.
  void* lazy = dlopen(OSUTIL_TEST_UNRESOLVED, RTLD_LAZY);
  ASSERT_NE(lazy, nullptr) << "the test library should load lazily: " << dlerror();
  dlclose(lazy);

  const struct {
    const char* name;
    int type, version;
    bool loads;
  } kCases[] = {
      {OSUTIL_TEST_UNRESOLVED, 3, 0x2001, false},
      {"libc.so.6", 3, 0x2001, true},             // found by the loader's search
      {"c", 3, 0x2001, false},                    // no "lib" or ".so" is added
      {"osutil_loadable.so", 3, 0x2001, false},   // nor a directory
      {OSUTIL_TEST_MODULE_DIR, 3, 0x2001, false}, // a directory
      {"", 3, 0x2001, true},                      // the program itself, as dlopen has it
      {nullptr, 3, 0x2001, false},
      {OSUTIL_TEST_LOADABLE, 3, 0x1000, true},  {OSUTIL_TEST_LOADABLE, 0, 0x1000, true},
      {OSUTIL_TEST_LOADABLE, 7, 0x2001, true},  {OSUTIL_TEST_LOADABLE, 2, 0x2001, false},
      {OSUTIL_TEST_LOADABLE, 2, 0x1000, false}, {OSUTIL_TEST_LOADABLE, 3, 0, false},
      {OSUTIL_TEST_LOADABLE, 3, 0x2002, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << (c.name ? c.name : "(null)") << " type " << c.type << " version "
                                    << c.version);
    vrkalloc_set_os(c.type, c.version);
    // The trailing arguments are not used, whatever they hold.
    void* h = OSUtil_LoadLibraryExUTF8(c.name, reinterpret_cast<void*>(1), 0xFFFFFFFFu);
    EXPECT_EQ(h != nullptr, c.loads);
    if (h) dlclose(h);
  }
}

// In a child process: 0 when an exclusive lock on `path` is granted at once,
// 1 when another holder blocks it, 2 when the file cannot be opened.
int TryLockInChild(const std::string& path) {
  const vrk::test::ChildResult r = vrk::test::RunInChild([&] {
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return 2;
    const int locked = flock(fd, LOCK_EX | LOCK_NB), err = errno;
    close(fd);
    return locked == 0 ? 0 : (err == EWOULDBLOCK ? 1 : 3);
  });
  EXPECT_TRUE(r.exited) << r.output;
  return r.status;
}

TEST(FileLock, ExcludesOtherProcessesUntilUnlocked) {
  ScratchDir scratch;
  const std::string path = scratch / "locked";
  int fd = 12345;
  // A missing file is neither locked nor created.
  EXPECT_EQ(OSUtil_UnixFileLock(path.c_str(), &fd), 0u);
  EXPECT_EQ(fd, -1);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  EXPECT_EQ(OSUtil_UnixFileUnlock(&fd), 0u);
  EXPECT_EQ(fd, -1);

  ASSERT_TRUE(osutil_test::Touch(path));
  ASSERT_EQ(TryLockInChild(path), 0);
  EXPECT_EQ(OSUtil_UnixFileLock(path.c_str(), &fd), 0u);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(TryLockInChild(path), 1);

  // A second lock call waits: it must still be blocked when its alarm ends the child.
  const auto blocked = vrk::test::RunInChild([&] {
    alarm(1);
    int child_fd = -1;
    OSUtil_UnixFileLock(path.c_str(), &child_fd);
    return 0;
  });
  EXPECT_FALSE(blocked.exited) << "the lock was granted while held elsewhere";

  const int held = fd;
  EXPECT_EQ(OSUtil_UnixFileUnlock(&fd), 0u);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(fcntl(held, F_GETFD), -1) << "the descriptor is closed";
  EXPECT_EQ(TryLockInChild(path), 0);
}

TEST(SystemQueries, PassedOnAndConstantAnswers) {
  const int kAnswers[][2] = {{3, 0x2001}, {-1, 0x7FFFFFFF}, {0, 0}};
  for (const auto& [type, version] : kAnswers) {
    vrkalloc_set_os(type, version);
    EXPECT_EQ(OSUtil_GetOSType(), type);
    EXPECT_EQ(OSUtil_GetOSVersion(), version);
  }
  EXPECT_EQ(OSUtil_GetNULLSecurityAttr(), GetNULLSecurityAttr());

  // Callers written against Windows shapes pass arguments; the caller
  // cleans the stack, so they are harmless.
  using TwoArgs = uint32_t (*)(uint32_t, void*);
  for (auto* f : {OSUtil_DisableWow32FsRedirection, OSUtil_RevertWow32FsRedirection,
                  OSUtil_DisableVistaVirtualization, OSUtil_RevertVistaVirtualization, OSUtil_IsFileRedirectedByFs,
                  OSUtil_IsWow32Process, OSUtil_IsThisWow32Process}) {
    EXPECT_EQ(f(), 0u);
    EXPECT_EQ(reinterpret_cast<TwoArgs>(reinterpret_cast<void*>(f))(0xFFFFFFFFu, nullptr), 0u);
  }
  uint32_t type = 0xFFFFFFFFu;
  EXPECT_EQ(OSUtil_GetDriveTypeUTF8("/", &type), 0u);
  EXPECT_EQ(type, 0u);
  EXPECT_EQ(OSUtil_GetDriveTypeUTF8(nullptr, nullptr), 0u);
}

TEST(AllocatorTraffic, NoFunctionAllocates) {
  ScratchDir scratch;
  const std::string file = scratch / "f.txt";
  ASSERT_TRUE(osutil_test::Touch(file));
  const vrk::test::AllocTrace trace;
  char dir[OSUTIL_MAX_PATH], fname[OSUTIL_MAX_FNAME], ext[OSUTIL_MAX_EXT], drive[4];
  OSUtil_splitpathUTF8(file.c_str(), drive, dir, fname, ext);
  OSUtil_makepathUTF8(dir, nullptr, "a", "b", "c");
  OSUtil_GetTempFileNameUTF8(scratch.path().c_str(), "vrk", 0, dir);
  OSUtil_GetModuleFileNameUTF8(nullptr, dir, sizeof dir);
  if (void* h = OSUtil_LoadLibraryExUTF8(OSUTIL_TEST_LOADABLE, nullptr, 0)) dlclose(h);
  int fd = -1;
  OSUtil_UnixFileLock(file.c_str(), &fd);
  OSUtil_UnixFileUnlock(&fd);
  (void)OSUtil_GetOSType();
  (void)OSUtil_GetOSVersion();
  (void)OSUtil_GetNULLSecurityAttr();
  EXPECT_EQ(trace.Text(), "");
}

}  // namespace
