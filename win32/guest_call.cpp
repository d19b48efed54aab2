// The fault guard, the call trampoline and the stubs of unimplemented imports.
#include "win32/guest_call.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <setjmp.h>

#include "win32/context.h"

// The trampoline: calls `fn` with `count` words from `args` pushed right to
// left on a 16-byte aligned stack, and gives back EDX:EAX. The stack pointer
// is put back from EBP, so it does not matter whether the callee removed its
// arguments (stdcall) or left them (cdecl); *popped says how many bytes it
// removed. A floating-point result left on the x87 stack is dropped, so that
// the stack is empty again as the Linux calling convention requires.
extern "C" uint64_t vrkw32_invoke(uint32_t fn, const uint32_t* args, uint32_t count, uint32_t* popped);
__asm__(
    ".text\n"
    ".globl vrkw32_invoke\n"
    ".hidden vrkw32_invoke\n"
    ".type vrkw32_invoke, @function\n"
    "vrkw32_invoke:\n"
    "  push %ebp\n"
    "  mov %esp, %ebp\n"
    "  push %ebx\n"
    "  push %esi\n"
    "  push %edi\n"
    "  mov 16(%ebp), %ecx\n"
    "  mov 12(%ebp), %esi\n"
    "  lea (,%ecx,4), %eax\n"
    "  mov %esp, %edx\n"
    "  sub %eax, %edx\n"
    "  and $-16, %edx\n"
    "  add %eax, %edx\n"
    "  mov %edx, %esp\n"
    "1:\n"
    "  test %ecx, %ecx\n"
    "  jz 2f\n"
    "  pushl -4(%esi,%ecx,4)\n"
    "  dec %ecx\n"
    "  jmp 1b\n"
    "2:\n"
    "  mov %esp, %edi\n"
    "  cld\n"
    "  call *8(%ebp)\n"
    "  mov %esp, %ecx\n"
    "  sub %edi, %ecx\n"
    "  mov 20(%ebp), %ebx\n"
    "  mov %ecx, (%ebx)\n"
    "  mov %eax, %esi\n"
    "  fnstsw %ax\n"
    "  test $0x3800, %ax\n"
    "  jz 3f\n"
    "  fstp %st(0)\n"
    "3:\n"
    "  mov %esi, %eax\n"
    "  lea -12(%ebp), %esp\n"
    "  pop %edi\n"
    "  pop %esi\n"
    "  pop %ebx\n"
    "  pop %ebp\n"
    "  ret\n"
    ".size vrkw32_invoke, .-vrkw32_invoke\n");

// Where every stub jumps: the stub pushed its record; above it lies the
// return address into the guest code that called the stub.
extern "C" [[noreturn]] __attribute__((visibility("hidden"), used)) void vrkw32_stub_called(const void* record,
                                                                                            uint32_t caller);
__asm__(
    ".text\n"
    ".globl vrkw32_stub_entry\n"
    ".hidden vrkw32_stub_entry\n"
    ".type vrkw32_stub_entry, @function\n"
    "vrkw32_stub_entry:\n"
    "  mov 4(%esp), %eax\n"
    "  mov 8(%esp), %edx\n"
    "  and $-16, %esp\n"
    "  sub $8, %esp\n"
    "  push %edx\n"
    "  push %eax\n"
    "  call vrkw32_stub_called\n"
    "  ud2\n"
    ".size vrkw32_stub_entry, .-vrkw32_stub_entry\n");
extern "C" void vrkw32_stub_entry();

namespace vrk::win32 {
namespace {

// ---- the guard of the calling thread ----

struct Guard {
  int depth = 0;
  GuestThread* thread = nullptr;
  sigjmp_buf jump;
  CallOutcome outcome;
};
thread_local Guard t_guard;

constexpr int kGuardedSignals[] = {SIGSEGV, SIGILL, SIGFPE, SIGBUS};
constexpr int kSignalCount = sizeof kGuardedSignals / sizeof kGuardedSignals[0];

std::mutex g_handler_mutex;  // guards the count and the saved actions
int g_guarded_threads = 0;   // threads inside a guarded call
struct sigaction g_previous[kSignalCount];

int SignalIndex(int number) {
  for (int i = 0; i < kSignalCount; ++i) {
    if (kGuardedSignals[i] == number) return i;
  }
  return -1;
}

// A signal on a thread that is not inside a guarded call goes where it would
// have gone without the layer.
void PassOn(int number, siginfo_t* info, void* context) {
  const int i = SignalIndex(number);
  if (i < 0) return;
  const struct sigaction& previous = g_previous[i];
  if (previous.sa_flags & SA_SIGINFO) {
    previous.sa_sigaction(number, info, context);
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(number);
  } else {
    // Back to the default action; the faulting instruction runs again.
    signal(number, SIG_DFL);
  }
}

void OnSignal(int number, siginfo_t* info, void* context) {
  Guard& g = t_guard;
  if (g.depth == 0) {
    PassOn(number, info, context);
    return;
  }
  const auto* uc = static_cast<const ucontext_t*>(context);
  g.outcome.end = CallEnd::kFault;
  g.outcome.signal = number;
  g.outcome.eip = uint32_t(uc->uc_mcontext.gregs[REG_EIP]);
  g.outcome.fault_address = uint32_t(reinterpret_cast<uintptr_t>(info->si_addr));
  // Bit 1 of the page-fault error code: the access was a write.
  g.outcome.write = number == SIGSEGV && (uc->uc_mcontext.gregs[REG_ERR] & 2) != 0;
  siglongjmp(g.jump, 1);
}

void InstallHandlers() {
  std::lock_guard<std::mutex> lock(g_handler_mutex);
  if (g_guarded_threads++ > 0) return;
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_sigaction = OnSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int i = 0; i < kSignalCount; ++i) sigaction(kGuardedSignals[i], &action, &g_previous[i]);
}

void RemoveHandlers() {
  std::lock_guard<std::mutex> lock(g_handler_mutex);
  if (--g_guarded_threads > 0) return;
  for (int i = 0; i < kSignalCount; ++i) sigaction(kGuardedSignals[i], &g_previous[i], nullptr);
}

// A stack overflow in guest code is a SIGSEGV that needs a stack of its own.
// Each thread keeps one; an alternate stack that is already set stays.
struct AltStack {
  std::unique_ptr<uint8_t[]> memory;
  size_t size = 0;
};
thread_local AltStack t_alt_stack;

bool EnterAltStack() {
  stack_t current;
  if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE)) return false;
  if (!t_alt_stack.memory) {
    const long wanted = sysconf(_SC_SIGSTKSZ);
    t_alt_stack.size = std::max<size_t>(size_t(65536), wanted > 0 ? size_t(wanted) : 0);
    t_alt_stack.memory.reset(new uint8_t[t_alt_stack.size]);
  }
  stack_t mine;
  mine.ss_sp = t_alt_stack.memory.get();
  mine.ss_size = t_alt_stack.size;
  mine.ss_flags = 0;
  return sigaltstack(&mine, nullptr) == 0;
}

void LeaveAltStack(bool entered) {
  if (!entered) return;
  stack_t off;
  std::memset(&off, 0, sizeof off);
  off.ss_flags = SS_DISABLE;
  (void)sigaltstack(&off, nullptr);
}

// ---- stubs ----

struct StubRecord {
  std::string text;
  const char* note;
};
std::mutex g_stub_mutex;  // guards the records and the thunk pages
std::deque<StubRecord> g_stub_records;
uint8_t* g_thunk_page = nullptr;
size_t g_thunk_used = 0;
constexpr size_t kThunkPage = 65536;
constexpr size_t kThunkSize = 16;

const char* SignalName(int number) {
  switch (number) {
    case SIGSEGV: return "SIGSEGV";
    case SIGILL: return "SIGILL";
    case SIGFPE: return "SIGFPE";
    case SIGBUS: return "SIGBUS";
    default: return "signal";
  }
}

std::string Hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%" PRIx32, value);
  return text;
}

}  // namespace

}  // namespace vrk::win32

extern "C" void vrkw32_stub_called(const void* record, uint32_t caller) {
  using namespace vrk::win32;
  const auto* stub = static_cast<const StubRecord*>(record);
  Guard& g = t_guard;
  if (g.depth == 0) {
    // Guest code running outside the layer's calls: nothing to return to.
    std::fprintf(stderr, "%s is not implemented (called outside a guarded call)\n", stub->text.c_str());
    std::abort();
  }
  g.outcome.end = CallEnd::kNotImplemented;
  g.outcome.stub = stub->text.c_str();
  g.outcome.stub_note = stub->note;
  g.outcome.caller = caller;
  siglongjmp(g.jump, 1);
}

namespace vrk::win32 {

uint32_t MakeStub(const std::string& text, const char* note) {
  std::lock_guard<std::mutex> lock(g_stub_mutex);
  if (!g_thunk_page || g_thunk_used + kThunkSize > kThunkPage) {
    void* page = mmap(nullptr, kThunkPage, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return 0;
    g_thunk_page = static_cast<uint8_t*>(page);
    g_thunk_used = 0;
  }
  g_stub_records.push_back({text, note});
  uint8_t* thunk = g_thunk_page + g_thunk_used;
  g_thunk_used += kThunkSize;
  // push imm32 (the record); call rel32 (the common entry); then traps.
  const uint32_t record = uint32_t(reinterpret_cast<uintptr_t>(&g_stub_records.back()));
  const uint32_t entry = uint32_t(reinterpret_cast<uintptr_t>(&vrkw32_stub_entry));
  const uint32_t after_call = uint32_t(reinterpret_cast<uintptr_t>(thunk)) + 10;
  const uint32_t relative = entry - after_call;
  thunk[0] = 0x68;
  std::memcpy(thunk + 1, &record, 4);
  thunk[5] = 0xE8;
  std::memcpy(thunk + 6, &relative, 4);
  std::memset(thunk + 10, 0xCC, kThunkSize - 10);
  return uint32_t(reinterpret_cast<uintptr_t>(thunk));
}

CallOutcome RunGuarded(Context& context, void (*body)(void*), void* arg) {
  Guard& g = t_guard;
  if (g.depth > 0) {
    if (g.thread->context != &context) return CallOutcome{CallEnd::kWrongContext};
    ++g.depth;
    body(arg);
    --g.depth;
    return CallOutcome{};
  }
  GuestThread* thread = context.ThreadForCaller();
  const uint16_t saved_fs = FsSegment::Current();
  if (!thread || !thread->fs.Enter()) return CallOutcome{CallEnd::kNoSegment};
  InstallHandlers();
  const bool alt_stack = EnterAltStack();
  g.thread = thread;
  g.outcome = CallOutcome{};
  g.depth = 1;
  if (sigsetjmp(g.jump, 1) == 0) body(arg);
  g.depth = 0;
  g.thread = nullptr;
  FsSegment::Restore(saved_fs);
  LeaveAltStack(alt_stack);
  RemoveHandlers();
  return g.outcome;
}

namespace {

struct Invocation {
  uint32_t address;
  const uint32_t* args;
  uint32_t count;
  uint64_t result;
  uint32_t popped;
};

void Invoke(void* arg) {
  auto* call = static_cast<Invocation*>(arg);
  call->result = vrkw32_invoke(call->address, call->args, call->count, &call->popped);
}

}  // namespace

CallOutcome CallGuest(Context& context, uint32_t address, const uint32_t* args, uint32_t count) {
  Invocation call{address, args, count, 0, 0};
  CallOutcome outcome = RunGuarded(context, Invoke, &call);
  if (outcome.end == CallEnd::kReturned) {
    outcome.eax = uint32_t(call.result);
    outcome.edx = uint32_t(call.result >> 32);
    outcome.popped = call.popped;
  }
  return outcome;
}

uint32_t CallFromNative(uint32_t address, const uint32_t* args, uint32_t count) {
  uint32_t popped = 0;
  return uint32_t(vrkw32_invoke(address, args, count, &popped));
}

void EndWithExit(uint32_t code, const char* how) {
  Guard& g = t_guard;
  if (g.depth == 0) {
    std::fprintf(stderr, "guest code called %s(%" PRIu32 ") outside a guarded call\n", how, code);
    std::abort();
  }
  g.outcome.end = CallEnd::kExited;
  g.outcome.exit_code = code;
  g.outcome.exit_how = how;
  siglongjmp(g.jump, 1);
}

void EndWithException(uint32_t code, uint32_t caller) {
  Guard& g = t_guard;
  if (g.depth == 0) {
    std::fprintf(stderr, "guest code raised exception 0x%08" PRIx32 " outside a guarded call\n", code);
    std::abort();
  }
  g.outcome.end = CallEnd::kFault;
  g.outcome.signal = 0;
  g.outcome.eip = caller;
  g.outcome.fault_address = code;
  siglongjmp(g.jump, 1);
}

GuestThread* CurrentThread() { return t_guard.thread; }

Context* CurrentContext() { return t_guard.thread ? t_guard.thread->context : nullptr; }

std::string DescribeAddress(const Context& context, uint32_t address) {
  if (const PELOAD_MODULE* module = context.ModuleAt(address)) {
    const auto* record = static_cast<const PELOAD_IMAGE*>(module->handle);
    const uint32_t base = uint32_t(reinterpret_cast<uintptr_t>(record->image));
    std::string text = std::string(module->fullName) + "+" + Hex(address - base);
    // The export with the highest address at or below the fault.
    const PELOAD_EXPORT* nearest = nullptr;
    for (const PELOAD_EXPORT* e = record->exports; e; e = e->next) {
      if (e->address == 0xFFFFFFFF || e->address > address) continue;
      if (!nearest || e->address > nearest->address) nearest = e;
    }
    if (nearest) {
      const std::string name = nearest->name ? nearest->name : "#" + std::to_string(nearest->ordinal);
      text += " (nearest export " + name + "+" + Hex(address - nearest->address) + ")";
    } else {
      text += " (no export below it)";
    }
    return text;
  }
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(uintptr_t(address)), &info) && info.dli_fname) {
    const char* file = std::strrchr(info.dli_fname, '/');
    file = file ? file + 1 : info.dli_fname;
    const uint32_t base = uint32_t(reinterpret_cast<uintptr_t>(info.dli_fbase));
    std::string text = std::string(file) + "+" + Hex(address - base);
    if (info.dli_sname) {
      const uint32_t symbol = uint32_t(reinterpret_cast<uintptr_t>(info.dli_saddr));
      text += " (" + std::string(info.dli_sname) + "+" + Hex(address - symbol) + ")";
    }
    return text;
  }
  char text[32];
  std::snprintf(text, sizeof text, "0x%08" PRIx32, address);
  return text;
}

std::string Describe(const Context& context, const CallOutcome& outcome) {
  char number[32];
  switch (outcome.end) {
    case CallEnd::kReturned:
      return "";
    case CallEnd::kNotImplemented: {
      std::string text = std::string(outcome.stub) + " is not implemented";
      text += " (called from " + DescribeAddress(context, outcome.caller);
      if (outcome.stub_note) text += std::string("; ") + outcome.stub_note;
      return text + ")";
    }
    case CallEnd::kFault: {
      if (outcome.signal == 0) {
        std::snprintf(number, sizeof number, "0x%08" PRIx32, outcome.fault_address);
        return std::string("exception ") + number + " raised at " + DescribeAddress(context, outcome.eip) +
               " (no exception handlers run here)";
      }
      std::string text = SignalName(outcome.signal);
      if (outcome.signal == SIGSEGV || outcome.signal == SIGBUS) {
        std::snprintf(number, sizeof number, "0x%08" PRIx32, outcome.fault_address);
        text += std::string(outcome.write ? " writing " : " reading ") + number;
      }
      return text + " at " + DescribeAddress(context, outcome.eip);
    }
    case CallEnd::kExited:
      std::snprintf(number, sizeof number, "(%" PRIu32 ")", outcome.exit_code);
      return std::string("guest code called ") + outcome.exit_how + number;
    case CallEnd::kNoSegment:
      return std::string("FS cannot point at a thread environment block: the kernel refuses both "
                         "set_thread_area and modify_ldt (") + FsSegment::Method() + ")";
    case CallEnd::kWrongContext:
      return "a call into one context from guest code of another";
  }
  return "";
}

}  // namespace vrk::win32
