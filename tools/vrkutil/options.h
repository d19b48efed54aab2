// The one command-line parser of vrkutil, so that every subcommand reads its
// arguments the same way, as people expect from the usual tools:
//   -x, --long               flags; short flags bundle (-rv)
//   -j 2, -j2, --jobs 2, --jobs=2
//                            options with a value
//   --                       ends the options; what follows is operands
//   -                        an operand (standard input, where a file is read)
//   -5, -0x10                operands too: no option is a digit
// An unknown option, a missing value or a value given to a flag is a usage
// error (exit status 2, one line on stderr). -h and --help show the
// command's help wherever they stand among the options.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace vrkutil {

struct Option {
  int id;                 // reported back to the command
  char short_name;        // '\0': long form only
  const char* long_name;  // nullptr: short form only
  bool takes_value;
};

// Where operands may stand.
enum class Operands {
  kAnywhere,      // options and operands mix (GNU style)
  kStopAtFirst,   // the first operand ends the options (arguments passed on)
};

struct ParsedOption {
  int id;
  const char* value;     // nullptr for a flag
  std::string spelling;  // as the user wrote it, for messages ("-j", "--jobs")
};

// What the command line asked for, in order.
class Invocation {
 public:
  std::span<const ParsedOption> options() const { return options_; }
  std::span<const char* const> operands() const { return operands_; }

  bool Has(int id) const;
  // The value of the last option `id` given, or nullptr.
  const char* Value(int id) const;
  // The values of every option `id`, in order (nullptr for a flag).
  std::vector<const char*> Values(int id) const;

  std::vector<ParsedOption> options_;
  std::vector<const char*> operands_;
};

enum class ParseResult { kOk, kHelp, kUsageError };

// Parses `args` (the words after the subcommand's name). On kUsageError,
// `error` holds the message (without the command's name).
ParseResult ParseCommandLine(std::span<char* const> args, std::span<const Option> options, Operands mode,
                             Invocation& out, std::string& error);

}  // namespace vrkutil
