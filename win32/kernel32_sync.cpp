// KERNEL32.dll: critical sections, TLS indexes, interlocked operations,
// events, mutexes, semaphores and waits.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "win32/context.h"
#include "win32/handles.h"
#include "win32/natives.h"

namespace vrk::win32::kernel32 {
namespace {

constexpr DWORD kTlsOutOfIndexes = 0xFFFFFFFF;
constexpr DWORD kDuplicateCloseSource = 1;
const HANDLE kCurrentProcess = reinterpret_cast<HANDLE>(~uintptr_t(0));
const HANDLE kCurrentThread = reinterpret_cast<HANDLE>(~uintptr_t(1));

// CRITICAL_SECTION as guest code allocates it (24 bytes). The lock itself
// is a futex word in LockSemaphore: 0 free, 1 held, 2 held with waiters;
// the other fields keep the meaning Windows gives them.
struct CriticalSection {
  uint32_t debug_info;
  int32_t lock_count;
  int32_t recursion_count;
  uint32_t owning_thread;
  uint32_t lock_semaphore;
  uint32_t spin_count;
};
static_assert(sizeof(CriticalSection) == 24);

long Futex(uint32_t* word, int op, uint32_t value) {
  return syscall(SYS_futex, word, op, value, nullptr, nullptr, 0);
}

void LockWord(uint32_t* word) {
  std::atomic_ref<uint32_t> w(*word);
  uint32_t expected = 0;
  if (w.compare_exchange_strong(expected, 1, std::memory_order_acquire)) return;
  if (expected != 2) expected = w.exchange(2, std::memory_order_acquire);
  while (expected != 0) {
    Futex(word, FUTEX_WAIT_PRIVATE, 2);
    expected = w.exchange(2, std::memory_order_acquire);
  }
}

bool TryLockWord(uint32_t* word) {
  uint32_t expected = 0;
  return std::atomic_ref<uint32_t>(*word).compare_exchange_strong(expected, 1, std::memory_order_acquire);
}

void UnlockWord(uint32_t* word) {
  if (std::atomic_ref<uint32_t>(*word).exchange(0, std::memory_order_release) == 2) {
    Futex(word, FUTEX_WAKE_PRIVATE, 1);
  }
}

CriticalSection* Section(void* p) { return static_cast<CriticalSection*>(p); }

HANDLE NewObject(HandleKind kind, void (*fill)(KernelObject&, int32_t, int32_t), int32_t a, int32_t b) {
  auto object = std::make_shared<KernelObject>();
  object->kind = kind;
  fill(*object, a, b);
  return Ctx().handles().Add(std::move(object));
}

}  // namespace

void VRKW32_WINAPI InitializeCriticalSection(void* section) { (void)InitializeCriticalSectionAndSpinCount(section, 0); }

BOOL VRKW32_WINAPI InitializeCriticalSectionAndSpinCount(void* section, DWORD spin) {
  *Section(section) = CriticalSection{0xFFFFFFFF, -1, 0, 0, 0, spin};
  return kTrue;
}

BOOL VRKW32_WINAPI InitializeCriticalSectionEx(void* section, DWORD spin, DWORD) {
  return InitializeCriticalSectionAndSpinCount(section, spin);
}

// Nothing was allocated for it.
void VRKW32_WINAPI DeleteCriticalSection(void*) {}

void VRKW32_WINAPI EnterCriticalSection(void* section) {
  CriticalSection* cs = Section(section);
  const uint32_t me = uint32_t(Thread().tid);
  if (std::atomic_ref<uint32_t>(cs->owning_thread).load(std::memory_order_relaxed) == me) {
    ++cs->recursion_count;
    return;
  }
  LockWord(&cs->lock_semaphore);
  std::atomic_ref<uint32_t>(cs->owning_thread).store(me, std::memory_order_relaxed);
  cs->recursion_count = 1;
  cs->lock_count = 0;
}

BOOL VRKW32_WINAPI TryEnterCriticalSection(void* section) {
  CriticalSection* cs = Section(section);
  const uint32_t me = uint32_t(Thread().tid);
  if (std::atomic_ref<uint32_t>(cs->owning_thread).load(std::memory_order_relaxed) == me) {
    ++cs->recursion_count;
    return kTrue;
  }
  if (!TryLockWord(&cs->lock_semaphore)) return kFalse;
  std::atomic_ref<uint32_t>(cs->owning_thread).store(me, std::memory_order_relaxed);
  cs->recursion_count = 1;
  cs->lock_count = 0;
  return kTrue;
}

void VRKW32_WINAPI LeaveCriticalSection(void* section) {
  CriticalSection* cs = Section(section);
  if (cs->owning_thread != uint32_t(Thread().tid) || cs->recursion_count <= 0) return;
  if (--cs->recursion_count > 0) return;
  std::atomic_ref<uint32_t>(cs->owning_thread).store(0, std::memory_order_relaxed);
  cs->lock_count = -1;
  UnlockWord(&cs->lock_semaphore);
}

DWORD VRKW32_WINAPI TlsAlloc() {
  const DWORD index = Ctx().TlsAlloc();
  if (index == kTlsOutOfIndexes) SetLastError(kErrorNotEnoughMemory);
  return index;
}

BOOL VRKW32_WINAPI TlsFree(DWORD index) {
  if (Ctx().TlsFree(index)) return kTrue;
  SetLastError(kErrorInvalidParameter);
  return kFalse;
}

LPVOID VRKW32_WINAPI TlsGetValue(DWORD index) {
  if (!Ctx().TlsValid(index)) {
    SetLastError(kErrorInvalidParameter);
    return nullptr;
  }
  // Success clears the last error: callers tell a stored null from a
  // failure that way.
  SetLastError(kErrorSuccess);
  return reinterpret_cast<LPVOID>(uintptr_t(*Ctx().TlsSlot(Thread(), index)));
}

BOOL VRKW32_WINAPI TlsSetValue(DWORD index, LPVOID value) {
  uint32_t* slot = Ctx().TlsValid(index) ? Ctx().TlsSlot(Thread(), index) : nullptr;
  if (!slot) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  *slot = AddressOf(value);
  return kTrue;
}

LONG VRKW32_WINAPI InterlockedIncrement(LONG volatile* value) { return __atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST); }
LONG VRKW32_WINAPI InterlockedDecrement(LONG volatile* value) { return __atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST); }
LONG VRKW32_WINAPI InterlockedExchange(LONG volatile* target, LONG value) {
  return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
LONG VRKW32_WINAPI InterlockedExchangeAdd(LONG volatile* target, LONG value) {
  return __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST);
}
LONG VRKW32_WINAPI InterlockedCompareExchange(LONG volatile* target, LONG value, LONG comparand) {
  __atomic_compare_exchange_n(target, &comparand, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return comparand;
}

// Names are not shared between calls: each create makes a new object.
HANDLE VRKW32_WINAPI CreateEventA(void*, BOOL manual_reset, BOOL initial, LPCSTR) {
  return NewObject(
      HandleKind::kEvent,
      [](KernelObject& o, int32_t manual, int32_t set) {
        o.manual_reset = manual != 0;
        o.signaled = set != 0;
      },
      manual_reset, initial);
}

HANDLE VRKW32_WINAPI CreateEventW(void* security, BOOL manual_reset, BOOL initial, LPCWSTR) {
  return CreateEventA(security, manual_reset, initial, nullptr);
}

BOOL VRKW32_WINAPI SetEvent(HANDLE event) { return Ctx().handles().SetEvent(event, true) ? kTrue : kFalse; }
BOOL VRKW32_WINAPI ResetEvent(HANDLE event) { return Ctx().handles().SetEvent(event, false) ? kTrue : kFalse; }

HANDLE VRKW32_WINAPI CreateMutexA(void*, BOOL owned, LPCSTR) {
  return NewObject(
      HandleKind::kMutex,
      [](KernelObject& o, int32_t own, int32_t tid) {
        o.owner = own ? tid : 0;
        o.recursion = own ? 1 : 0;
      },
      owned, Thread().tid);
}

HANDLE VRKW32_WINAPI CreateMutexW(void* security, BOOL owned, LPCWSTR) {
  return CreateMutexA(security, owned, nullptr);
}

BOOL VRKW32_WINAPI ReleaseMutex(HANDLE mutex) { return Ctx().handles().ReleaseMutex(mutex) ? kTrue : kFalse; }

HANDLE VRKW32_WINAPI CreateSemaphoreA(void*, LONG initial, LONG maximum, LPCSTR) {
  if (maximum <= 0 || initial < 0 || initial > maximum) {
    SetLastError(kErrorInvalidParameter);
    return nullptr;
  }
  return NewObject(
      HandleKind::kSemaphore,
      [](KernelObject& o, int32_t count, int32_t most) {
        o.count = count;
        o.maximum = most;
      },
      initial, maximum);
}

HANDLE VRKW32_WINAPI CreateSemaphoreW(void* security, LONG initial, LONG maximum, LPCWSTR) {
  return CreateSemaphoreA(security, initial, maximum, nullptr);
}

BOOL VRKW32_WINAPI ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* previous) {
  if (Ctx().handles().ReleaseSemaphore(semaphore, count, previous)) return kTrue;
  SetLastError(kErrorInvalidParameter);
  return kFalse;
}

DWORD VRKW32_WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
  const DWORD result = Ctx().handles().Wait(handles, count, all != 0, milliseconds);
  if (result == kWaitFailed) SetLastError(kErrorInvalidHandle);
  return result;
}

DWORD VRKW32_WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
  return WaitForMultipleObjects(1, &handle, kTrue, milliseconds);
}

DWORD VRKW32_WINAPI WaitForSingleObjectEx(HANDLE handle, DWORD milliseconds, BOOL) {
  return WaitForSingleObject(handle, milliseconds);
}

BOOL VRKW32_WINAPI CloseHandle(HANDLE handle) {
  if (handle == kCurrentProcess || handle == kCurrentThread) return kTrue;
  if (Ctx().handles().Close(handle)) return kTrue;
  SetLastError(kErrorInvalidHandle);
  return kFalse;
}

BOOL VRKW32_WINAPI DuplicateHandle(HANDLE, HANDLE source, HANDLE, HANDLE* target, DWORD, BOOL, DWORD options) {
  HANDLE copy = nullptr;
  if (source == kCurrentThread) {
    // A real handle for the running thread, which stays unsignaled.
    copy = NewObject(HandleKind::kThread, [](KernelObject&, int32_t, int32_t) {}, 0, 0);
  } else if (source == kCurrentProcess) {
    copy = kCurrentProcess;
  } else {
    copy = Ctx().handles().Duplicate(source);
    if (copy && (options & kDuplicateCloseSource)) (void)Ctx().handles().Close(source);
  }
  if (!copy) {
    SetLastError(kErrorInvalidHandle);
    return kFalse;
  }
  if (target) *target = copy;
  return kTrue;
}

}  // namespace vrk::win32::kernel32
