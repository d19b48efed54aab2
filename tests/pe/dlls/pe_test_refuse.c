/* Test DLL that imports from DLL A and then refuses to load. */
__declspec(dllimport) int AddOne(int x);

__declspec(dllexport) int UsesA(int x) { return AddOne(x); }

int __stdcall DllEntry(void *base, unsigned reason, void *reserved) {
  (void)base; (void)reason; (void)reserved;
  return 0;
}
