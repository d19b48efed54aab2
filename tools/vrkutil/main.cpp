// vrkutil: a command-line face for each family of libVrkutil.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "command.h"

namespace vrkutil {
namespace {

constexpr int kMaxCommands = 32;
Command g_commands[kMaxCommands];
int g_command_count = 0;

const Command* Find(std::string_view name) {
  for (int i = 0; i < g_command_count; ++i) {
    if (name == g_commands[i].name) return &g_commands[i];
  }
  return nullptr;
}

// The registered commands in name order.
std::span<const Command> SortedCommands() {
  static Command sorted[kMaxCommands];
  std::copy(g_commands, g_commands + g_command_count, sorted);
  std::sort(sorted, sorted + g_command_count,
            [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
  return {sorted, static_cast<size_t>(g_command_count)};
}

void PrintHelp(FILE* out) {
  std::fprintf(out,
               "usage: vrkutil [--help] [--version] COMMAND [ARGS...]\n"
               "\n"
               "Command-line access to the libVrkutil functions.\n"
               "\n"
               "Commands:\n");
  for (const Command& c : SortedCommands()) std::fprintf(out, "  %-12s %s\n", c.name, c.summary);
  std::fprintf(out, "\nRun 'vrkutil COMMAND --help' for a command's arguments.\n");
}

void PrintCommandHelp(const Command& c) {
  std::printf("usage: vrkutil %s %s\n\n%s\n", c.name, c.usage, c.help);
}

// Writes `text` as roff: backslashes and hyphens escaped, a line that would
// start with a control character protected.
void PutRoff(const char* text) {
  bool line_start = true;
  for (const char* p = text; *p; ++p) {
    if (line_start && (*p == '.' || *p == '\'')) std::fputs("\\&", stdout);
    line_start = *p == '\n';
    if (*p == '\\') {
      std::fputs("\\e", stdout);
    } else if (*p == '-') {
      std::fputs("\\-", stdout);
    } else {
      std::fputc(*p, stdout);
    }
  }
  std::fputc('\n', stdout);
}

// The manual page, made from the same texts as --help, so the two cannot
// drift apart (the build writes it; see tools/vrkutil/CMakeLists.txt).
void PrintManPage() {
  std::printf(".TH VRKUTIL 1 \"\" \"vrkutil %s\" \"User Commands\"\n", VRKUTIL_VERSION);
  std::puts(".SH NAME\nvrkutil \\- command\\-line access to the libVrkutil functions");
  std::puts(".SH SYNOPSIS\n.B vrkutil\n[\\-\\-help] [\\-\\-version]\n.I COMMAND\n[\\fIARGS\\fR...]");
  std::puts(".SH DESCRIPTION\nEach command gives a person the use of one family of the library:\n"
            "checksums, signature search and scanning, PE images, URIs, text encodings\n"
            "and OS utilities.\n"
            "Errors are one line on standard error.");
  std::puts(".SH COMMANDS");
  for (const Command& c : SortedCommands()) {
    std::printf(".SS \"%s\"\n", c.name);
    if (std::strncmp(c.summary, "same as ", 8) == 0) {  // an alias
      std::printf("Same as \\fB%s\\fR.\n", c.summary + 8);
      continue;
    }
    std::printf(".B vrkutil %s\n", c.name);
    PutRoff(c.usage);
    // The help texts are laid out for a terminal (aligned option lists), so
    // they keep their lines.
    std::puts(".PP\n.nf");
    PutRoff(c.help);
    std::puts(".fi");
  }
  std::puts(".SH EXIT STATUS\n0 on success, 1 when a request failed (an unknown name, a detection),\n"
            "2 on bad usage or unusable input; each command's text above says more.");
}

// A bash completion script made from the command table: subcommands, then
// each command's options; file names everywhere else.
void PrintBashCompletion() {
  std::puts("# bash completion for vrkutil; written by 'vrkutil --bash-completion'.");
  std::puts("_vrkutil() {");
  std::puts("  local cur=${COMP_WORDS[COMP_CWORD]}");
  std::fputs("  if [ \"$COMP_CWORD\" -eq 1 ]; then\n    COMPREPLY=($(compgen -W \"--help --version", stdout);
  for (const Command& c : SortedCommands()) std::printf(" %s", c.name);
  std::puts("\" -- \"$cur\"))\n    return\n  fi");
  std::puts("  local options=\"--help\"");
  std::puts("  case ${COMP_WORDS[1]} in");
  for (const Command& c : SortedCommands()) {
    std::printf("    %s) options=\"--help", c.name);
    for (const Option& o : c.options) {
      if (o.long_name) std::printf(" --%s", o.long_name);
      if (o.short_name) std::printf(" -%c", o.short_name);
    }
    std::puts("\" ;;");
  }
  std::puts("  esac");
  std::puts("  if [[ $cur == -* ]]; then\n    COMPREPLY=($(compgen -W \"$options\" -- \"$cur\"))\n  else\n"
            "    COMPREPLY=($(compgen -f -- \"$cur\"))\n  fi\n}");
  std::puts("complete -o filenames -F _vrkutil vrkutil");
}

}  // namespace

bool Register(const Command& command) {
  if (g_command_count == kMaxCommands) std::abort();  // a build mistake, not input
  g_commands[g_command_count++] = command;
  return true;
}

int Fail(int status, const char* format, ...) {
  std::fputs("vrkutil: ", stderr);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
  return status;
}

int UsageError(const Command& command, const char* format, ...) {
  std::fprintf(stderr, "vrkutil %s: ", command.name);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fprintf(stderr, " (see 'vrkutil %s --help')\n", command.name);
  return kExitUsage;
}

bool ParseInt(std::string_view text, long long& out) {
  // Decimal or 0x-prefixed hex; a leading 0 does not mean octal.
  const bool negative = !text.empty() && text[0] == '-';
  if (negative) text.remove_prefix(1);
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty() || text.size() > 20 || !std::isxdigit(static_cast<unsigned char>(text[0]))) return false;
  char buffer[24];
  std::memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(buffer, &end, base);
  if (errno != 0 || end != buffer + text.size()) return false;
  out = negative ? -value : value;
  return true;
}

int NumberOption(const Command& command, const Invocation& in, int id, long long low, long long high,
                 long long& out) {
  for (const ParsedOption& o : in.options()) {
    if (o.id != id) continue;
    long long n = 0;
    if (!ParseInt(o.value, n) || n < low || n > high) {
      return UsageError(command, "%s needs a number from %lld to %lld, not '%s'", o.spelling.c_str(), low, high,
                        o.value);
    }
    out = n;
  }
  return kExitOk;
}

}  // namespace vrkutil

int main(int argc, char** argv) {
  using namespace vrkutil;
  if (argc < 2) {
    std::fputs("vrkutil: no command given (see 'vrkutil --help')\n", stderr);
    return kExitUsage;
  }
  const std::string_view first = argv[1];
  if (first == "--help" || first == "-h" || first == "help") {
    PrintHelp(stdout);
    return kExitOk;
  }
  // Used by the build, not listed in --help.
  if (first == "--manpage") {
    PrintManPage();
    return kExitOk;
  }
  if (first == "--bash-completion") {
    PrintBashCompletion();
    return kExitOk;
  }
  if (first == "--version") {
    std::printf("vrkutil %s\n", VRKUTIL_VERSION);
    return kExitOk;
  }
  const Command* command = Find(first);
  if (!command) {
    return Fail(kExitUsage, "unknown command '%s' (see 'vrkutil --help')", argv[1]);
  }
  Invocation invocation;
  std::string error;
  switch (ParseCommandLine(std::span<char* const>(argv + 2, argv + argc), command->options, command->operands,
                           invocation, error)) {
    case ParseResult::kHelp:
      PrintCommandHelp(*command);
      return kExitOk;
    case ParseResult::kUsageError:
      return UsageError(*command, "%s", error.c_str());
    case ParseResult::kOk:
      break;
  }
  return command->run(invocation);
}
