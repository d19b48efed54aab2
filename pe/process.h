// Creation and teardown of process records.
#pragma once

#include "vrk_pe.h"

namespace vrk::pe {

// A zero-filled record with the three callbacks, the PE module in `handle`
// loaded into it first when there is one (whether it loads is not the
// record's concern); null when the allocator refuses the record.
MODLOAD_PROCESS* NewProcessRecord(VFileHandle handle, MODLOAD_LOAD_FN load, MODLOAD_FREE_FN free,
                                  MODLOAD_GETPROC_FN get_proc);

// Releases every module of the record, oldest first, then the record.
void FreeProcessRecord(MODLOAD_PROCESS* process);

}  // namespace vrk::pe
