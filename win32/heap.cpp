// Windows heaps as linked lists of allocator blocks.
#include "win32/heap.h"

#include <algorithm>
#include <cstring>

#include "vrkalloc.h"

namespace vrk::win32 {

// 16 bytes, so that the block behind it keeps the allocator's alignment.
struct Heap::Header {
  Header* prev;
  Header* next;
  uint32_t size;
  Heap* owner;
};


namespace {
constexpr uint32_t kHeaderSize = 16;  // sizeof(Heap::Header) on i386
}  // namespace

Heap::Header* Heap::HeaderOf(const void* block) const {
  if (!block) return nullptr;
  auto* h = reinterpret_cast<Header*>(const_cast<uint8_t*>(static_cast<const uint8_t*>(block)) - kHeaderSize);
  return h->owner == this ? h : nullptr;
}

void Heap::Link(Header* h) {
  h->prev = nullptr;
  h->next = head_;
  if (head_) head_->prev = h;
  head_ = h;
}

void Heap::Unlink(Header* h) {
  if (h->prev) h->prev->next = h->next;
  else head_ = h->next;
  if (h->next) h->next->prev = h->prev;
}

void* Heap::Alloc(uint32_t size, bool zero) {
  static_assert(sizeof(Header) == kHeaderSize);
  if (size > UINT32_MAX - kHeaderSize) return nullptr;
  auto* h = static_cast<Header*>(zero ? Pcalloc(1, size + kHeaderSize, 0) : Pmalloc(size + kHeaderSize, 0));
  if (!h) return nullptr;
  h->size = size;
  h->owner = this;
  std::lock_guard<std::mutex> lock(mutex_);
  Link(h);
  return h + 1;
}

void* Heap::ReAlloc(void* block, uint32_t size, bool zero_growth) {
  if (!block) return Alloc(size, zero_growth);
  if (size > UINT32_MAX - kHeaderSize) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  Header* h = HeaderOf(block);
  if (!h) return nullptr;
  const uint32_t old_size = h->size;
  // The block may move: out of the list while the allocator has it.
  Unlink(h);
  auto* grown = static_cast<Header*>(Prealloc(h, size + kHeaderSize));
  if (!grown) {
    Link(h);
    return nullptr;
  }
  grown->size = size;
  Link(grown);
  if (zero_growth && size > old_size) std::memset(reinterpret_cast<uint8_t*>(grown + 1) + old_size, 0, size - old_size);
  return grown + 1;
}

bool Heap::Free(void* block) {
  std::lock_guard<std::mutex> lock(mutex_);
  Header* h = HeaderOf(block);
  if (!h) return false;
  Unlink(h);
  h->owner = nullptr;  // a second free of the block is refused, not followed
  Pfree(h);
  return true;
}

uint32_t Heap::Size(const void* block) {
  std::lock_guard<std::mutex> lock(mutex_);
  const Header* h = HeaderOf(block);
  return h ? h->size : UINT32_MAX;
}

bool Heap::Owns(const void* block) {
  std::lock_guard<std::mutex> lock(mutex_);
  return HeaderOf(block) != nullptr;
}

void Heap::FreeAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  while (head_) {
    Header* h = head_;
    head_ = h->next;
    h->owner = nullptr;
    Pfree(h);
  }
}

Heap* HeapSet::Create() {
  std::lock_guard<std::mutex> lock(mutex_);
  heaps_.push_back(std::make_unique<Heap>());
  return heaps_.back().get();
}

bool HeapSet::Destroy(Heap* heap) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find_if(heaps_.begin(), heaps_.end(), [heap](const auto& h) { return h.get() == heap; });
  // The first heap is the process heap, which is never destroyed.
  if (it == heaps_.end() || it == heaps_.begin()) return false;
  heaps_.erase(it);
  return true;
}

Heap* HeapSet::Find(const void* block) {
  if (!block) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& h : heaps_) {
    if (h->Owns(block)) return h.get();
  }
  return nullptr;
}

bool HeapSet::Valid(const Heap* heap) {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::any_of(heaps_.begin(), heaps_.end(), [heap](const auto& h) { return h.get() == heap; });
}

void HeapSet::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  heaps_.clear();
}

}  // namespace vrk::win32
