// KERNEL32.dll: heaps over the allocator library, and virtual memory.
#include <sys/mman.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <cstring>

#include "win32/context.h"
#include "win32/natives.h"

namespace vrk::win32::kernel32 {
namespace {

constexpr DWORD kHeapZeroMemory = 0x08;
constexpr DWORD kHeapReallocInPlaceOnly = 0x10;
constexpr UINT kMemZeroInit = 0x40;  // LMEM_ZEROINIT and GMEM_ZEROINIT

constexpr DWORD kMemCommit = 0x1000;
constexpr DWORD kMemReserve = 0x2000;
constexpr DWORD kMemDecommit = 0x4000;
constexpr DWORD kMemRelease = 0x8000;
constexpr DWORD kMemFree = 0x10000;
constexpr DWORD kMemPrivate = 0x20000;
constexpr DWORD kMemImage = 0x1000000;
constexpr DWORD kPageNoAccess = 0x01;
constexpr DWORD kPageReadWrite = 0x04;
constexpr DWORD kPageExecuteReadWrite = 0x40;
constexpr DWORD kPageExecuteWriteCopy = 0x80;
constexpr uint32_t kPage = 4096;
constexpr uint32_t kGranularity = 0x10000;

struct MemoryBasicInformation {
  uint32_t base_address, allocation_base;
  DWORD allocation_protect;
  uint32_t region_size;
  DWORD state, protect, type;
};
static_assert(sizeof(MemoryBasicInformation) == 28);

Heap* HeapOf(HANDLE handle) {
  auto* heap = static_cast<Heap*>(handle);
  return Ctx().heaps().Valid(heap) ? heap : nullptr;
}

int HostProtection(DWORD protect) {
  switch (protect & 0xFF) {
    case 0x01: return PROT_NONE;
    case 0x02: return PROT_READ;
    case 0x04: case 0x08: return PROT_READ | PROT_WRITE;
    case 0x10: return PROT_EXEC;
    case 0x20: return PROT_READ | PROT_EXEC;
    default: return PROT_READ | PROT_WRITE | PROT_EXEC;
  }
}

// The VirtualAlloc region holding `address`, or null (regions_mutex held).
VirtualRegion* RegionAt(uint32_t address) {
  for (VirtualRegion& r : Ctx().regions()) {
    if (address >= r.base && address - r.base < r.size) return &r;
  }
  return nullptr;
}

// 0 when rounding would pass 4 GiB.
uint32_t RoundUp(uint32_t value, uint32_t unit) {
  return value > UINT32_MAX - (unit - 1) ? 0 : (value + unit - 1) & ~(unit - 1);
}

}  // namespace

HANDLE VRKW32_WINAPI GetProcessHeap() { return &Ctx().process_heap(); }

HANDLE VRKW32_WINAPI HeapCreate(DWORD, SIZE_T, SIZE_T) {
  Heap* heap = Ctx().heaps().Create();
  if (!heap) SetLastError(kErrorNotEnoughMemory);
  return heap;
}

BOOL VRKW32_WINAPI HeapDestroy(HANDLE heap) {
  if (!Ctx().heaps().Destroy(static_cast<Heap*>(heap))) {
    SetLastError(kErrorInvalidHandle);
    return kFalse;
  }
  return kTrue;
}

LPVOID VRKW32_WINAPI HeapAlloc(HANDLE handle, DWORD flags, SIZE_T size) {
  Heap* heap = HeapOf(handle);
  void* block = heap ? heap->Alloc(size, flags & kHeapZeroMemory) : nullptr;
  if (!block) SetLastError(kErrorNotEnoughMemory);
  return block;
}

LPVOID VRKW32_WINAPI HeapReAlloc(HANDLE handle, DWORD flags, LPVOID block, SIZE_T size) {
  Heap* heap = HeapOf(handle);
  if (!heap || !block) {
    SetLastError(kErrorInvalidParameter);
    return nullptr;
  }
  if (flags & kHeapReallocInPlaceOnly) {
    // A block never grows in place here; shrinking keeps it where it is.
    if (size <= heap->Size(block)) return block;
    SetLastError(kErrorNotEnoughMemory);
    return nullptr;
  }
  void* grown = heap->ReAlloc(block, size, flags & kHeapZeroMemory);
  if (!grown) SetLastError(kErrorNotEnoughMemory);
  return grown;
}

BOOL VRKW32_WINAPI HeapFree(HANDLE handle, DWORD, LPVOID block) {
  if (!block) return kTrue;
  // A block freed through another heap of the process than its own still
  // goes back to its own.
  Heap* heap = HeapOf(handle);
  if (!heap || !heap->Owns(block)) heap = Ctx().heaps().Find(block);
  if (!heap || !heap->Free(block)) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  return kTrue;
}

SIZE_T VRKW32_WINAPI HeapSize(HANDLE handle, DWORD, LPCVOID block) {
  Heap* heap = HeapOf(handle);
  return heap ? heap->Size(block) : 0xFFFFFFFF;
}

// Moveable blocks are fixed here: the handle is the block itself, which is
// what LocalLock gives back for them anyway.
HANDLE VRKW32_WINAPI LocalAlloc(UINT flags, SIZE_T size) {
  void* block = Ctx().process_heap().Alloc(size, flags & kMemZeroInit);
  if (!block) SetLastError(kErrorNotEnoughMemory);
  return block;
}

HANDLE VRKW32_WINAPI LocalFree(HANDLE block) {
  if (!block || Ctx().process_heap().Free(block)) return nullptr;
  SetLastError(kErrorInvalidHandle);
  return block;
}

HANDLE VRKW32_WINAPI GlobalAlloc(UINT flags, SIZE_T size) { return LocalAlloc(flags, size); }
HANDLE VRKW32_WINAPI GlobalFree(HANDLE block) { return LocalFree(block); }

LPVOID VRKW32_WINAPI VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protect) {
  if (size == 0 || !(type & (kMemCommit | kMemReserve))) {
    SetLastError(kErrorInvalidParameter);
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(Ctx().regions_mutex());
  const int prot = type & kMemCommit ? HostProtection(protect) : PROT_NONE;
  if (address) {
    // Committing pages of a region reserved before.
    const uint32_t start = AddressOf(address) & ~(kPage - 1);
    VirtualRegion* r = RegionAt(start);
    const uint32_t length = RoundUp(AddressOf(address) - start + size, kPage);
    if (!r || length == 0 || length > r->size - (start - r->base)) {
      SetLastError(kErrorInvalidParameter);
      return nullptr;
    }
    if (mprotect(reinterpret_cast<void*>(uintptr_t(start)), length, prot) != 0) {
      SetLastError(kErrorInvalidParameter);
      return nullptr;
    }
    r->protect = protect;
    return reinterpret_cast<void*>(uintptr_t(start));
  }
  const uint32_t length = RoundUp(size, kGranularity);
  void* p = length ? mmap(nullptr, length, prot, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0) : MAP_FAILED;
  if (p == MAP_FAILED) {
    SetLastError(kErrorNotEnoughMemory);
    return nullptr;
  }
  Ctx().regions().push_back({AddressOf(p), length, type & kMemCommit ? protect : kPageNoAccess});
  return p;
}

BOOL VRKW32_WINAPI VirtualFree(LPVOID address, SIZE_T size, DWORD type) {
  std::lock_guard<std::mutex> lock(Ctx().regions_mutex());
  VirtualRegion* r = RegionAt(AddressOf(address));
  if (!r) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  if (type & kMemRelease) {
    if (AddressOf(address) != r->base || size != 0) {
      SetLastError(kErrorInvalidParameter);
      return kFalse;
    }
    munmap(address, r->size);
    auto& regions = Ctx().regions();
    regions.erase(regions.begin() + (r - regions.data()));
    return kTrue;
  }
  if (type & kMemDecommit) {
    const uint32_t start = AddressOf(address) & ~(kPage - 1);
    const uint32_t length = size ? RoundUp(AddressOf(address) - start + size, kPage) : r->size - (start - r->base);
    if (length == 0 || length > r->size - (start - r->base)) return kFalse;
    mprotect(reinterpret_cast<void*>(uintptr_t(start)), length, PROT_NONE);
    madvise(reinterpret_cast<void*>(uintptr_t(start)), length, MADV_DONTNEED);
    return kTrue;
  }
  SetLastError(kErrorInvalidParameter);
  return kFalse;
}

BOOL VRKW32_WINAPI VirtualProtect(LPVOID address, SIZE_T size, DWORD protect, DWORD* old) {
  if (!old) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  // Module images are writable and executable throughout (the allocator's
  // PcallocX block), so start-up code that unprotects its own pages to patch
  // them needs nothing changed.
  if (Ctx().ModuleAt(AddressOf(address))) {
    *old = kPageExecuteReadWrite;
    return kTrue;
  }
  std::lock_guard<std::mutex> lock(Ctx().regions_mutex());
  if (VirtualRegion* r = RegionAt(AddressOf(address))) {
    const uint32_t start = AddressOf(address) & ~(kPage - 1);
    const uint32_t length = RoundUp(AddressOf(address) - start + size, kPage);
    if (length == 0 || length > r->size - (start - r->base) ||
        mprotect(reinterpret_cast<void*>(uintptr_t(start)), length, HostProtection(protect)) != 0) {
      SetLastError(kErrorInvalidParameter);
      return kFalse;
    }
    *old = r->protect;
    r->protect = protect;
    return kTrue;
  }
  // Heap, stack and static data: readable and writable, left as they are.
  *old = kPageReadWrite;
  return kTrue;
}

SIZE_T VRKW32_WINAPI VirtualQuery(LPCVOID address, void* info, SIZE_T size) {
  if (size < sizeof(MemoryBasicInformation)) {
    SetLastError(kErrorInsufficientBuffer);
    return 0;
  }
  const uint32_t at = AddressOf(address);
  const uint32_t page = at & ~(kPage - 1);
  MemoryBasicInformation mbi{page, page, kPageReadWrite, kPage, kMemCommit, kPageReadWrite, kMemPrivate};
  if (const PELOAD_MODULE* m = Ctx().ModuleAt(at)) {
    const auto* image = static_cast<const PELOAD_IMAGE*>(m->handle);
    const uint32_t base = AddressOf(image->image);
    mbi = {page, base, kPageExecuteWriteCopy, base + image->size - page, kMemCommit, kPageExecuteReadWrite, kMemImage};
  } else {
    std::lock_guard<std::mutex> lock(Ctx().regions_mutex());
    if (const VirtualRegion* r = RegionAt(at)) {
      mbi = {page, r->base, r->protect, r->base + r->size - page, kMemCommit, r->protect, kMemPrivate};
    } else if (at < kGranularity) {
      mbi = {page, 0, 0, kGranularity - page, kMemFree, kPageNoAccess, 0};
    }
  }
  std::memcpy(info, &mbi, sizeof mbi);
  return sizeof mbi;
}

void VRKW32_WINAPI GlobalMemoryStatus(void* status) {
  struct sysinfo si{};
  (void)sysinfo(&si);
  const uint64_t unit = si.mem_unit ? si.mem_unit : 1;
  const auto clamp = [](uint64_t v) { return DWORD(std::min<uint64_t>(v, 0x7FFFFFFF)); };
  const DWORD total = clamp(uint64_t(si.totalram) * unit), avail = clamp(uint64_t(si.freeram) * unit);
  const DWORD fields[8] = {32, total ? DWORD(100 - uint64_t(avail) * 100 / total) : 0, total, avail, total, avail,
                           0x7FFE0000, 0x7FFE0000};
  std::memcpy(status, fields, sizeof fields);
}

}  // namespace vrk::win32::kernel32
