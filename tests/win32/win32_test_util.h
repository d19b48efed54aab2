// A process record with a Win32 context, as a C caller sets them up, for the
// tests of the Win32 layer: DLLs found in the given folders, exports called
// by name, and teardown with the detach notifications checked.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/leak_check.h"
#include "vrk_standin_ctl.h"
#include "vrk_win32.h"

namespace vrk::test {

class Win32Process {
 public:
  explicit Win32Process(std::initializer_list<std::string> dirs = {}) {
    process_ = MODLOAD_CreateProcess(nullptr, VRKW32_LoadNative, VRKW32_FreeNative, VRKW32_GetProcNative);
    context_ = VRKW32_CreateContext(process_, Open, vrkvfile_close);
    for (const std::string& d : dirs) VRKW32_AddSearchDir(context_, d.c_str());
  }
  ~Win32Process() { EXPECT_EQ(Destroy().status, VRKW32_OK) << last_.text; }
  Win32Process(const Win32Process&) = delete;
  Win32Process& operator=(const Win32Process&) = delete;

  // Runs the exit and detach notifications now; the result of the first
  // that did not end normally.
  VRKW32_RESULT Destroy() {
    VRKW32_RESULT result{};
    if (context_) VRKW32_DestroyContext(context_, &result);
    MODLOAD_TerminateProcess(process_);
    context_ = nullptr;
    process_ = nullptr;
    return result;
  }

  PELOAD_MODULE* Load(const std::string& name) {
    module_ = VRKW32_LoadLibrary(context_, name.c_str(), &last_);
    return module_;
  }

  // Calls an export of the last module loaded.
  VRKW32_RESULT Call(const char* name, std::vector<uint32_t> args = {}) {
    VRKW32_RESULT result{};
    const uint32_t address = PELOAD_GetProcAddress(module_, name);
    EXPECT_NE(address, 0u) << name;
    if (address) VRKW32_Call(context_, address, args.data(), uint32_t(args.size()), &result);
    return result;
  }

  VRKW32_CONTEXT* context() const { return context_; }
  const VRKW32_RESULT& last() const { return last_; }

 private:
  static VFileHandle Open(const char* path) { return vrkvfile_open_path(path, VRKVFILE_COPY); }

  MODLOAD_PROCESS* process_ = nullptr;
  VRKW32_CONTEXT* context_ = nullptr;
  PELOAD_MODULE* module_ = nullptr;
  VRKW32_RESULT last_{};
};

inline uint32_t Word(const void* p) { return uint32_t(reinterpret_cast<uintptr_t>(p)); }

}  // namespace vrk::test
