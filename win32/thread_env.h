// What compiled Windows code finds through the FS segment register: the
// thread environment block (TEB) of the calling thread, and through it the
// process environment block (PEB). Only the fields guest code is known to
// read are filled; the rest stays zero.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace vrk::win32 {

inline constexpr uint32_t kTlsSlots = 64;             // in the TEB itself
inline constexpr uint32_t kTlsExpansionSlots = 1024;  // behind TlsExpansionSlots
inline constexpr uint32_t kTlsIndexes = kTlsSlots + kTlsExpansionSlots;

// LIST_ENTRY: the doubly linked lists of the loader data.
struct ListEntry {
  uint32_t flink;
  uint32_t blink;
};

// PEB_LDR_DATA with its three module lists, which stay empty: modules are
// found through GetModuleHandle, not by walking these.
struct PebLdrData {
  uint32_t length;
  uint32_t initialized;
  uint32_t ss_handle;
  ListEntry in_load_order;
  ListEntry in_memory_order;
  ListEntry in_initialization_order;
};
static_assert(offsetof(PebLdrData, in_load_order) == 0x0C);

// The 32-bit PEB, one page.
struct Peb {
  uint8_t inherited_address_space;
  uint8_t read_image_file_exec_options;
  uint8_t being_debugged;
  uint8_t bit_field;
  uint32_t mutant;
  uint32_t image_base_address;  // 0x08
  uint32_t ldr;                 // 0x0C
  uint32_t process_parameters;  // 0x10
  uint32_t sub_system_data;
  uint32_t process_heap;  // 0x18
  uint8_t unused1[0x64 - 0x1C];
  uint32_t number_of_processors;  // 0x64
  uint32_t nt_global_flag;
  uint8_t unused2[0xA4 - 0x6C];
  uint32_t os_major_version;  // 0xA4
  uint32_t os_minor_version;
  uint16_t os_build_number;
  uint16_t os_csd_version;
  uint32_t os_platform_id;  // 0xB0
  uint8_t unused3[0x1000 - 0xB4];
};
static_assert(offsetof(Peb, process_heap) == 0x18 && offsetof(Peb, number_of_processors) == 0x64);
static_assert(offsetof(Peb, os_major_version) == 0xA4 && offsetof(Peb, os_platform_id) == 0xB0);

// The 32-bit TEB (NT_TIB first), two pages, so that reads a little past the
// fields of older Windows versions stay inside the segment.
struct Teb {
  uint32_t exception_list;  // 0x00: head of the SEH chain, -1 when empty
  uint32_t stack_base;      // 0x04: highest address of the stack
  uint32_t stack_limit;     // 0x08: lowest address of the stack
  uint32_t sub_system_tib;
  uint32_t fiber_data;
  uint32_t arbitrary_user_pointer;
  uint32_t self;  // 0x18: linear address of this TEB (NtCurrentTeb)
  uint32_t environment_pointer;
  uint32_t process_id;  // 0x20: ClientId
  uint32_t thread_id;   // 0x24
  uint32_t active_rpc_handle;
  uint32_t thread_local_storage_pointer;  // 0x2C
  uint32_t peb;                           // 0x30
  uint32_t last_error;                    // 0x34: GetLastError
  uint8_t unused1[0xE10 - 0x38];
  uint32_t tls_slots[kTlsSlots];  // 0xE10: TlsGetValue(0..63)
  uint8_t unused2[0xF94 - 0xF10];
  uint32_t tls_expansion_slots;  // 0xF94: TlsGetValue(64..1087)
  uint8_t unused3[0x2000 - 0xF98];
};
static_assert(offsetof(Teb, self) == 0x18 && offsetof(Teb, peb) == 0x30 && offsetof(Teb, last_error) == 0x34);
static_assert(offsetof(Teb, tls_slots) == 0xE10 && offsetof(Teb, tls_expansion_slots) == 0xF94);

// The FS segment of one thread. Two ways to make FS point at a TEB, both of
// a 32-bit Linux process: a thread-area entry of the GDT (per thread, one
// selector for every thread) or, where the kernel refuses that, an LDT entry
// per TEB (the LDT is shared by all threads).
class FsSegment {
 public:
  // Prepares a segment for `teb`; false when the kernel offers neither way.
  bool Create(const Teb* teb);
  // Frees an LDT entry; nothing for a thread-area entry.
  void Destroy();
  // Loads FS with this segment on the calling thread (re-pointing the
  // thread's GDT entry first when that is the way in use); false on failure.
  bool Enter() const;
  uint16_t selector() const { return selector_; }

  // FS of the calling thread, to be put back after a guest call.
  static uint16_t Current();
  static void Restore(uint16_t selector);
  // Which way this process uses: "thread area" or "LDT".
  static const char* Method();

 private:
  const Teb* teb_ = nullptr;
  uint16_t selector_ = 0;
  int ldt_index_ = -1;
};

}  // namespace vrk::win32
