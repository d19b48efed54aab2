// A scratch folder for a test, removed with everything in it at the end.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

namespace vrk::test {

class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/vrktest.XXXXXX";
    if (mkdtemp(name)) path_ = name;
  }
  ~TempDir() {
    auto remove = [](const char* p, const struct stat*, int, struct FTW*) { return std::remove(p); };
    if (!path_.empty()) nftw(path_.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

  // Writes `bytes` to the file `name` (created or truncated); its path.
  std::string Write(std::string_view name, std::string_view bytes) const {
    const std::string p = *this / name;
    const int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      (void)!write(fd, bytes.data(), bytes.size());
      close(fd);
    }
    return p;
  }
  std::string MakeDir(std::string_view name) const {
    const std::string p = *this / name;
    mkdir(p.c_str(), 0700);
    return p;
  }
  void Link(const std::string& target, std::string_view name) const {
    (void)!symlink(target.c_str(), (*this / name).c_str());
  }

 private:
  std::string path_;
};

}  // namespace vrk::test
