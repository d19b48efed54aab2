// FS segments pointing at TEBs, through the kernel's thread-area or LDT calls.
#include "win32/thread_env.h"

#include <asm/ldt.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace vrk::win32 {
namespace {

// Segment descriptors cover the whole two-page TEB, byte-granular.
user_desc Descriptor(int entry, const Teb* teb) {
  user_desc d;
  std::memset(&d, 0, sizeof d);
  d.entry_number = unsigned(entry);
  d.base_addr = unsigned(reinterpret_cast<uintptr_t>(teb));
  d.limit = sizeof(Teb) - 1;
  d.seg_32bit = 1;
  d.useable = 1;
  return d;
}

enum class Way { kUnknown, kThreadArea, kLdt, kNone };

std::mutex g_mutex;  // guards the method choice and the LDT index map
Way g_method = Way::kUnknown;
int g_thread_area_entry = -1;  // the GDT entry every thread uses for its TEB
constexpr int kLdtEntries = 8192;
bool g_ldt_used[kLdtEntries];  // entry 0 is never handed out

// The GDT entry of each thread points at the TEB last entered on it.
thread_local const Teb* t_thread_area_teb = nullptr;

bool SetThreadArea(int entry, const Teb* teb, int* chosen) {
  user_desc d = Descriptor(entry, teb);
  if (syscall(SYS_set_thread_area, &d) != 0) return false;
  if (chosen) *chosen = int(d.entry_number);
  return true;
}

bool WriteLdt(int index, const Teb* teb) {
  user_desc d = Descriptor(index, teb);
  if (!teb) {
    d.read_exec_only = 1;
    d.seg_not_present = 1;
    d.base_addr = 0;
    d.limit = 0;
  }
  return syscall(SYS_modify_ldt, 1, &d, sizeof d) == 0;
}

// Picks the way once per process: a thread-area entry unless the kernel
// refuses it (or VRKW32_FS_SEGMENT=ldt asks for the LDT, to exercise it).
Way ChooseMethod(const Teb* teb) {
  if (g_method != Way::kUnknown) return g_method;
  const char* forced = std::getenv("VRKW32_FS_SEGMENT");
  const bool ldt_only = forced && std::strcmp(forced, "ldt") == 0;
  if (!ldt_only && SetThreadArea(-1, teb, &g_thread_area_entry)) {
    t_thread_area_teb = teb;
    g_method = Way::kThreadArea;
  } else if (WriteLdt(kLdtEntries - 1, nullptr)) {
    g_method = Way::kLdt;
  } else {
    g_method = Way::kNone;
  }
  return g_method;
}

}  // namespace

bool FsSegment::Create(const Teb* teb) {
  std::lock_guard<std::mutex> lock(g_mutex);
  teb_ = teb;
  switch (ChooseMethod(teb)) {
    case Way::kThreadArea:
      // GDT thread-area entries hold requested privilege level 3.
      selector_ = uint16_t(g_thread_area_entry * 8 + 3);
      return true;
    case Way::kLdt:
      for (int i = 1; i < kLdtEntries; ++i) {
        if (g_ldt_used[i]) continue;
        if (!WriteLdt(i, teb)) return false;
        g_ldt_used[i] = true;
        ldt_index_ = i;
        selector_ = uint16_t(i * 8 + 7);  // table indicator 1 (LDT), RPL 3
        return true;
      }
      return false;
    default:
      return false;
  }
}

void FsSegment::Destroy() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (ldt_index_ > 0) {
    (void)WriteLdt(ldt_index_, nullptr);
    g_ldt_used[ldt_index_] = false;
    ldt_index_ = -1;
  }
  if (t_thread_area_teb == teb_) t_thread_area_teb = nullptr;
}

bool FsSegment::Enter() const {
  if (selector_ == 0) return false;
  if (ldt_index_ < 0 && t_thread_area_teb != teb_) {
    if (!SetThreadArea(g_thread_area_entry, teb_, nullptr)) return false;
    t_thread_area_teb = teb_;
  }
  Restore(selector_);
  return true;
}

uint16_t FsSegment::Current() {
  uint16_t selector;
  __asm__ volatile("movw %%fs, %0" : "=r"(selector));
  return selector;
}

void FsSegment::Restore(uint16_t selector) { __asm__ volatile("movw %0, %%fs" : : "r"(selector) : "memory"); }

const char* FsSegment::Method() {
  std::lock_guard<std::mutex> lock(g_mutex);
  switch (g_method) {
    case Way::kThreadArea: return "thread area";
    case Way::kLdt: return "LDT";
    case Way::kNone: return "none";
    default: return "not chosen yet";
  }
}

}  // namespace vrk::win32
