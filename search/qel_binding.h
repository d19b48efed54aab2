// Binding of the optional analysis module "qel.dll": one attempt per
// process, on first use, after which its entry points are read without a
// lock.
#pragma once

#include <cstdint>

#include "search/qel_binding_module.h"

namespace vrk::search {

// The module's entry points; null until resolved. Written only during the
// single binding attempt, under the binding mutex.
struct AnalysisModuleEntries {
  QELInitBoardFn QELInitBoard;
  QELReleaseBoardFn QELReleaseBoard;
  QELUnusedFn QELLoadCRCTBL;
  QELUnusedFn QELAnalizeFile;
  QELUnusedFn QELFreeAnalizeFile;
  QELLoadPatternsFn QELLoadPatterns;
  QELBuscaTblFn QELBuscaTbl;
  QELFreeBuscaTblFn QELFreeBuscaTbl;
  QELGetInfoStringFn QELGetInfoString;
};

// Makes the process's one binding attempt. Returns the module's information
// word when this call bound it, 0 otherwise (also on every call after the
// first, whatever the first one did).
uint32_t BindAnalysisModule();

// The entry points, valid to call only when the information word returned
// by the binding says so.
const AnalysisModuleEntries& AnalysisModuleEntryPoints();

// The information word (0 until a binding succeeds).
uint32_t AnalysisModuleInfo();

}  // namespace vrk::search
