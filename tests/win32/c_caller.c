/* A C caller of the Win32 layer, the one docs/win32.md shows: a process
 * record with the layer's callbacks, a context for it, a DLL loaded, an
 * export called, everything released. Also proves that vrk_win32.h is C. */
#include <stdio.h>

#include "vrk_standin_ctl.h"
#include "vrk_win32.h"

/* The product opens files through its virtual-file library; the stand-in
 * opens paths. */
static VFileHandle OpenDll(const char *path) { return vrkvfile_open_path(path, VRKVFILE_COPY); }

int main(int argc, char **argv) {
  MODLOAD_PROCESS *process;
  VRKW32_CONTEXT *context;
  VRKW32_RESULT result;
  PELOAD_MODULE *dll;
  uint32_t args[3] = {1, 2, 3};
  uint32_t sum = 0;

  if (argc != 2) return 2;
  process = MODLOAD_CreateProcess(NULL, VRKW32_LoadNative, VRKW32_FreeNative, VRKW32_GetProcNative);
  context = VRKW32_CreateContext(process, OpenDll, vrkvfile_close);
  if (!context) return 1;
  dll = VRKW32_LoadLibrary(context, argv[1], &result);
  if (!dll) {
    fprintf(stderr, "%s\n", result.text);
  } else if (VRKW32_Call(context, PELOAD_GetProcAddress(dll, "StdSum3"), args, 3, &result) != VRKW32_OK) {
    fprintf(stderr, "%s\n", result.text);
  } else {
    sum = result.value;
    printf("StdSum3(1, 2, 3) = %u\n", (unsigned)sum);
  }
  VRKW32_DestroyContext(context, &result); /* DLL_PROCESS_DETACH */
  MODLOAD_TerminateProcess(process);
  return sum == 14 && result.status == VRKW32_OK ? 0 : 1;
}
