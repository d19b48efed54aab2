// KERNEL32.dll: the process, its threads and modules, errors and time.
#include <errno.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "win32/context.h"
#include "win32/natives.h"
#include "win32/text.h"

namespace vrk::win32::kernel32 {
namespace {

const HANDLE kCurrentProcess = reinterpret_cast<HANDLE>(~uintptr_t(0));
const HANDLE kCurrentThread = reinterpret_cast<HANDLE>(~uintptr_t(1));
constexpr DWORD kModuleFromAddress = 4;  // GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS
// 100-ns intervals from 1601-01-01 to 1970-01-01.
constexpr uint64_t kUnixEpochAsFileTime = 116444736000000000ull;

// OSVERSIONINFO(EX)A/W sizes that callers put in dwOSVersionInfoSize.
constexpr DWORD kVersionInfoA = 148, kVersionInfoExA = 156;
constexpr DWORD kVersionInfoW = 276, kVersionInfoExW = 284;

struct SystemTime {
  WORD year, month, day_of_week, day, hour, minute, second, milliseconds;
};

uint64_t NowAsFileTime() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return kUnixEpochAsFileTime + uint64_t(now.tv_sec) * 10000000u + uint64_t(now.tv_nsec) / 100u;
}

uint64_t MonotonicNanoseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

bool ToSystemTime(uint64_t file_time, SystemTime& out) {
  const uint64_t since_1601 = file_time / 10000000u;
  if (since_1601 < kUnixEpochAsFileTime / 10000000u) return false;  // before 1970: not needed here
  const time_t seconds = time_t(since_1601 - kUnixEpochAsFileTime / 10000000u);
  tm parts;
  if (!gmtime_r(&seconds, &parts)) return false;
  out = {WORD(parts.tm_year + 1900), WORD(parts.tm_mon + 1), WORD(parts.tm_wday), WORD(parts.tm_mday),
         WORD(parts.tm_hour),        WORD(parts.tm_min),     WORD(parts.tm_sec),  WORD(file_time / 10000 % 1000)};
  return true;
}

void FillVersion(uint8_t* info, bool wide) {
  const Peb& peb = *Ctx().peb();
  DWORD fields[4] = {peb.os_major_version, peb.os_minor_version, peb.os_build_number, peb.os_platform_id};
  std::memcpy(info + 4, fields, sizeof fields);
  std::memset(info + 20, 0, wide ? 256 : 128);  // szCSDVersion: no service pack
}

// The module a name or address leads to, as GetModuleHandleEx sees it.
HMODULE ModuleFromAddress(const void* address) {
  const PELOAD_MODULE* m = Ctx().ModuleAt(AddressOf(address));
  if (!m) return nullptr;
  return static_cast<const PELOAD_IMAGE*>(m->handle)->image;
}

std::string ModuleFileName(HMODULE module) {
  if (!module) module = Ctx().main_module();
  if (IsNativeDll(module)) return std::string("C:\\Windows\\System32\\") + static_cast<const NativeDll*>(module)->name;
  for (const LoadedModule& m : Ctx().modules()) {
    if (m.entry && static_cast<const PELOAD_IMAGE*>(m.entry->handle)->image == module) return WindowsPath(m.path);
  }
  return "";
}

// GetModuleFileName cuts a name that does not fit, and says so.
DWORD CopyTruncated(std::string_view text, LPSTR buffer, DWORD size) {
  if (size == 0 || !buffer) return 0;
  const DWORD n = DWORD(std::min<size_t>(text.size(), size - 1));
  std::memcpy(buffer, text.data(), n);
  buffer[n] = '\0';
  if (n < text.size()) {
    SetLastError(kErrorInsufficientBuffer);
    return size;
  }
  return n;
}

void PutFileTime(void* out, uint64_t value) {
  if (out) std::memcpy(out, &value, 8);
}

uint64_t FileTimeOf(const timeval& t) { return uint64_t(t.tv_sec) * 10000000u + uint64_t(t.tv_usec) * 10u; }

// When the process (more exactly: this library) started, for GetProcessTimes.
const uint64_t kProcessStart = NowAsFileTime();

// System messages that FormatMessage knows, with Windows' wording.
const char* SystemMessage(DWORD id) {
  switch (id) {
    case kErrorSuccess: return "The operation completed successfully.";
    case kErrorFileNotFound: return "The system cannot find the file specified.";
    case kErrorPathNotFound: return "The system cannot find the path specified.";
    case kErrorAccessDenied: return "Access is denied.";
    case kErrorInvalidHandle: return "The handle is invalid.";
    case kErrorNotEnoughMemory: return "Not enough memory resources are available to process this command.";
    case kErrorFileExists: return "The file exists.";
    case kErrorInvalidParameter: return "The parameter is incorrect.";
    case kErrorCallNotImplemented: return "This function is not supported on this system.";
    case kErrorInsufficientBuffer: return "The data area passed to a system call is too small.";
    case kErrorModNotFound: return "The specified module could not be found.";
    case kErrorProcNotFound: return "The specified procedure could not be found.";
    case kErrorAlreadyExists: return "Cannot create a file when that file already exists.";
    case kErrorEnvvarNotFound: return "The system could not find the environment option that was entered.";
    default: return nullptr;
  }
}

HMODULE Loaded(HMODULE module) {
  if (!module) SetLastError(kErrorModNotFound);
  return module;
}

}  // namespace

DWORD VRKW32_WINAPI GetLastError() { return Thread().teb->last_error; }
void VRKW32_WINAPI SetLastError(DWORD code) { win32::SetLastError(code); }
HANDLE VRKW32_WINAPI GetCurrentProcess() { return kCurrentProcess; }
DWORD VRKW32_WINAPI GetCurrentProcessId() { return DWORD(getpid()); }
HANDLE VRKW32_WINAPI GetCurrentThread() { return kCurrentThread; }
DWORD VRKW32_WINAPI GetCurrentThreadId() { return DWORD(Thread().tid); }

void VRKW32_WINAPI ExitProcess(UINT code) { EndWithExit(code, "ExitProcess"); }
void VRKW32_WINAPI ExitThread(DWORD code) { EndWithExit(code, "ExitThread"); }

BOOL VRKW32_WINAPI TerminateProcess(HANDLE process, UINT code) {
  if (process == kCurrentProcess) EndWithExit(code, "TerminateProcess");
  SetLastError(kErrorAccessDenied);
  return kFalse;
}

BOOL VRKW32_WINAPI IsDebuggerPresent() { return kFalse; }
// Without a debugger attached, Windows drops these texts too.
void VRKW32_WINAPI OutputDebugStringA(LPCSTR) {}
void VRKW32_WINAPI OutputDebugStringW(LPCWSTR) {}

DWORD VRKW32_WINAPI GetVersion() {
  const Peb& peb = *Ctx().peb();
  return DWORD(peb.os_build_number) << 16 | peb.os_minor_version << 8 | peb.os_major_version;
}

// OSVERSIONINFO(EX)A/W: the caller states the size of the record it passes;
// the EX form adds service pack, suite and product type after the base one.
static BOOL GetVersionExFor(void* info, bool wide) {
  auto* bytes = static_cast<uint8_t*>(info);
  const DWORD base = wide ? kVersionInfoW : kVersionInfoA;
  const DWORD extended = wide ? kVersionInfoExW : kVersionInfoExA;
  DWORD size = 0;
  if (bytes) std::memcpy(&size, bytes, 4);
  if (size != base && size != extended) {
    SetLastError(kErrorInsufficientBuffer);
    return kFalse;
  }
  FillVersion(bytes, wide);
  if (size == extended) {
    std::memset(bytes + base, 0, 8);  // service pack, suite, product type
    bytes[base + 6] = 1;              // VER_NT_WORKSTATION
  }
  return kTrue;
}

BOOL VRKW32_WINAPI GetVersionExA(void* info) { return GetVersionExFor(info, false); }
BOOL VRKW32_WINAPI GetVersionExW(void* info) { return GetVersionExFor(info, true); }

void VRKW32_WINAPI GetSystemInfo(void* info) {
  struct {
    WORD architecture, reserved;
    DWORD page_size, minimum_address, maximum_address, active_mask, processors, processor_type, granularity;
    WORD level, revision;
  } si = {0, 0, 4096, 0x10000, 0x7FFEFFFF, 0, 0, 586, 0x10000, 6, 0};
  static_assert(sizeof si == 36);
  si.processors = Ctx().peb()->number_of_processors;
  si.active_mask = si.processors >= 32 ? 0xFFFFFFFF : (1u << si.processors) - 1;
  std::memcpy(info, &si, sizeof si);
}

void VRKW32_WINAPI GetNativeSystemInfo(void* info) { GetSystemInfo(info); }

BOOL VRKW32_WINAPI GetProcessAffinityMask(HANDLE, DWORD* process_mask, DWORD* system_mask) {
  const DWORD n = Ctx().peb()->number_of_processors;
  const DWORD mask = n >= 32 ? 0xFFFFFFFF : (1u << n) - 1;
  if (process_mask) *process_mask = mask;
  if (system_mask) *system_mask = mask;
  return kTrue;
}

void VRKW32_WINAPI GetStartupInfoA(void* info) {
  std::memset(info, 0, 68);
  const DWORD size = 68;
  std::memcpy(info, &size, 4);
}

void VRKW32_WINAPI GetStartupInfoW(void* info) { GetStartupInfoA(info); }

LPSTR VRKW32_WINAPI GetCommandLineA() {
  static char line[] = "vrkw32.exe";
  return line;
}

LPWSTR VRKW32_WINAPI GetCommandLineW() {
  static char16_t line[] = u"vrkw32.exe";
  return line;
}

DWORD VRKW32_WINAPI GetEnvironmentVariableA(LPCSTR name, LPSTR buffer, DWORD size) {
  const char* value = name ? std::getenv(name) : nullptr;
  if (!value) {
    SetLastError(kErrorEnvvarNotFound);
    return 0;
  }
  return CopyOut(value, buffer, size);
}

DWORD VRKW32_WINAPI GetEnvironmentVariableW(LPCWSTR name, LPWSTR buffer, DWORD size) {
  const char* value = name ? std::getenv(Narrow(name).c_str()) : nullptr;
  if (!value) {
    SetLastError(kErrorEnvvarNotFound);
    return 0;
  }
  return CopyOut(Widen(value), buffer, size);
}

HMODULE VRKW32_WINAPI GetModuleHandleA(LPCSTR name) { return Loaded(Ctx().FindModule(name)); }

HMODULE VRKW32_WINAPI GetModuleHandleW(LPCWSTR name) {
  return Loaded(name ? Ctx().FindModule(Narrow(name).c_str()) : Ctx().main_module());
}

BOOL VRKW32_WINAPI GetModuleHandleExA(DWORD flags, LPCSTR name, HMODULE* module) {
  if (!module) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  *module = Loaded(flags & kModuleFromAddress ? ModuleFromAddress(name) : Ctx().FindModule(name));
  return *module ? kTrue : kFalse;
}

BOOL VRKW32_WINAPI GetModuleHandleExW(DWORD flags, LPCWSTR name, HMODULE* module) {
  if (flags & kModuleFromAddress || !name) return GetModuleHandleExA(flags, reinterpret_cast<LPCSTR>(name), module);
  return GetModuleHandleExA(flags, Narrow(name).c_str(), module);
}

DWORD VRKW32_WINAPI GetModuleFileNameA(HMODULE module, LPSTR buffer, DWORD size) {
  const std::string name = ModuleFileName(module);
  if (name.empty()) {
    SetLastError(kErrorModNotFound);
    return 0;
  }
  return CopyTruncated(name, buffer, size);
}

DWORD VRKW32_WINAPI GetModuleFileNameW(HMODULE module, LPWSTR buffer, DWORD size) {
  const std::u16string name = Widen(ModuleFileName(module));
  if (name.empty()) {
    SetLastError(kErrorModNotFound);
    return 0;
  }
  if (size == 0 || !buffer) return 0;
  const DWORD n = DWORD(std::min<size_t>(name.size(), size - 1));
  std::memcpy(buffer, name.data(), 2 * n);
  buffer[n] = u'\0';
  if (n < name.size()) {
    SetLastError(kErrorInsufficientBuffer);
    return size;
  }
  return n;
}

HMODULE VRKW32_WINAPI LoadLibraryA(LPCSTR name) { return Loaded(Ctx().LoadFromGuest(name)); }
HMODULE VRKW32_WINAPI LoadLibraryW(LPCWSTR name) { return name ? LoadLibraryA(Narrow(name).c_str()) : Loaded(nullptr); }
HMODULE VRKW32_WINAPI LoadLibraryExA(LPCSTR name, HANDLE, DWORD) { return LoadLibraryA(name); }
HMODULE VRKW32_WINAPI LoadLibraryExW(LPCWSTR name, HANDLE, DWORD) { return LoadLibraryW(name); }

BOOL VRKW32_WINAPI FreeLibrary(HMODULE module) {
  if (IsNativeDll(module)) return kTrue;
  PELOAD_MODULE* entry = Ctx().EntryOf(module);
  if (!entry) {
    SetLastError(kErrorModNotFound);
    return kFalse;
  }
  // Images stay until the context ends; only the count goes down.
  return PELOAD_FreeLibrary(entry);
}

FARPROC VRKW32_WINAPI GetProcAddress(HMODULE module, LPCSTR name) {
  uint32_t address = 0;
  if (IsNativeDll(module)) {
    // Only what is implemented: callers probe for optional functions and
    // must see the absent ones as absent, not as stubs.
    address = ImplementedExport(*static_cast<const NativeDll*>(module), name);
  } else if (PELOAD_MODULE* entry = Ctx().EntryOf(module)) {
    address = PELOAD_GetProcAddress(entry, name);
  }
  if (!address) SetLastError(kErrorProcNotFound);
  return reinterpret_cast<FARPROC>(uintptr_t(address));
}

BOOL VRKW32_WINAPI DisableThreadLibraryCalls(HMODULE) { return kTrue; }

// No structured exception reaches guest handlers here: a fault ends the
// call. Registrations are accepted so that start-up code goes on.
void* VRKW32_WINAPI AddVectoredExceptionHandler(ULONG, void* handler) { return handler; }
ULONG VRKW32_WINAPI RemoveVectoredExceptionHandler(void* handle) { return handle ? 1 : 0; }
void* VRKW32_WINAPI SetUnhandledExceptionFilter(void*) { return nullptr; }

void VRKW32_WINAPI RaiseException(DWORD code, DWORD, DWORD, const ULONG_PTR*) {
  EndWithException(code, AddressOf(__builtin_return_address(0)));
}

UINT VRKW32_WINAPI SetErrorMode(UINT) { return 0; }

// Guest code runs on host threads at the host's priority.
int VRKW32_WINAPI GetThreadPriority(HANDLE) { return 0; }  // THREAD_PRIORITY_NORMAL
BOOL VRKW32_WINAPI SetThreadPriority(HANDLE, int) { return kTrue; }

BOOL VRKW32_WINAPI GetProcessTimes(HANDLE, void* creation, void* exit, void* kernel, void* user) {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  PutFileTime(creation, kProcessStart);
  PutFileTime(exit, 0);
  PutFileTime(kernel, FileTimeOf(usage.ru_stime));
  PutFileTime(user, FileTimeOf(usage.ru_utime));
  return kTrue;
}

BOOL VRKW32_WINAPI GetThreadTimes(HANDLE, void* creation, void* exit, void* kernel, void* user) {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  PutFileTime(creation, kProcessStart);
  PutFileTime(exit, 0);
  PutFileTime(kernel, FileTimeOf(usage.ru_stime));
  PutFileTime(user, FileTimeOf(usage.ru_utime));
  return kTrue;
}

BOOL VRKW32_WINAPI GetExitCodeProcess(HANDLE process, DWORD* code) {
  if (process != kCurrentProcess || !code) {
    SetLastError(kErrorInvalidHandle);
    return kFalse;
  }
  *code = 259;  // STILL_ACTIVE
  return kTrue;
}

// Only the process itself can be opened.
HANDLE VRKW32_WINAPI OpenProcess(DWORD, BOOL, DWORD id) {
  if (id == DWORD(getpid())) return kCurrentProcess;
  SetLastError(kErrorInvalidParameter);
  return nullptr;
}

BOOL VRKW32_WINAPI GetComputerNameA(LPSTR buffer, DWORD* size) {
  char name[256] = "localhost";
  gethostname(name, sizeof name - 1);
  const DWORD n = DWORD(std::strlen(name));
  if (!size || !buffer || *size <= n) {
    if (size) *size = n + 1;
    SetLastError(111);  // ERROR_BUFFER_OVERFLOW
    return kFalse;
  }
  std::memcpy(buffer, name, n + 1);
  *size = n;
  return kTrue;
}

BOOL VRKW32_WINAPI GetComputerNameW(LPWSTR buffer, DWORD* size) {
  char name[256] = "localhost";
  gethostname(name, sizeof name - 1);
  const std::u16string wide = Widen(name);
  if (!size || !buffer || *size <= wide.size()) {
    if (size) *size = DWORD(wide.size() + 1);
    SetLastError(111);
    return kFalse;
  }
  std::memcpy(buffer, wide.c_str(), 2 * (wide.size() + 1));
  *size = DWORD(wide.size());
  return kTrue;
}

// System messages (a few) and plain strings; inserts are not expanded.
DWORD VRKW32_WINAPI FormatMessageA(DWORD flags, LPCVOID source, DWORD id, DWORD, LPSTR buffer, DWORD size, void*) {
  constexpr DWORD kAllocateBuffer = 0x100, kFromString = 0x400, kFromSystem = 0x1000;
  std::string text;
  if (flags & kFromString) {
    text = source ? static_cast<LPCSTR>(source) : "";
  } else if (const char* message = flags & kFromSystem ? SystemMessage(id) : nullptr) {
    text = std::string(message) + "\r\n";
  } else {
    SetLastError(317);  // ERROR_MR_MID_NOT_FOUND
    return 0;
  }
  if (flags & kAllocateBuffer) {
    auto* block = static_cast<LPSTR>(Ctx().process_heap().Alloc(uint32_t(text.size() + 1), false));
    if (!block || !buffer) {
      SetLastError(kErrorNotEnoughMemory);
      return 0;
    }
    std::memcpy(block, text.c_str(), text.size() + 1);
    std::memcpy(buffer, &block, sizeof block);  // buffer is an LPSTR* here
    return DWORD(text.size());
  }
  if (!buffer || size <= text.size()) {
    SetLastError(kErrorInsufficientBuffer);
    return 0;
  }
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return DWORD(text.size());
}

// UTC, no daylight saving: TIME_ZONE_ID_UNKNOWN with a zero bias.
DWORD VRKW32_WINAPI GetTimeZoneInformation(void* info) {
  std::memset(info, 0, 172);
  return 0;
}

BOOL VRKW32_WINAPI GetSystemTimeAdjustment(DWORD* adjustment, DWORD* increment, BOOL* disabled) {
  *adjustment = *increment = 156250;  // 15.625 ms, the usual clock interval
  *disabled = kTrue;
  return kTrue;
}

UINT VRKW32_WINAPI GetThreadLocale() { return 0x0409; }  // en-US
UINT VRKW32_WINAPI GetUserDefaultLCID() { return 0x0409; }

namespace {

// %NAME% becomes the variable's value; an unknown name stays as written.
std::string Expand(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    const size_t close = text[i] == '%' ? text.find('%', i + 1) : std::string_view::npos;
    const char* value = nullptr;
    if (close != std::string_view::npos) value = std::getenv(std::string(text.substr(i + 1, close - i - 1)).c_str());
    if (value) {
      out += value;
      i = close + 1;
    } else {
      out += text[i++];
    }
  }
  return out;
}

}  // namespace

// The size needed, terminator included, whether or not it fits.
DWORD VRKW32_WINAPI ExpandEnvironmentStringsA(LPCSTR text, LPSTR buffer, DWORD size) {
  const std::string expanded = Expand(text ? text : "");
  if (buffer && size > expanded.size()) std::memcpy(buffer, expanded.c_str(), expanded.size() + 1);
  return DWORD(expanded.size() + 1);
}

DWORD VRKW32_WINAPI ExpandEnvironmentStringsW(LPCWSTR text, LPWSTR buffer, DWORD size) {
  const std::u16string expanded = Widen(Expand(Narrow(text)));
  if (buffer && size > expanded.size()) std::memcpy(buffer, expanded.c_str(), 2 * (expanded.size() + 1));
  return DWORD(expanded.size() + 1);
}

DWORD VRKW32_WINAPI GetPriorityClass(HANDLE) { return 0x20; }  // NORMAL_PRIORITY_CLASS

// Windows' default working-set bounds; the host sets none.
BOOL VRKW32_WINAPI GetProcessWorkingSetSize(HANDLE, SIZE_T* minimum, SIZE_T* maximum) {
  if (minimum) *minimum = 204800;
  if (maximum) *maximum = 1413120;
  return kTrue;
}

// The environment is the host process's.
BOOL VRKW32_WINAPI SetEnvironmentVariableA(LPCSTR name, LPCSTR value) {
  if (!name || !*name || std::strchr(name, '=')) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  return (value ? setenv(name, value, 1) : unsetenv(name)) == 0 ? kTrue : kFalse;
}

BOOL VRKW32_WINAPI SetEnvironmentVariableW(LPCWSTR name, LPCWSTR value) {
  return SetEnvironmentVariableA(name ? Narrow(name).c_str() : nullptr, value ? Narrow(value).c_str() : nullptr);
}

void VRKW32_WINAPI Sleep(DWORD milliseconds) {
  timespec wait{time_t(milliseconds / 1000), long(milliseconds % 1000) * 1000000L};
  while (nanosleep(&wait, &wait) != 0 && errno == EINTR) {
  }
}

DWORD VRKW32_WINAPI SleepEx(DWORD milliseconds, BOOL) {
  Sleep(milliseconds);
  return 0;
}

DWORD VRKW32_WINAPI GetTickCount() { return DWORD(MonotonicNanoseconds() / 1000000u); }
ULONGLONG VRKW32_WINAPI GetTickCount64() { return MonotonicNanoseconds() / 1000000u; }

// The performance counter ticks at 10 MHz, as on current Windows.
BOOL VRKW32_WINAPI QueryPerformanceCounter(LONGLONG* count) {
  *count = LONGLONG(MonotonicNanoseconds() / 100u);
  return kTrue;
}

BOOL VRKW32_WINAPI QueryPerformanceFrequency(LONGLONG* frequency) {
  *frequency = 10000000;
  return kTrue;
}

void VRKW32_WINAPI GetSystemTimeAsFileTime(void* file_time) {
  const uint64_t now = NowAsFileTime();
  std::memcpy(file_time, &now, 8);
}

void VRKW32_WINAPI GetSystemTime(void* system_time) {
  SystemTime st{};
  (void)ToSystemTime(NowAsFileTime(), st);
  std::memcpy(system_time, &st, sizeof st);
}

// Local time is UTC: the layer has no time zone of its own.
void VRKW32_WINAPI GetLocalTime(void* system_time) { GetSystemTime(system_time); }

BOOL VRKW32_WINAPI FileTimeToSystemTime(const void* file_time, void* system_time) {
  uint64_t ft = 0;
  std::memcpy(&ft, file_time, 8);
  SystemTime st{};
  if (!ToSystemTime(ft, st)) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  std::memcpy(system_time, &st, sizeof st);
  return kTrue;
}

BOOL VRKW32_WINAPI SystemTimeToFileTime(const void* system_time, void* file_time) {
  SystemTime st;
  std::memcpy(&st, system_time, sizeof st);
  if (st.year < 1970 || st.month < 1 || st.month > 12 || st.day < 1 || st.day > 31 || st.hour > 23 ||
      st.minute > 59 || st.second > 59 || st.milliseconds > 999) {
    SetLastError(kErrorInvalidParameter);
    return kFalse;
  }
  tm parts{};
  parts.tm_year = st.year - 1900;
  parts.tm_mon = st.month - 1;
  parts.tm_mday = st.day;
  parts.tm_hour = st.hour;
  parts.tm_min = st.minute;
  parts.tm_sec = st.second;
  const int64_t seconds = int64_t(timegm(&parts));
  const uint64_t ft = kUnixEpochAsFileTime + uint64_t(seconds) * 10000000u + uint64_t(st.milliseconds) * 10000u;
  std::memcpy(file_time, &ft, 8);
  return kTrue;
}

}  // namespace vrk::win32::kernel32
