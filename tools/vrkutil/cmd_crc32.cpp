// vrkutil crc32: the standard CRC-32 of files.
#include <cstdio>

#include "checksum_input.h"
#include "command.h"
#include "vrk_checksum.h"
#include "vrkvfile.h"

namespace vrkutil {
namespace {

int Run(Args args);

const Command kCrc32{
    "crc32", "FILE...", "print the CRC-32 of files",
    "Prints, for each FILE, its standard CRC-32 (register started at\n"
    "0xFFFFFFFF, complemented at the end; cbf43926 for \"123456789\") as\n"
    "eight lower-case hex digits, two spaces and the file name. FILE '-' is\n"
    "standard input. Files are read through the virtual-file library.\n"
    "Exit status 1 when any file cannot be read.",
    Run};

int Run(Args args) {
  if (args.empty()) return UsageError(kCrc32, "expected at least one FILE");
  int status = kExitOk;
  static unsigned char buffer[1 << 16];
  for (const char* path : args) {
    InputFile file;
    if (!file.Open(path)) {
      status = Fail(kExitFailure, "%s: %s", path, file.error());
      continue;
    }
    const uint32_t length = VFilelength(file.handle());
    uint32_t crc = 0xFFFFFFFFu, total = 0;
    for (;;) {
      const uint32_t n = VRead(buffer, 1, sizeof buffer, file.handle());
      if (n == 0) break;
      crc = CRC32_Mem(buffer, crc, n);
      total += n;
    }
    if (total != length) {
      status = Fail(kExitFailure, "%s: read error after %u bytes", path, total);
      continue;
    }
    std::printf("%08x  %s\n", crc ^ 0xFFFFFFFFu, path);
  }
  return status;
}

}  // namespace

VRK_COMMAND(kCrc32);

}  // namespace vrkutil
