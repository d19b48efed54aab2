// Fuzz target of URI_Parse and URI_GetServer: the record's invariants on
// every success, agreement of the two on the authority, no block left
// behind, and the same again with each allocation refused in turn.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vrk_standin_ctl.h"
#include "vrk_uri.h"

namespace {

void Check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "uri fuzz: %s\n", what);
    std::abort();
  }
}

constexpr char* URI_Record::*kTexts[] = {
    &URI_Record::scheme, &URI_Record::opaque, &URI_Record::reg_name, &URI_Record::host,
    &URI_Record::userinfo, &URI_Record::path, &URI_Record::query, &URI_Record::fragment,
};

// Each present text is its own Pmalloc block (found in the call log) and
// holds its terminator inside that block.
void CheckBlocks(const URI_Record* r) {
  for (char* URI_Record::*field : kTexts) {
    const char* text = r->*field;
    if (!text) continue;
    uint32_t size = 0;
    for (uint32_t i = vrkalloc_log_size(); i-- > 0;) {
      const VrkAllocCall* call = vrkalloc_log_at(i);
      if (call->op == VRKALLOC_PMALLOC && call->result == text) {
        size = call->a;
        break;
      }
    }
    Check(size > 0, "a text is not a block of its own");
    Check(std::memchr(text, '\0', size) != nullptr, "a text is not terminated inside its block");
    for (char* URI_Record::*other : kTexts) {
      Check(other == field || r->*other != text, "two fields share a block");
    }
  }
}

void CheckRecord(const URI_Record* r) {
  Check(!r->opaque || r->scheme, "opaque without scheme");
  Check(!(r->host && r->reg_name), "both host and reg_name");
  Check(!r->userinfo || r->host, "userinfo without host");
  Check(r->flags == 0, "flags set");
  CheckBlocks(r);
}

bool Same(const char* a, const char* b) { return (!a && !b) || (a && b && std::strcmp(a, b) == 0); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);  // cut at an inner NUL by the parser
  const uint32_t live = vrkalloc_live(VRKALLOC_FAMILY_P);

  vrkalloc_log_enable(1);
  URI_Record* parsed = URI_Parse(text.c_str());
  if (parsed) CheckRecord(parsed);
  URI_Record* server = URI_GetServer(text.c_str());
  if (server) {
    CheckRecord(server);
    Check(!server->opaque && !server->path && !server->query && !server->fragment, "server with more than a server");
    Check(server->scheme || text.c_str()[0] == '\0', "server without scheme");
  }
  vrkalloc_log_enable(0);

  // Both read the same authority from the same place, so when the full
  // parse found one the server extraction must agree on it.
  if (parsed && server && (parsed->host || parsed->reg_name)) {
    Check(Same(parsed->scheme, server->scheme) && Same(parsed->host, server->host) &&
              Same(parsed->reg_name, server->reg_name) && Same(parsed->userinfo, server->userinfo) &&
              parsed->port == server->port,
          "URI_Parse and URI_GetServer disagree on the authority");
  }
  URI_Free(parsed);
  URI_Free(server);
  Check(vrkalloc_live(VRKALLOC_FAMILY_P) == live, "blocks left after URI_Free");

  // Refused allocations: whatever comes back must be releasable and nothing
  // may stay behind.
  for (auto function : {URI_Parse, URI_GetServer}) {
    const uint32_t before = vrkalloc_requests();
    URI_Free(function(text.c_str()));
    const uint32_t count = vrkalloc_requests() - before;
    for (uint32_t n = 1; n <= count; ++n) {
      vrkalloc_fail_nth(n);
      URI_Record* r = function(text.c_str());
      vrkalloc_fail_nth(0);
      URI_Free(r);
      Check(vrkalloc_live(VRKALLOC_FAMILY_P) == live, "blocks left after a refused allocation");
    }
  }
  return 0;
}
