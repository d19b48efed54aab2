// ADVAPI32.dll, USER32.dll, WS2_32.dll and ntdll.dll: what DLLs built for a
// desktop ask of them, answered for a process without a desktop, a registry
// or a logged-on session.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

// The byte-order macros of the C library would rename the functions below.
#undef htons
#undef ntohs
#undef htonl
#undef ntohl

#include "win32/context.h"
#include "win32/natives.h"
#include "win32/text.h"

namespace vrk::win32 {
namespace {

constexpr LONG kErrorRegistryNotFound = 2;  // ERROR_FILE_NOT_FOUND: no key, no value
constexpr ULONG_PTR kProvider = 0x50524F56;  // the one cryptographic provider handle

std::string UserName() {
  const passwd* pw = getpwuid(geteuid());
  return pw && pw->pw_name ? pw->pw_name : "user";
}

// WSA error codes are 10000 plus the BSD number; Linux numbers the network
// errors apart.
int WsaError(int number) {
  switch (number) {
    case EINTR: return 10004;
    case EBADF: return 10009;
    case EACCES: return 10013;
    case EFAULT: return 10014;
    case EINVAL: return 10022;
    case EMFILE: return 10024;
    case EAGAIN: return 10035;  // WSAEWOULDBLOCK
    case EINPROGRESS: return 10036;
    case ENOTSOCK: return 10038;
    case EAFNOSUPPORT: return 10047;
    case EADDRINUSE: return 10048;
    case ENETUNREACH: return 10051;
    case ECONNRESET: return 10054;
    case EISCONN: return 10056;
    case ENOTCONN: return 10057;
    case ETIMEDOUT: return 10060;
    case ECONNREFUSED: return 10061;
    case EHOSTUNREACH: return 10065;
    default: return 10022;
  }
}

int SocketFailure() {
  SetLastError(DWORD(WsaError(errno)));
  return -1;  // SOCKET_ERROR
}

}  // namespace

namespace advapi32 {

// One provider for every request: the host's random source.
BOOL VRKW32_WINAPI CryptAcquireContextA(ULONG_PTR* provider, LPCSTR, LPCSTR, DWORD, DWORD) {
  if (!provider) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  *provider = kProvider;
  return kTrue;
}

BOOL VRKW32_WINAPI CryptAcquireContextW(ULONG_PTR* provider, LPCWSTR, LPCWSTR, DWORD type, DWORD flags) {
  return CryptAcquireContextA(provider, nullptr, nullptr, type, flags);
}

BOOL VRKW32_WINAPI CryptGenRandom(ULONG_PTR provider, DWORD size, BYTE* buffer) {
  if (provider != kProvider || (!buffer && size)) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  for (DWORD done = 0; done < size;) {
    const ssize_t n = getrandom(buffer + done, size - done, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      SetLastError(ErrorFromErrno(errno));
      return kFalse;
    }
    done += DWORD(n);
  }
  return kTrue;
}

BOOL VRKW32_WINAPI CryptReleaseContext(ULONG_PTR provider, DWORD) { return provider == kProvider ? kTrue : kFalse; }

BOOL VRKW32_WINAPI GetUserNameA(LPSTR buffer, DWORD* size) {
  const std::string name = UserName();
  if (!size || !buffer || *size <= name.size()) {
    if (size) *size = DWORD(name.size() + 1);
    SetLastError(kErrorInsufficientBuffer);
    return kFalse;
  }
  std::memcpy(buffer, name.c_str(), name.size() + 1);
  *size = DWORD(name.size() + 1);  // with the terminator, unlike most calls
  return kTrue;
}

BOOL VRKW32_WINAPI GetUserNameW(LPWSTR buffer, DWORD* size) {
  const std::u16string name = Widen(UserName());
  if (!size || !buffer || *size <= name.size()) {
    if (size) *size = DWORD(name.size() + 1);
    SetLastError(kErrorInsufficientBuffer);
    return kFalse;
  }
  std::memcpy(buffer, name.c_str(), 2 * (name.size() + 1));
  *size = DWORD(name.size() + 1);
  return kTrue;
}

// An empty registry: every key is absent.
LONG VRKW32_WINAPI RegOpenKeyExA(HANDLE, LPCSTR, DWORD, DWORD, HANDLE* result) {
  if (result) *result = nullptr;
  return kErrorRegistryNotFound;
}

LONG VRKW32_WINAPI RegOpenKeyExW(HANDLE, LPCWSTR, DWORD, DWORD, HANDLE* result) {
  if (result) *result = nullptr;
  return kErrorRegistryNotFound;
}

LONG VRKW32_WINAPI RegQueryValueExA(HANDLE, LPCSTR, DWORD*, DWORD*, BYTE*, DWORD*) { return kErrorRegistryNotFound; }
LONG VRKW32_WINAPI RegQueryValueExW(HANDLE, LPCWSTR, DWORD*, DWORD*, BYTE*, DWORD*) { return kErrorRegistryNotFound; }
LONG VRKW32_WINAPI RegCloseKey(HANDLE) { return 0; }

}  // namespace advapi32

namespace user32 {

// No window station, no desktop, no input: what a service sees.
BOOL VRKW32_WINAPI AllowSetForegroundWindow(DWORD) { return kFalse; }
HANDLE VRKW32_WINAPI GetActiveWindow() { return nullptr; }
HANDLE VRKW32_WINAPI GetCapture() { return nullptr; }
BOOL VRKW32_WINAPI GetCaretPos(void*) { return kFalse; }
HANDLE VRKW32_WINAPI GetClipboardOwner() { return nullptr; }
HANDLE VRKW32_WINAPI GetClipboardViewer() { return nullptr; }
BOOL VRKW32_WINAPI GetCursorPos(void*) { return kFalse; }
HANDLE VRKW32_WINAPI GetDesktopWindow() { return nullptr; }
HANDLE VRKW32_WINAPI GetFocus() { return nullptr; }
BOOL VRKW32_WINAPI GetInputState() { return kFalse; }
DWORD VRKW32_WINAPI GetMessagePos() { return 0; }
LONG VRKW32_WINAPI GetMessageTime() { return 0; }
HANDLE VRKW32_WINAPI GetOpenClipboardWindow() { return nullptr; }
HANDLE VRKW32_WINAPI GetProcessWindowStation() { return nullptr; }

// Nobody to click: the text goes to stderr and the answer is IDOK.
int VRKW32_WINAPI MessageBoxA(HANDLE, LPCSTR text, LPCSTR caption, UINT) {
  std::fprintf(stderr, "%s: %s\n", caption ? caption : "Message", text ? text : "");
  return 1;
}

int VRKW32_WINAPI MessageBoxW(HANDLE window, LPCWSTR text, LPCWSTR caption, UINT type) {
  return MessageBoxA(window, Narrow(text).c_str(), caption ? Narrow(caption).c_str() : nullptr, type);
}

}  // namespace user32

namespace ws2_32 {

// Sockets are host descriptors; the address records of AF_INET have the
// same layout on both sides.
int VRKW32_WINAPI WSAStartup(WORD version, void* data) {
  if (data) {
    std::memset(data, 0, 400);  // WSADATA
    const WORD versions[2] = {version, 0x0202};
    std::memcpy(data, versions, sizeof versions);
  }
  return 0;
}

int VRKW32_WINAPI WSACleanup() { return 0; }
int VRKW32_WINAPI WSAGetLastError() { return int(Thread().teb->last_error); }

ULONG_PTR VRKW32_WINAPI socket(int family, int type, int protocol) {
  const int fd = ::socket(family, type | SOCK_CLOEXEC, protocol);
  return fd < 0 ? ULONG_PTR(SocketFailure()) : ULONG_PTR(fd);
}

int VRKW32_WINAPI connect(ULONG_PTR socket, const void* address, int size) {
  return ::connect(int(socket), static_cast<const sockaddr*>(address), socklen_t(size)) == 0 ? 0 : SocketFailure();
}

int VRKW32_WINAPI send(ULONG_PTR socket, const char* buffer, int size, int flags) {
  const ssize_t n = ::send(int(socket), buffer, size_t(size), (flags & 1) | MSG_NOSIGNAL);  // MSG_OOB
  return n < 0 ? SocketFailure() : int(n);
}

int VRKW32_WINAPI recv(ULONG_PTR socket, char* buffer, int size, int flags) {
  const ssize_t n = ::recv(int(socket), buffer, size_t(size), flags & 3);  // MSG_OOB, MSG_PEEK
  return n < 0 ? SocketFailure() : int(n);
}

int VRKW32_WINAPI closesocket(ULONG_PTR socket) { return ::close(int(socket)) == 0 ? 0 : SocketFailure(); }

int VRKW32_WINAPI ioctlsocket(ULONG_PTR socket, LONG command, ULONG* argument) {
  constexpr LONG kFionbio = LONG(0x8004667E);
  if (command != kFionbio || !argument) {
    SetLastError(10045);  // WSAEOPNOTSUPP
    return -1;
  }
  const int flags = fcntl(int(socket), F_GETFL);
  if (flags < 0) return SocketFailure();
  return fcntl(int(socket), F_SETFL, *argument ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) == 0 ? 0 : SocketFailure();
}

WORD VRKW32_WINAPI htons(WORD value) { return __builtin_bswap16(value); }
WORD VRKW32_WINAPI ntohs(WORD value) { return __builtin_bswap16(value); }
ULONG VRKW32_WINAPI htonl(ULONG value) { return __builtin_bswap32(value); }
ULONG VRKW32_WINAPI ntohl(ULONG value) { return __builtin_bswap32(value); }
ULONG VRKW32_WINAPI inet_addr(LPCSTR text) { return text ? ::inet_addr(text) : INADDR_NONE; }

}  // namespace ws2_32

namespace ntdll {

// RTL_OSVERSIONINFOW: the version that GetVersionEx reports.
LONG VRKW32_WINAPI RtlGetVersion(void* info) {
  const Peb& peb = *Ctx().peb();
  const DWORD fields[4] = {peb.os_major_version, peb.os_minor_version, peb.os_build_number, peb.os_platform_id};
  std::memcpy(static_cast<uint8_t*>(info) + 4, fields, sizeof fields);
  return 0;  // STATUS_SUCCESS
}

DWORD VRKW32_WINAPI RtlGetLastWin32Error() { return Thread().teb->last_error; }
void VRKW32_WINAPI RtlSetLastWin32Error(DWORD code) { SetLastError(code); }

}  // namespace ntdll
}  // namespace vrk::win32
