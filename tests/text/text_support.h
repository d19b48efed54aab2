// Helpers for the text tests: a UTF-8 encoder written from the encoding's
// definition, and the allocator call log as one line of text, taken around
// a call in two steps.
#pragma once

#include <string>

#include "support/alloc_trace.h"
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

// The calls logged since StartTrace as AllocTrace renders them; ends the log.
inline std::string Trace() {
  vrkalloc_log_enable(0);
  return AllocTrace::Text(AllocTrace::Logged());
}

}  // namespace vrk::test
