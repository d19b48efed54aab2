// Allocator call traces for the text tests: the stand-in's call log rendered
// as one line, so a test states the exact sequence of calls it expects.
#pragma once

#include <cstdio>
#include <string>

#include "vrk_standin_ctl.h"

namespace vrk::test {

// Starts logging (clearing earlier entries).
inline void StartTrace() { vrkalloc_log_enable(1); }

// The calls logged since StartTrace, e.g. "Pmalloc(2048) Prealloc(11) ";
// a refused request ends in '!', a free of a null block reads "Pfree(null)".
inline std::string Trace() {
  std::string out;
  char item[64];
  for (uint32_t i = 0; i < vrkalloc_log_size(); ++i) {
    const VrkAllocCall& c = *vrkalloc_log_at(i);
    const char* refused = c.refused ? "!" : "";
    switch (c.op) {
      case VRKALLOC_PMALLOC:
        std::snprintf(item, sizeof item, "Pmalloc(%u,%u)%s ", c.a, c.b, refused);
        break;
      case VRKALLOC_PCALLOC:
        std::snprintf(item, sizeof item, "Pcalloc(%u,%u,%u)%s ", c.a, c.b, c.c, refused);
        break;
      case VRKALLOC_PREALLOC:
        std::snprintf(item, sizeof item, "Prealloc(%s%u)%s ", c.block ? "" : "null,", c.a, refused);
        break;
      case VRKALLOC_PFREE:
        std::snprintf(item, sizeof item, "Pfree%s ", c.block ? "" : "(null)");
        break;
      case VRKALLOC_PSAFEFREE:
        std::snprintf(item, sizeof item, "PSafeFree%s ", c.block ? "" : "(null)");
        break;
      default:
        std::snprintf(item, sizeof item, "op%d ", c.op);
    }
    out += item;
  }
  vrkalloc_log_enable(0);
  return out;
}

}  // namespace vrk::test
