// Owning holders of allocator blocks: the memory a family builds up is held
// here until it is handed to the caller (release()) or given back (Pfree or
// PfreeX) when the holder goes out of scope, so no failure path leaks.
#pragma once

#include <cstdint>
#include <utility>

#include "vrkalloc.h"

namespace vrk {

// One block from Pmalloc, Pcalloc or Prealloc, viewed as an array of T.
// The callers make the allocation calls themselves with the exact arguments
// their contract fixes, and adopt the result.
template <class T = uint8_t>
class Block {
 public:
  Block() = default;
  explicit Block(void* p) : p_(static_cast<T*>(p)) {}
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  Block(Block&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  Block& operator=(Block&& other) noexcept {
    if (this != &other) Reset(other.release());
    return *this;
  }
  ~Block() { Reset(); }

  // Pmalloc(bytes, 0): unspecified contents; empty holder when refused.
  static Block Malloc(uint32_t bytes) { return Block(Pmalloc(bytes, 0)); }
  // Pcalloc(count, size, 0): zero-filled; empty holder when refused.
  static Block Calloc(uint32_t count, uint32_t size) { return Block(Pcalloc(count, size, 0)); }

  T* get() const { return p_; }
  T& operator[](uint32_t i) const { return p_[i]; }
  explicit operator bool() const { return p_ != nullptr; }

  // Hands the block to the caller, who now owns it.
  [[nodiscard]] T* release() { return std::exchange(p_, nullptr); }

  void Reset(T* p = nullptr) {
    if (p_) Pfree(p_);
    p_ = p;
  }

  // Resizes to `bytes` through Prealloc. When refused, the old block stays
  // held unchanged and false is returned.
  [[nodiscard]] bool Grow(uint32_t bytes) {
    void* grown = Prealloc(p_, bytes);
    if (!grown) return false;
    p_ = static_cast<T*>(grown);
    return true;
  }

 private:
  T* p_ = nullptr;
};

// One block from PcallocX (executable module images), released with PfreeX.
class ExecBlock {
 public:
  ExecBlock() = default;
  explicit ExecBlock(void* p) : p_(static_cast<uint8_t*>(p)) {}
  ExecBlock(const ExecBlock&) = delete;
  ExecBlock& operator=(const ExecBlock&) = delete;
  ExecBlock(ExecBlock&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  ExecBlock& operator=(ExecBlock&& other) noexcept {
    if (this != &other) {
      Reset();
      p_ = other.release();
    }
    return *this;
  }
  ~ExecBlock() { Reset(); }

  uint8_t* get() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }
  [[nodiscard]] uint8_t* release() { return std::exchange(p_, nullptr); }
  void Reset() {
    if (p_) PfreeX(std::exchange(p_, nullptr));
  }

 private:
  uint8_t* p_ = nullptr;
};

}  // namespace vrk
