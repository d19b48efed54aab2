// vrkutil fingerprint: the 38 words that the CRC signature table matches,
// computed over the first 2048 bytes of files.
#include <cstdio>
#include <cstring>

#include "checksum_input.h"
#include "command.h"
#include "vrk_search.h"
#include "vrkvfile.h"

namespace vrkutil {
namespace {

int Run(Args args);

const Command kFingerprint{
    "fingerprint", "[--key K] FILE...", "print the 38-word CRC fingerprint of files",
    "Prints, for each FILE, the name and then the 38 words of the fingerprint\n"
    "of its first 2048 bytes (zero-padded), one per line: the word number,\n"
    "the value in hex and what it covers. Word 0 is K (default 0); words 1-32\n"
    "are 64-byte blocks, 33-37 prefixes of 128 to 2048 bytes, each a CRC-32\n"
    "register started from 0, a region of one repeated byte counting as 0.\n"
    "Blocks that start beyond the file are not computed and shown as such.\n"
    "Exit status 1 when any file cannot be read.",
    Run};

int Print(const char* path, uint32_t key) {
  InputFile file;
  if (!file.Open(path)) return Fail(kExitFailure, "%s: %s", path, file.error());
  unsigned char head[2048];
  const uint32_t length = VFilelength(file.handle());
  const uint32_t n = VRead(head, 1, sizeof head, file.handle());
  if (n != (length < sizeof head ? length : uint32_t(sizeof head))) return Fail(kExitFailure, "%s: read error", path);

  SEARCH_CRCTblEntry row[SEARCH_CRC_COLUMNS] = {};  // an empty row: nothing to match
  SEARCH_CRCList hits = {};
  SEARCH_CRCFingerprint fingerprint = {};
  // A buffer pointer is required even for an empty file.
  SEARCH_CRCFile(head, int32_t(n), 0, key, &fingerprint, 0, row, &hits);
  SEARCH_CRCFree(&hits);

  std::printf("%s\n", path);
  for (uint32_t w = 0; w < SEARCH_CRC_COLUMNS; ++w) {
    char what[48];
    bool computed = true;
    if (w == 0) {
      std::snprintf(what, sizeof what, "key");
    } else if (w <= 32) {
      const uint32_t block = w - 1;
      std::snprintf(what, sizeof what, "bytes %u-%u", 64 * block, 64 * block + 63);
      computed = block <= 1 || 64 * block < n;
    } else {
      std::snprintf(what, sizeof what, "prefix of %u bytes", 64u << (w - 32));
    }
    if (computed) {
      std::printf("%4u  %08x  %s\n", w, fingerprint.words[w], what);
    } else {
      std::printf("%4u  --------  %s (not computed: beyond the file)\n", w, what);
    }
  }
  return kExitOk;
}

int Run(Args args) {
  uint32_t key = 0;
  size_t i = 0;
  if (i < args.size() && std::strncmp(args[i], "--key", 5) == 0) {
    const char* value = nullptr;
    if (args[i][5] == '=') {
      value = args[i] + 6;
    } else if (args[i][5] == '\0' && i + 1 < args.size()) {
      value = args[++i];
    } else {
      return UsageError(kFingerprint, "--key needs a number");
    }
    long long k = 0;
    if (!ParseInt(value, k) || k < 0 || k > 0xFFFFFFFFll) return UsageError(kFingerprint, "bad --key '%s'", value);
    key = uint32_t(k);
    ++i;
  }
  if (i < args.size() && std::strcmp(args[i], "--") == 0) ++i;
  if (i == args.size()) return UsageError(kFingerprint, "expected at least one FILE");
  int status = kExitOk;
  for (; i < args.size(); ++i) {
    if (Print(args[i], key) != kExitOk) status = kExitFailure;
  }
  return status;
}

}  // namespace

VRK_COMMAND(kFingerprint);

}  // namespace vrkutil
