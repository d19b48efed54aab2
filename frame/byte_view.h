// Bounds-checked views of untrusted bytes (file contents, caller buffers).
// A range is checked once, in subtract form so that hostile offsets and
// lengths cannot wrap around, and only then is data copied out.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace vrk {

class ByteView {
 public:
  constexpr ByteView() = default;
  constexpr ByteView(const uint8_t* data, uint32_t size) : data_(data), size_(size) {}

  constexpr const uint8_t* data() const { return data_; }
  constexpr uint32_t size() const { return size_; }
  constexpr bool empty() const { return size_ == 0; }

  // True when [offset, offset + length) lies inside the view.
  constexpr bool Has(uint32_t offset, uint32_t length) const {
    return offset <= size_ && length <= size_ - offset;
  }

  // Copies a T from `offset`; false, leaving `out` alone, when out of range.
  template <class T>
  bool Read(uint32_t offset, T& out) const {
    static_assert(std::is_trivially_copyable_v<T>);
    if (!Has(offset, sizeof(T))) return false;
    std::memcpy(&out, data_ + offset, sizeof(T));
    return true;
  }

  // The sub-range, or an empty view when it does not lie inside.
  constexpr ByteView Sub(uint32_t offset, uint32_t length) const {
    return Has(offset, length) ? ByteView(data_ + offset, length) : ByteView();
  }

  // Everything from `offset` on (empty when past the end).
  constexpr ByteView From(uint32_t offset) const {
    return offset <= size_ ? ByteView(data_ + offset, size_ - offset) : ByteView();
  }

  constexpr uint8_t operator[](uint32_t i) const { return data_[i]; }

 private:
  const uint8_t* data_ = nullptr;
  uint32_t size_ = 0;
};

// A read position over a ByteView; reads advance only when they succeed.
class ByteCursor {
 public:
  constexpr explicit ByteCursor(ByteView view) : view_(view) {}

  constexpr uint32_t position() const { return pos_; }
  constexpr uint32_t remaining() const { return view_.size() - pos_; }
  constexpr bool AtEnd() const { return pos_ == view_.size(); }

  template <class T>
  bool Read(T& out) {
    if (!view_.Read(pos_, out)) return false;
    pos_ += sizeof(T);
    return true;
  }

  constexpr bool Skip(uint32_t n) {
    if (n > remaining()) return false;
    pos_ += n;
    return true;
  }

 private:
  ByteView view_;
  uint32_t pos_ = 0;
};

}  // namespace vrk
