// The Windows types and calling conventions that guest code is compiled
// against, as they are on 32-bit Windows. Wide characters are 16-bit there
// (char16_t here, never wchar_t), `long` is 32-bit on both sides.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vrk::win32 {

using BOOL = int32_t;
using BYTE = uint8_t;
using WORD = uint16_t;
using DWORD = uint32_t;
using UINT = uint32_t;
using LONG = int32_t;
using ULONG = uint32_t;
using LONGLONG = int64_t;
using ULONGLONG = uint64_t;
using SIZE_T = uint32_t;
using ULONG_PTR = uint32_t;
using LONG_PTR = int32_t;
using HANDLE = void*;
using HMODULE = void*;
using LPVOID = void*;
using LPCVOID = const void*;
using LPSTR = char*;
using LPCSTR = const char*;
using WCHAR = char16_t;
using LPWSTR = char16_t*;
using LPCWSTR = const char16_t*;
using FARPROC = void*;

static_assert(sizeof(void*) == 4 && sizeof(long) == 4, "32-bit x86 only");

// Every function that guest code calls. Guest code keeps the stack 4-byte
// aligned only, while code built for Linux may assume 16; each entry point
// realigns it. stdcall: the callee removes its arguments (system DLLs);
// cdecl: the caller does (msvcrt).
#define VRKW32_WINAPI __attribute__((stdcall, force_align_arg_pointer))
#define VRKW32_CDECL __attribute__((cdecl, force_align_arg_pointer))

inline constexpr BOOL kTrue = 1;
inline constexpr BOOL kFalse = 0;
inline const HANDLE kInvalidHandle = reinterpret_cast<HANDLE>(~uintptr_t(0));

// Error codes that GetLastError reports.
inline constexpr DWORD kErrorSuccess = 0;
inline constexpr DWORD kErrorFileNotFound = 2;
inline constexpr DWORD kErrorPathNotFound = 3;
inline constexpr DWORD kErrorTooManyOpenFiles = 4;
inline constexpr DWORD kErrorAccessDenied = 5;
inline constexpr DWORD kErrorInvalidHandle = 6;
inline constexpr DWORD kErrorNotEnoughMemory = 8;
inline constexpr DWORD kErrorNoMoreFiles = 18;
inline constexpr DWORD kErrorFileExists = 80;
inline constexpr DWORD kErrorInvalidParameter = 87;
inline constexpr DWORD kErrorInsufficientBuffer = 122;
inline constexpr DWORD kErrorModNotFound = 126;
inline constexpr DWORD kErrorProcNotFound = 127;
inline constexpr DWORD kErrorAlreadyExists = 183;
inline constexpr DWORD kErrorEnvvarNotFound = 203;
inline constexpr DWORD kErrorNoUnicodeTranslation = 1113;
inline constexpr DWORD kErrorNotSupported = 50;
inline constexpr DWORD kErrorCallNotImplemented = 120;

// msvcrt's FILE (32 bytes); `flag` is nonzero while the stream is open.
struct CrtFile {
  uint32_t ptr;
  int32_t cnt;
  uint32_t base;
  int32_t flag;
  int32_t file;
  int32_t charbuf;
  int32_t bufsiz;
  uint32_t tmpfname;
};
static_assert(sizeof(CrtFile) == 32);

// Guest addresses are 32-bit; natives hand them out as DWORDs.
template <class T>
inline DWORD AddressOf(T* p) {
  return DWORD(reinterpret_cast<uintptr_t>(p));
}

}  // namespace vrk::win32
