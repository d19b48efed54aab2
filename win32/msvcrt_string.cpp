// msvcrt.dll: the CRT heap, memory and string functions, characters of the
// "C" locale, and wide strings of 16-bit characters.
#include <errno.h>
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <algorithm>

#include "win32/context.h"
#include "win32/natives.h"
#include "win32/text.h"

namespace vrk::win32::msvcrt {
namespace {

// Sorting and searching call the guest's comparison function (cdecl).
thread_local uint32_t t_compare = 0;

int CompareThroughGuest(const void* a, const void* b) {
  const uint32_t args[2] = {AddressOf(a), AddressOf(b)};
  return int(CallFromNative(t_compare, args, 2));
}

bool Ascii(int c) { return c >= 0 && c < 128; }

LPSTR ToText(uint64_t value, bool negative, LPSTR to, int base) {
  if (!to || base < 2 || base > 36) return to;
  char digits[72];
  int n = 0;
  do {
    const int d = int(value % unsigned(base));
    digits[n++] = char(d < 10 ? '0' + d : 'a' + d - 10);
    value /= unsigned(base);
  } while (value);
  int i = 0;
  if (negative) to[i++] = '-';
  while (n) to[i++] = digits[--n];
  to[i] = '\0';
  return to;
}

}  // namespace

void* VRKW32_CDECL malloc(size_t size) {
  void* block = Ctx().process_heap().Alloc(size, false);
  if (!block) SetCrtErrno(ENOMEM);
  return block;
}

void* VRKW32_CDECL calloc(size_t count, size_t size) {
  if (size && count > UINT32_MAX / size) {
    SetCrtErrno(ENOMEM);
    return nullptr;
  }
  void* block = Ctx().process_heap().Alloc(count * size, true);
  if (!block) SetCrtErrno(ENOMEM);
  return block;
}

void* VRKW32_CDECL realloc(void* block, size_t size) {
  if (block && size == 0) {
    free(block);
    return nullptr;
  }
  void* grown = Ctx().process_heap().ReAlloc(block, size, false);
  if (!grown) SetCrtErrno(ENOMEM);
  return grown;
}

// A block that is not from this heap is left alone (Windows would corrupt
// its heap).
void VRKW32_CDECL free(void* block) {
  if (block) (void)Ctx().process_heap().Free(block);
}

size_t VRKW32_CDECL _msize(void* block) { return Ctx().process_heap().Size(block); }

// The block's own address sits in the word below the aligned address.
void* VRKW32_CDECL _aligned_malloc(size_t size, size_t alignment) {
  if (alignment == 0 || (alignment & (alignment - 1)) || size > UINT32_MAX - alignment - 4) {
    SetCrtErrno(EINVAL);
    return nullptr;
  }
  if (alignment < 4) alignment = 4;
  auto* raw = static_cast<uint8_t*>(malloc(size + alignment + 4));
  if (!raw) return nullptr;
  const uint32_t aligned = (AddressOf(raw) + 4 + alignment - 1) & ~uint32_t(alignment - 1);
  std::memcpy(reinterpret_cast<void*>(uintptr_t(aligned - 4)), &raw, 4);
  return reinterpret_cast<void*>(uintptr_t(aligned));
}

void VRKW32_CDECL _aligned_free(void* block) {
  if (!block) return;
  void* raw = nullptr;
  std::memcpy(&raw, static_cast<uint8_t*>(block) - 4, 4);
  free(raw);
}

void* VRKW32_CDECL memcpy(void* to, const void* from, size_t size) { return std::memcpy(to, from, size); }
void* VRKW32_CDECL memmove(void* to, const void* from, size_t size) { return std::memmove(to, from, size); }
void* VRKW32_CDECL memset(void* to, int value, size_t size) { return std::memset(to, value, size); }
int VRKW32_CDECL memcmp(const void* a, const void* b, size_t size) { return std::memcmp(a, b, size); }
void* VRKW32_CDECL memchr(const void* block, int value, size_t size) {
  return const_cast<void*>(std::memchr(block, value, size));
}
size_t VRKW32_CDECL strlen(LPCSTR text) { return std::strlen(text); }
size_t VRKW32_CDECL strnlen(LPCSTR text, size_t limit) { return ::strnlen(text, limit); }
int VRKW32_CDECL strcmp(LPCSTR a, LPCSTR b) { return std::strcmp(a, b); }
int VRKW32_CDECL strncmp(LPCSTR a, LPCSTR b, size_t limit) { return std::strncmp(a, b, limit); }
int VRKW32_CDECL _stricmp(LPCSTR a, LPCSTR b) { return strcasecmp(a, b); }
int VRKW32_CDECL _strnicmp(LPCSTR a, LPCSTR b, size_t limit) { return strncasecmp(a, b, limit); }
// The "C" locale collates by byte value.
int VRKW32_CDECL strcoll(LPCSTR a, LPCSTR b) { return std::strcmp(a, b); }
LPSTR VRKW32_CDECL strcpy(LPSTR to, LPCSTR from) { return std::strcpy(to, from); }
LPSTR VRKW32_CDECL strncpy(LPSTR to, LPCSTR from, size_t limit) { return std::strncpy(to, from, limit); }
LPSTR VRKW32_CDECL strcat(LPSTR to, LPCSTR from) { return std::strcat(to, from); }
LPSTR VRKW32_CDECL strncat(LPSTR to, LPCSTR from, size_t limit) { return std::strncat(to, from, limit); }
LPSTR VRKW32_CDECL strchr(LPCSTR text, int c) { return const_cast<LPSTR>(std::strchr(text, c)); }
LPSTR VRKW32_CDECL strrchr(LPCSTR text, int c) { return const_cast<LPSTR>(std::strrchr(text, c)); }
LPSTR VRKW32_CDECL strstr(LPCSTR text, LPCSTR part) { return const_cast<LPSTR>(std::strstr(text, part)); }
LPSTR VRKW32_CDECL strpbrk(LPCSTR text, LPCSTR set) { return const_cast<LPSTR>(std::strpbrk(text, set)); }
size_t VRKW32_CDECL strspn(LPCSTR text, LPCSTR set) { return std::strspn(text, set); }
size_t VRKW32_CDECL strcspn(LPCSTR text, LPCSTR set) { return std::strcspn(text, set); }

LPSTR VRKW32_CDECL strtok(LPSTR text, LPCSTR separators) {
  return strtok_r(text, separators, &Thread().strtok_next);
}

LPSTR VRKW32_CDECL _strdup(LPCSTR text) {
  if (!text) return nullptr;
  const size_t n = std::strlen(text) + 1;
  auto* copy = static_cast<LPSTR>(malloc(n));
  if (copy) std::memcpy(copy, text, n);
  return copy;
}

LPSTR VRKW32_CDECL strerror(int number) { return std::strerror(number); }

size_t VRKW32_CDECL strxfrm(LPSTR to, LPCSTR from, size_t size) {
  const size_t n = std::strlen(from);
  if (to && n < size) std::memcpy(to, from, n + 1);
  return n;
}

int VRKW32_CDECL atoi(LPCSTR text) { return std::atoi(text); }
LONG VRKW32_CDECL atol(LPCSTR text) { return std::atol(text); }
double VRKW32_CDECL atof(LPCSTR text) { return std::atof(text); }

LONG VRKW32_CDECL strtol(LPCSTR text, char** end, int base) {
  errno = 0;
  const LONG value = std::strtol(text, end, base);
  if (errno) SetCrtErrno(errno);
  return value;
}

ULONG VRKW32_CDECL strtoul(LPCSTR text, char** end, int base) {
  errno = 0;
  const ULONG value = std::strtoul(text, end, base);
  if (errno) SetCrtErrno(errno);
  return value;
}

double VRKW32_CDECL strtod(LPCSTR text, char** end) {
  errno = 0;
  const double value = std::strtod(text, end);
  if (errno) SetCrtErrno(errno);
  return value;
}

LPSTR VRKW32_CDECL _ultoa(ULONG value, LPSTR to, int base) { return ToText(value, false, to, base); }

LPSTR VRKW32_CDECL _itoa(int value, LPSTR to, int base) {
  // Only base 10 shows a sign; other bases show the two's complement.
  const bool negative = base == 10 && value < 0;
  return ToText(negative ? uint64_t(-int64_t(value)) : uint64_t(uint32_t(value)), negative, to, base);
}

void VRKW32_CDECL qsort(void* base, size_t count, size_t size, uint32_t compare) {
  const uint32_t outer = std::exchange(t_compare, compare);
  std::qsort(base, count, size, CompareThroughGuest);
  t_compare = outer;
}

void* VRKW32_CDECL bsearch(const void* key, const void* base, size_t count, size_t size, uint32_t compare) {
  const uint32_t outer = std::exchange(t_compare, compare);
  void* found = std::bsearch(key, base, count, size, CompareThroughGuest);
  t_compare = outer;
  return found;
}

int VRKW32_CDECL abs(int value) { return value < 0 ? -value : value; }
LONG VRKW32_CDECL labs(LONG value) { return value < 0 ? -value : value; }

// The "C" locale: only ASCII characters have classes.
int VRKW32_CDECL isalnum(int c) { return Ascii(c) && std::isalnum(c); }
int VRKW32_CDECL isalpha(int c) { return Ascii(c) && std::isalpha(c); }
int VRKW32_CDECL iscntrl(int c) { return Ascii(c) && std::iscntrl(c); }
int VRKW32_CDECL isdigit(int c) { return Ascii(c) && std::isdigit(c); }
int VRKW32_CDECL isgraph(int c) { return Ascii(c) && std::isgraph(c); }
int VRKW32_CDECL islower(int c) { return Ascii(c) && std::islower(c); }
int VRKW32_CDECL isprint(int c) { return Ascii(c) && std::isprint(c); }
int VRKW32_CDECL ispunct(int c) { return Ascii(c) && std::ispunct(c); }
int VRKW32_CDECL isspace(int c) { return Ascii(c) && std::isspace(c); }
int VRKW32_CDECL isupper(int c) { return Ascii(c) && std::isupper(c); }
int VRKW32_CDECL isxdigit(int c) { return Ascii(c) && std::isxdigit(c); }
int VRKW32_CDECL tolower(int c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; }
int VRKW32_CDECL toupper(int c) { return c >= 'a' && c <= 'z' ? c - 32 : c; }

size_t VRKW32_CDECL wcslen(LPCWSTR text) { return WideLength(text); }

int VRKW32_CDECL wcscmp(LPCWSTR a, LPCWSTR b) {
  while (*a && *a == *b) ++a, ++b;
  return *a == *b ? 0 : *a < *b ? -1 : 1;
}

LPWSTR VRKW32_CDECL wcscpy(LPWSTR to, LPCWSTR from) {
  std::memmove(to, from, 2 * (WideLength(from) + 1));
  return to;
}

LPWSTR VRKW32_CDECL wcscat(LPWSTR to, LPCWSTR from) {
  wcscpy(to + WideLength(to), from);
  return to;
}

LPWSTR VRKW32_CDECL wcschr(LPCWSTR text, WCHAR c) {
  for (;; ++text) {
    if (*text == c) return const_cast<LPWSTR>(text);
    if (!*text) return nullptr;
  }
}

// Multibyte text is UTF-8, the layer's ANSI code page.
size_t VRKW32_CDECL wcstombs(LPSTR to, LPCWSTR from, size_t size) {
  const std::string text = Narrow(from);
  if (!to) return text.size();
  const size_t n = std::min(text.size(), size);
  std::memcpy(to, text.data(), n);
  if (n < size) to[n] = '\0';
  return n;
}

size_t VRKW32_CDECL mbstowcs(LPWSTR to, LPCSTR from, size_t size) {
  const std::u16string text = Widen(from);
  if (!to) return text.size();
  const size_t n = std::min(text.size(), size);
  std::memcpy(to, text.data(), 2 * n);
  if (n < size) to[n] = u'\0';
  return n;
}

int VRKW32_CDECL towlower(int c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; }
int VRKW32_CDECL towupper(int c) { return c >= 'a' && c <= 'z' ? c - 32 : c; }

}  // namespace vrk::win32::msvcrt

namespace vrk::win32::msvcrt {

// Character classes of the "C" locale with msvcrt's mask bits.
int VRKW32_CDECL iswctype(int c, int mask) {
  if (c < 0 || c >= 128) return 0;
  int classes = 0;
  if (std::isupper(c)) classes |= 0x1;
  if (std::islower(c)) classes |= 0x2;
  if (std::isdigit(c)) classes |= 0x4;
  if (std::isspace(c)) classes |= 0x8;
  if (std::ispunct(c)) classes |= 0x10;
  if (std::iscntrl(c)) classes |= 0x20;
  if (c == ' ' || c == '\t') classes |= 0x40;
  if (std::isxdigit(c)) classes |= 0x80;
  if (std::isalpha(c)) classes |= 0x100;
  return classes & mask;
}

int VRKW32_CDECL wcscoll(LPCWSTR a, LPCWSTR b) { return wcscmp(a, b); }

size_t VRKW32_CDECL wcsxfrm(LPWSTR to, LPCWSTR from, size_t size) {
  const size_t n = WideLength(from);
  if (to && n < size) std::memcpy(to, from, 2 * (n + 1));
  return n;
}

}  // namespace vrk::win32::msvcrt
