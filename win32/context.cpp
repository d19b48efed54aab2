// Contexts: per-process state, thread blocks and TLS indexes.
#include "win32/context.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "win32/handles.h"

namespace vrk::win32 {
namespace {

// What GetVersionEx answers to a program without a compatibility manifest
// on current Windows: 6.2, build 9200.
constexpr uint32_t kOsMajor = 6;
constexpr uint32_t kOsMinor = 2;
constexpr uint16_t kOsBuild = 9200;
constexpr uint32_t kPlatformNt = 2;

template <class T>
T* MapZeroed() {
  void* p = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : static_cast<T*>(p);
}

// The PEB page, with the loader data in a page of its own behind it.
struct PebBlock {
  Peb peb;
  PebLdrData ldr;
  uint8_t unused[0x1000 - sizeof(PebLdrData)];
};

void EmptyList(ListEntry& list) {
  list.flink = list.blink = AddressOf(&list);
}

// The stack of the calling thread, for the TEB's stack limits.
void StackOf(uint32_t& base, uint32_t& limit) {
  pthread_attr_t attr;
  void* low = nullptr;
  size_t size = 0;
  base = limit = 0;
  if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
  if (pthread_attr_getstack(&attr, &low, &size) == 0) {
    limit = AddressOf(low);
    base = limit + uint32_t(size);
  }
  pthread_attr_destroy(&attr);
}

// Each host thread's number for the life of the process. Thread ids are
// reused once a thread has ended; a new thread must not inherit the TEB (TLS
// values, last error) of an ended one.
std::atomic<uint64_t> g_thread_serials{0};
thread_local const uint64_t t_thread_serial = ++g_thread_serials;

}  // namespace

Context::Context(MODLOAD_PROCESS* process, VRKW32_OPEN_FN open, VRKW32_CLOSE_FN close)
    : process_(process), open_(open), close_(close), handles_(std::make_unique<HandleTable>()) {
  auto* block = MapZeroed<PebBlock>();
  heap_ = heaps_.Create();
  if (!block) return;
  peb_ = &block->peb;
  block->ldr.length = sizeof(PebLdrData);
  block->ldr.initialized = 1;
  EmptyList(block->ldr.in_load_order);
  EmptyList(block->ldr.in_memory_order);
  EmptyList(block->ldr.in_initialization_order);
  peb_->ldr = AddressOf(&block->ldr);
  peb_->process_heap = AddressOf(heap_);
  const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
  peb_->number_of_processors = cpus > 0 ? uint32_t(cpus) : 1;
  peb_->os_major_version = kOsMajor;
  peb_->os_minor_version = kOsMinor;
  peb_->os_build_number = kOsBuild;
  peb_->os_platform_id = kPlatformNt;
}

Context::~Context() {
  ReleaseCrtFiles(this);
  for (auto& thread : threads_) {
    thread->fs.Destroy();
    munmap(thread->teb, sizeof(Teb));
  }
  threads_.clear();
  handles_.reset();
  heaps_.Clear();
  for (const VirtualRegion& r : regions_) munmap(reinterpret_cast<void*>(uintptr_t(r.base)), r.size);
  for (LoadedModule& m : modules_) {
    if (m.file && close_) close_(m.file);
  }
  if (peb_) munmap(peb_, sizeof(PebBlock));
}

GuestThread* Context::ThreadForCaller() {
  const uint64_t serial = t_thread_serial;
  std::lock_guard<std::mutex> lock(threads_mutex_);
  for (const auto& t : threads_) {
    if (t->serial == serial) return t.get();
  }
  auto thread = std::make_unique<GuestThread>();
  thread->context = this;
  thread->serial = serial;
  thread->tid = pid_t(syscall(SYS_gettid));
  thread->teb = MapZeroed<Teb>();
  if (!thread->teb) return nullptr;
  Teb& teb = *thread->teb;
  teb.exception_list = 0xFFFFFFFF;  // no SEH frame registered
  StackOf(teb.stack_base, teb.stack_limit);
  teb.self = AddressOf(&teb);
  teb.process_id = uint32_t(getpid());
  teb.thread_id = uint32_t(thread->tid);
  teb.peb = AddressOf(peb_);
  if (!thread->fs.Create(thread->teb)) {
    munmap(thread->teb, sizeof(Teb));
    return nullptr;
  }
  threads_.push_back(std::move(thread));
  return threads_.back().get();
}

DWORD Context::TlsAlloc() {
  std::lock_guard<std::mutex> lock(tls_mutex_);
  for (DWORD i = 0; i < kTlsIndexes; ++i) {
    if (!tls_used_[i]) {
      tls_used_[i] = true;
      return i;
    }
  }
  return 0xFFFFFFFF;  // TLS_OUT_OF_INDEXES
}

bool Context::TlsFree(DWORD index) {
  {
    std::lock_guard<std::mutex> lock(tls_mutex_);
    if (index >= kTlsIndexes || !tls_used_[index]) return false;
    tls_used_[index] = false;
  }
  // A freed index reads as null in every thread when it is handed out again.
  std::lock_guard<std::mutex> lock(threads_mutex_);
  for (const auto& t : threads_) {
    if (index < kTlsSlots) {
      t->teb->tls_slots[index] = 0;
    } else if (t->tls_expansion) {
      t->tls_expansion[index - kTlsSlots] = 0;
    }
  }
  return true;
}

bool Context::TlsValid(DWORD index) {
  std::lock_guard<std::mutex> lock(tls_mutex_);
  return index < kTlsIndexes && tls_used_[index];
}

uint32_t* Context::TlsSlot(GuestThread& thread, DWORD index) {
  if (index < kTlsSlots) return &thread.teb->tls_slots[index];
  if (index >= kTlsIndexes) return nullptr;
  if (!thread.tls_expansion) {
    thread.tls_expansion.reset(new uint32_t[kTlsExpansionSlots]());
    thread.teb->tls_expansion_slots = AddressOf(thread.tls_expansion.get());
  }
  return &thread.tls_expansion[index - kTlsSlots];
}

void Context::AddAtExit(uint32_t function) {
  std::lock_guard<std::mutex> lock(tls_mutex_);
  at_exit_.push_back(function);
}

void Context::RunAtExit() {
  // Last registered, first run; functions may register more while running.
  for (;;) {
    uint32_t function = 0;
    {
      std::lock_guard<std::mutex> lock(tls_mutex_);
      if (at_exit_.empty()) return;
      function = at_exit_.back();
      at_exit_.pop_back();
    }
    (void)CallFromNative(function, nullptr, 0);
  }
}

Context& Ctx() { return *CurrentContext(); }

GuestThread& Thread() { return *CurrentThread(); }

void SetLastError(DWORD code) { Thread().teb->last_error = code; }

}  // namespace vrk::win32
