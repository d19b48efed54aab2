// The lines of the checksum subcommands, in the format of md5sum: the value,
// two spaces and the file name; a name holding a backslash or a newline is
// escaped and its line starts with a backslash, so that every line stands
// for exactly one file. The same lines are read back by the -c check mode.
#pragma once

#include <string>

#include "command.h"

namespace vrkutil {

// Prints "VALUE  NAME\n", escaping NAME as described above.
void PrintChecksumLine(const std::string& value, const char* name);

// Prints "NAME\n", escaped the same way.
void PrintNameLine(const char* name);

// Computes the value of a file ("-": standard input) as PrintChecksumLine
// prints it; false with the reason in `error`.
using ChecksumFn = bool (*)(const char* path, std::string& value, std::string& error);

// Prints the line of each of `files` (none: standard input), or one error
// line for a file that cannot be read. Exit status 1 when any could not.
int PrintChecksums(std::span<const char* const> files, ChecksumFn compute);

// The check mode: reads each of `lists` ("-": standard input) as lines
// printed by PrintChecksumLine with values of `value_digits` hex digits,
// recomputes each file's value and prints "NAME: OK" or "NAME: FAILED"
// (with the reason when the file cannot be read). Ill-formed lines are
// reported and counted. Exit status 1 when any file failed or no line was
// well formed.
int CheckChecksums(const Command& command, std::span<const char* const> lists, unsigned value_digits,
                   ChecksumFn compute);

}  // namespace vrkutil
