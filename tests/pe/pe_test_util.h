// Shared helpers of the PE tests: memory-held virtual files, a process
// record whose native callbacks are scripted by the test, and file reading.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "support/leak_check.h"
#include "vrk_pe.h"
#include "vrk_standin_ctl.h"

namespace vrk::test {

// A virtual file over a byte vector (which must outlive it).
class VFile {
 public:
  VFile(std::vector<uint8_t>& bytes, int mode)
      : handle_(vrkvfile_open_memory(bytes.data(), uint32_t(bytes.size()), mode)) {}
  ~VFile() {
    if (handle_) vrkvfile_close(handle_);
  }
  VFile(const VFile&) = delete;
  VFile& operator=(const VFile&) = delete;
  VFileHandle get() const { return handle_; }

 private:
  VFileHandle handle_;
};

inline std::vector<uint8_t> ReadWholeFile(const std::string& path) {
  std::vector<uint8_t> out;
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    uint8_t buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
    std::fclose(f);
  }
  return out;
}

// Native modules served to the loader: name -> (export name -> address).
// Every callback is recorded in order.
struct Natives {
  std::map<std::string, std::map<std::string, uint32_t>> modules;
  std::vector<std::string> loads, frees, lookups;
  int live = 0;  // handles given out and not yet freed
  bool accept_everything = false;  // any module, any export (a dummy address)

  static Natives& Get() {
    static Natives natives;
    return natives;
  }
  static void Reset() { Get() = Natives(); }

  static void* Load(const char* name, uint32_t, uint32_t) {
    Natives& n = Get();
    n.loads.push_back(name);
    if (!n.accept_everything && !n.modules.count(name)) return nullptr;
    ++n.live;
    return new std::string(name);
  }
  static void Free(void* handle) {
    auto* name = static_cast<std::string*>(handle);
    Get().frees.push_back(*name);
    --Get().live;
    delete name;
  }
  static uint32_t GetProc(void* handle, const char* key) {
    Natives& n = Get();
    const auto& name = *static_cast<std::string*>(handle);
    const bool ordinal = reinterpret_cast<uintptr_t>(key) <= 0xFFFF;
    const std::string k = ordinal ? "#" + std::to_string(reinterpret_cast<uintptr_t>(key)) : std::string(key);
    n.lookups.push_back(name + "!" + k);
    if (n.accept_everything) return 0x1000;
    auto m = n.modules.find(name);
    if (m == n.modules.end()) return 0;
    auto e = m->second.find(k);
    return e == m->second.end() ? 0 : e->second;
  }
};

inline MODLOAD_PROCESS* NewProcess(VFileHandle first = nullptr) {
  return MODLOAD_CreateProcess(first, Natives::Load, Natives::Free, Natives::GetProc);
}

inline const PELOAD_IMAGE* ImageOf(const PELOAD_MODULE* m) { return static_cast<const PELOAD_IMAGE*>(m->handle); }

inline uint32_t Read32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

}  // namespace vrk::test
