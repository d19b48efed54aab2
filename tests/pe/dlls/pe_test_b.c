/* Test DLL B: imports from DLL A by name and by ordinal, and from a native
 * module served by the process record's callbacks. */
__declspec(dllimport) int AddOne(int x);
__declspec(dllimport) int Triple(int x);
__declspec(dllimport) int HostMul(int a, int b);

__declspec(dllexport) int Combined(int x) { return HostMul(AddOne(x), Triple(x)); }

int __stdcall DllEntry(void *base, unsigned reason, void *reserved) {
  (void)base; (void)reason; (void)reserved;
  return 1;
}
