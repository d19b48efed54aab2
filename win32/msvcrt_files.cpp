// msvcrt.dll: file status, directories and searches with wildcards, over
// POSIX. Records have msvcrt.dll's layouts (32-bit times except in the
// "64" forms); modes use its bits (_S_IFDIR 0x4000, _S_IFREG 0x8000, read
// 0x100, write 0x80, execute 0x40 repeated for group and others).
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "win32/context.h"
#include "win32/handles.h"
#include "win32/natives.h"
#include "win32/text.h"

namespace vrk::win32::msvcrt {
namespace {

uint16_t CrtMode(mode_t mode) {
  uint16_t out = S_ISDIR(mode) ? 0x4000 : S_ISCHR(mode) ? 0x2000 : S_ISFIFO(mode) ? 0x1000 : 0x8000;
  uint16_t user = 0x100;  // readable
  if (mode & S_IWUSR) user |= 0x80;
  if (mode & S_IXUSR || S_ISDIR(mode)) user |= 0x40;
  return uint16_t(out | user | user >> 3 | user >> 6);
}

// The three layouts: _stat (36 bytes), _stati64 (48), _stat64 (56). They
// share the fields up to st_rdev at 16.
enum class StatForm { k32, kI64, k64 };

int Fill(const struct stat64& st, void* out, StatForm form) {
  uint8_t record[56] = {};
  const uint32_t dev = uint32_t(st.st_dev), rdev = uint32_t(st.st_rdev);
  const uint16_t ino = uint16_t(st.st_ino), mode = CrtMode(st.st_mode);
  const int16_t links = int16_t(st.st_nlink);
  std::memcpy(record, &dev, 4);
  std::memcpy(record + 4, &ino, 2);
  std::memcpy(record + 6, &mode, 2);
  std::memcpy(record + 8, &links, 2);
  std::memcpy(record + 16, &rdev, 4);
  if (form == StatForm::k32) {
    const int32_t fields[4] = {int32_t(st.st_size), int32_t(st.st_atime), int32_t(st.st_mtime), int32_t(st.st_ctime)};
    std::memcpy(record + 20, fields, sizeof fields);
    std::memcpy(out, record, 36);
  } else if (form == StatForm::kI64) {
    const int64_t size = st.st_size;
    const int32_t times[3] = {int32_t(st.st_atime), int32_t(st.st_mtime), int32_t(st.st_ctime)};
    std::memcpy(record + 24, &size, 8);
    std::memcpy(record + 32, times, sizeof times);
    std::memcpy(out, record, 48);
  } else {
    const int64_t fields[4] = {st.st_size, st.st_atime, st.st_mtime, st.st_ctime};
    std::memcpy(record + 24, fields, sizeof fields);
    std::memcpy(out, record, 56);
  }
  return 0;
}

int FailErrno() {
  SetCrtErrno(errno);
  return -1;
}

int StatFd(int fd, void* out, StatForm form) {
  struct stat64 st;
  return fstat64(fd, &st) == 0 ? Fill(st, out, form) : FailErrno();
}

int StatPath(LPCSTR path, void* out, StatForm form) {
  struct stat64 st;
  return path && stat64(HostPath(path).c_str(), &st) == 0 ? Fill(st, out, form) : FailErrno();
}

// A directory search of _findfirst: the folder, the pattern of names, and
// the entries not handed out yet.
struct Search {
  std::string dir;
  std::string pattern;
  std::vector<std::string> names;
  size_t next = 0;
};
std::mutex g_search_mutex;
std::vector<std::unique_ptr<Search>> g_searches;

// _finddata_t and _wfinddata_t of msvcrt.dll: attrib, three 32-bit times,
// a 32-bit size, then 260 characters of name.
bool NextMatch(Search& s, bool wide, void* out) {
  while (s.next < s.names.size()) {
    const std::string name = s.names[s.next++];
    struct stat64 st;
    if (stat64((s.dir + "/" + name).c_str(), &st) != 0) continue;
    uint32_t header[5] = {S_ISDIR(st.st_mode) ? 0x10u : 0x20u, uint32_t(st.st_mtime), uint32_t(st.st_atime),
                          uint32_t(st.st_mtime), uint32_t(st.st_size)};
    if (!(st.st_mode & S_IWUSR)) header[0] |= 0x01;
    std::memcpy(out, header, sizeof header);
    auto* text = static_cast<uint8_t*>(out) + sizeof header;
    if (wide) {
      std::u16string w = Widen(name).substr(0, 259);
      std::memset(text, 0, 520);
      std::memcpy(text, w.data(), 2 * w.size());
    } else {
      std::memset(text, 0, 260);
      std::memcpy(text, name.data(), std::min<size_t>(name.size(), 259));
    }
    return true;
  }
  return false;
}

LONG_PTR FindFirst(const std::string& windows_pattern, bool wide, void* out) {
  const std::string pattern = HostPath(windows_pattern);
  const size_t slash = pattern.rfind('/');
  auto s = std::make_unique<Search>();
  s->dir = slash == std::string::npos ? "." : slash == 0 ? "/" : pattern.substr(0, slash);
  s->pattern = slash == std::string::npos ? pattern : pattern.substr(slash + 1);
  if (s->pattern == "*.*") s->pattern = "*";  // every name, with or without a dot
  DIR* d = opendir(s->dir.c_str());
  if (!d) return FailErrno();
  while (const dirent* e = readdir(d)) {
    if (fnmatch(s->pattern.c_str(), e->d_name, FNM_CASEFOLD) == 0) s->names.push_back(e->d_name);
  }
  closedir(d);
  if (!NextMatch(*s, wide, out)) {
    SetCrtErrno(ENOENT);
    return -1;
  }
  std::lock_guard<std::mutex> lock(g_search_mutex);
  g_searches.push_back(std::move(s));
  return LONG_PTR(AddressOf(g_searches.back().get()));
}

Search* SearchOf(LONG_PTR handle) {
  std::lock_guard<std::mutex> lock(g_search_mutex);
  for (const auto& s : g_searches) {
    if (LONG_PTR(AddressOf(s.get())) == handle) return s.get();
  }
  return nullptr;
}

}  // namespace

int VRKW32_CDECL _fstat(int fd, void* out) { return StatFd(fd, out, StatForm::k32); }
int VRKW32_CDECL _fstati64(int fd, void* out) { return StatFd(fd, out, StatForm::kI64); }
int VRKW32_CDECL _fstat64(int fd, void* out) { return StatFd(fd, out, StatForm::k64); }
int VRKW32_CDECL _stat(LPCSTR path, void* out) { return StatPath(path, out, StatForm::k32); }
int VRKW32_CDECL _stati64(LPCSTR path, void* out) { return StatPath(path, out, StatForm::kI64); }
int VRKW32_CDECL _stat64(LPCSTR path, void* out) { return StatPath(path, out, StatForm::k64); }
int VRKW32_CDECL _wstat64(LPCWSTR path, void* out) {
  return path ? StatPath(Narrow(path).c_str(), out, StatForm::k64) : (SetCrtErrno(EINVAL), -1);
}

LONGLONG VRKW32_CDECL _filelengthi64(int fd) {
  struct stat64 st;
  return fstat64(fd, &st) == 0 ? st.st_size : FailErrno();
}

LONG VRKW32_CDECL _filelength(int fd) {
  const LONGLONG n = _filelengthi64(fd);
  return n > 0x7FFFFFFF ? (SetCrtErrno(EINVAL), -1) : LONG(n);
}

// A file handle sharing the descriptor, which stays the descriptor's.
LONG_PTR VRKW32_CDECL _get_osfhandle(int fd) {
  if (fcntl(fd, F_GETFD) < 0) {
    SetCrtErrno(EBADF);
    return -1;
  }
  if (fd <= 2) return LONG_PTR(AddressOf(Ctx().handles().Standard(fd)));
  auto object = std::make_shared<KernelObject>();
  object->fd = fd;
  object->owns_fd = false;
  return LONG_PTR(AddressOf(Ctx().handles().Add(std::move(object))));
}

int VRKW32_CDECL _open_osfhandle(LONG_PTR handle, int) {
  auto object = Ctx().handles().Get(reinterpret_cast<HANDLE>(handle), HandleKind::kFile);
  if (!object) {
    SetCrtErrno(EBADF);
    return -1;
  }
  return _dup(object->fd);
}

LPSTR VRKW32_CDECL _getcwd(LPSTR buffer, int size) {
  char cwd[PATH_MAX];
  if (!getcwd(cwd, sizeof cwd)) {
    SetCrtErrno(errno);
    return nullptr;
  }
  const std::string path = WindowsPath(cwd);
  if (!buffer) {
    buffer = static_cast<LPSTR>(malloc(std::max<size_t>(path.size() + 1, size_t(size > 0 ? size : 0))));
    if (!buffer) return nullptr;
  } else if (size <= 0 || path.size() >= size_t(size)) {
    SetCrtErrno(ERANGE);
    return nullptr;
  }
  std::memcpy(buffer, path.c_str(), path.size() + 1);
  return buffer;
}

LPWSTR VRKW32_CDECL _wgetcwd(LPWSTR buffer, int size) {
  char cwd[PATH_MAX];
  if (!getcwd(cwd, sizeof cwd)) {
    SetCrtErrno(errno);
    return nullptr;
  }
  const std::u16string path = Widen(WindowsPath(cwd));
  if (!buffer) {
    buffer = static_cast<LPWSTR>(malloc(2 * std::max<size_t>(path.size() + 1, size_t(size > 0 ? size : 0))));
    if (!buffer) return nullptr;
  } else if (size <= 0 || path.size() >= size_t(size)) {
    SetCrtErrno(ERANGE);
    return nullptr;
  }
  std::memcpy(buffer, path.c_str(), 2 * (path.size() + 1));
  return buffer;
}

int VRKW32_CDECL _chdir(LPCSTR path) { return path && chdir(HostPath(path).c_str()) == 0 ? 0 : FailErrno(); }
int VRKW32_CDECL _wchdir(LPCWSTR path) { return path ? _chdir(Narrow(path).c_str()) : FailErrno(); }
int VRKW32_CDECL _mkdir(LPCSTR path) { return path && mkdir(HostPath(path).c_str(), 0777) == 0 ? 0 : FailErrno(); }
int VRKW32_CDECL _wmkdir(LPCWSTR path) { return path ? _mkdir(Narrow(path).c_str()) : FailErrno(); }
int VRKW32_CDECL _rmdir(LPCSTR path) { return path && rmdir(HostPath(path).c_str()) == 0 ? 0 : FailErrno(); }

// Only the write permission exists on Windows: 0x80 (_S_IWRITE) or not.
int VRKW32_CDECL _chmod(LPCSTR path, int mode) {
  struct stat st;
  const std::string host = HostPath(path ? path : "");
  if (stat(host.c_str(), &st) != 0) return FailErrno();
  const mode_t writable = (mode & 0x80) ? (st.st_mode | S_IWUSR) : (st.st_mode & ~mode_t(S_IWUSR | S_IWGRP | S_IWOTH));
  return chmod(host.c_str(), writable & 07777) == 0 ? 0 : FailErrno();
}

int VRKW32_CDECL _wchmod(LPCWSTR path, int mode) { return path ? _chmod(Narrow(path).c_str(), mode) : FailErrno(); }

int VRKW32_CDECL _umask(int mask) {
  // _S_IWRITE in the mask takes write permission away from new files.
  const mode_t previous = umask(mask & 0x80 ? 0222 : 0);
  return previous & 0222 ? 0x80 : 0;
}

// _utimbuf of msvcrt.dll: access and modification times, 32-bit each.
int VRKW32_CDECL _wutime(LPCWSTR path, void* times) {
  if (!path) return FailErrno();
  utimbuf host{};
  if (times) {
    int32_t t[2];
    std::memcpy(t, times, sizeof t);
    host.actime = t[0];
    host.modtime = t[1];
  }
  return utime(HostPath(Narrow(path)).c_str(), times ? &host : nullptr) == 0 ? 0 : FailErrno();
}

LPWSTR VRKW32_CDECL _wfullpath(LPWSTR buffer, LPCWSTR path, size_t size) {
  if (!path) return nullptr;
  const std::string host = HostPath(Narrow(path));
  char resolved[PATH_MAX];
  std::string full;
  if (realpath(host.c_str(), resolved)) {
    full = resolved;
  } else {
    char cwd[PATH_MAX];
    full = host[0] == '/' ? host : std::string(getcwd(cwd, sizeof cwd) ? cwd : "") + "/" + host;
  }
  const std::u16string wide = Widen(WindowsPath(full));
  if (!buffer) {
    buffer = static_cast<LPWSTR>(malloc(2 * (wide.size() + 1)));
    if (!buffer) return nullptr;
  } else if (wide.size() >= size) {
    SetCrtErrno(ERANGE);
    return nullptr;
  }
  std::memcpy(buffer, wide.c_str(), 2 * (wide.size() + 1));
  return buffer;
}

LONG_PTR VRKW32_CDECL _findfirst(LPCSTR pattern, void* out) { return pattern ? FindFirst(pattern, false, out) : -1; }
LONG_PTR VRKW32_CDECL _wfindfirst(LPCWSTR pattern, void* out) {
  return pattern ? FindFirst(Narrow(pattern), true, out) : -1;
}

int VRKW32_CDECL _findnext(LONG_PTR search, void* out) {
  Search* s = SearchOf(search);
  if (s && NextMatch(*s, false, out)) return 0;
  SetCrtErrno(ENOENT);
  return -1;
}

int VRKW32_CDECL _wfindnext(LONG_PTR search, void* out) {
  Search* s = SearchOf(search);
  if (s && NextMatch(*s, true, out)) return 0;
  SetCrtErrno(ENOENT);
  return -1;
}

int VRKW32_CDECL _findclose(LONG_PTR search) {
  std::lock_guard<std::mutex> lock(g_search_mutex);
  for (auto it = g_searches.begin(); it != g_searches.end(); ++it) {
    if (LONG_PTR(AddressOf(it->get())) == search) {
      g_searches.erase(it);
      return 0;
    }
  }
  return -1;
}

}  // namespace vrk::win32::msvcrt
