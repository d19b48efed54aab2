// vrkutil md5: md5sum-compatible digests of files, read through the
// virtual-file library by MD5GetFileHash.
#include <cstdio>
#include <cstring>

#include "checksum_input.h"
#include "command.h"
#include "vrk_checksum.h"
#include "vrkvfile.h"

namespace vrkutil {
namespace {

int Run(Args args);

const Command kMd5{
    "md5", "[--limit N] [FILE...]", "print md5sum-compatible MD5 digests of files",
    "Prints, for each FILE, its MD5 digest as md5sum does: 32 lower-case hex\n"
    "digits, two spaces and the name (names holding a backslash or a newline\n"
    "are escaped and the line starts with a backslash). FILE '-', or no FILE,\n"
    "is standard input. With --limit N only the first N bytes of each file are\n"
    "digested (0: all). Exit status 1 when any file cannot be read.",
    Run};

// md5sum's escaping of awkward names.
void PrintName(const char* name) {
  for (const char* c = name; *c; ++c) {
    if (*c == '\\') {
      std::fputs("\\\\", stdout);
    } else if (*c == '\n') {
      std::fputs("\\n", stdout);
    } else {
      std::putchar(*c);
    }
  }
}

int Digest(const char* path, uint32_t limit) {
  InputFile file;
  if (!file.Open(path)) return Fail(kExitFailure, "%s: %s", path, file.error());
  const uint32_t length = VFilelength(file.handle());
  const uint32_t wanted = (limit != 0 && length >= limit) ? limit : length;
  unsigned char digest[16];
  if (MD5GetFileHash(file.handle(), limit, digest) == 0) return Fail(kExitFailure, "%s: out of memory", path);
  // The digest call ends quietly at a failed read; a short position tells.
  if (uint32_t(VTell(file.handle())) != wanted) return Fail(kExitFailure, "%s: read error", path);
  const bool escape = std::strpbrk(path, "\\\n") != nullptr;
  if (escape) std::putchar('\\');
  for (unsigned char b : digest) std::printf("%02x", b);
  std::fputs("  ", stdout);
  PrintName(path);
  std::putchar('\n');
  return kExitOk;
}

int Run(Args args) {
  uint32_t limit = 0;
  size_t i = 0;
  if (i < args.size() && std::strncmp(args[i], "--limit", 7) == 0) {
    const char* value = nullptr;
    if (args[i][7] == '=') {
      value = args[i] + 8;
    } else if (args[i][7] == '\0' && i + 1 < args.size()) {
      value = args[++i];
    } else {
      return UsageError(kMd5, "--limit needs a number");
    }
    long long n = 0;
    if (!ParseInt(value, n) || n < 0 || n > 0xFFFFFFFFll) return UsageError(kMd5, "bad --limit '%s'", value);
    limit = uint32_t(n);
    ++i;
  }
  if (i < args.size() && std::strcmp(args[i], "--") == 0) ++i;
  if (i == args.size()) return Digest("-", limit);
  int status = kExitOk;
  for (; i < args.size(); ++i) {
    if (Digest(args[i], limit) != kExitOk) status = kExitFailure;
  }
  return status;
}

}  // namespace

VRK_COMMAND(kMd5);

}  // namespace vrkutil
