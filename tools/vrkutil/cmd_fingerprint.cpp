// vrkutil fingerprint: the 38 words that the CRC signature table matches,
// computed over the first 2048 bytes of files.
#include <cstdio>
#include <cstring>

#include "checksum_lines.h"
#include "command.h"
#include "io/file_input.h"
#include "vrk_search.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kKey };
constexpr Option kOptions[] = {{kKey, 0, "key", true}};

const Command kFingerprint{
    "fingerprint", "[--key K] FILE...", "print the 38-word CRC fingerprint of files",
    "Prints, for each FILE, the name and then the 38 words of the fingerprint\n"
    "of its first 2048 bytes (zero-padded), one per line: the word number,\n"
    "the value in hex and what it covers. Word 0 is K (default 0); words 1-32\n"
    "are 64-byte blocks, 33-37 prefixes of 128 to 2048 bytes, each a CRC-32\n"
    "register started from 0, a region of one repeated byte counting as 0.\n"
    "Blocks that start beyond the file are not computed and shown as such.\n"
    "FILE '-' is standard input. A name holding a backslash or a newline is\n"
    "escaped as md5 escapes it. Exit status 1 when any file cannot be read.",
    Run, kOptions};

int Print(const char* path, uint32_t key) {
  vrktool::InputStream input;
  if (!input.Open(path)) return Fail(kExitFailure, "%s: %s", path, input.error().c_str());
  unsigned char head[2048];
  uint32_t n = 0, got = 0;
  do {
    if (!input.Read(head + n, sizeof head - n, got)) {
      return Fail(kExitFailure, "%s: %s", path, input.error().c_str());
    }
    n += got;
  } while (got != 0 && n < sizeof head);

  SEARCH_CRCTblEntry row[SEARCH_CRC_COLUMNS] = {};  // an empty row: nothing to match
  SEARCH_CRCList hits = {};
  SEARCH_CRCFingerprint fingerprint = {};
  // A buffer pointer is required even for an empty file.
  SEARCH_CRCFile(head, int32_t(n), 0, key, &fingerprint, 0, row, &hits);
  SEARCH_CRCFree(&hits);

  PrintNameLine(path);
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

int Run(const Invocation& in) {
  long long key = 0;
  if (NumberOption(kFingerprint, in, kKey, 0, 0xFFFFFFFFll, key) != kExitOk) return kExitUsage;
  if (in.operands().empty()) return UsageError(kFingerprint, "expected at least one FILE");
  int status = kExitOk;
  for (const char* path : in.operands()) {
    if (Print(path, static_cast<uint32_t>(key)) != kExitOk) status = kExitFailure;
  }
  return status;
}

}  // namespace

VRK_COMMAND(kFingerprint);

}  // namespace vrkutil
