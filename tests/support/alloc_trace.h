// The allocator calls a piece of a test makes, through the stand-in's call
// log: as records, or as one line of text so that a test states the exact
// sequence it expects, e.g. "Pmalloc(2048,0) Prealloc(11) Pfree ".
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "vrk_standin_ctl.h"

namespace vrk::test {

// Logs the calls made from construction until Stop() or destruction.
class AllocTrace {
 public:
  AllocTrace() { vrkalloc_log_enable(1); }
  ~AllocTrace() { vrkalloc_log_enable(0); }
  AllocTrace(const AllocTrace&) = delete;
  AllocTrace& operator=(const AllocTrace&) = delete;

  // Ends the log; the calls stay readable.
  void Stop() { vrkalloc_log_enable(0); }

  std::vector<VrkAllocCall> Calls() const { return Logged(); }
  std::string Text() const { return Text(Logged()); }

  // What the stand-in has logged so far.
  static std::vector<VrkAllocCall> Logged() {
    std::vector<VrkAllocCall> calls;
    for (uint32_t i = 0; i < vrkalloc_log_size(); ++i) calls.push_back(*vrkalloc_log_at(i));
    return calls;
  }

  // Calls as text: a refused request ends in '!', a free of a null block
  // reads "Pfree(null)", frees do not show their block.
  static std::string Text(const std::vector<VrkAllocCall>& calls) {
    std::string out;
    char item[64];
    for (const VrkAllocCall& c : calls) {
      const char* refused = c.refused ? "!" : "";
      const char* null_free = c.block ? "" : "(null)";
      switch (c.op) {
        case VRKALLOC_PMALLOC: std::snprintf(item, sizeof item, "Pmalloc(%u,%u)%s ", c.a, c.b, refused); break;
        case VRKALLOC_PCALLOC: std::snprintf(item, sizeof item, "Pcalloc(%u,%u,%u)%s ", c.a, c.b, c.c, refused); break;
        case VRKALLOC_PCALLOCX: std::snprintf(item, sizeof item, "PcallocX(%u,%u)%s ", c.a, c.b, refused); break;
        case VRKALLOC_PREALLOC:
          std::snprintf(item, sizeof item, "Prealloc(%s%u)%s ", c.block ? "" : "null,", c.a, refused);
          break;
        case VRKALLOC_PFREE: std::snprintf(item, sizeof item, "Pfree%s ", null_free); break;
        case VRKALLOC_PFREEX: std::snprintf(item, sizeof item, "PfreeX%s ", null_free); break;
        case VRKALLOC_PSAFEFREE: std::snprintf(item, sizeof item, "PSafeFree%s ", null_free); break;
        case VRKALLOC_SETMODULEVERSION: std::snprintf(item, sizeof item, "SetModuleVersion(%u,%#x) ", c.a, c.b); break;
        default: std::snprintf(item, sizeof item, "op%d ", c.op);
      }
      out += item;
    }
    return out;
  }
};

}  // namespace vrk::test
