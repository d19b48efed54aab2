// A Win32 context: the Windows process that one process record of the
// loader stands for. It holds what Windows keeps per process (PEB, heaps,
// handles, TLS indexes, the loaded modules and where to find more) and one
// TEB per host thread that has run its guest code.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "win32/guest_call.h"
#include "win32/heap.h"
#include "win32/thread_env.h"
#include "win32/wintypes.h"
#include "vrk_pe.h"
#include "vrk_win32.h"

namespace vrk::win32 {

class Context;
class HandleTable;

// One host thread inside one context.
struct GuestThread {
  Context* context = nullptr;
  uint64_t serial = 0;  // of the host thread: never reused, unlike its id
  pid_t tid = 0;
  Teb* teb = nullptr;  // page-aligned, owned
  FsSegment fs;
  int crt_errno = 0;  // msvcrt's errno (_errno)
  char* strtok_next = nullptr;
  uint32_t rand_state = 1;
  std::unique_ptr<uint32_t[]> tls_expansion;  // TLS indexes 64 and up, made on first use
};

// Memory from VirtualAlloc, released with the context.
struct VirtualRegion {
  uint32_t base;
  uint32_t size;
  DWORD protect;  // of the whole region, as last set
};

// Why a load, a guest call or a teardown did not end normally; mapped to the
// documented VRKW32_ codes only at the C boundary.
enum class Failed : uint8_t {
  kNothing,
  kNotFound,  // no such file
  kBadImage,  // not a loadable 32-bit x86 DLL, imports not bound, entry point refused
  kGuest,     // guest code did not return normally: see `outcome`
};

struct Failure {
  Failed what = Failed::kNothing;
  CallOutcome outcome;
  std::string text;  // one line
};

// A PE module loaded through the layer, in load order.
struct LoadedModule {
  PELOAD_MODULE* entry = nullptr;
  std::string path;
  VFileHandle file = nullptr;
  bool attached = false;  // its entry point accepted DLL_PROCESS_ATTACH
};

class Context {
 public:
  Context(MODLOAD_PROCESS* process, VRKW32_OPEN_FN open, VRKW32_CLOSE_FN close);
  ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  bool ok() const { return peb_ != nullptr && heap_ != nullptr; }
  MODLOAD_PROCESS* process() const { return process_; }
  Peb* peb() const { return peb_; }

  // The thread state of the calling host thread, created on first use
  // (null when its TEB or FS segment cannot be set up).
  GuestThread* ThreadForCaller();

  // ---- modules (modules.cpp) ----
  void AddSearchDir(const std::string& dir);
  // Loads a PE DLL by path or by name (searched in the search folders),
  // with the PE DLLs it imports first, and runs entry points as Windows
  // does. Null with `why` set on failure.
  PELOAD_MODULE* Load(const std::string& path_or_name, Failure& why);
  // DLL_PROCESS_DETACH to every attached module, newest first; the first
  // abnormal end is reported in `why` and the others still run.
  void DetachAll(Failure& why);
  const std::vector<LoadedModule>& modules() const { return modules_; }

  // What guest code sees of modules: HMODULE of a name (PE modules by their
  // image base, native ones by their handle), and the reverse.
  HMODULE FindModule(const char* name) const;
  PELOAD_MODULE* EntryOf(HMODULE module) const;
  // LoadLibrary from guest code: a module of the record, a native module, or
  // a PE file from the search folders. Null when none.
  HMODULE LoadFromGuest(const char* name);
  // The PE module whose image holds `address`, or null.
  const PELOAD_MODULE* ModuleAt(uint32_t address) const;
  // GetModuleHandle(NULL): the first DLL loaded through the context.
  HMODULE main_module() const { return main_module_; }
  // A PE module whose export-directory name is not its file name is also
  // found under the file name, through the native-module callbacks: the
  // handle standing for it, or null.
  void* AliasFor(const char* name) const;
  PELOAD_MODULE* AliasedEntry(const void* handle) const;

  // ---- Windows process state ----
  Heap& process_heap() { return *heap_; }
  HeapSet& heaps() { return heaps_; }
  HandleTable& handles() { return *handles_; }
  // TLS indexes: allocation is per process, values per thread.
  DWORD TlsAlloc();
  bool TlsFree(DWORD index);
  bool TlsValid(DWORD index);
  uint32_t* TlsSlot(GuestThread& thread, DWORD index);
  std::mutex& regions_mutex() { return regions_mutex_; }
  std::vector<VirtualRegion>& regions() { return regions_; }
  // msvcrt's atexit/_onexit functions, run at teardown before the detaches.
  void AddAtExit(uint32_t function);
  void RunAtExit();

 private:
  PELOAD_MODULE* LoadOne(const std::string& path, bool requested, Failure& why);
  void Diagnose(const std::string& path, VFileHandle file, Failure& why) const;
  bool Plan(const std::string& path, std::vector<std::string>& order, std::vector<std::string>& visiting,
            Failure& why);
  // The file of a DLL name: a path as it is, a name in `first_dir` or else
  // in the search folders; "" when none.
  std::string FindFile(const std::string& name, const std::string& first_dir = "") const;
  PELOAD_MODULE* ListedByName(const char* name) const;

  MODLOAD_PROCESS* process_;
  VRKW32_OPEN_FN open_;
  VRKW32_CLOSE_FN close_;
  Peb* peb_ = nullptr;  // one page with the loader data behind it
  std::vector<std::string> search_dirs_;
  std::vector<LoadedModule> modules_;
  std::vector<size_t> attach_order_;  // indexes into modules_, in the order they started
  HMODULE main_module_ = nullptr;
  struct Alias {
    std::string name;
    PELOAD_MODULE* entry;
  };
  std::vector<std::unique_ptr<Alias>> aliases_;
  HeapSet heaps_;
  Heap* heap_ = nullptr;
  std::unique_ptr<HandleTable> handles_;

  std::mutex threads_mutex_;
  std::vector<std::unique_ptr<GuestThread>> threads_;

  std::mutex regions_mutex_;
  std::vector<VirtualRegion> regions_;

  std::mutex tls_mutex_;
  bool tls_used_[kTlsIndexes] = {};
  std::vector<uint32_t> at_exit_;
};

// A guarded call that did not return, as a failure saying where it happened.
Failure GuestFailure(const Context& context, const CallOutcome& outcome, const std::string& during);

// The context of the guest call on this thread; natives are only ever
// called from inside one.
Context& Ctx();
GuestThread& Thread();
// SetLastError for the calling guest thread.
void SetLastError(DWORD code);
// The Windows error code (GetLastError) of a POSIX errno value.
DWORD ErrorFromErrno(int number);
// msvcrt's errno value for a POSIX one, and setting it for the guest thread.
int CrtErrno(int number);
void SetCrtErrno(int host_number);
// Closes the streams and descriptors that guest code of `context` opened
// through msvcrt and left open.
void ReleaseCrtFiles(const Context* context);

}  // namespace vrk::win32
