// vrkutil uri: the components URI_Parse (or URI_GetServer) finds in a text.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "command.h"
#include "json.h"
#include "vrk_uri.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kServer, kJson };
constexpr Option kOptions[] = {{kServer, 0, "server", false}, {kJson, 0, "json", false}};

const Command kUri{
    "uri", "[--server] [--json] [--] TEXT...", "split URI references into their components",
    "Parses each TEXT as a URI reference (as URI_Parse does) and prints one\n"
    "block per TEXT with every component: decoded text in double quotes, or\n"
    "(absent). A text without a scheme is read behind \"http://\".\n"
    "\n"
    "  --server  read only the scheme and the server (URI_GetServer)\n"
    "  --json    print one JSON object per TEXT instead: strings are UTF-8,\n"
    "            and bytes that are not UTF-8 come out as \\udc80-\\udcff\n"
    "            (surrogate escapes, which give the bytes back losslessly)\n"
    "\n"
    "The components are the parser's, as the library gives them: a registry\n"
    "name keeps a port written after it (\"http://h_x:80/p\" gives reg_name\n"
    "\"h_x:80\" and port 0), and \"#\" does not end a server, so an authority\n"
    "followed by a fragment is a registry name (\"http://a.b#c\" has reg_name\n"
    "\"a.b\" and no host).\n"
    "Exit status 1 when any TEXT is not a URI.",
    Run, kOptions};

struct Field {
  const char* name;
  char* URI_Record::*member;
};

constexpr Field kTextFields[] = {
    {"scheme", &URI_Record::scheme}, {"opaque", &URI_Record::opaque}, {"reg_name", &URI_Record::reg_name},
    {"host", &URI_Record::host},     {"userinfo", &URI_Record::userinfo}, {"path", &URI_Record::path},
    {"query", &URI_Record::query},   {"fragment", &URI_Record::fragment},
};

// Writes `text` between double quotes, so every value stays on one line:
// C-style escapes for quotes, backslashes and bytes outside printable ASCII
// in blocks; JSON strings (UTF-8, other bytes kept losslessly) with --json.
void PrintQuoted(const char* text, bool json) {
  if (json) {
    std::fputs(JsonString(text).c_str(), stdout);
    return;
  }
  std::putchar('"');
  for (const char* p = text; *p; ++p) {
    const auto c = static_cast<unsigned char>(*p);
    if (c == '"' || c == '\\') {
      std::printf("\\%c", c);
    } else if (c >= 0x20 && c < 0x7f) {
      std::putchar(c);
    } else {
      std::printf("\\x%02x", c);
    }
  }
  std::putchar('"');
}

void PrintBlock(const char* input, const URI_Record& record) {
  std::fputs("input:    ", stdout);
  PrintQuoted(input, false);
  std::putchar('\n');
  for (const Field& f : kTextFields) {
    std::printf("%-9s ", (std::string(f.name) + ":").c_str());
    const char* value = record.*f.member;
    if (value) {
      PrintQuoted(value, false);
    } else {
      std::fputs("(absent)", stdout);
    }
    std::putchar('\n');
  }
  std::printf("port:     %d\n", record.port);
}

void PrintJson(const char* input, const URI_Record* record) {
  std::fputs("{\"input\": ", stdout);
  PrintQuoted(input, true);
  if (!record) {
    std::fputs(", \"record\": null}\n", stdout);
    return;
  }
  std::fputs(", \"record\": {", stdout);
  for (const Field& f : kTextFields) {
    std::printf("\"%s\": ", f.name);
    const char* value = record->*f.member;
    if (value) {
      PrintQuoted(value, true);
    } else {
      std::fputs("null", stdout);
    }
    std::fputs(", ", stdout);
  }
  std::printf("\"port\": %d}}\n", record->port);
}

int Run(const Invocation& in) {
  const bool server = in.Has(kServer);
  const bool json = in.Has(kJson);
  if (in.operands().empty()) return UsageError(kUri, "expected at least one TEXT");

  int status = kExitOk;
  bool first_block = true;
  for (const char* text : in.operands()) {
    URI_Record* record = server ? URI_GetServer(text) : URI_Parse(text);
    if (json) {
      PrintJson(text, record);
      if (!record) status = kExitFailure;
    } else if (record) {
      if (!first_block) std::putchar('\n');
      first_block = false;
      PrintBlock(text, *record);
    } else {
      std::fflush(stdout);
      status = Fail(kExitFailure, "not a URI: '%s'", text);
    }
    URI_Free(record);
  }
  return status;
}

}  // namespace

VRK_COMMAND(kUri);

}  // namespace vrkutil
