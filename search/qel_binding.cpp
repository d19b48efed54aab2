// Binding of the analysis module "qel.dll": load it once, resolve its nine
// entry points, start it and read its information word. Every failure is
// silent and leaves the library on its own pattern search.
#include "search/qel_binding.h"

#include <dlfcn.h>
#include <pthread.h>

namespace vrk::search {
namespace {

// State of the single attempt. Written only under AnalysisModule_Lock while
// the attempt runs; read without the lock afterwards, once the caller knows
// (from the word it was given) that the attempt is over.
constinit int AnalysisModule_Tried = 0;
constinit void* AnalysisModule_Handle = nullptr;
constinit AnalysisModuleEntries g_entries = {};
constinit uint32_t AnalysisModule_Info = 0;

// Statically initialised so that it needs no set-up call; never destroyed.
constinit pthread_mutex_t AnalysisModule_Lock = PTHREAD_MUTEX_INITIALIZER;

template <class Fn>
void Resolve(const char* name, Fn& out) {
  out = reinterpret_cast<Fn>(dlsym(AnalysisModule_Handle, name));
}

// Stops and unloads the module. The entry points and the word stay as they
// are: with the word left at 0 nothing calls them again.
void AnalysisModule_Release() {
  if (!AnalysisModule_Handle) return;
  if (g_entries.QELReleaseBoard) g_entries.QELReleaseBoard();
  dlclose(AnalysisModule_Handle);
  AnalysisModule_Handle = nullptr;
}

bool AllResolved() {
  const AnalysisModuleEntries& e = g_entries;
  return e.QELInitBoard && e.QELReleaseBoard && e.QELLoadCRCTBL && e.QELAnalizeFile && e.QELFreeAnalizeFile &&
         e.QELLoadPatterns && e.QELBuscaTbl && e.QELFreeBuscaTbl && e.QELGetInfoString;
}

}  // namespace

uint32_t AnalysisModule_Bind() {
  pthread_mutex_lock(&AnalysisModule_Lock);
  uint32_t result = 0;
  if (!AnalysisModule_Tried && !AnalysisModule_Handle) {
    AnalysisModule_Tried = 1;
    // The bare name: the dynamic loader's ordinary search decides where the
    // module comes from.
    AnalysisModule_Handle = dlopen("qel.dll", RTLD_NOW);
    if (AnalysisModule_Handle) {
      Resolve("QELInitBoard", g_entries.QELInitBoard);
      // A module that fails to start is not asked for anything else, so it
      // is not stopped either: QELReleaseBoard stays unresolved.
      if (g_entries.QELInitBoard && g_entries.QELInitBoard() == 0) {
        Resolve("QELReleaseBoard", g_entries.QELReleaseBoard);
        Resolve("QELLoadCRCTBL", g_entries.QELLoadCRCTBL);
        Resolve("QELAnalizeFile", g_entries.QELAnalizeFile);
        Resolve("QELFreeAnalizeFile", g_entries.QELFreeAnalizeFile);
        Resolve("QELLoadPatterns", g_entries.QELLoadPatterns);
        Resolve("QELBuscaTbl", g_entries.QELBuscaTbl);
        Resolve("QELFreeBuscaTbl", g_entries.QELFreeBuscaTbl);
        Resolve("QELGetInfoString", g_entries.QELGetInfoString);
      }
      if (AllResolved()) {
        // The module writes the word; if it writes nothing it stays 0 and
        // the module is never used.
        g_entries.QELGetInfoString(1, &AnalysisModule_Info, 4);
        result = AnalysisModule_Info;
      } else {
        AnalysisModule_Release();
      }
    }
  }
  pthread_mutex_unlock(&AnalysisModule_Lock);
  return result;
}

const AnalysisModuleEntries& AnalysisModule() { return g_entries; }

uint32_t AnalysisModuleInfo() { return AnalysisModule_Info; }

}  // namespace vrk::search
