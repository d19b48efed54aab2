// Scratch directories for the OS utility tests: a fresh folder per test,
// removed with everything in it afterwards, and chains of folders built up
// to an exact path length.
#pragma once

#include <cstddef>
#include <string>

namespace osutil_test {

class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Creates folders below `base` until one exists whose path is exactly
// `length` characters long, and returns that path ("" when mkdir failed).
std::string MakeDirOfLength(const std::string& base, size_t length);

// Creates (or truncates) a regular file; false when it cannot.
bool Touch(const std::string& path);

// Buffers with a guard zone after the size under test: every test byte and
// the guard start as 0xAA, so writes past the size and writes at all both
// show.
template <size_t N>
struct Guarded {
  static constexpr size_t kGuard = 64;
  char bytes[N + kGuard];
  Guarded() { Fill(); }
  void Fill() {
    for (char& c : bytes) c = char(0xAA);
  }
  char* get() { return bytes; }
  bool Untouched() const { return Untouched(0); }
  // True when nothing from byte `from` on was written.
  bool Untouched(size_t from) const {
    for (size_t i = from; i < sizeof bytes; ++i) {
      if (bytes[i] != char(0xAA)) return false;
    }
    return true;
  }
  bool GuardIntact() const { return Untouched(N); }
};

}  // namespace osutil_test
