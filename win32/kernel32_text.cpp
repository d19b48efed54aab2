// KERNEL32.dll: code pages. The ANSI and OEM code pages are UTF-8; other
// single-byte code pages convert through iconv.
#include <iconv.h>

#include <cstring>
#include <string>

#include "win32/context.h"
#include "win32/natives.h"
#include "win32/text.h"

namespace vrk::win32::kernel32 {
namespace {

constexpr DWORD kMbErrInvalidChars = 0x08;
constexpr DWORD kWcErrInvalidChars = 0x80;

// CP_ACP, CP_OEMCP, CP_MACCP, CP_THREAD_ACP and CP_UTF8 all mean UTF-8 here.
bool IsUtf8(UINT code_page) { return code_page <= 3 || code_page == kCodePageUtf8; }

std::string IconvName(UINT code_page) {
  switch (code_page) {
    case 20127: return "ASCII";
    case 28591: return "ISO-8859-1";
    default: return "CP" + std::to_string(code_page);
  }
}

// Converts through iconv; false when the code page is unknown or the text
// does not convert.
bool Iconv(const std::string& from, const std::string& to, const char* in, size_t in_size, std::string& out) {
  iconv_t cd = iconv_open(to.c_str(), from.c_str());
  if (cd == iconv_t(-1)) return false;
  out.assign(in_size * 4 + 8, '\0');
  char* src = const_cast<char*>(in);
  char* dst = out.data();
  size_t left = out.size();
  const bool ok = iconv(cd, &src, &in_size, &dst, &left) != size_t(-1);
  iconv_close(cd);
  out.resize(out.size() - left);
  return ok;
}

int Fail(DWORD code) {
  SetLastError(code);
  return 0;
}

}  // namespace

int VRKW32_WINAPI MultiByteToWideChar(UINT code_page, DWORD flags, LPCSTR text, int length, LPWSTR wide,
                                      int wide_size) {
  if (!text || length < -1 || wide_size < 0 || (wide_size > 0 && !wide)) return Fail(kErrorInvalidParameter);
  // -1: up to and with the terminator.
  const size_t n = length == -1 ? std::strlen(text) + 1 : size_t(length);
  std::u16string converted;
  if (IsUtf8(code_page)) {
    bool invalid = false;
    converted = Widen(std::string_view(text, n), &invalid);
    if (invalid && (flags & kMbErrInvalidChars)) return Fail(kErrorNoUnicodeTranslation);
  } else {
    std::string bytes;
    if (!Iconv(IconvName(code_page), "UTF-16LE", text, n, bytes)) return Fail(kErrorInvalidParameter);
    converted.assign(reinterpret_cast<const char16_t*>(bytes.data()), bytes.size() / 2);
  }
  if (wide_size == 0) return int(converted.size());
  if (converted.size() > size_t(wide_size)) return Fail(kErrorInsufficientBuffer);
  std::memcpy(wide, converted.data(), 2 * converted.size());
  return int(converted.size());
}

int VRKW32_WINAPI WideCharToMultiByte(UINT code_page, DWORD flags, LPCWSTR wide, int length, LPSTR text, int size,
                                      LPCSTR, BOOL* used_default) {
  if (!wide || length < -1 || size < 0 || (size > 0 && !text)) return Fail(kErrorInvalidParameter);
  const size_t n = length == -1 ? WideLength(wide) + 1 : size_t(length);
  std::string converted;
  if (used_default) *used_default = kFalse;
  if (IsUtf8(code_page)) {
    converted = Narrow(std::u16string_view(wide, n));
    if ((flags & kWcErrInvalidChars) && Widen(converted) != std::u16string_view(wide, n)) {
      return Fail(kErrorNoUnicodeTranslation);
    }
  } else if (!Iconv("UTF-16LE", IconvName(code_page), reinterpret_cast<const char*>(wide), 2 * n, converted)) {
    return Fail(kErrorInvalidParameter);
  }
  if (size == 0) return int(converted.size());
  if (converted.size() > size_t(size)) return Fail(kErrorInsufficientBuffer);
  std::memcpy(text, converted.data(), converted.size());
  return int(converted.size());
}

UINT VRKW32_WINAPI GetACP() { return kCodePageUtf8; }
UINT VRKW32_WINAPI GetOEMCP() { return kCodePageUtf8; }
UINT VRKW32_WINAPI GetConsoleOutputCP() { return kCodePageUtf8; }

BOOL VRKW32_WINAPI GetCPInfo(UINT code_page, void* info) {
  if (!info || !IsValidCodePage(code_page)) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  // CPINFO: MaxCharSize, DefaultChar[2], LeadByte[12]; no double-byte pages.
  uint8_t record[20] = {};
  const UINT max_size = IsUtf8(code_page) ? 4 : 1;
  std::memcpy(record, &max_size, 4);
  record[4] = '?';
  std::memcpy(info, record, 18);
  return kTrue;
}

BOOL VRKW32_WINAPI IsValidCodePage(UINT code_page) {
  if (IsUtf8(code_page)) return kTrue;
  iconv_t cd = iconv_open("UTF-16LE", IconvName(code_page).c_str());
  if (cd == iconv_t(-1)) return kFalse;
  iconv_close(cd);
  return kTrue;
}

BOOL VRKW32_WINAPI IsDBCSLeadByteEx(UINT, BYTE) { return kFalse; }

int VRKW32_WINAPI lstrlenA(LPCSTR text) { return text ? int(std::strlen(text)) : 0; }
int VRKW32_WINAPI lstrlenW(LPCWSTR text) { return int(WideLength(text)); }

}  // namespace vrk::win32::kernel32
