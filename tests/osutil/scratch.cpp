// Scratch directories and folder chains for the OS utility tests.
#include "scratch.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace osutil_test {

ScratchDir::ScratchDir() {
  char name[] = "/tmp/vrkosutil.XXXXXX";
  if (mkdtemp(name)) path_ = name;
}

ScratchDir::~ScratchDir() {
  if (path_.empty()) return;
  nftw(
      path_.c_str(),
      [](const char* p, const struct stat*, int, struct FTW*) { return std::remove(p); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

std::string MakeDirOfLength(const std::string& base, size_t length) {
  std::string path = base;
  while (path.size() < length) {
    // Each step adds "/" and a name of at most 200 characters; never leave a
    // remainder of one, which could not hold "/" and a name.
    const size_t room = length - path.size() - 1;
    size_t n = std::min<size_t>(room, 200);
    if (room - n == 1) --n;
    path += '/';
    path.append(n, 'd');
    if (mkdir(path.c_str(), 0700) != 0) return "";
  }
  return path.size() == length ? path : "";
}

bool Touch(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return false;
  close(fd);
  return true;
}

}  // namespace osutil_test
