// Binding of the analysis module "qel.dll": load it once, resolve its nine
// entry points, start it and read its information word. Every failure is
// silent and leaves the library on its own pattern search.
#include "search/qel_binding.h"

#include <dlfcn.h>
#include <pthread.h>

namespace vrk::search {
namespace {

// State of the single attempt. Written only under g_module_lock while
// the attempt runs; read without the lock afterwards, once the caller knows
// (from the word it was given) that the attempt is over.
constinit bool g_module_tried = false;
constinit void* g_module_handle = nullptr;
constinit AnalysisModuleEntries g_entries = {};
constinit uint32_t g_module_info = 0;

// Statically initialised so that it needs no set-up call; never destroyed.
constinit pthread_mutex_t g_module_lock = PTHREAD_MUTEX_INITIALIZER;

template <class Fn>
void Resolve(const char* name, Fn& out) {
  out = reinterpret_cast<Fn>(dlsym(g_module_handle, name));
}

// Stops and unloads the module. The entry points and the word stay as they
// are: with the word left at 0 nothing calls them again.
void ReleaseAnalysisModule() {
  if (!g_module_handle) return;
  if (g_entries.QELReleaseBoard) g_entries.QELReleaseBoard();
  dlclose(g_module_handle);
  g_module_handle = nullptr;
}

bool AllResolved() {
  const AnalysisModuleEntries& e = g_entries;
  return e.QELInitBoard && e.QELReleaseBoard && e.QELLoadCRCTBL && e.QELAnalizeFile && e.QELFreeAnalizeFile &&
         e.QELLoadPatterns && e.QELBuscaTbl && e.QELFreeBuscaTbl && e.QELGetInfoString;
}

}  // namespace

uint32_t BindAnalysisModule() {
  pthread_mutex_lock(&g_module_lock);
  uint32_t result = 0;
  if (!g_module_tried && !g_module_handle) {
    g_module_tried = true;
    // The bare name: the dynamic loader's ordinary search decides where the
    // module comes from.
    g_module_handle = dlopen("qel.dll", RTLD_NOW);
    if (g_module_handle) {
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
        g_entries.QELGetInfoString(1, &g_module_info, 4);
        result = g_module_info;
      } else {
        ReleaseAnalysisModule();
      }
    }
  }
  pthread_mutex_unlock(&g_module_lock);
  return result;
}

const AnalysisModuleEntries& AnalysisModuleEntryPoints() { return g_entries; }

uint32_t AnalysisModuleInfo() { return g_module_info; }

}  // namespace vrk::search
