// msvcrt.dll: descriptors and streams over the host's, and the printf
// family with msvcrt's format rules (I64, 16-bit wide strings, %p as eight
// hex digits). Streams are entries of the _iob array that guest code sees;
// each open one stands for a host FILE. Text mode is binary: no CR/LF
// translation on Linux.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "win32/context.h"
#include "win32/natives.h"
#include "win32/text.h"

namespace vrk::win32 {
namespace msvcrt {

constexpr int kStreams = 512;
CrtFile _iob[kStreams] = {{0, 0, 0, 0x01, 0, 0, 0, 0}, {0, 0, 0, 0x02, 1, 0, 0, 0}, {0, 0, 0, 0x02, 2, 0, 0, 0}};

}  // namespace msvcrt

namespace {

using msvcrt::_iob;
using msvcrt::kStreams;

// msvcrt's _O_ flags and stream flags.
constexpr int kOWrOnly = 0x1, kORdWr = 0x2, kOAppend = 0x8, kOTemporary = 0x40, kOCreat = 0x100, kOTrunc = 0x200,
              kOExcl = 0x400, kOText = 0x4000;
constexpr int kSIWrite = 0x80;
constexpr int kIoRead = 0x01, kIoWrite = 0x02, kIoReadWrite = 0x80;

std::mutex g_mutex;  // guards the tables below
FILE* g_host[kStreams] = {stdin, stdout, stderr};
const Context* g_stream_owner[kStreams];
std::set<std::pair<const Context*, int>> g_descriptors;  // opened by guest code

// The host stream of a guest FILE pointer, or null for anything that is not
// an open entry of _iob.
FILE* Host(void* stream) {
  const auto at = reinterpret_cast<uintptr_t>(stream), first = reinterpret_cast<uintptr_t>(&_iob[0]);
  if (at < first || (at - first) % sizeof(CrtFile) != 0 || (at - first) / sizeof(CrtFile) >= kStreams) {
    SetCrtErrno(EINVAL);
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_host[(at - first) / sizeof(CrtFile)];
}

void* Adopt(FILE* host, int read_write_flags) {
  if (!host) {
    SetCrtErrno(errno);
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  for (int i = 3; i < kStreams; ++i) {
    if (g_host[i]) continue;
    g_host[i] = host;
    g_stream_owner[i] = &Ctx();
    _iob[i] = CrtFile{0, 0, 0, read_write_flags, fileno(host), 0, 0, 0};
    return &_iob[i];
  }
  std::fclose(host);
  SetCrtErrno(EMFILE);
  return nullptr;
}

// fopen modes without msvcrt's own letters (t, c, n, S, R, T, D, ccs=).
std::string HostMode(LPCSTR mode, int& flags) {
  std::string out;
  flags = 0;
  for (const char* p = mode; p && *p && *p != ','; ++p) {
    if (std::strchr("rwa+b", *p)) out += *p;
  }
  flags = out.find('+') != std::string::npos ? kIoReadWrite : out[0] == 'r' ? kIoRead : kIoWrite;
  return out;
}

int Track(int fd) {
  if (fd < 0) {
    SetCrtErrno(errno);
    return -1;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  g_descriptors.insert({&Ctx(), fd});
  return fd;
}

// Guest code closes only the descriptors it opened, never the host's own.
bool Owned(int fd) {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_descriptors.count({&Ctx(), fd}) != 0;
}

// ---- printf with msvcrt's rules ----

class Arguments {
 public:
  explicit Arguments(const uint8_t* at) : at_(at) {}
  template <class T>
  T Next() {
    T value;
    std::memcpy(&value, at_, sizeof value);
    at_ += (sizeof value + 3) & ~size_t(3);
    return value;
  }

 private:
  const uint8_t* at_;
};

// Pads a converted piece to the field width (for pieces the host's printf
// cannot take as they are: wide characters and strings).
void Pad(std::string& out, const std::string& piece, int width, bool left) {
  const int padding = width > int(piece.size()) ? width - int(piece.size()) : 0;
  if (!left) out.append(size_t(padding), ' ');
  out += piece;
  if (left) out.append(size_t(padding), ' ');
}

// `conversion` is one conversion rebuilt here from checked pieces (flags, width,
// precision, a host size and the type), never guest text, so the host's
// printf gets exactly the argument type it names.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <class T>
void Append(std::string& out, const std::string& conversion, T value) {
  char piece[512];
  const int n = std::snprintf(piece, sizeof piece, conversion.c_str(), value);
  if (n < 0) return;
  if (size_t(n) < sizeof piece) {
    out.append(piece, size_t(n));
    return;
  }
  std::string big(size_t(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), conversion.c_str(), value);
  out.append(big.data(), size_t(n));
}
#pragma GCC diagnostic pop

std::string Format(LPCSTR format, const uint8_t* args) {
  std::string out;
  Arguments next(args);
  for (const char* p = format; p && *p;) {
    if (*p != '%') {
      out += *p++;
      continue;
    }
    const char* start = p++;
    std::string flags;
    while (*p && std::strchr("-+ #0", *p)) flags += *p++;
    int width = -1, precision = -1;
    if (*p == '*') {
      width = next.Next<int>();
      if (width < 0) {
        flags += '-';
        width = -width;
      }
      ++p;
    } else {
      for (width = 0; *p >= '0' && *p <= '9'; ++p) width = width * 10 + (*p - '0');
    }
    if (*p == '.') {
      ++p;
      if (*p == '*') {
        precision = next.Next<int>();
        ++p;
      } else {
        for (precision = 0; *p >= '0' && *p <= '9'; ++p) precision = precision * 10 + (*p - '0');
      }
    }
    // Sizes: I64 and ll are 64-bit; h, hh, l, L, w, I32 and (leniently) z, j,
    // t are not, and L doubles are plain doubles in msvcrt.
    bool wide64 = false, narrow_text = false, wide_text = false;
    for (;;) {
      if (std::strncmp(p, "I64", 3) == 0) {
        wide64 = true;
        p += 3;
      } else if (std::strncmp(p, "I32", 3) == 0) {
        p += 3;
      } else if (p[0] == 'l' && p[1] == 'l') {
        wide64 = true;
        p += 2;
      } else if (*p == 'h') {
        narrow_text = true;
        ++p;
      } else if (*p == 'l' || *p == 'w') {
        wide_text = true;
        ++p;
      } else if (*p && std::strchr("LIzjt", *p)) {
        ++p;
      } else {
        break;
      }
    }
    const char type = *p ? *p++ : '\0';
    std::string conversion = "%" + flags;
    if (width > 0) conversion += std::to_string(width);
    if (precision >= 0) conversion += "." + std::to_string(precision);
    const bool left = flags.find('-') != std::string::npos;
    switch (type) {
      case 'd': case 'i': case 'u': case 'o': case 'x': case 'X': {
        const bool is_signed = type == 'd' || type == 'i';
        if (wide64) {
          const uint64_t v = next.Next<uint64_t>();
          if (is_signed) Append(out, conversion + "ll" + type, int64_t(v));
          else Append(out, conversion + "ll" + type, v);
        } else {
          uint32_t v = next.Next<uint32_t>();
          if (narrow_text) v = is_signed ? uint32_t(int32_t(int16_t(v))) : uint16_t(v);
          if (is_signed) Append(out, conversion + type, int32_t(v));
          else Append(out, conversion + type, v);
        }
        break;
      }
      case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
        Append(out, conversion + type, next.Next<double>());
        break;
      case 'p':
        Append(out, "%08X", next.Next<uint32_t>());
        break;
      case 'c': case 'C': {
        const uint32_t c = next.Next<uint32_t>();
        if ((type == 'C' && !narrow_text) || wide_text) {
          Pad(out, Narrow(std::u16string(1, char16_t(c))), width, left);
        } else {
          Append(out, conversion + 'c', int(uint8_t(c)));
        }
        break;
      }
      case 's': case 'S': {
        const uint32_t at = next.Next<uint32_t>();
        if ((type == 'S' && !narrow_text) || wide_text) {
          const auto* w = reinterpret_cast<LPCWSTR>(uintptr_t(at));
          std::u16string text = w ? std::u16string(w, WideLength(w)) : u"(null)";
          if (precision >= 0 && text.size() > size_t(precision)) text.resize(size_t(precision));
          Pad(out, Narrow(text), width, left);
        } else {
          const char* s = reinterpret_cast<const char*>(uintptr_t(at));
          Append(out, conversion + 's', s ? s : "(null)");
        }
        break;
      }
      case 'n':
        (void)next.Next<uint32_t>();  // counts are not written back
        break;
      case '%':
        out += '%';
        break;
      default:
        out.append(start, p);  // not a conversion: kept as written
        break;
    }
  }
  return out;
}

int Write(void* stream, const std::string& text) {
  FILE* host = Host(stream);
  if (!host) return -1;
  return std::fwrite(text.data(), 1, text.size(), host) == text.size() ? int(text.size()) : -1;
}

// _snprintf's rule: the text and a terminator when it fits, the text alone
// when exactly size, else size characters and -1.
int CopyBounded(const std::string& text, LPSTR buffer, size_t size) {
  if (text.size() < size) {
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return int(text.size());
  }
  std::memcpy(buffer, text.data(), size);
  return text.size() == size ? int(size) : -1;
}

const uint8_t* ArgumentsOf(va_list list) {
  // On i386 a va_list is a pointer into the caller's stack words.
  const uint8_t* at;
  static_assert(sizeof(va_list) == sizeof(at));
  std::memcpy(&at, &list, sizeof at);
  return at;
}

int OpenFlags(int flags) {
  int host = flags & kORdWr ? O_RDWR : flags & kOWrOnly ? O_WRONLY : O_RDONLY;
  if (flags & kOAppend) host |= O_APPEND;
  if (flags & kOCreat) host |= O_CREAT;
  if (flags & kOTrunc) host |= O_TRUNC;
  if (flags & kOExcl) host |= O_EXCL;
  return host | O_CLOEXEC;
}

}  // namespace

void ReleaseCrtFiles(const Context* context) {
  std::lock_guard<std::mutex> lock(g_mutex);
  for (int i = 3; i < kStreams; ++i) {
    if (g_host[i] && g_stream_owner[i] == context) {
      std::fclose(g_host[i]);
      g_host[i] = nullptr;
      _iob[i] = CrtFile{};
    }
  }
  for (auto it = g_descriptors.begin(); it != g_descriptors.end();) {
    if (it->first == context) {
      close(it->second);
      it = g_descriptors.erase(it);
    } else {
      ++it;
    }
  }
}

namespace msvcrt {

int VRKW32_CDECL _open(LPCSTR path, int flags, int mode) {
  const std::string host = HostPath(path ? path : "");
  const int fd = Track(open(host.c_str(), OpenFlags(flags), mode & kSIWrite ? 0666 : 0444));
  if (fd >= 0 && (flags & kOTemporary)) unlink(host.c_str());
  return fd;
}

int VRKW32_CDECL _wopen(LPCWSTR path, int flags, int mode) { return _open(Narrow(path).c_str(), flags, mode); }
int VRKW32_CDECL _sopen(LPCSTR path, int flags, int, int mode) { return _open(path, flags, mode); }

int VRKW32_CDECL _close(int fd) {
  if (!Owned(fd)) {
    SetCrtErrno(EBADF);
    return -1;
  }
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_descriptors.erase({&Ctx(), fd});
  }
  return close(fd) == 0 ? 0 : (SetCrtErrno(errno), -1);
}

int VRKW32_CDECL _read(int fd, void* buffer, UINT size) {
  const ssize_t n = read(fd, buffer, size);
  if (n < 0) SetCrtErrno(errno);
  return int(n);
}

int VRKW32_CDECL _write(int fd, const void* buffer, UINT size) {
  const ssize_t n = write(fd, buffer, size);
  if (n < 0) SetCrtErrno(errno);
  return int(n);
}

LONGLONG VRKW32_CDECL _lseeki64(int fd, LONGLONG offset, int origin) {
  const off64_t at = lseek64(fd, offset, origin);  // SEEK_SET/CUR/END have the same numbers
  if (at < 0) SetCrtErrno(errno);
  return at;
}

LONG VRKW32_CDECL _lseek(int fd, LONG offset, int origin) {
  const LONGLONG at = _lseeki64(fd, offset, origin);
  if (at > 0x7FFFFFFF) {
    SetCrtErrno(EINVAL);
    return -1;
  }
  return LONG(at);
}

LONGLONG VRKW32_CDECL _telli64(int fd) { return _lseeki64(fd, 0, SEEK_CUR); }
int VRKW32_CDECL _isatty(int fd) { return isatty(fd) ? 1 : 0; }
// Every descriptor is binary; text mode is what callers are told they had.
int VRKW32_CDECL _setmode(int, int) { return kOText; }
int VRKW32_CDECL _dup(int fd) { return Track(dup(fd)); }

int VRKW32_CDECL _access(LPCSTR path, int mode) {
  const int host = (mode & 2 ? W_OK : 0) | (mode & 4 ? R_OK : 0);
  if (access(HostPath(path ? path : "").c_str(), host ? host : F_OK) == 0) return 0;
  SetCrtErrno(errno);
  return -1;
}

int VRKW32_CDECL _unlink(LPCSTR path) {
  if (unlink(HostPath(path ? path : "").c_str()) == 0) return 0;
  SetCrtErrno(errno);
  return -1;
}

int VRKW32_CDECL remove(LPCSTR path) { return _unlink(path); }

int VRKW32_CDECL rename(LPCSTR from, LPCSTR to) {
  if (::rename(HostPath(from ? from : "").c_str(), HostPath(to ? to : "").c_str()) == 0) return 0;
  SetCrtErrno(errno);
  return -1;
}

void* VRKW32_CDECL fopen(LPCSTR path, LPCSTR mode) {
  int flags = 0;
  const std::string host_mode = HostMode(mode, flags);
  if (!path || host_mode.empty()) {
    SetCrtErrno(EINVAL);
    return nullptr;
  }
  return Adopt(std::fopen(HostPath(path).c_str(), host_mode.c_str()), flags);
}

void* VRKW32_CDECL _wfopen(LPCWSTR path, LPCWSTR mode) {
  if (!path || !mode) {
    SetCrtErrno(EINVAL);
    return nullptr;
  }
  return fopen(Narrow(path).c_str(), Narrow(mode).c_str());
}

void* VRKW32_CDECL _fdopen(int fd, LPCSTR mode) {
  int flags = 0;
  const std::string host_mode = HostMode(mode, flags);
  return Adopt(::fdopen(fd, host_mode.c_str()), flags);
}

int VRKW32_CDECL fclose(void* stream) {
  FILE* host = Host(stream);
  if (!host) return -1;
  const size_t i = size_t(static_cast<CrtFile*>(stream) - _iob);
  if (i < 3) return std::fflush(host) == 0 ? 0 : -1;  // the host's standard streams stay open
  std::lock_guard<std::mutex> lock(g_mutex);
  g_host[i] = nullptr;
  _iob[i] = CrtFile{};
  return std::fclose(host) == 0 ? 0 : -1;
}

size_t VRKW32_CDECL fread(void* buffer, size_t size, size_t count, void* stream) {
  FILE* host = Host(stream);
  return host ? std::fread(buffer, size, count, host) : 0;
}

size_t VRKW32_CDECL fwrite(const void* buffer, size_t size, size_t count, void* stream) {
  FILE* host = Host(stream);
  return host ? std::fwrite(buffer, size, count, host) : 0;
}

int VRKW32_CDECL fputc(int c, void* stream) {
  FILE* host = Host(stream);
  return host ? std::fputc(c, host) : EOF;
}

int VRKW32_CDECL putc(int c, void* stream) { return fputc(c, stream); }

int VRKW32_CDECL fputs(LPCSTR text, void* stream) {
  FILE* host = Host(stream);
  return host ? std::fputs(text, host) : EOF;
}

int VRKW32_CDECL puts(LPCSTR text) { return std::puts(text); }
int VRKW32_CDECL putchar(int c) { return std::putchar(c); }

int VRKW32_CDECL fgetc(void* stream) {
  FILE* host = Host(stream);
  return host ? std::fgetc(host) : EOF;
}

int VRKW32_CDECL getc(void* stream) { return fgetc(stream); }

int VRKW32_CDECL ungetc(int c, void* stream) {
  FILE* host = Host(stream);
  return host ? std::ungetc(c, host) : EOF;
}

LPSTR VRKW32_CDECL fgets(LPSTR buffer, int size, void* stream) {
  FILE* host = Host(stream);
  return host ? std::fgets(buffer, size, host) : nullptr;
}

int VRKW32_CDECL fflush(void* stream) {
  if (!stream) return std::fflush(nullptr);
  FILE* host = Host(stream);
  return host ? std::fflush(host) : EOF;
}

int VRKW32_CDECL fseek(void* stream, LONG offset, int origin) {
  FILE* host = Host(stream);
  return host ? std::fseek(host, offset, origin) : -1;
}

LONG VRKW32_CDECL ftell(void* stream) {
  FILE* host = Host(stream);
  return host ? std::ftell(host) : -1;
}

int VRKW32_CDECL feof(void* stream) {
  FILE* host = Host(stream);
  return host && std::feof(host) ? 0x10 : 0;
}

int VRKW32_CDECL ferror(void* stream) {
  FILE* host = Host(stream);
  return host && std::ferror(host) ? 0x20 : 0;
}

void VRKW32_CDECL clearerr(void* stream) {
  if (FILE* host = Host(stream)) std::clearerr(host);
}

int VRKW32_CDECL _fileno(void* stream) {
  FILE* host = Host(stream);
  return host ? ::fileno(host) : -1;
}

// The guest's buffer is not handed to the host stream, which may outlive it.
int VRKW32_CDECL setvbuf(void* stream, LPSTR, int mode, size_t size) {
  FILE* host = Host(stream);
  if (!host) return -1;
  const int host_mode = mode == 4 ? _IONBF : mode == 0x40 ? _IOLBF : _IOFBF;  // _IONBF, _IOLBF, _IOFBF
  return std::setvbuf(host, nullptr, host_mode, size) == 0 ? 0 : -1;
}

int VRKW32_CDECL vfprintf(void* stream, LPCSTR format, const uint8_t* args) {
  return Write(stream, Format(format, args));
}

int VRKW32_CDECL vprintf(LPCSTR format, const uint8_t* args) { return vfprintf(&_iob[1], format, args); }

int VRKW32_CDECL vsprintf(LPSTR buffer, LPCSTR format, const uint8_t* args) {
  const std::string text = Format(format, args);
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return int(text.size());
}

int VRKW32_CDECL _vsnprintf(LPSTR buffer, size_t size, LPCSTR format, const uint8_t* args) {
  return CopyBounded(Format(format, args), buffer, size);
}

int VRKW32_CDECL printf(LPCSTR format, ...) {
  va_list list;
  va_start(list, format);
  const int n = vfprintf(&_iob[1], format, ArgumentsOf(list));
  va_end(list);
  return n;
}

int VRKW32_CDECL fprintf(void* stream, LPCSTR format, ...) {
  va_list list;
  va_start(list, format);
  const int n = vfprintf(stream, format, ArgumentsOf(list));
  va_end(list);
  return n;
}

int VRKW32_CDECL sprintf(LPSTR buffer, LPCSTR format, ...) {
  va_list list;
  va_start(list, format);
  const int n = vsprintf(buffer, format, ArgumentsOf(list));
  va_end(list);
  return n;
}

int VRKW32_CDECL _snprintf(LPSTR buffer, size_t size, LPCSTR format, ...) {
  va_list list;
  va_start(list, format);
  const int n = _vsnprintf(buffer, size, format, ArgumentsOf(list));
  va_end(list);
  return n;
}

int VRKW32_CDECL fgetpos(void* stream, LONGLONG* position) {
  FILE* host = Host(stream);
  const off64_t at = host ? ftello64(host) : -1;
  if (at < 0 || !position) return -1;
  *position = at;
  return 0;
}

int VRKW32_CDECL fsetpos(void* stream, const LONGLONG* position) {
  FILE* host = Host(stream);
  return host && position && fseeko64(host, *position, SEEK_SET) == 0 ? 0 : -1;
}

// Wide characters go to and come from byte streams as UTF-8, the layer's
// multibyte encoding.
int VRKW32_CDECL fputwc(int c, void* stream) {
  FILE* host = Host(stream);
  const std::string bytes = Narrow(std::u16string(1, char16_t(c)));
  return host && std::fwrite(bytes.data(), 1, bytes.size(), host) == bytes.size() ? c & 0xFFFF : 0xFFFF;
}

int VRKW32_CDECL putwc(int c, void* stream) { return fputwc(c, stream); }

int VRKW32_CDECL getwc(void* stream) {
  FILE* host = Host(stream);
  if (!host) return 0xFFFF;
  const int lead = std::fgetc(host);
  if (lead == EOF) return 0xFFFF;  // WEOF
  std::string bytes(1, char(lead));
  const int extra = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
  for (int i = 0; i < extra; ++i) {
    const int c = std::fgetc(host);
    if (c == EOF) break;
    bytes += char(c);
  }
  const std::u16string wide = Widen(bytes);
  return wide.empty() ? 0xFFFF : wide[0];
}

// Only a character of one byte can be pushed back onto a host stream.
int VRKW32_CDECL ungetwc(int c, void* stream) {
  FILE* host = Host(stream);
  return host && c < 0x80 && std::ungetc(c, host) != EOF ? c : 0xFFFF;
}

void VRKW32_CDECL perror(LPCSTR text) {
  const char* message = std::strerror(Thread().crt_errno);
  if (text && *text) std::fprintf(stderr, "%s: %s\n", text, message);
  else std::fprintf(stderr, "%s\n", message);
}

}  // namespace msvcrt
}  // namespace vrk::win32
