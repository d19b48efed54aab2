// vrkutil uri: the components URI_Parse (or URI_GetServer) finds in a text.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "command.h"
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
    "  --server  read only the scheme and the server (URI_GetServer)\n"
    "  --json    print one JSON object per TEXT instead\n"
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

// Writes `text` between double quotes with C-style escapes for quotes,
// backslashes and bytes outside printable ASCII, so every value stays on
// one line. JSON needs \u00XX where C would write \xXX.
void PrintQuoted(const char* text, bool json) {
  std::putchar('"');
  for (const char* p = text; *p; ++p) {
    const auto c = static_cast<unsigned char>(*p);
    if (c == '"' || c == '\\') {
      std::printf("\\%c", c);
    } else if (c >= 0x20 && c < 0x7f) {
      std::putchar(c);
    } else if (json) {
      std::printf("\\u%04x", c);
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
