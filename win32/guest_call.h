// Running guest code: a call into a PE module happens on the calling thread
// with that thread's TEB in FS and a fault guard around it. The guard turns
// SIGSEGV, SIGILL, SIGFPE and SIGBUS inside the call, a call of an import
// the layer does not implement, and an exit requested by guest code into a
// clean return from the call with an outcome saying what happened.
#pragma once

#include <cstdint>
#include <string>

namespace vrk::win32 {

class Context;
struct GuestThread;

enum class CallEnd : uint8_t {
  kReturned,        // the body ran to its end
  kNotImplemented,  // guest code called a stub
  kFault,           // a signal in the call
  kExited,          // guest code ended the process (exit, ExitProcess, abort...)
  kNoSegment,       // the TEB could not be put in FS
  kWrongContext,    // a nested call for another context
};

struct CallOutcome {
  CallEnd end = CallEnd::kReturned;
  uint32_t eax = 0;     // a guest function's result (and edx, its high half)
  uint32_t edx = 0;
  uint32_t popped = 0;  // bytes of arguments the callee removed (stdcall)
  // kFault: the signal, where it happened and the address it touched (for
  // an exception raised by guest code: signal 0, and its code).
  int signal = 0;
  uint32_t eip = 0;
  uint32_t fault_address = 0;
  bool write = false;
  // kNotImplemented: "DLL!Name", and the guest address that called it.
  const char* stub = nullptr;
  const char* stub_note = nullptr;
  uint32_t caller = 0;
  // kExited: the exit code and the function that was called.
  uint32_t exit_code = 0;
  const char* exit_how = nullptr;
};

// Runs body(arg) inside the guard, with the thread's TEB of `context` in FS.
// Nested uses on one thread (guest code calling natives that call guest code
// again) share the outermost guard: an outcome ends the outermost call.
CallOutcome RunGuarded(Context& context, void (*body)(void*), void* arg);

// Calls the guest function at `address` with `count` 32-bit arguments
// (pushed right to left) inside the guard. The stack pointer is restored
// from the caller's side, so stdcall and cdecl functions both return
// cleanly; `popped` says which the callee was.
CallOutcome CallGuest(Context& context, uint32_t address, const uint32_t* args, uint32_t count);

// Ends the current guarded call with a guest exit; does not return. Outside a
// guarded call it reports on stderr and ends the process.
[[noreturn]] void EndWithExit(uint32_t code, const char* how);

// Ends the current guarded call as RaiseException does when no handler
// takes the exception (none runs here): a fault with `code`, raised from
// `caller`. Does not return.
[[noreturn]] void EndWithException(uint32_t code, uint32_t caller);

// Calls guest code from a native function (already inside the guard): cdecl
// or stdcall alike, same thread and TEB.
uint32_t CallFromNative(uint32_t address, const uint32_t* args, uint32_t count);

// The thread state of the guest call running on this thread, or null.
GuestThread* CurrentThread();
Context* CurrentContext();

// One line describing an outcome other than kReturned, with addresses as
// module+0xOFFSET (nearest export NAME+0xN).
std::string Describe(const Context& context, const CallOutcome& outcome);

// `address` as module+0xOFFSET (nearest export NAME+0xN), or the native
// library and symbol holding it, or the bare address.
std::string DescribeAddress(const Context& context, uint32_t address);

// A thunk for an import the layer does not implement: calling it ends the
// guarded call with kNotImplemented and `text` ("DLL!Name"). `note` is added
// to the report when set. Thunks live as long as the process.
uint32_t MakeStub(const std::string& text, const char* note);

}  // namespace vrk::win32
