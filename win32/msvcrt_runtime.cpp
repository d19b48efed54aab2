// msvcrt.dll: start-up and exit, errno, locks, signals, locale, time.
#include <errno.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "win32/context.h"
#include "win32/natives.h"

#include "win32/text.h"

extern char** environ;

// setjmp and longjmp with msvcrt's jmp_buf: Ebp, Ebx, Edi, Esi, Esp, Eip,
// the SEH registration (fs:0), TryLevel, a cookie and the unwind function.
// The stack pointer saved is the caller's after the return, so longjmp
// lands as if _setjmp3 had just returned (with a value that is never 0).
__asm__(
    ".text\n"
    ".globl vrkw32_setjmp3\n"
    ".hidden vrkw32_setjmp3\n"
    ".type vrkw32_setjmp3, @function\n"
    "vrkw32_setjmp3:\n"
    "  mov 4(%esp), %edx\n"
    "  mov %ebp, 0(%edx)\n"
    "  mov %ebx, 4(%edx)\n"
    "  mov %edi, 8(%edx)\n"
    "  mov %esi, 12(%edx)\n"
    "  lea 4(%esp), %eax\n"
    "  mov %eax, 16(%edx)\n"
    "  mov (%esp), %eax\n"
    "  mov %eax, 20(%edx)\n"
    "  mov %fs:0, %eax\n"
    "  mov %eax, 24(%edx)\n"
    "  movl $-1, 28(%edx)\n"
    "  movl $0x56433230, 32(%edx)\n"
    "  movl $0, 36(%edx)\n"
    "  xor %eax, %eax\n"
    "  ret\n"
    ".size vrkw32_setjmp3, .-vrkw32_setjmp3\n"
    ".globl vrkw32_longjmp\n"
    ".hidden vrkw32_longjmp\n"
    ".type vrkw32_longjmp, @function\n"
    "vrkw32_longjmp:\n"
    "  mov 4(%esp), %edx\n"
    "  mov 8(%esp), %eax\n"
    "  test %eax, %eax\n"
    "  jnz 1f\n"
    "  inc %eax\n"
    "1:\n"
    "  mov 24(%edx), %ecx\n"
    "  mov %ecx, %fs:0\n"
    "  mov 0(%edx), %ebp\n"
    "  mov 4(%edx), %ebx\n"
    "  mov 8(%edx), %edi\n"
    "  mov 12(%edx), %esi\n"
    "  mov 16(%edx), %esp\n"
    "  jmp *20(%edx)\n"
    ".size vrkw32_longjmp, .-vrkw32_longjmp\n");

namespace vrk::win32 {

int CrtErrno(int number) {
  // 1 to 34 are the same numbers on both sides; msvcrt numbers the rest apart.
  if (number >= 1 && number <= 34) return number;
  switch (number) {
    case EDEADLK: return 36;
    case ENAMETOOLONG: return 38;
    case ENOLCK: return 39;
    case ENOSYS: return 40;
    case ENOTEMPTY: return 41;
    case EILSEQ: return 42;
    default: return 22;  // EINVAL
  }
}

void SetCrtErrno(int host_number) { Thread().crt_errno = CrtErrno(host_number); }

namespace msvcrt {

int __mb_cur_max = 1;  // the "C" locale: single bytes
int _fmode = 0;
int _commode = 0;
char** _environ = environ;

namespace {

constexpr int kLocks = 64;  // msvcrt's internal lock numbers stay below this
std::recursive_mutex g_locks[kLocks];

// Windows signal numbers and the guest's handlers for them, which only
// raise() calls: host signals never reach guest code.
constexpr int kSigAbrt = 22;
constexpr int kSignals = 23;
std::mutex g_signal_mutex;
uint32_t g_signal_handlers[kSignals];
constexpr uint32_t kSigDfl = 0, kSigIgn = 1, kSigErr = 0xFFFFFFFF;

// struct tm of msvcrt: nine ints, no time-zone fields.
struct CrtTm {
  int sec, min, hour, mday, mon, year, wday, yday, isdst;
};

tm HostTm(const void* when) {
  CrtTm t;
  std::memcpy(&t, when, sizeof t);
  tm parts{};
  parts.tm_sec = t.sec;
  parts.tm_min = t.min;
  parts.tm_hour = t.hour;
  parts.tm_mday = t.mday;
  parts.tm_mon = t.mon;
  parts.tm_year = t.year;
  parts.tm_wday = t.wday;
  parts.tm_yday = t.yday;
  parts.tm_isdst = t.isdst;
  return parts;
}

CrtTm* BrokenDown(const int32_t* when) {
  thread_local CrtTm result;
  if (!when || *when < 0) return nullptr;
  const time_t t = *when;
  tm parts;
  if (!gmtime_r(&t, &parts)) return nullptr;
  result = {parts.tm_sec,  parts.tm_min,  parts.tm_hour, parts.tm_mday, parts.tm_mon,
            parts.tm_year, parts.tm_wday, parts.tm_yday, 0};
  return &result;
}

}  // namespace

void VRKW32_CDECL _initterm(const uint32_t* begin, const uint32_t* end) {
  for (const uint32_t* p = begin; p < end; ++p) {
    if (*p) (void)CallFromNative(*p, nullptr, 0);
  }
}

int VRKW32_CDECL _initterm_e(const uint32_t* begin, const uint32_t* end) {
  for (const uint32_t* p = begin; p < end; ++p) {
    if (!*p) continue;
    if (const int result = int(CallFromNative(*p, nullptr, 0))) return result;
  }
  return 0;
}

void VRKW32_CDECL _lock(int which) {
  if (which >= 0 && which < kLocks) g_locks[which].lock();
}

void VRKW32_CDECL _unlock(int which) {
  if (which >= 0 && which < kLocks) g_locks[which].unlock();
}

void VRKW32_CDECL _amsg_exit(int code) { EndWithExit(uint32_t(code), "_amsg_exit"); }
void VRKW32_CDECL abort() { EndWithExit(3, "abort"); }
void VRKW32_CDECL exit(int code) { EndWithExit(uint32_t(code), "exit"); }
void VRKW32_CDECL _exit(int code) { EndWithExit(uint32_t(code), "_exit"); }
void VRKW32_CDECL _cexit() {}

int* VRKW32_CDECL _errno() { return &Thread().crt_errno; }

uint32_t VRKW32_CDECL _onexit(uint32_t function) {
  Ctx().AddAtExit(function);
  return function;
}

int VRKW32_CDECL atexit(uint32_t function) {
  Ctx().AddAtExit(function);
  return 0;
}

// A DLL's own table of exit functions, grown through the CRT heap.
uint32_t VRKW32_CDECL __dllonexit(uint32_t function, uint32_t** begin, uint32_t** end) {
  if (!begin || !end) return 0;
  const uint32_t used = *begin && *end >= *begin ? uint32_t(*end - *begin) : 0;
  Heap& heap = Ctx().process_heap();
  auto* table = static_cast<uint32_t*>(heap.Owns(*begin) || !*begin ? heap.ReAlloc(*begin, (used + 1) * 4, false)
                                                                     : nullptr);
  if (!table) return 0;
  table[used] = function;
  *begin = table;
  *end = table + used + 1;
  return function;
}

void VRKW32_CDECL _assert(LPCSTR message, LPCSTR file, UINT line) {
  std::fprintf(stderr, "Assertion failed: %s, file %s, line %u\n", message ? message : "?", file ? file : "?", line);
  EndWithExit(3, "_assert");
}

int VRKW32_CDECL __getmainargs(int* argc, char*** argv, char*** env, int, void*) {
  static char program[] = "vrkw32.exe";
  static char* arguments[] = {program, nullptr};
  if (argc) *argc = 1;
  if (argv) *argv = arguments;
  if (env) *env = environ;
  return 0;
}

void* VRKW32_CDECL __iob_func() { return _iob; }
void VRKW32_CDECL __setusermatherr(void*) {}

// The x87 control word stays the host's; the value callers see is
// bookkeeping of what they asked for.
unsigned VRKW32_CDECL _controlfp(unsigned value, unsigned mask) {
  static unsigned control = 0x9001F;  // _PC_53 | _MCW_EM, rounding to nearest
  control = (control & ~mask) | (value & mask);
  return control;
}

void VRKW32_CDECL _fpreset() { __asm__ volatile("fninit"); }

uint32_t VRKW32_CDECL signal(int number, uint32_t handler) {
  if (number <= 0 || number >= kSignals) {
    SetCrtErrno(EINVAL);
    return kSigErr;
  }
  std::lock_guard<std::mutex> lock(g_signal_mutex);
  const uint32_t previous = g_signal_handlers[number];
  g_signal_handlers[number] = handler;
  return previous;
}

int VRKW32_CDECL raise(int number) {
  if (number <= 0 || number >= kSignals) return -1;
  uint32_t handler;
  {
    std::lock_guard<std::mutex> lock(g_signal_mutex);
    handler = g_signal_handlers[number];
    if (handler != kSigIgn) g_signal_handlers[number] = kSigDfl;  // as msvcrt: reset before the call
  }
  if (handler == kSigIgn) return 0;
  if (handler == kSigDfl) EndWithExit(number == kSigAbrt ? 3 : uint32_t(number), "raise");
  const uint32_t args[1] = {uint32_t(number)};
  (void)CallFromNative(handler, args, 1);
  return 0;
}

LPSTR VRKW32_CDECL getenv(LPCSTR name) { return name ? std::getenv(name) : nullptr; }

// The environment is the host process's.
int VRKW32_CDECL _putenv(LPCSTR assignment) {
  const char* equals = assignment ? std::strchr(assignment, '=') : nullptr;
  if (!equals || equals == assignment) {
    SetCrtErrno(EINVAL);
    return -1;
  }
  const std::string name(assignment, equals);
  const int result = equals[1] ? setenv(name.c_str(), equals + 1, 1) : unsetenv(name.c_str());
  _environ = environ;
  return result == 0 ? 0 : -1;
}

// Only the "C" locale.
LPSTR VRKW32_CDECL setlocale(int, LPCSTR locale) {
  static char c_locale[] = "C";
  if (!locale || !*locale || std::strcmp(locale, "C") == 0) return c_locale;
  return nullptr;
}

void* VRKW32_CDECL localeconv() {
  static char point[] = ".", empty[] = "", no_grouping[] = "";
  struct {
    char *decimal_point, *thousands_sep, *grouping, *int_curr_symbol, *currency_symbol, *mon_decimal_point,
        *mon_thousands_sep, *mon_grouping, *positive_sign, *negative_sign;
    char int_frac_digits, frac_digits, p_cs_precedes, p_sep_by_space, n_cs_precedes, n_sep_by_space,
        p_sign_posn, n_sign_posn;
  } static conventions = {point, empty, no_grouping, empty, empty, empty, empty, empty, empty, empty,
                          127,   127,   127,         127,   127,   127,   127,   127};
  return &conventions;
}

int VRKW32_CDECL _getpid() { return getpid(); }

int32_t VRKW32_CDECL time(int32_t* out) {
  const int32_t now = int32_t(::time(nullptr));
  if (out) *out = now;
  return now;
}

// CLOCKS_PER_SEC is 1000 on Windows, and clock() counts wall time.
int32_t VRKW32_CDECL clock() {
  static const timespec start = [] {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t;
  }();
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int32_t((now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000);
}

void* VRKW32_CDECL gmtime(const int32_t* when) { return BrokenDown(when); }
// The layer has no time zone: local time is UTC.
void* VRKW32_CDECL localtime(const int32_t* when) { return BrokenDown(when); }

// msvcrt's generator, per thread.
int VRKW32_CDECL rand() {
  uint32_t& state = Thread().rand_state;
  state = state * 214013u + 2531011u;
  return int((state >> 16) & 0x7FFF);
}

void VRKW32_CDECL srand(UINT seed) { Thread().rand_state = seed; }

}  // namespace msvcrt
}  // namespace vrk::win32

namespace vrk::win32::msvcrt {

// struct _timeb of msvcrt.dll: 32-bit time, milliseconds, zone, DST flag.
void VRKW32_CDECL _ftime(void* out) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  uint8_t record[12] = {};
  const int32_t seconds = int32_t(now.tv_sec);
  const uint16_t milliseconds = uint16_t(now.tv_nsec / 1000000);
  std::memcpy(record, &seconds, 4);
  std::memcpy(record + 4, &milliseconds, 2);
  std::memcpy(out, record, sizeof record);
}

// The guest's format goes to the host's strftime as it is: both take the
// C89 conversions, and strftime reads no arguments besides the time.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
size_t VRKW32_CDECL strftime(LPSTR to, size_t size, LPCSTR format, const void* when) {
  if (!to || !format || !when) return 0;
  const tm parts = HostTm(when);
  return ::strftime(to, size, format, &parts);
}

size_t VRKW32_CDECL wcsftime(LPWSTR to, size_t size, LPCWSTR format, const void* when) {
  if (!to || !format || !when || size == 0) return 0;
  const tm parts = HostTm(when);
  char text[1024];
  const size_t n = ::strftime(text, sizeof text, Narrow(format).c_str(), &parts);
  const std::u16string wide = Widen(std::string_view(text, n));
  if (wide.size() >= size) return 0;
  std::memcpy(to, wide.c_str(), 2 * (wide.size() + 1));
  return wide.size();
}
#pragma GCC diagnostic pop

}  // namespace vrk::win32::msvcrt
