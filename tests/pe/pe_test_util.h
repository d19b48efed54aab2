// Shared helpers of the PE tests: memory-held virtual files, a process
// record whose native callbacks are scripted by the test, and file reading.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/leak_check.h"
#include "vrk_pe.h"
#include "vrk_standin_ctl.h"

namespace vrk::test {

// A virtual file over a byte vector (which must outlive it).
struct VFile : std::unique_ptr<void, void (*)(VFileHandle)> {
  VFile(std::vector<uint8_t>& bytes, int mode)
      : unique_ptr(vrkvfile_open_memory(bytes.data(), uint32_t(bytes.size()), mode), vrkvfile_close) {}
};

inline std::vector<uint8_t> ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Native modules served to the loader: name -> (export name or "#ordinal" ->
// address). Every callback is recorded in order.
struct Natives {
  std::map<std::string, std::map<std::string, uint32_t>> modules;
  std::vector<std::string> loads, frees, lookups;
  int live = 0;                    // handles given out and not yet freed
  bool accept_everything = false;  // any module, any export (a dummy address)

  static Natives& Get() {
    static Natives natives;
    return natives;
  }
  static void Reset() { Get() = Natives(); }

  static void* Load(const char* name, uint32_t, uint32_t) {
    Get().loads.push_back(name);
    if (!Get().accept_everything && !Get().modules.count(name)) return nullptr;
    ++Get().live;
    return new std::string(name);
  }
  static void Free(void* handle) {
    std::unique_ptr<std::string> name(static_cast<std::string*>(handle));
    Get().frees.push_back(*name);
    --Get().live;
  }
  static uint32_t GetProc(void* handle, const char* key) {
    const std::string& name = *static_cast<std::string*>(handle);
    const uintptr_t ordinal = reinterpret_cast<uintptr_t>(key);
    const std::string k = ordinal <= 0xFFFF ? "#" + std::to_string(ordinal) : key;
    Get().lookups.push_back(name + "!" + k);
    auto m = Get().modules.find(name);
    if (Get().accept_everything) return 0x1000;
    return m != Get().modules.end() && m->second.count(k) ? m->second.at(k) : 0;
  }
};

inline MODLOAD_PROCESS* NewProcess(VFileHandle first = nullptr) {
  return MODLOAD_CreateProcess(first, Natives::Load, Natives::Free, Natives::GetProc);
}

// A process record with one PE module loaded from its own copy of `bytes`
// (null when refused), torn down at the end of the scope.
struct Loaded {
  std::vector<uint8_t> bytes;
  VFile file;
  MODLOAD_PROCESS* p = NewProcess();
  PELOAD_MODULE* m;
  explicit Loaded(std::vector<uint8_t> image, int mode = VRKVFILE_COPY)
      : bytes(std::move(image)), file(bytes, mode), m(PELOAD_LoadLibraryEx(file.get(), p, 1)) {}
  ~Loaded() { MODLOAD_TerminateProcess(p); }
};

inline const PELOAD_IMAGE* ImageOf(const PELOAD_MODULE* m) { return static_cast<const PELOAD_IMAGE*>(m->handle); }
inline uint32_t Base(const PELOAD_MODULE* m) { return uint32_t(reinterpret_cast<uintptr_t>(ImageOf(m)->image)); }
inline const char* Ordinal(uint32_t n) { return reinterpret_cast<const char*>(uintptr_t(n)); }
inline uint32_t Read32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

}  // namespace vrk::test
