// Opening the files of the checksum subcommands as virtual files: real files
// by path, standard input ("-") read into memory first.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "vrk_standin_ctl.h"

namespace vrkutil {

class InputFile {
 public:
  InputFile() = default;
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  ~InputFile() {
    if (handle_) vrkvfile_close(handle_);
    std::free(stdin_data_);
  }

  // Opens `path` ("-" is standard input); false with a message in
  // error() when it cannot be read.
  bool Open(const char* path) {
    if (std::strcmp(path, "-") == 0) return OpenStdin();
    handle_ = vrkvfile_open_path(path, VRKVFILE_COPY);
    if (!handle_) error_ = "cannot open for reading (missing, not a regular file, or 4 GiB or more)";
    return handle_ != nullptr;
  }

  VFileHandle handle() const { return handle_; }
  const char* error() const { return error_; }

 private:
  bool OpenStdin() {
    size_t size = 0, capacity = 0;
    for (;;) {
      if (size == capacity) {
        capacity = capacity ? capacity * 2 : 65536;
        if (capacity > 0xFFFFFFFEu) return Refuse("standard input is 4 GiB or more");
        auto* grown = static_cast<uint8_t*>(std::realloc(stdin_data_, capacity));
        if (!grown) return Refuse("out of memory reading standard input");
        stdin_data_ = grown;
      }
      const ssize_t n = read(0, stdin_data_ + size, capacity - size);
      if (n < 0) return Refuse("cannot read standard input");
      if (n == 0) break;
      size += size_t(n);
    }
    handle_ = vrkvfile_open_memory(stdin_data_ ? stdin_data_ : reinterpret_cast<const uint8_t*>(""),
                                   uint32_t(size), VRKVFILE_IN_MEMORY);
    return handle_ ? true : Refuse("cannot open standard input");
  }
  bool Refuse(const char* message) {
    error_ = message;
    return false;
  }

  VFileHandle handle_ = nullptr;
  uint8_t* stdin_data_ = nullptr;
  const char* error_ = "";
};

}  // namespace vrkutil
