// Handle table and waits.
#include "win32/handles.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>

namespace vrk::win32 {
namespace {

uint32_t IndexOf(HANDLE handle) { return uint32_t(reinterpret_cast<uintptr_t>(handle)) / 4 - 1; }

pid_t Tid() { return pid_t(syscall(SYS_gettid)); }

}  // namespace

KernelObject::~KernelObject() {
  if (kind == HandleKind::kFile && owns_fd && fd >= 0) close(fd);
}

HANDLE HandleTable::Add(std::shared_ptr<KernelObject> object) {
  std::lock_guard<std::mutex> lock(mutex_);
  uint32_t i = 0;
  while (i < slots_.size() && slots_[i]) ++i;
  if (i == slots_.size()) slots_.push_back(nullptr);
  slots_[i] = std::move(object);
  return reinterpret_cast<HANDLE>(uintptr_t(i + 1) * 4);
}

std::shared_ptr<KernelObject> HandleTable::GetAny(HANDLE handle) {
  const uintptr_t value = reinterpret_cast<uintptr_t>(handle);
  if (value == 0 || value % 4 != 0) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  const uint32_t i = IndexOf(handle);
  return i < slots_.size() ? slots_[i] : nullptr;
}

std::shared_ptr<KernelObject> HandleTable::Get(HANDLE handle, HandleKind kind) {
  auto object = GetAny(handle);
  return object && object->kind == kind ? object : nullptr;
}

bool HandleTable::Close(HANDLE handle) {
  std::shared_ptr<KernelObject> last;  // released outside the lock
  std::lock_guard<std::mutex> lock(mutex_);
  const uintptr_t value = reinterpret_cast<uintptr_t>(handle);
  if (value == 0 || value % 4 != 0) return false;
  const uint32_t i = IndexOf(handle);
  if (i >= slots_.size() || !slots_[i]) return false;
  last = std::move(slots_[i]);
  for (HANDLE& h : standard_) {
    if (h == handle) h = nullptr;
  }
  return true;
}

HANDLE HandleTable::Duplicate(HANDLE handle) {
  auto object = GetAny(handle);
  return object ? Add(object) : nullptr;
}

HANDLE HandleTable::Standard(int fd) {
  if (fd < 0 || fd > 2) return nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (standard_[fd]) return standard_[fd];
  }
  auto object = std::make_shared<KernelObject>();
  object->fd = fd;
  object->owns_fd = false;
  HANDLE h = Add(object);
  std::lock_guard<std::mutex> lock(mutex_);
  standard_[fd] = h;
  return h;
}

bool HandleTable::Ready(const KernelObject& object, pid_t tid) const {
  switch (object.kind) {
    case HandleKind::kEvent:
    case HandleKind::kThread: return object.signaled;
    case HandleKind::kMutex: return object.recursion == 0 || object.owner == tid;
    case HandleKind::kSemaphore: return object.count > 0;
    default: return false;
  }
}

void HandleTable::Take(KernelObject& object, pid_t tid) {
  switch (object.kind) {
    case HandleKind::kEvent:
      if (!object.manual_reset) object.signaled = false;
      break;
    case HandleKind::kMutex:
      object.owner = tid;
      ++object.recursion;
      break;
    case HandleKind::kSemaphore:
      --object.count;
      break;
    default:
      break;
  }
}

DWORD HandleTable::Wait(const HANDLE* handles, DWORD count, bool all, DWORD milliseconds) {
  if (count == 0 || count > 64) return kWaitFailed;
  std::vector<std::shared_ptr<KernelObject>> objects;
  for (DWORD i = 0; i < count; ++i) {
    auto object = GetAny(handles[i]);
    if (!object || object->kind == HandleKind::kFile) return kWaitFailed;
    objects.push_back(std::move(object));
  }
  const pid_t tid = Tid();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  std::unique_lock<std::mutex> lock(mutex_);
  auto satisfied = [&](DWORD& result) {
    if (all) {
      for (const auto& o : objects) {
        if (!Ready(*o, tid)) return false;
      }
      for (const auto& o : objects) Take(*o, tid);
      result = kWaitObject0;
      return true;
    }
    for (DWORD i = 0; i < count; ++i) {
      if (Ready(*objects[i], tid)) {
        Take(*objects[i], tid);
        result = kWaitObject0 + i;
        return true;
      }
    }
    return false;
  };
  DWORD result = kWaitTimeout;
  for (;;) {
    if (satisfied(result) || milliseconds == 0) return result;
    if (milliseconds == kInfinite) {
      changed_.wait(lock);
    } else if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) {
      (void)satisfied(result);
      return result;
    }
  }
}

bool HandleTable::SetEvent(HANDLE handle, bool signaled) {
  auto object = Get(handle, HandleKind::kEvent);
  if (!object) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  object->signaled = signaled;
  changed_.notify_all();
  return true;
}

bool HandleTable::ReleaseMutex(HANDLE handle) {
  auto object = Get(handle, HandleKind::kMutex);
  if (!object) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  if (object->recursion == 0 || object->owner != Tid()) return false;
  if (--object->recursion == 0) object->owner = 0;
  changed_.notify_all();
  return true;
}

bool HandleTable::ReleaseSemaphore(HANDLE handle, int32_t count, int32_t* previous) {
  auto object = Get(handle, HandleKind::kSemaphore);
  if (!object || count <= 0) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  if (count > object->maximum - object->count) return false;
  if (previous) *previous = object->count;
  object->count += count;
  changed_.notify_all();
  return true;
}

}  // namespace vrk::win32
