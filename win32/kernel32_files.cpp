// KERNEL32.dll: files over POSIX descriptors. Paths go through HostPath, so
// "C:\tmp\a.txt" and "/tmp/a.txt" name the same file.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "win32/context.h"
#include "win32/handles.h"
#include "win32/natives.h"
#include "win32/text.h"

namespace vrk::win32 {

// Windows error codes of POSIX errno values (shared with msvcrt).
DWORD ErrorFromErrno(int number) {
  switch (number) {
    case ENOENT: return kErrorFileNotFound;
    case ENOTDIR: return kErrorPathNotFound;
    case EACCES: case EPERM: case EISDIR: case EROFS: return kErrorAccessDenied;
    case EEXIST: return kErrorFileExists;
    case EMFILE: case ENFILE: return kErrorTooManyOpenFiles;
    case EBADF: return kErrorInvalidHandle;
    case ENOMEM: return kErrorNotEnoughMemory;
    case ENOSPC: return 112;  // ERROR_DISK_FULL
    case ENOTEMPTY: return 145;  // ERROR_DIR_NOT_EMPTY
    default: return kErrorInvalidParameter;
  }
}

namespace kernel32 {
namespace {

constexpr DWORD kGenericRead = 0x80000000, kGenericWrite = 0x40000000, kGenericAll = 0x10000000;
constexpr DWORD kFileReadData = 0x1, kFileWriteData = 0x2, kFileAppendData = 0x4;
constexpr DWORD kCreateNew = 1, kCreateAlways = 2, kOpenExisting = 3, kOpenAlways = 4, kTruncateExisting = 5;
constexpr DWORD kFlagDeleteOnClose = 0x04000000;
constexpr DWORD kAttributeReadOnly = 0x01, kAttributeDirectory = 0x10, kAttributeNormal = 0x80;
constexpr DWORD kInvalidAttributes = 0xFFFFFFFF;
constexpr DWORD kInvalidSetFilePointer = 0xFFFFFFFF;
constexpr DWORD kFileTypeUnknown = 0, kFileTypeDisk = 1, kFileTypeChar = 2, kFileTypePipe = 3;

BOOL Fail(DWORD code) {
  SetLastError(code);
  return kFalse;
}

BOOL FailErrno() { return Fail(ErrorFromErrno(errno)); }

int FdOf(HANDLE handle) {
  auto object = Ctx().handles().Get(handle, HandleKind::kFile);
  return object ? object->fd : -1;
}

std::string FilePath(LPCSTR path) {
  std::string p = HostPath(path ? path : "");
  if (strcasecmp(p.c_str(), "NUL") == 0) return "/dev/null";
  return p;
}

HANDLE Open(const std::string& path, DWORD access, DWORD disposition, DWORD flags) {
  const bool reads = access & (kGenericRead | kGenericAll | kFileReadData);
  const bool writes = access & (kGenericWrite | kGenericAll | kFileWriteData | kFileAppendData);
  int oflags = O_CLOEXEC | (reads && writes ? O_RDWR : writes ? O_WRONLY : O_RDONLY);
  switch (disposition) {
    case kCreateNew: oflags |= O_CREAT | O_EXCL; break;
    case kCreateAlways: oflags |= O_CREAT | O_TRUNC; break;
    case kOpenExisting: break;
    case kOpenAlways: oflags |= O_CREAT; break;
    case kTruncateExisting: oflags |= O_TRUNC; break;
    default: SetLastError(kErrorInvalidParameter); return kInvalidHandle;
  }
  struct stat before;
  const bool existed = stat(path.c_str(), &before) == 0;
  if (existed && S_ISDIR(before.st_mode)) oflags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  const int fd = open(path.c_str(), oflags, 0666);
  if (fd < 0) {
    SetLastError(ErrorFromErrno(errno));
    return kInvalidHandle;
  }
  if (flags & kFlagDeleteOnClose) unlink(path.c_str());
  auto object = std::make_shared<KernelObject>();
  object->fd = fd;
  // Opening over an existing file with these dispositions succeeds and says so.
  SetLastError(existed && (disposition == kCreateAlways || disposition == kOpenAlways) ? kErrorAlreadyExists
                                                                                       : kErrorSuccess);
  return Ctx().handles().Add(std::move(object));
}

DWORD Attributes(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    SetLastError(ErrorFromErrno(errno));
    return kInvalidAttributes;
  }
  DWORD attributes = S_ISDIR(st.st_mode) ? kAttributeDirectory : kAttributeNormal;
  if (!(st.st_mode & S_IWUSR)) attributes |= kAttributeReadOnly;
  return attributes == (kAttributeNormal | kAttributeReadOnly) ? kAttributeReadOnly : attributes;
}

std::string TempPath() {
  const char* dir = std::getenv("TMPDIR");
  std::string path = WindowsPath(dir && *dir ? dir : "/tmp");
  if (path.back() != '\\') path += '\\';
  return path;
}

// An absolute host path with "." and ".." resolved by name (links are not
// followed, as Windows does not either).
std::string FullPath(const std::string& path) {
  std::string whole = path;
  if (whole.empty() || whole[0] != '/') {
    char cwd[PATH_MAX];
    whole = std::string(getcwd(cwd, sizeof cwd) ? cwd : "/") + "/" + whole;
  }
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= whole.size()) {
    size_t end = whole.find('/', start);
    if (end == std::string::npos) end = whole.size();
    const std::string part = whole.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    start = end + 1;
  }
  std::string out;
  for (const std::string& part : parts) out += "/" + part;
  if (out.empty() || (!path.empty() && (path.back() == '/' || path.back() == '\\'))) out += "/";
  return out;
}

void PutTime(uint8_t* at, const timespec& t) {
  const uint64_t value = 116444736000000000ull + uint64_t(t.tv_sec) * 10000000u + uint64_t(t.tv_nsec) / 100u;
  std::memcpy(at, &value, 8);
}

std::string CurrentDirectory() {
  char cwd[PATH_MAX];
  return getcwd(cwd, sizeof cwd) ? WindowsPath(cwd) : "";
}

}  // namespace

HANDLE VRKW32_WINAPI GetStdHandle(DWORD which) {
  // STD_INPUT_HANDLE (-10), STD_OUTPUT_HANDLE (-11), STD_ERROR_HANDLE (-12).
  const int fd = int(uint32_t(-10) - which);
  if (fd < 0 || fd > 2) {
    SetLastError(kErrorInvalidHandle);
    return kInvalidHandle;
  }
  return Ctx().handles().Standard(fd);
}

HANDLE VRKW32_WINAPI CreateFileA(LPCSTR path, DWORD access, DWORD, void*, DWORD disposition, DWORD flags, HANDLE) {
  if (!path) {
    SetLastError(kErrorInvalidParameter);
    return kInvalidHandle;
  }
  return Open(FilePath(path), access, disposition, flags);
}

HANDLE VRKW32_WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD share, void* security, DWORD disposition,
                                 DWORD flags, HANDLE template_file) {
  if (!path) {
    SetLastError(kErrorInvalidParameter);
    return kInvalidHandle;
  }
  return CreateFileA(Narrow(path).c_str(), access, share, security, disposition, flags, template_file);
}

BOOL VRKW32_WINAPI ReadFile(HANDLE file, LPVOID buffer, DWORD size, DWORD* done, void*) {
  const int fd = FdOf(file);
  if (done) *done = 0;
  if (fd < 0) return Fail(kErrorInvalidHandle);
  DWORD total = 0;
  while (total < size) {
    const ssize_t n = read(fd, static_cast<uint8_t*>(buffer) + total, size - total);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return FailErrno();
    if (n == 0) break;
    total += DWORD(n);
  }
  if (done) *done = total;
  return kTrue;
}

BOOL VRKW32_WINAPI WriteFile(HANDLE file, LPCVOID buffer, DWORD size, DWORD* done, void*) {
  const int fd = FdOf(file);
  if (done) *done = 0;
  if (fd < 0) return Fail(kErrorInvalidHandle);
  DWORD total = 0;
  while (total < size) {
    const ssize_t n = write(fd, static_cast<const uint8_t*>(buffer) + total, size - total);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return FailErrno();
    total += DWORD(n);
  }
  if (done) *done = total;
  return kTrue;
}

DWORD VRKW32_WINAPI SetFilePointer(HANDLE file, LONG distance, LONG* distance_high, DWORD method) {
  const int64_t offset = distance_high ? int64_t(uint64_t(uint32_t(*distance_high)) << 32 | uint32_t(distance))
                                       : int64_t(distance);
  LONGLONG position = 0;
  if (!SetFilePointerEx(file, offset, &position, method)) return kInvalidSetFilePointer;
  if (distance_high) *distance_high = LONG(uint64_t(position) >> 32);
  SetLastError(kErrorSuccess);
  return DWORD(uint64_t(position));
}

BOOL VRKW32_WINAPI SetFilePointerEx(HANDLE file, LONGLONG distance, LONGLONG* position, DWORD method) {
  const int fd = FdOf(file);
  if (fd < 0) return Fail(kErrorInvalidHandle);
  if (method > 2) return Fail(kErrorInvalidParameter);
  const off64_t at = lseek64(fd, distance, int(method));  // FILE_BEGIN/CURRENT/END are SEEK_SET/CUR/END
  if (at < 0) return FailErrno();
  if (position) *position = at;
  return kTrue;
}

DWORD VRKW32_WINAPI GetFileSize(HANDLE file, DWORD* high) {
  LONGLONG size = 0;
  if (!GetFileSizeEx(file, &size)) return 0xFFFFFFFF;
  if (high) *high = DWORD(uint64_t(size) >> 32);
  return DWORD(uint64_t(size));
}

BOOL VRKW32_WINAPI GetFileSizeEx(HANDLE file, LONGLONG* size) {
  struct stat64 st;
  const int fd = FdOf(file);
  if (fd < 0) return Fail(kErrorInvalidHandle);
  if (fstat64(fd, &st) != 0) return FailErrno();
  *size = st.st_size;
  return kTrue;
}

DWORD VRKW32_WINAPI GetFileType(HANDLE file) {
  struct stat st;
  const int fd = FdOf(file);
  if (fd < 0 || fstat(fd, &st) != 0) {
    SetLastError(kErrorInvalidHandle);
    return kFileTypeUnknown;
  }
  SetLastError(kErrorSuccess);
  if (S_ISCHR(st.st_mode)) return kFileTypeChar;
  if (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) return kFileTypePipe;
  return kFileTypeDisk;
}

BOOL VRKW32_WINAPI FlushFileBuffers(HANDLE file) {
  const int fd = FdOf(file);
  if (fd < 0) return Fail(kErrorInvalidHandle);
  return fdatasync(fd) == 0 || errno == EINVAL ? kTrue : FailErrno();
}

BOOL VRKW32_WINAPI SetEndOfFile(HANDLE file) {
  const int fd = FdOf(file);
  if (fd < 0) return Fail(kErrorInvalidHandle);
  const off64_t at = lseek64(fd, 0, SEEK_CUR);
  return at >= 0 && ftruncate64(fd, at) == 0 ? kTrue : FailErrno();
}

BOOL VRKW32_WINAPI DeleteFileA(LPCSTR path) { return unlink(FilePath(path).c_str()) == 0 ? kTrue : FailErrno(); }
BOOL VRKW32_WINAPI DeleteFileW(LPCWSTR path) { return DeleteFileA(Narrow(path).c_str()); }
DWORD VRKW32_WINAPI GetFileAttributesA(LPCSTR path) { return Attributes(FilePath(path)); }
DWORD VRKW32_WINAPI GetFileAttributesW(LPCWSTR path) { return Attributes(FilePath(Narrow(path).c_str())); }

BOOL VRKW32_WINAPI CreateDirectoryA(LPCSTR path, void*) {
  if (mkdir(FilePath(path).c_str(), 0777) == 0) return kTrue;
  return errno == EEXIST ? Fail(kErrorAlreadyExists) : FailErrno();
}

BOOL VRKW32_WINAPI CreateDirectoryW(LPCWSTR path, void* security) {
  return CreateDirectoryA(Narrow(path).c_str(), security);
}

BOOL VRKW32_WINAPI RemoveDirectoryA(LPCSTR path) { return rmdir(FilePath(path).c_str()) == 0 ? kTrue : FailErrno(); }
BOOL VRKW32_WINAPI RemoveDirectoryW(LPCWSTR path) { return RemoveDirectoryA(Narrow(path).c_str()); }

DWORD VRKW32_WINAPI GetTempPathA(DWORD size, LPSTR buffer) { return CopyOut(TempPath(), buffer, size); }
DWORD VRKW32_WINAPI GetTempPathW(DWORD size, LPWSTR buffer) { return CopyOut(Widen(TempPath()), buffer, size); }
DWORD VRKW32_WINAPI GetCurrentDirectoryA(DWORD size, LPSTR buffer) { return CopyOut(CurrentDirectory(), buffer, size); }
DWORD VRKW32_WINAPI GetCurrentDirectoryW(DWORD size, LPWSTR buffer) {
  return CopyOut(Widen(CurrentDirectory()), buffer, size);
}

}  // namespace kernel32
}  // namespace vrk::win32

namespace vrk::win32::kernel32 {

// The working directory is the host process's.
BOOL VRKW32_WINAPI SetCurrentDirectoryA(LPCSTR path) {
  return chdir(FilePath(path).c_str()) == 0 ? kTrue : FailErrno();
}
BOOL VRKW32_WINAPI SetCurrentDirectoryW(LPCWSTR path) { return SetCurrentDirectoryA(Narrow(path).c_str()); }

DWORD VRKW32_WINAPI GetFullPathNameA(LPCSTR path, DWORD size, LPSTR buffer, LPSTR* file_part) {
  if (!path || !*path) {
    SetLastError(kErrorInvalidParameter);
    return 0;
  }
  const std::string full = WindowsPath(FullPath(FilePath(path)));
  const DWORD n = CopyOut(full, buffer, size);
  if (n < size && file_part) {
    const size_t slash = full.rfind('\\');
    *file_part = slash + 1 < full.size() ? buffer + slash + 1 : nullptr;
  }
  return n;
}

DWORD VRKW32_WINAPI GetFullPathNameW(LPCWSTR path, DWORD size, LPWSTR buffer, LPWSTR* file_part) {
  if (!path || !*path) {
    SetLastError(kErrorInvalidParameter);
    return 0;
  }
  const std::u16string full = Widen(WindowsPath(FullPath(FilePath(Narrow(path).c_str()))));
  const DWORD n = CopyOut(full, buffer, size);
  if (n < size && file_part) {
    const size_t slash = full.rfind(u'\\');
    *file_part = slash + 1 < full.size() ? buffer + slash + 1 : nullptr;
  }
  return n;
}

BOOL VRKW32_WINAPI CreateHardLinkA(LPCSTR path, LPCSTR existing, void*) {
  return link(FilePath(existing).c_str(), FilePath(path).c_str()) == 0 ? kTrue : FailErrno();
}

BOOL VRKW32_WINAPI CreateHardLinkW(LPCWSTR path, LPCWSTR existing, void* security) {
  return CreateHardLinkA(Narrow(path).c_str(), Narrow(existing).c_str(), security);
}

BOOL VRKW32_WINAPI MoveFileExA(LPCSTR from, LPCSTR to, DWORD flags) {
  constexpr DWORD kReplaceExisting = 1;
  const std::string target = FilePath(to);
  struct stat st;
  if (!(flags & kReplaceExisting) && stat(target.c_str(), &st) == 0) return Fail(kErrorAlreadyExists);
  return rename(FilePath(from).c_str(), target.c_str()) == 0 ? kTrue : FailErrno();
}

BOOL VRKW32_WINAPI MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags) {
  return MoveFileExA(Narrow(from).c_str(), Narrow(to).c_str(), flags);
}

// BY_HANDLE_FILE_INFORMATION (52 bytes).
BOOL VRKW32_WINAPI GetFileInformationByHandle(HANDLE file, void* info) {
  struct stat64 st;
  const int fd = FdOf(file);
  if (fd < 0) return Fail(kErrorInvalidHandle);
  if (fstat64(fd, &st) != 0) return FailErrno();
  uint8_t record[52] = {};
  DWORD attributes = S_ISDIR(st.st_mode) ? kAttributeDirectory : kAttributeNormal;
  if (!(st.st_mode & S_IWUSR)) attributes |= kAttributeReadOnly;
  std::memcpy(record, &attributes, 4);
  PutTime(record + 4, st.st_mtim);  // creation: the host keeps none
  PutTime(record + 12, st.st_atim);
  PutTime(record + 20, st.st_mtim);
  const DWORD words[6] = {DWORD(st.st_dev), DWORD(uint64_t(st.st_size) >> 32), DWORD(uint64_t(st.st_size)),
                          DWORD(st.st_nlink), DWORD(uint64_t(st.st_ino) >> 32), DWORD(uint64_t(st.st_ino))};
  std::memcpy(record + 28, words, sizeof words);
  std::memcpy(info, record, sizeof record);
  return kTrue;
}

BOOL VRKW32_WINAPI GetDiskFreeSpaceExA(LPCSTR path, ULONGLONG* available, ULONGLONG* total, ULONGLONG* free) {
  struct statvfs64 st;
  if (statvfs64(path ? FilePath(path).c_str() : ".", &st) != 0) return FailErrno();
  if (available) *available = ULONGLONG(st.f_bavail) * st.f_frsize;
  if (total) *total = ULONGLONG(st.f_blocks) * st.f_frsize;
  if (free) *free = ULONGLONG(st.f_bfree) * st.f_frsize;
  return kTrue;
}

BOOL VRKW32_WINAPI GetDiskFreeSpaceExW(LPCWSTR path, ULONGLONG* available, ULONGLONG* total, ULONGLONG* free) {
  return GetDiskFreeSpaceExA(path ? Narrow(path).c_str() : nullptr, available, total, free);
}

BOOL VRKW32_WINAPI GetHandleInformation(HANDLE handle, DWORD* flags) {
  if (!Ctx().handles().GetAny(handle)) return Fail(kErrorInvalidHandle);
  if (flags) *flags = 0;
  return kTrue;
}

// Inheritance and protection from closing mean nothing here.
BOOL VRKW32_WINAPI SetHandleInformation(HANDLE handle, DWORD, DWORD) {
  return Ctx().handles().GetAny(handle) ? kTrue : Fail(kErrorInvalidHandle);
}

}  // namespace vrk::win32::kernel32
