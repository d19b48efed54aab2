/* Test DLL of the Win32 layer, built with MinGW and its C run-time like any
 * DLL a user brings: it imports from KERNEL32.dll and msvcrt.dll.
 * Sums weight each argument by its position, so that a lost, swapped or
 * misread argument changes the result. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>
#include <windows.h>

__declspec(dllexport) int __stdcall StdSum0(void) { return 7; }
__declspec(dllexport) int __stdcall StdSum1(int a) { return a; }
__declspec(dllexport) int __stdcall StdSum3(int a, int b, int c) { return a + 2 * b + 3 * c; }
__declspec(dllexport) int __stdcall StdSum7(int a, int b, int c, int d, int e, int f, int g) {
  return a + 2 * b + 3 * c + 4 * d + 5 * e + 6 * f + 7 * g;
}
__declspec(dllexport) int CSum0(void) { return 11; }
__declspec(dllexport) int CSum2(int a, int b) { return a + 2 * b; }
__declspec(dllexport) int CSum5(int a, int b, int c, int d, int e) { return a + 2 * b + 3 * c + 4 * d + 5 * e; }
/* A 64-bit result comes back in EDX:EAX. */
__declspec(dllexport) long long CWide(long long a, int b) { return a * b; }

/* The last error and TLS slots, through KERNEL32 and straight from the TEB. */
__declspec(dllexport) void __stdcall PutLastError(DWORD code) { SetLastError(code); }
__declspec(dllexport) DWORD __stdcall LastError(void) { return GetLastError(); }
__declspec(dllexport) DWORD __stdcall LastErrorFromTeb(void) { return __readfsdword(0x34); }
__declspec(dllexport) DWORD __stdcall NewTlsIndex(void) { return TlsAlloc(); }
__declspec(dllexport) BOOL __stdcall PutTls(DWORD index, DWORD value) { return TlsSetValue(index, (void *)value); }
__declspec(dllexport) DWORD __stdcall GetTls(DWORD index) { return (DWORD)TlsGetValue(index); }
__declspec(dllexport) DWORD __stdcall TlsFromTeb(DWORD index) {
  if (index < 64) return __readfsdword(0xE10 + 4 * index);
  return ((DWORD *)__readfsdword(0xF94))[index - 64];
}
/* The TEB's own address, its SEH chain head and its process block. */
__declspec(dllexport) DWORD __stdcall TebSelf(void) { return __readfsdword(0x18); }
__declspec(dllexport) DWORD __stdcall SehHead(void) { return __readfsdword(0x00); }
__declspec(dllexport) DWORD __stdcall FsSelector(void) {
  unsigned short selector;
  __asm__("movw %%fs, %0" : "=r"(selector));
  return selector;
}
__declspec(dllexport) DWORD __stdcall ProcessHeapFromPeb(void) {
  return *(DWORD *)(__readfsdword(0x30) + 0x18) == (DWORD)GetProcessHeap();
}

/* msvcrt's formatting rules: %I64x, %ls of 16-bit characters. */
__declspec(dllexport) int Format(char *out, int size, int value) {
  return _snprintf(out, size, "%s|%5d|%I64x|%ls|%c", "ab", value, 0x123456789abcULL, L"wide", 'z');
}

/* Arguments that vrkutil run passes by address. */
__declspec(dllexport) int __stdcall StrLen(const char *text) { return (int)strlen(text); }
__declspec(dllexport) int __stdcall WideLen(const wchar_t *text) { return (int)wcslen(text); }
__declspec(dllexport) DWORD __stdcall ByteSum(const unsigned char *bytes, DWORD size) {
  DWORD sum = 0;
  for (DWORD i = 0; i < size; ++i) sum += bytes[i];
  return sum;
}
__declspec(dllexport) DWORD __stdcall Twice(DWORD *value) { return *value *= 2; }
__declspec(dllexport) const char *__stdcall Greeting(void) { return "hello from the DLL"; }

/* What ends a call early. */
__declspec(dllexport) int __stdcall CallsMissing(void) {
  Beep(440, 10); /* not implemented by the layer */
  return 1;
}
__declspec(dllexport) int __stdcall Crash(int kind) {
  volatile int *volatile nowhere = 0;
  volatile int zero = 0;
  switch (kind) {
    case 0: return *nowhere;
    case 1: *nowhere = 1; return 0;
    case 2: __builtin_trap();
    default: return 100 / zero;
  }
}
__declspec(dllexport) void ExitWith(int code) { exit(code); }

/* The host's flag goes up when the DLL is told it is detached. */
static volatile int *detach_flag;
__declspec(dllexport) void __stdcall WatchDetach(int *flag) { detach_flag = flag; }

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
  (void)instance;
  (void)reserved;
  if (reason == DLL_PROCESS_DETACH && detach_flag) ++*detach_flag;
  return TRUE;
}
