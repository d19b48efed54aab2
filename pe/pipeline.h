// The loading sequence of one PE module, and the one teardown that every
// failure in it, and every release of a loaded module, goes through.
#pragma once

#include "vrk_pe.h"

namespace vrk::pe {

// Reads, relocates, binds, lists and starts the module in `handle`: a new
// image record, or null with everything it built released (references that
// import binding took stay with the modules that hold them).
PELOAD_IMAGE* LoadImageModule(VFileHandle handle, MODLOAD_PROCESS* process);

// Releases an image record however far its load got: its block (unless in
// place), its export list and the record itself. Null does nothing.
void FreeImage(PELOAD_IMAGE* record);

}  // namespace vrk::pe
