// Windows heaps over the allocator library. Every block a guest allocates
// (HeapAlloc, LocalAlloc, malloc...) is a Pmalloc block with a small header
// linking it into its heap, so that a heap can be destroyed whole and a
// context's teardown gives back what its DLLs never freed, as the end of a
// Windows process does.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace vrk::win32 {

class Heap {
 public:
  Heap() = default;
  ~Heap() { FreeAll(); }
  Heap(const Heap&) = delete;
  Heap& operator=(const Heap&) = delete;

  // A block of `size` bytes (zero-filled when asked), 16-byte aligned; null
  // when the allocator refuses it.
  void* Alloc(uint32_t size, bool zero);
  // Resizes a block of this heap (null: a new one). Null when refused; the
  // old block then stays valid.
  void* ReAlloc(void* block, uint32_t size, bool zero_growth);
  // Releases a block of this heap; false for anything else.
  bool Free(void* block);
  // The requested size of a block of this heap, or UINT32_MAX.
  uint32_t Size(const void* block);
  bool Owns(const void* block);
  void FreeAll();

 private:
  struct Header;
  Header* HeaderOf(const void* block) const;
  void Link(Header* h);
  void Unlink(Header* h);

  std::mutex mutex_;
  Header* head_ = nullptr;
};

// The heaps of one context: the process heap first, then HeapCreate's.
class HeapSet {
 public:
  Heap* Create();
  bool Destroy(Heap* heap);
  // The heap that owns `block`, or null.
  Heap* Find(const void* block);
  bool Valid(const Heap* heap);
  void Clear();

 private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<Heap>> heaps_;
};

}  // namespace vrk::win32
