// Process records: the context of one set of modules that see one another.
#include "pe/process.h"

#include "pe/loader.h"
#include "vrkalloc.h"

namespace vrk::pe {

MODLOAD_PROCESS* NewProcessRecord(VFileHandle handle, MODLOAD_LOAD_FN load, MODLOAD_FREE_FN free,
                                  MODLOAD_GETPROC_FN get_proc) {
  auto* process = static_cast<MODLOAD_PROCESS*>(Pcalloc(1, sizeof(MODLOAD_PROCESS), 0));
  if (!process) return nullptr;
  process->load = load;
  process->free = free;
  process->getProc = get_proc;
  // The first module is found later by name, if it loaded at all; its
  // failure is not the record's.
  if (handle) (void)LoadModule(handle, process, 1);
  return process;
}

void FreeProcessRecord(MODLOAD_PROCESS* process) {
  if (!process) return;
  FreeModuleChain(process->modules);
  Pfree(process);
}

}  // namespace vrk::pe
