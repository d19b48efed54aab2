// Helpers for the OS utility tests: folder chains of an exact path length,
// empty files and guarded buffers.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "support/temp_dir.h"

namespace osutil_test {

using ScratchDir = vrk::test::TempDir;

// Creates folders below `base` until one's path is exactly `length`
// characters long; returns it, or "" when mkdir failed.
inline std::string MakeDirOfLength(std::string path, size_t length) {
  while (path.size() < length) {
    // Never leave a remainder of one, which cannot hold "/" and a name.
    const size_t room = length - path.size() - 1;
    size_t n = std::min<size_t>(room, 200);
    if (room - n == 1) --n;
    path += '/' + std::string(n, 'd');
    if (mkdir(path.c_str(), 0700) != 0) return "";
  }
  return path.size() == length ? path : "";
}

inline bool Touch(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  return fd >= 0 && close(fd) == 0;
}

// N bytes under test and a guard zone after them, all 0xAA at the start, so
// that writes past the size and writes at all both show.
template <size_t N>
struct Guarded {
  char bytes[N + 64];
  Guarded() { Fill(); }
  void Fill() { std::fill(std::begin(bytes), std::end(bytes), char(0xAA)); }
  char* get() { return bytes; }
  // True when nothing from byte `from` on was written.
  bool Untouched(size_t from = 0) const {
    return std::all_of(bytes + from, std::end(bytes), [](char c) { return c == char(0xAA); });
  }
  bool GuardIntact() const { return Untouched(N); }
};

}  // namespace osutil_test
