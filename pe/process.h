// Creation and teardown of process records.
#pragma once

#include "vrk_pe.h"

namespace vrk::pe {

MODLOAD_PROCESS* CreateProcess(VFileHandle handle, MODLOAD_LOAD_FN load, MODLOAD_FREE_FN free,
                               MODLOAD_GETPROC_FN get_proc);
void TerminateProcess(MODLOAD_PROCESS* process);

}  // namespace vrk::pe
