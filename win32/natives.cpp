// Binding tables of the native modules, made from functions.inc, and the
// stubs that stand for everything else.
#include "win32/natives.h"

#include <strings.h>

#include <cstring>
#include <deque>
#include <mutex>
#include <string_view>

#include "win32/guest_call.h"

namespace vrk::win32 {
namespace {

constexpr NativeDll kServed[] = {
    {"KERNEL32.dll", "kernel32", true}, {"msvcrt.dll", "msvcrt", true},   {"ADVAPI32.dll", "advapi32", true},
    {"USER32.dll", "user32", true},     {"WS2_32.dll", "ws2_32", true}, {"ntdll.dll", "ntdll", true},
};

struct Row {
  const char* dll_id;
  const char* name;
  uint32_t address;
};

template <class T>
uint32_t Address(T* p) {
  return uint32_t(reinterpret_cast<uintptr_t>(p));
}

// Function addresses are not constant expressions, so the table is filled
// when the library loads; it allocates nothing.
#define W32_FUNCTION(dll, conv, ret, name, params) {#dll, #name, Address(&dll::name)},
#define W32_FUNCTION_ASM(dll, conv, ret, name, params, symbol) {#dll, #name, Address(&dll::name)},
#define W32_DATA(dll, type, name, suffix) {#dll, #name, Address(&dll::name)},
const Row kRows[] = {
#include "win32/functions.inc"
};
#undef W32_FUNCTION
#undef W32_FUNCTION_ASM
#undef W32_DATA

bool IsOrdinal(const char* key) { return reinterpret_cast<uintptr_t>(key) <= 0xFFFF; }

// "kernel32", "KERNEL32.DLL" and "kernel32.dll" name one module.
bool SameDllName(std::string_view wanted, const char* name) {
  const size_t n = std::strlen(name);
  if (wanted.size() == n && strncasecmp(wanted.data(), name, n) == 0) return true;
  return wanted.size() + 4 == n && strncasecmp(wanted.data(), name, wanted.size()) == 0 &&
         strcasecmp(name + wanted.size(), ".dll") == 0;
}

std::mutex g_stub_mutex;                 // guards the two lists below
std::deque<NativeDll> g_stub_only;       // stable addresses: handed out as handles
std::deque<std::string> g_stub_only_names;
struct StubEntry {
  std::string text;
  uint32_t thunk;
};
std::deque<StubEntry> g_stubs;

}  // namespace

const NativeDll* FindServedDll(const char* name) {
  if (!name) return nullptr;
  // A path or a drive in front of the name does not matter for these.
  const char* base = name;
  for (const char* p = name; *p; ++p) {
    if (*p == '\\' || *p == '/' || *p == ':') base = p + 1;
  }
  for (const NativeDll& dll : kServed) {
    if (SameDllName(base, dll.name)) return &dll;
  }
  return nullptr;
}

const NativeDll* StubOnlyDll(const char* name) {
  std::lock_guard<std::mutex> lock(g_stub_mutex);
  for (const NativeDll& dll : g_stub_only) {
    if (strcasecmp(dll.name, name) == 0) return &dll;
  }
  g_stub_only_names.emplace_back(name);
  g_stub_only.push_back({g_stub_only_names.back().c_str(), "", false});
  return &g_stub_only.back();
}

bool IsNativeDll(const void* handle) {
  for (const NativeDll& dll : kServed) {
    if (handle == &dll) return true;
  }
  std::lock_guard<std::mutex> lock(g_stub_mutex);
  for (const NativeDll& dll : g_stub_only) {
    if (handle == &dll) return true;
  }
  return false;
}

uint32_t ImplementedExport(const NativeDll& dll, const char* key) {
  if (!dll.served || !key || IsOrdinal(key)) return 0;
  // Names are compared with their case, as Windows does.
  for (const Row& row : kRows) {
    if (std::strcmp(row.dll_id, dll.id) == 0 && std::strcmp(row.name, key) == 0) return row.address;
  }
  return 0;
}

std::string ImportText(const NativeDll& dll, const char* key) {
  std::string text = dll.name;
  text += '!';
  if (IsOrdinal(key)) {
    text += '#' + std::to_string(reinterpret_cast<uintptr_t>(key));
  } else {
    text += key;
  }
  return text;
}

uint32_t BindImport(const NativeDll& dll, const char* key) {
  if (!key) return 0;
  if (const uint32_t address = ImplementedExport(dll, key)) return address;
  std::string text = ImportText(dll, key);
  std::lock_guard<std::mutex> lock(g_stub_mutex);
  for (const StubEntry& stub : g_stubs) {
    if (stub.text == text) return stub.thunk;
  }
  const char* note = dll.served ? nullptr : "no PE file of that name in the search folders";
  const uint32_t thunk = MakeStub(text, note);
  if (thunk) g_stubs.push_back({std::move(text), thunk});
  return thunk;
}

}  // namespace vrk::win32
