/* libVrkwin32: a Win32 native layer for the PE loader of libVrkutil. It
 * serves KERNEL32.dll, msvcrt.dll and parts of ADVAPI32.dll, USER32.dll,
 * WS2_32.dll and ntdll.dll to the PE modules of a process record, runs their
 * code with a Windows thread environment block in FS and a fault guard
 * around every call, and finds the PE DLLs they import in search folders.
 *
 * Running a DLL runs its code inside the calling process, with the
 * process's rights: load trusted DLLs only. The fault guard ends a call that
 * crashes; it is no sandbox.
 *
 * Use: create a process record with the three callbacks below, a context
 * for it, load DLLs and call their exports through the context; then
 * destroy the context (which runs the detach notifications) and terminate
 * the record. */
#ifndef VRK_WIN32_H
#define VRK_WIN32_H

#include "vrk_pe.h"

VRK_EXTERN_C_BEGIN

/* ---- Native-module callbacks, for MODLOAD_CreateProcess ---- */

/* Gives the native module handle of KERNEL32.dll, msvcrt.dll, ADVAPI32.dll,
 * USER32.dll, WS2_32.dll or ntdll.dll (letter case ignored, ".dll"
 * optional); any other name gets a module of stubs only, so that a DLL
 * importing from it loads and only calling those imports fails. */
VRK_API void *VRKW32_LoadNative(const char *name, uint32_t reserved1, uint32_t reserved2) VRK_NOEXCEPT;
/* Native modules are never released: nothing to do. */
VRK_API void VRKW32_FreeNative(void *handle) VRK_NOEXCEPT;
/* The address of an implemented function or data export; for anything else
 * a stub of its own that ends the call with "DLL!Name is not implemented".
 * Never 0 for a name or ordinal. */
VRK_API uint32_t VRKW32_GetProcNative(void *handle, const char *nameOrOrdinal) VRK_NOEXCEPT;

/* ---- Contexts ---- */

/* Opens the DLL file at `path` as a virtual file (null when it cannot be
 * opened), and closes one: the layer finds DLLs by path, while the loader
 * reads them through the virtual-file library. */
typedef VFileHandle (*VRKW32_OPEN_FN)(const char *path);
typedef void (*VRKW32_CLOSE_FN)(VFileHandle handle);

/* How a load or a call ended. */
#define VRKW32_OK 0
#define VRKW32_NOT_FOUND 1       /* no such DLL file, or no such export */
#define VRKW32_LOAD_FAILED 2     /* the DLL could not be read, bound or started */
#define VRKW32_NOT_IMPLEMENTED 3 /* guest code called an import the layer does not implement */
#define VRKW32_FAULT 4           /* SIGSEGV, SIGILL, SIGFPE or SIGBUS inside guest code */
#define VRKW32_EXITED 5          /* guest code ended the process (exit, ExitProcess, abort) */
#define VRKW32_NO_SEGMENT 6      /* FS cannot point at a thread environment block here */
#define VRKW32_BAD_CALL 7        /* bad arguments, or a call from guest code of another context */

#define VRKW32_TEXT_SIZE 512

typedef struct VRKW32_RESULT {
  int status;          /* VRKW32_OK or one of the codes above */
  uint32_t value;      /* a call's EAX */
  uint32_t high;       /* a call's EDX */
  uint32_t popped;     /* bytes of arguments the function removed: 4 x count for stdcall, 0 for cdecl */
  uint32_t exitCode;   /* VRKW32_EXITED: the exit code */
  char text[VRKW32_TEXT_SIZE]; /* one line on what went wrong; empty for VRKW32_OK */
} VRKW32_RESULT;

typedef struct VRKW32_CONTEXT VRKW32_CONTEXT;

/* A context for `process` (a record made with the callbacks above), which
 * it must outlive; null when memory or the record is missing. */
VRK_API VRKW32_CONTEXT *VRKW32_CreateContext(MODLOAD_PROCESS *process, VRKW32_OPEN_FN open,
                                             VRKW32_CLOSE_FN close) VRK_NOEXCEPT;
/* Adds a folder in which DLLs named by their imports are looked for, after
 * those added before. 1, or 0 when out of memory. */
VRK_API int VRKW32_AddSearchDir(VRKW32_CONTEXT *context, const char *dir) VRK_NOEXCEPT;
/* Loads the PE DLL at `pathOrName` (a path, or a bare name looked for in
 * the search folders) into the record: the PE DLLs it imports first (each
 * looked for beside the DLL importing it, then in the search folders), in
 * dependency order, each started with DLL_PROCESS_ATTACH as Windows would.
 * Imports from native modules are bound to their implementations or to
 * stubs. The module entry, or null with `result` saying why. */
VRK_API PELOAD_MODULE *VRKW32_LoadLibrary(VRKW32_CONTEXT *context, const char *pathOrName,
                                          VRKW32_RESULT *result) VRK_NOEXCEPT;
/* Calls the guest function at `address` with `count` 32-bit arguments
 * (args[0] is the first, pushed last), on this thread with its TEB in FS and
 * faults caught. stdcall and cdecl functions both return cleanly; `popped`
 * tells them apart. VRKW32_OK with value/high, or why the call ended. */
VRK_API int VRKW32_Call(VRKW32_CONTEXT *context, uint32_t address, const uint32_t *args, uint32_t count,
                        VRKW32_RESULT *result) VRK_NOEXCEPT;
/* Runs what a Windows process runs at its end: msvcrt's atexit functions,
 * then DLL_PROCESS_DETACH for every started module, newest first. Then
 * releases the context (handles, heaps, thread blocks); the record is left
 * to MODLOAD_TerminateProcess. The first abnormal end is in `result`. */
VRK_API void VRKW32_DestroyContext(VRKW32_CONTEXT *context, VRKW32_RESULT *result) VRK_NOEXCEPT;

/* 1 when the layer implements DLL!name (e.g. "KERNEL32.dll", "GetLastError"),
 * 0 when it would be bound to a stub. */
VRK_API int VRKW32_IsImplemented(const char *dll, const char *name) VRK_NOEXCEPT;

/* One import of a loaded PE module, for VRKW32_ListImports. */
#define VRKW32_IMPORT_PE 0          /* bound to a PE module of the record */
#define VRKW32_IMPORT_IMPLEMENTED 1 /* implemented by the layer */
#define VRKW32_IMPORT_STUB 2        /* bound to a stub */
typedef void (*VRKW32_IMPORT_FN)(void *user, const char *module, const char *dll, const char *name, int kind);

/* Calls `fn` for each import of each PE module loaded through the context,
 * in load order. The number of modules listed. */
VRK_API int VRKW32_ListImports(VRKW32_CONTEXT *context, VRKW32_IMPORT_FN fn, void *user) VRK_NOEXCEPT;

VRK_EXTERN_C_END

#endif /* VRK_WIN32_H */
