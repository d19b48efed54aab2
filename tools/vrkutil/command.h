// The subcommands of the vrkutil tool. Each lives in a cmd_*.cpp file of its
// own and registers itself with VRK_COMMAND, so adding one touches no other
// file. main() parses every command line the same way (options.h) before the
// command runs.
#pragma once

#include <cstdio>
#include <span>
#include <string_view>

#include "options.h"

namespace vrkutil {

// Exit statuses shared by every subcommand.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;  // the request was understood but failed
inline constexpr int kExitUsage = 2;    // bad usage or unusable input

struct Command {
  const char* name;
  const char* usage;    // argument synopsis, e.g. "NAME|NUMBER..."
  const char* summary;  // one line for the command list
  const char* help;     // the text of `vrkutil NAME --help`, after the usage line
  int (*run)(const Invocation& in);
  std::span<const Option> options = {};  // besides -h/--help, which every command has
  Operands operands = Operands::kAnywhere;
};

// Adds a command to the tool's table (static registration).
bool Register(const Command& command);

// Prints "vrkutil: <message>" on stderr and returns `status`.
int Fail(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Prints "vrkutil NAME: <message>" on stderr followed by a usage hint, and
// returns kExitUsage.
int UsageError(const Command& command, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Parses a whole decimal or 0x-prefixed hex number, optionally negative, into
// `out` (a leading 0 is not octal); false otherwise.
bool ParseInt(std::string_view text, long long& out);

// Parses the value of option `id` (the last one given) as a number from
// `low` to `high` into `out`; leaves `out` alone when the option is absent.
// A bad value is a usage error naming the option: the result is then
// kExitUsage, else kExitOk.
int NumberOption(const Command& command, const Invocation& in, int id, long long low, long long high,
                 long long& out);

}  // namespace vrkutil

#define VRK_COMMAND_CONCAT2(a, b) a##b
#define VRK_COMMAND_CONCAT(a, b) VRK_COMMAND_CONCAT2(a, b)
#define VRK_COMMAND(...) \
  static const bool VRK_COMMAND_CONCAT(registered_, __LINE__) = ::vrkutil::Register(::vrkutil::Command{__VA_ARGS__})
