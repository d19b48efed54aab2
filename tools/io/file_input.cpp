// Reading files for the tools (see file_input.h).
#include "file_input.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vrkvfile.h"

namespace vrktool {

std::string ErrnoMessage(int error_number) {
  if (error_number == EFBIG) return "file is 4 GiB or larger, more than virtual files can address";
  return std::strerror(error_number);
}

bool VFile::Open(const char* path, int mode, size_t limit) {
  Close();
  if (std::strcmp(path, "-") == 0) {
    if (!ReadWholeFile(path, stdin_bytes_, error_, limit)) return false;
    static const uint8_t kNothing = 0;
    handle_ = vrkvfile_open_memory(stdin_bytes_.empty() ? &kNothing : stdin_bytes_.data(),
                                   static_cast<uint32_t>(stdin_bytes_.size()), mode);
    if (!handle_) error_ = "cannot open standard input as a virtual file";
    return handle_ != nullptr;
  }
  errno = 0;
  handle_ = vrkvfile_open_path(path, mode);
  if (!handle_) error_ = ErrnoMessage(errno != 0 ? errno : EIO);
  return handle_ != nullptr;
}

void VFile::Close() {
  if (handle_) vrkvfile_close(handle_);
  handle_ = nullptr;
}

bool InputStream::Open(const char* path) {
  stdin_ = std::strcmp(path, "-") == 0;
  total_ = 0;
  if (stdin_) return true;
  if (!file_.Open(path)) return false;
  length_ = VFilelength(file_.handle());
  return true;
}

bool InputStream::Read(void* buffer, uint32_t size, uint32_t& got) {
  got = 0;
  if (stdin_) {
    for (;;) {
      const ssize_t n = read(STDIN_FILENO, buffer, size);
      if (n >= 0) {
        got = static_cast<uint32_t>(n);
        break;
      }
      if (errno != EINTR) {
        error_ = ErrnoMessage(errno);
        return false;
      }
    }
  } else {
    got = VRead(buffer, 1, size, file_.handle());
    // A virtual file knows its length: ending short of it is a read error.
    if (got == 0 && total_ < length_) {
      error_ = "read error after " + std::to_string(total_) + " bytes";
      return false;
    }
  }
  total_ += got;
  return true;
}

bool ReadWholeFile(const char* path, std::vector<uint8_t>& out, std::string& error, size_t limit) {
  out.clear();
  InputStream in;
  if (!in.Open(path)) {
    error = in.error();
    return false;
  }
  uint8_t chunk[65536];
  for (;;) {
    uint32_t got = 0;
    if (!in.Read(chunk, sizeof chunk, got)) {
      error = in.error();
      return false;
    }
    if (got == 0) return true;
    if (got > limit - out.size()) {
      error = "larger than the limit of " + std::to_string(limit) + " bytes";
      return false;
    }
    out.insert(out.end(), chunk, chunk + got);
  }
}

}  // namespace vrktool
