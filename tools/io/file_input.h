// How the tools read files: a virtual file opened by path (the way the
// product's scanners hand files to the library), a stream that is either
// such a file or standard input, and a whole-file reader. Every failure
// comes with the system's reason, ready for a one-line message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vrk_standin_ctl.h"

namespace vrktool {

// The reason an open or read of `path` failed, from errno (EFBIG explained
// in the interface's terms).
std::string ErrnoMessage(int error_number);

// Holder of a virtual file opened by path; closes it when destroyed.
class VFile {
 public:
  VFile() = default;
  VFile(const VFile&) = delete;
  VFile& operator=(const VFile&) = delete;
  ~VFile() { Close(); }

  // Opens `path`; false with the reason in error() when it cannot be read.
  // "-" is standard input, read whole into memory first (at most `limit`
  // bytes), for the callers that need to seek.
  [[nodiscard]] bool Open(const char* path, int mode = VRKVFILE_COPY, size_t limit = kStdinLimit);

  static constexpr size_t kStdinLimit = size_t{1} << 30;
  void Close();
  VFileHandle handle() const { return handle_; }
  const std::string& error() const { return error_; }

 private:
  VFileHandle handle_ = nullptr;
  std::vector<uint8_t> stdin_bytes_;
  std::string error_;
};

// Bytes in order from a file ("-": standard input, read as it comes, never
// held whole).
class InputStream {
 public:
  // Opens `path`; false with the reason in error().
  [[nodiscard]] bool Open(const char* path);
  // Reads up to `size` bytes into `buffer`: the count, 0 at the end; false
  // with the reason in error() on a read error.
  [[nodiscard]] bool Read(void* buffer, uint32_t size, uint32_t& got);
  bool is_stdin() const { return stdin_; }
  // The virtual file, or nullptr for standard input.
  VFileHandle handle() const { return file_.handle(); }
  uint64_t total() const { return total_; }
  const std::string& error() const { return stdin_ ? error_ : file_.error(); }

 private:
  VFile file_;
  bool stdin_ = false;
  uint32_t length_ = 0;
  uint64_t total_ = 0;
  std::string error_;
};

// Reads the whole of `path` ("-": standard input) into `out`, refusing
// inputs of more than `limit` bytes; false with the reason in `error`.
[[nodiscard]] bool ReadWholeFile(const char* path, std::vector<uint8_t>& out, std::string& error,
                                 size_t limit = size_t{1} << 30);

}  // namespace vrktool
