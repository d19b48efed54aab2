// Stand-in of the product's allocator library: the documented operations
// over the C heap (executable pages for PcallocX), plus fault injection,
// live-block counts and a call log for tests.
#include "vrkalloc.h"
#include "vrk_standin_ctl.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

// Every block carries a small header in front of it so that the stand-in can
// tell its own blocks from anything else (a wrong pointer aborts at once
// instead of corrupting the heap) and knows each block's size and family.
constexpr uint32_t kMagicP = 0x50424c4bu;  // "PBLK"
constexpr uint32_t kMagicX = 0x58424c4bu;  // "XBLK"
constexpr uint32_t kMagicFreed = 0xdeadf7eeu;

struct alignas(16) Header {
  uint32_t magic;
  uint32_t size;
  uint32_t map_size;  // PcallocX: bytes mapped, header page included
  uint32_t pad;
};
static_assert(sizeof(Header) == 16);

struct State {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  // Counters are atomic so that, while no fault is armed and no log is on,
  // allocations take no lock: the stand-in then costs about what the heap
  // does, and benchmarks measure the library rather than the test harness.
  std::atomic<uint32_t> requests{0};
  std::atomic<bool> armed{false};  // a fault or the log is on
  uint32_t fail_nth = 0;     // absolute request number to refuse, 0 none
  uint32_t fail_from = 0;    // absolute request number from which to refuse
  uint32_t fail_bytes = 0;
  bool fail_bytes_on = false;
  bool fail_all = false;
  std::atomic<uint32_t> live[2] = {0, 0};
  bool log_on = false;
  VrkAllocCall *log = nullptr;
  uint32_t log_size = 0;
  uint32_t log_cap = 0;
  int os_type = 3;
  int os_version = 0x2001;
  VrkModuleVersionRecord module{};
};

State g;
char g_null_security_attr[16];

struct Lock {
  Lock() { pthread_mutex_lock(&g.mutex); }
  ~Lock() { pthread_mutex_unlock(&g.mutex); }
};

// Re-derives `armed` after any control change (hold the lock).
void UpdateArmed() {
  g.armed = g.log_on || g.fail_all || g.fail_bytes_on || g.fail_nth != 0 || g.fail_from != 0;
}

void Log(int op, uint32_t a, uint32_t b, uint32_t c, void *block, void *result, bool refused) {
  if (!g.armed.load(std::memory_order_relaxed)) return;
  Lock lock;
  if (!g.log_on) return;
  if (g.log_size == g.log_cap) {
    uint32_t cap = g.log_cap ? g.log_cap * 2 : 256;
    auto *grown = static_cast<VrkAllocCall *>(std::realloc(g.log, cap * sizeof(VrkAllocCall)));
    if (!grown) return;
    g.log = grown;
    g.log_cap = cap;
  }
  g.log[g.log_size++] = VrkAllocCall{op, a, b, c, block, result, refused ? 1 : 0};
}

// Counts one allocation request and decides whether it is refused.
bool Refuse(uint64_t bytes) {
  const uint32_t n = ++g.requests;
  if (!g.armed.load(std::memory_order_relaxed)) return bytes > 0x7fffffffu;
  Lock lock;
  if (g.fail_all) return true;
  if (g.fail_nth != 0 && n == g.fail_nth) return true;
  if (g.fail_from != 0 && n >= g.fail_from) return true;
  if (g.fail_bytes_on && bytes == g.fail_bytes) return true;
  return bytes > 0x7fffffffu;
}

Header *HeaderOf(void *block, uint32_t magic) {
  auto *h = reinterpret_cast<Header *>(static_cast<char *>(block) - sizeof(Header));
  if (h->magic != magic) {
    static const char msg[] = "vrkalloc stand-in: block released through the wrong operation or twice\n";
    (void)!write(2, msg, sizeof msg - 1);
    abort();
  }
  return h;
}

void *NewBlock(uint32_t size, bool zero) {
  void *raw = zero ? std::calloc(1, sizeof(Header) + size) : std::malloc(sizeof(Header) + size);
  if (!raw) return nullptr;
  auto *h = static_cast<Header *>(raw);
  *h = Header{kMagicP, size, 0, 0};
  ++g.live[VRKALLOC_FAMILY_P];
  return h + 1;
}

void FreeBlock(void *block) {
  Header *h = HeaderOf(block, kMagicP);
  h->magic = kMagicFreed;
  --g.live[VRKALLOC_FAMILY_P];
  std::free(h);
}

}  // namespace

extern "C" {

void *Pmalloc(uint32_t size, uint32_t flags) {
  bool refused = Refuse(size);
  void *p = refused ? nullptr : NewBlock(size, false);
  Log(VRKALLOC_PMALLOC, size, flags, 0, nullptr, p, refused);
  return p;
}

void *Pcalloc(uint32_t count, uint32_t size, uint32_t flags) {
  uint64_t bytes = uint64_t(count) * size;
  bool refused = Refuse(bytes);
  void *p = refused ? nullptr : NewBlock(uint32_t(bytes), true);
  Log(VRKALLOC_PCALLOC, count, size, flags, nullptr, p, refused);
  return p;
}

void *Prealloc(void *block, uint32_t size) {
  bool refused = Refuse(size);
  void *p = nullptr;
  if (!refused) {
    if (!block) {
      p = NewBlock(size, false);
    } else {
      Header *h = HeaderOf(block, kMagicP);
      auto *grown = static_cast<Header *>(std::realloc(h, sizeof(Header) + size));
      if (grown) {
        grown->size = size;
        p = grown + 1;
      }
    }
  }
  Log(VRKALLOC_PREALLOC, size, 0, 0, block, p, refused);
  return p;
}

void Pfree(void *block) {
  Log(VRKALLOC_PFREE, 0, 0, 0, block, nullptr, false);
  if (block) FreeBlock(block);
}

void PSafeFree(void **block) {
  Log(VRKALLOC_PSAFEFREE, 0, 0, 0, block ? *block : nullptr, nullptr, false);
  if (block && *block) {
    FreeBlock(*block);
    *block = nullptr;
  }
}

// Module images: whole pages that allow execution, with an inaccessible page
// behind them so that a write past the image faults at once.
void *PcallocX(uint32_t count, uint32_t size, uint32_t flags) {
  uint64_t bytes = uint64_t(count) * size;
  bool refused = Refuse(bytes);
  void *p = nullptr;
  if (!refused) {
    const uint64_t page = uint64_t(sysconf(_SC_PAGESIZE));
    const uint64_t body = (bytes + page - 1) / page * page;
    const uint64_t total = page + body + page;
    if (total <= 0xffffffffu) {
      void *map = mmap(nullptr, size_t(total), PROT_READ | PROT_WRITE | PROT_EXEC,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (map != MAP_FAILED) {
        char *base = static_cast<char *>(map);
        mprotect(base + page + body, size_t(page), PROT_NONE);
        p = base + page;
        *(reinterpret_cast<Header *>(p) - 1) = Header{kMagicX, uint32_t(bytes), uint32_t(total), 0};
        ++g.live[VRKALLOC_FAMILY_X];
      }
    }
  }
  Log(VRKALLOC_PCALLOCX, count, size, flags, nullptr, p, refused);
  return p;
}

void PfreeX(void *block) {
  Log(VRKALLOC_PFREEX, 0, 0, 0, block, nullptr, false);
  if (!block) return;
  Header *h = HeaderOf(block, kMagicX);
  h->magic = kMagicFreed;
  const long page = sysconf(_SC_PAGESIZE);
  --g.live[VRKALLOC_FAMILY_X];
  munmap(static_cast<char *>(block) - page, h->map_size);
}

void SetModuleVersion(int module, int version) {
  {
    Lock lock;
    if (g.module.calls == 0) g.module.requests_before_first = g.requests;
    ++g.module.calls;
    g.module.module = module;
    g.module.version = version;
  }
  Log(VRKALLOC_SETMODULEVERSION, uint32_t(module), uint32_t(version), 0, nullptr, nullptr, false);
}

int GetOSType(void) {
  Lock lock;
  return g.os_type;
}

int GetOSVersion(void) {
  Lock lock;
  return g.os_version;
}

void *GetNULLSecurityAttr(void) { return g_null_security_attr; }

// ---- control interface ----

void vrkalloc_reset(void) {
  Lock lock;
  g.fail_nth = g.fail_from = 0;
  g.fail_bytes_on = g.fail_all = false;
  g.log_on = false;
  g.log_size = 0;
  g.os_type = 3;
  g.os_version = 0x2001;
  UpdateArmed();
}

void vrkalloc_fail_nth(uint32_t n) {
  Lock lock;
  g.fail_nth = n ? g.requests + n : 0;
  UpdateArmed();
}

void vrkalloc_fail_from(uint32_t n) {
  Lock lock;
  g.fail_from = n ? g.requests + n : 0;
  UpdateArmed();
}

void vrkalloc_fail_size(uint32_t bytes, int on) {
  Lock lock;
  g.fail_bytes = bytes;
  g.fail_bytes_on = on != 0;
  UpdateArmed();
}

void vrkalloc_fail_all(int on) {
  Lock lock;
  g.fail_all = on != 0;
  UpdateArmed();
}

uint32_t vrkalloc_requests(void) {
  Lock lock;
  return g.requests;
}

uint32_t vrkalloc_live(int family) {
  Lock lock;
  return (family == VRKALLOC_FAMILY_X) ? g.live[VRKALLOC_FAMILY_X] : g.live[VRKALLOC_FAMILY_P];
}

void vrkalloc_log_enable(int on) {
  Lock lock;
  g.log_on = on != 0;
  if (g.log_on) g.log_size = 0;
  UpdateArmed();
}

uint32_t vrkalloc_log_size(void) {
  Lock lock;
  return g.log_size;
}

const VrkAllocCall *vrkalloc_log_at(uint32_t i) {
  Lock lock;
  return i < g.log_size ? &g.log[i] : nullptr;
}

void vrkalloc_set_os(int type, int version) {
  Lock lock;
  g.os_type = type;
  g.os_version = version;
}

VrkModuleVersionRecord vrkalloc_module_version(void) {
  Lock lock;
  return g.module;
}

}  // extern "C"
