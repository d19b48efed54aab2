// What happens when the library is loaded and unloaded: the lock file, the
// module registration and the code-page copies, each observed in a fresh
// child process that loads the library after the test set the stand-ins up.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "support/alloc_trace.h"
#include "support/child_process.h"
#include "support/codepage_rows.h"
#include "vrk_standin_ctl.h"

namespace {

constexpr const char* kLockPath = "/tmp/.interProcessSystem";
constexpr int kSkipped = 77;

// Inside a child: report a failed check and make the child fail.
#define CHILD_CHECK(cond)                                                   \
  do {                                                                      \
    if (!(cond)) {                                                          \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      return 1;                                                             \
    }                                                                       \
  } while (0)

using GetCP = int32_t (*)(const char*);
using GetCPName = const char* (*)(int32_t);

// Where the child loads the library from: its build path, or, once the child
// has a /tmp of its own (which may hide a build tree under /tmp), a
// descriptor opened on the file beforehand.
std::string g_library_path = VRK_LIBRARY_PATH;

struct Library {
  void* handle = nullptr;
  GetCP get_cp = nullptr;
  GetCPName get_cp_name = nullptr;

  bool Load() {
    handle = dlopen(g_library_path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) return false;
    get_cp = reinterpret_cast<GetCP>(dlsym(handle, "charconv_GetCP"));
    get_cp_name = reinterpret_cast<GetCPName>(dlsym(handle, "charconv_GetCPName"));
    return get_cp && get_cp_name;
  }
  // Unloads and confirms that the library really left the process.
  bool Unload() {
    if (dlclose(handle) != 0) return false;
    return dlopen(g_library_path.c_str(), RTLD_NOW | RTLD_NOLOAD) == nullptr;
  }
};

// Gives the child a /tmp of its own, so that lock-file tests neither see nor
// disturb the machine's. Needs the right to create a mount namespace.
bool PrivateTmp() {
  const int fd = open(VRK_LIBRARY_PATH, O_RDONLY);
  if (fd < 0) return false;
  g_library_path = "/proc/self/fd/" + std::to_string(fd);
  return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") == 0;
}

// Runs `body` in a child with a private /tmp; skips when that is not allowed.
void InChildWithPrivateTmp(const std::function<int()>& body) {
  const vrk::test::ChildResult r = vrk::test::RunInChild([&] { return PrivateTmp() ? body() : kSkipped; });
  if (r.exited && r.status == kSkipped) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_TRUE(r.exited && r.status == 0) << r.output;
}

void InChild(const std::function<int()>& body) {
  const vrk::test::ChildResult r = vrk::test::RunInChild(body);
  EXPECT_TRUE(r.exited && r.status == 0) << r.output;
}

int OpenDescriptorsOn(const char* path) {
  struct stat want;
  if (stat(path, &want) != 0) return 0;
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_dev == want.st_dev && st.st_ino == want.st_ino) ++count;
  }
  return count;
}

TEST(Load, CreatesLockFile0666UnderRestrictiveMask) {
  InChildWithPrivateTmp([] {
    umask(077);
    Library lib;
    CHILD_CHECK(lib.Load());
    struct stat st;
    CHILD_CHECK(stat(kLockPath, &st) == 0);
    CHILD_CHECK(S_ISREG(st.st_mode));
    CHILD_CHECK((st.st_mode & 07777) == 0666);
    CHILD_CHECK(umask(0) == 077);  // the caller's mask is back
    CHILD_CHECK(OpenDescriptorsOn(kLockPath) == 1);
    CHILD_CHECK(lib.Unload());
    CHILD_CHECK(OpenDescriptorsOn(kLockPath) == 0);
    CHILD_CHECK(access(kLockPath, F_OK) == 0);  // never removed
    return 0;
  });
}

TEST(Load, ExistingLockFileIsKeptAsItIs) {
  InChildWithPrivateTmp([] {
    const int fd = open(kLockPath, O_WRONLY | O_CREAT, 0600);
    CHILD_CHECK(fd >= 0 && write(fd, "state", 5) == 5);
    close(fd);
    Library lib;
    CHILD_CHECK(lib.Load());
    struct stat st;
    CHILD_CHECK(stat(kLockPath, &st) == 0);
    CHILD_CHECK(st.st_size == 5);                // not truncated
    CHILD_CHECK((st.st_mode & 07777) == 0600);   // nor re-permissioned
    CHILD_CHECK(OpenDescriptorsOn(kLockPath) == 1);
    CHILD_CHECK(lib.Unload());
    return 0;
  });
}

TEST(Load, UnopenableLockFileIsSilent) {
  InChildWithPrivateTmp([] {
    CHILD_CHECK(mkdir(kLockPath, 0755) == 0);  // a directory cannot be opened for writing
    Library lib;
    CHILD_CHECK(lib.Load());
    CHILD_CHECK(lib.get_cp("utf-8") == 65001);
    CHILD_CHECK(OpenDescriptorsOn(kLockPath) == 0);
    CHILD_CHECK(lib.Unload());
    return 0;
  });
}

TEST(Load, DescriptorZeroCountsAsNone) {
  InChildWithPrivateTmp([] {
    close(0);
    Library lib;
    CHILD_CHECK(lib.Load());
    CHILD_CHECK(OpenDescriptorsOn(kLockPath) == 1);  // the file took descriptor 0 ...
    CHILD_CHECK(lib.Unload());
    CHILD_CHECK(fcntl(0, F_GETFD) != -1);  // ... and unloading did not close it
    return 0;
  });
}

TEST(Load, RegistersOnceBeforeAnyAllocation) {
  InChild([] {
    const vrk::test::AllocTrace trace;
    Library lib;
    CHILD_CHECK(lib.Load());
    const VrkModuleVersionRecord rec = vrkalloc_module_version();
    CHILD_CHECK(rec.calls == 1);
    CHILD_CHECK(rec.requests_before_first == 0);
    // Registration, then the two sorted copies of the code-page table;
    // unloading frees the number copy first, then the name copy.
    CHILD_CHECK(trace.Text() == "SetModuleVersion(4,0x1040309) Pcalloc(408,8,0) Pcalloc(408,8,0) ");
    CHILD_CHECK(vrkalloc_live(VRKALLOC_FAMILY_P) == 2);
    CHILD_CHECK(lib.Unload());
    const auto calls = trace.Calls();
    CHILD_CHECK(trace.Text().ends_with("Pfree Pfree ") && calls.size() == 5);
    CHILD_CHECK(calls[3].block == calls[1].result && calls[4].block == calls[2].result);
    CHILD_CHECK(vrkalloc_live(VRKALLOC_FAMILY_P) == 0);
    CHILD_CHECK(vrkalloc_module_version().calls == 1);
    return 0;
  });
}


TEST(Load, RefusedCodePageCopiesFallBackToScans) {
  struct Case {
    const char* what;
    void (*arm)();
    const char* name_65001;  // which name the number lookup gives
    uint32_t live_blocks;
  } const cases[] = {
      {"both copies refused", [] { vrkalloc_fail_all(1); }, "unicode-1-1-utf-8", 0},
      {"number copy refused", [] { vrkalloc_fail_nth(1); }, "unicode-1-1-utf-8", 1},
      {"name copy refused", [] { vrkalloc_fail_nth(2); }, "utf-8", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    InChild([&c] {
      c.arm();
      Library lib;
      CHILD_CHECK(lib.Load());
      vrkalloc_reset();
      CHILD_CHECK(vrkalloc_live(VRKALLOC_FAMILY_P) == c.live_blocks);
      CHILD_CHECK(std::strcmp(lib.get_cp_name(65001), c.name_65001) == 0);
      CHILD_CHECK(std::strcmp(lib.get_cp_name(-1), "LAST") == 0);
      CHILD_CHECK(lib.get_cp_name(0) == nullptr);
      for (const vrk::test::CodePageRow& row : vrk::test::kCodePageRows) {
        if (row.codepage != -1) CHILD_CHECK(lib.get_cp(row.name) == row.codepage);
      }
      CHILD_CHECK(lib.get_cp("UTF-8") == 65001);
      CHILD_CHECK(lib.get_cp("LAST") == -1);
      CHILD_CHECK(lib.get_cp("utf8") == -1);
      CHILD_CHECK(lib.Unload());
      CHILD_CHECK(vrkalloc_live(VRKALLOC_FAMILY_P) == 0);
      return 0;
    });
  }
}

}  // namespace
