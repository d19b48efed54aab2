// Helpers for the text tests: a UTF-8 encoder written from the encoding's
// definition, and the allocator call log rendered as one line so that a
// test states the exact sequence of calls it expects.
#pragma once

#include <cstdio>
#include <string>

#include "vrk_standin_ctl.h"

namespace vrk::test {

// UTF-8 of one code point; a surrogate gets its 3-byte form.
inline void PutUtf8(char32_t c, std::string& out) {
  const int n = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
  static constexpr unsigned char kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
  out += char(n == 1 ? c : kLead[n] | (c >> (6 * (n - 1))));
  for (int i = n - 2; i >= 0; --i) out += char(0x80 | ((c >> (6 * i)) & 0x3F));
}

inline std::string U8(std::initializer_list<char32_t> code_points) {
  std::string out;
  for (char32_t c : code_points) PutUtf8(c, out);
  return out;
}

// Starts logging (clearing earlier entries).
inline void StartTrace() { vrkalloc_log_enable(1); }

// The calls logged since StartTrace, e.g. "Pmalloc(2048,0) Prealloc(11) ";
// a refused request ends in '!', a free of a null block reads "Pfree(null)".
inline std::string Trace() {
  std::string out;
  char item[64];
  for (uint32_t i = 0; i < vrkalloc_log_size(); ++i) {
    const VrkAllocCall& c = *vrkalloc_log_at(i);
    const char* refused = c.refused ? "!" : "";
    const char* null_free = c.block ? "" : "(null)";
    switch (c.op) {
      case VRKALLOC_PMALLOC: std::snprintf(item, sizeof item, "Pmalloc(%u,%u)%s ", c.a, c.b, refused); break;
      case VRKALLOC_PCALLOC: std::snprintf(item, sizeof item, "Pcalloc(%u,%u,%u)%s ", c.a, c.b, c.c, refused); break;
      case VRKALLOC_PREALLOC:
        std::snprintf(item, sizeof item, "Prealloc(%s%u)%s ", c.block ? "" : "null,", c.a, refused);
        break;
      case VRKALLOC_PFREE: std::snprintf(item, sizeof item, "Pfree%s ", null_free); break;
      case VRKALLOC_PSAFEFREE: std::snprintf(item, sizeof item, "PSafeFree%s ", null_free); break;
      default: std::snprintf(item, sizeof item, "op%d ", c.op);
    }
    out += item;
  }
  vrkalloc_log_enable(0);
  return out;
}

}  // namespace vrk::test
