// Kernel object handles of one context: files over POSIX descriptors, and
// events, mutexes and semaphores, with the waits on them. Handle values are
// small multiples of 4 as on Windows; the pseudo-handles of the current
// process (-1) and thread (-2) are not in the table.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "win32/wintypes.h"

namespace vrk::win32 {

enum class HandleKind : uint8_t { kFile, kEvent, kMutex, kSemaphore, kThread };

struct KernelObject {
  HandleKind kind = HandleKind::kFile;
  // kFile: the descriptor, and whether closing the last handle closes it
  // (not for the standard streams).
  int fd = -1;
  bool owns_fd = true;
  // Waitable objects; their state is guarded by the table's mutex.
  bool signaled = false;
  bool manual_reset = false;  // events
  pid_t owner = 0;            // mutexes: owning thread and its recursion
  uint32_t recursion = 0;
  int32_t count = 0;  // semaphores
  int32_t maximum = 0;
  ~KernelObject();
};

inline constexpr DWORD kWaitObject0 = 0;
inline constexpr DWORD kWaitTimeout = 258;
inline constexpr DWORD kWaitFailed = 0xFFFFFFFF;
inline constexpr DWORD kInfinite = 0xFFFFFFFF;

class HandleTable {
 public:
  HANDLE Add(std::shared_ptr<KernelObject> object);
  // The object behind a handle when it is of `kind`, else null.
  std::shared_ptr<KernelObject> Get(HANDLE handle, HandleKind kind);
  std::shared_ptr<KernelObject> GetAny(HANDLE handle);
  bool Close(HANDLE handle);
  HANDLE Duplicate(HANDLE handle);
  // The handle of a standard stream (0, 1, 2), made on first use.
  HANDLE Standard(int fd);

  // WaitForMultipleObjects over events, mutexes and semaphores.
  DWORD Wait(const HANDLE* handles, DWORD count, bool all, DWORD milliseconds);
  bool SetEvent(HANDLE handle, bool signaled);
  bool ReleaseMutex(HANDLE handle);
  bool ReleaseSemaphore(HANDLE handle, int32_t count, int32_t* previous);

 private:
  bool Ready(const KernelObject& object, pid_t tid) const;
  void Take(KernelObject& object, pid_t tid);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::shared_ptr<KernelObject>> slots_;
  HANDLE standard_[3] = {};
};

}  // namespace vrk::win32
