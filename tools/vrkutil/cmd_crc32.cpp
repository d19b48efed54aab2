// vrkutil crc32: the standard CRC-32 of files, and the check of a list.
#include <cstdio>
#include <string>

#include "checksum_lines.h"
#include "command.h"
#include "io/file_input.h"
#include "vrk_checksum.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kCheck };
constexpr Option kOptions[] = {{kCheck, 'c', "check", false}};

const Command kCrc32{
    "crc32", "[-c] [FILE...]", "print or check the CRC-32 of files",
    "Prints, for each FILE, its standard CRC-32 (register started at\n"
    "0xFFFFFFFF, complemented at the end; cbf43926 for \"123456789\") as\n"
    "eight lower-case hex digits, two spaces and the file name; names holding\n"
    "a backslash or a newline are escaped and the line starts with a\n"
    "backslash, as md5sum does. FILE '-', or no FILE, is standard input, read\n"
    "as it comes. Files are read through the virtual-file library.\n"
    "\n"
    "  -c, --check   read such lines from each FILE and check every file they\n"
    "                name: 'NAME: OK' or 'NAME: FAILED'\n"
    "\n"
    "Exit status 1 when any file cannot be read or, with -c, does not match.",
    Run, kOptions};

bool Crc32(const char* path, std::string& value, std::string& error) {
  vrktool::InputStream input;
  if (!input.Open(path)) {
    error = input.error();
    return false;
  }
  static unsigned char buffer[1 << 16];
  uint32_t crc = 0xFFFFFFFFu, got = 0;
  do {
    if (!input.Read(buffer, sizeof buffer, got)) {
      error = input.error();
      return false;
    }
    crc = CRC32_Mem(buffer, crc, got);
  } while (got != 0);
  char hex[9];
  std::snprintf(hex, sizeof hex, "%08x", crc ^ 0xFFFFFFFFu);
  value = hex;
  return true;
}

int Run(const Invocation& in) {
  if (in.Has(kCheck)) return CheckChecksums(kCrc32, in.operands(), 8, Crc32);
  return PrintChecksums(in.operands(), Crc32);
}

}  // namespace

VRK_COMMAND(kCrc32);

}  // namespace vrkutil
