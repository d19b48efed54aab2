// The loaded image as a mutable, bounds-checked span. Every RVA that a module
// states is hostile until checked here: a range is tested once, in subtract
// form so that large offsets cannot wrap, before any byte is read or written.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "pe/format.h"
#include "vrk_pe.h"

namespace vrk::pe {

class ImageSpan {
 public:
  ImageSpan() = default;
  ImageSpan(uint8_t* base, uint32_t size) : base_(base), size_(size) {}

  uint8_t* base() const { return base_; }
  uint32_t size() const { return size_; }
  explicit operator bool() const { return base_ != nullptr; }

  // True when [rva, rva + length) lies inside the image.
  bool Has(uint32_t rva, uint32_t length) const { return rva <= size_ && length <= size_ - rva; }

  template <class T>
  bool Read(uint32_t rva, T& out) const {
    static_assert(std::is_trivially_copyable_v<T>);
    if (!base_ || !Has(rva, sizeof(T))) return false;
    std::memcpy(&out, base_ + rva, sizeof(T));
    return true;
  }

  template <class T>
  bool Write(uint32_t rva, const T& value) const {
    static_assert(std::is_trivially_copyable_v<T>);
    if (!base_ || !Has(rva, sizeof(T))) return false;
    std::memcpy(base_ + rva, &value, sizeof(T));
    return true;
  }

  // Bytes inside the image from `rva` on.
  uint32_t Available(uint32_t rva) const { return base_ && rva <= size_ ? size_ - rva : 0; }

  // Pointer to [rva, rva + length) for bulk reads and writes (file reads
  // into the image, name copies, entry points); null unless it lies inside.
  uint8_t* At(uint32_t rva, uint32_t length) const { return base_ && Has(rva, length) ? base_ + rva : nullptr; }

  // The zero-terminated string at `rva`, or null when it does not end inside
  // the image (a name running off the end is refused, not cut).
  const char* String(uint32_t rva) const {
    if (!base_ || rva >= size_) return nullptr;
    const void* nul = std::memchr(base_ + rva, 0, size_ - rva);
    return nul ? reinterpret_cast<const char*>(base_ + rva) : nullptr;
  }

  // Length of the string at `rva` up to its terminator or the image end.
  uint32_t BoundedLength(uint32_t rva) const {
    if (!base_ || rva >= size_) return 0;
    const void* nul = std::memchr(base_ + rva, 0, size_ - rva);
    return nul ? uint32_t(static_cast<const uint8_t*>(nul) - (base_ + rva)) : size_ - rva;
  }

  // base + rva as the 32-bit address a module sees; no range test, since an
  // address handed out is not read here.
  uint32_t Address(uint32_t rva) const { return uint32_t(reinterpret_cast<uintptr_t>(base_)) + rva; }

  // The NT headers of the image (at e_lfanew); false when they do not lie
  // inside it.
  bool NtHeaders(PE_IMAGE_NT_HEADERS32& nt, uint32_t* offset = nullptr) const {
    uint32_t lfanew = 0;
    if (!Read(kLfanewOffset, lfanew) || !Read(lfanew, nt)) return false;
    if (offset) *offset = lfanew;
    return true;
  }

 private:
  uint8_t* base_ = nullptr;
  uint32_t size_ = 0;
};

}  // namespace vrk::pe
