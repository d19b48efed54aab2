// vrkutil md5: md5sum-compatible digests of files, read through the
// virtual-file library by MD5GetFileHash, and the check of a list.
#include <cstdio>
#include <string>

#include "checksum_lines.h"
#include "command.h"
#include "io/file_input.h"
#include "vrk_checksum.h"
#include "vrkvfile.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kCheck, kLimit };
constexpr Option kOptions[] = {{kCheck, 'c', "check", false}, {kLimit, 0, "limit", true}};

const Command kMd5{
    "md5", "[-c] [--limit N] [FILE...]", "print or check md5sum-compatible MD5 digests of files",
    "Prints, for each FILE, its MD5 digest as md5sum does: 32 lower-case hex\n"
    "digits, two spaces and the name (names holding a backslash or a newline\n"
    "are escaped and the line starts with a backslash). FILE '-', or no FILE,\n"
    "is standard input, read as it comes.\n"
    "\n"
    "  -c, --check   read such lines from each FILE and check every file they\n"
    "                name: 'NAME: OK' or 'NAME: FAILED'\n"
    "  --limit N     digest only the first N bytes of each file (0: all)\n"
    "\n"
    "Exit status 1 when any file cannot be read or, with -c, does not match.",
    Run, kOptions};

uint32_t g_limit = 0;

std::string Hex(const unsigned char (&digest)[16]) {
  char hex[33];
  for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
  return hex;
}

// Standard input is digested as it streams in; a file goes through the
// library's own file digest.
bool Digest(const char* path, std::string& value, std::string& error) {
  vrktool::InputStream input;
  if (!input.Open(path)) {
    error = input.error();
    return false;
  }
  unsigned char digest[16];
  if (input.is_stdin()) {
    MD5_CTX* context = MD5Init();
    if (context == nullptr) {
      error = "out of memory";
      return false;
    }
    static unsigned char buffer[1 << 16];
    uint32_t got = 0;
    do {
      // --limit: read no further than the limit, as the file digest does.
      const uint64_t room = g_limit ? g_limit - input.total() : sizeof buffer;
      if (room == 0) break;
      if (!input.Read(buffer, static_cast<uint32_t>(room < sizeof buffer ? room : sizeof buffer), got)) {
        MD5Final(context, digest);
        error = input.error();
        return false;
      }
      MD5Update(context, buffer, got);
    } while (got != 0);
    MD5Final(context, digest);
  } else {
    const uint32_t length = VFilelength(input.handle());
    const uint32_t wanted = (g_limit != 0 && length >= g_limit) ? g_limit : length;
    if (MD5GetFileHash(input.handle(), g_limit, digest) == 0) {
      error = "out of memory";
      return false;
    }
    // The digest call ends quietly at a failed read; a short position tells.
    if (static_cast<uint32_t>(VTell(input.handle())) != wanted) {
      error = "read error";
      return false;
    }
  }
  value = Hex(digest);
  return true;
}

int Run(const Invocation& in) {
  long long limit = 0;
  if (NumberOption(kMd5, in, kLimit, 0, 0xFFFFFFFFll, limit) != kExitOk) return kExitUsage;
  g_limit = static_cast<uint32_t>(limit);
  if (in.Has(kCheck)) return CheckChecksums(kMd5, in.operands(), 32, Digest);
  return PrintChecksums(in.operands(), Digest);
}

}  // namespace

VRK_COMMAND(kMd5);

}  // namespace vrkutil
