/* Test DLL A: exports by name and by ordinal only, data whose pointer needs
 * relocating, and an entry point that records how it was called. */
int a_counter = 41;
int *a_counter_ptr = &a_counter;
void *a_entry_base;
unsigned a_entry_reason;
void *a_entry_reserved;
int a_entry_calls;

int AddOne(int x) { return x + 1; }
int Triple(int x) { return 3 * x; }
int *CounterAddress(void) { return &a_counter; }

int __stdcall DllEntry(void *base, unsigned reason, void *reserved) {
  a_entry_base = base;
  a_entry_reason = reason;
  a_entry_reserved = reserved;
  ++a_entry_calls;
  return 1;
}
