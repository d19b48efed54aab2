// vrkutil sig: signature lines derived from a sample file.
#include <cstdio>
#include <cstring>
#include <vector>

#include "command.h"
#include "vrk_checksum.h"
#include "vrk_search.h"
#include "vrk_standin_ctl.h"
#include "vrkvfile.h"

namespace vrkutil {
namespace {

int Run(Args args);

const Command kSig{
    "sig", "[--column N]... [--md5] NAME FILE", "derive signature lines from a sample file",
    "Prints database lines for signature NAME recognising FILE: one 'crc'\n"
    "line per --column N (1 to 37; default 37, the whole 2048-byte head) with\n"
    "the fingerprint word of that column, and with --md5 an 'md5' line with\n"
    "the digest of the whole file.",
    Run};

// Whether the fingerprint computes column `c` for a file of `length` bytes:
// block columns past the data are not computed.
bool Computed(uint32_t c, uint32_t length) {
  if (c == 1 || c == 2 || c >= 33) return true;
  return 64ull * (c - 1) < length;
}

int Run(Args args) {
  std::vector<uint32_t> columns;
  bool md5 = false;
  std::vector<const char*> rest;
  for (size_t i = 0; i < args.size(); ++i) {
    if (std::strcmp(args[i], "--column") == 0) {
      long long c = 0;
      if (i + 1 == args.size() || !ParseInt(args[i + 1], c) || c < 1 || c > 37) {
        return UsageError(kSig, "--column needs a number from 1 to 37");
      }
      columns.push_back(uint32_t(c));
      ++i;
    } else if (std::strcmp(args[i], "--md5") == 0) {
      md5 = true;
    } else if (args[i][0] == '-' && args[i][1] != '\0') {
      return UsageError(kSig, "unknown option '%s'", args[i]);
    } else {
      rest.push_back(args[i]);
    }
  }
  if (rest.size() != 2) return UsageError(kSig, "expected NAME and FILE");
  if (columns.empty()) columns.push_back(37);
  const char* name = rest[0];
  const char* path = rest[1];

  VFileHandle file = vrkvfile_open_path(path, VRKVFILE_COPY);
  if (!file) return Fail(kExitFailure, "%s: cannot open", path);
  unsigned char head[2048];
  const uint32_t length = VRead(head, 1, sizeof head, file);
  SEARCH_CRCFingerprint fingerprint{};
  SEARCH_CRCTblEntry row[SEARCH_CRC_COLUMNS] = {};  // empty: only the fingerprint is wanted
  SEARCH_CRCList hits{};
  SEARCH_CRCFile(head, int32_t(length), 0, 0, &fingerprint, 0, row, &hits);
  SEARCH_CRCFree(&hits);
  int status = kExitOk;
  for (uint32_t c : columns) {
    if (!Computed(c, length)) {
      status = Fail(kExitFailure, "%s: too short for column %u", path, c);
      continue;
    }
    std::printf("%s crc %u 0x%08x\n", name, c, fingerprint.words[c]);
  }
  if (md5) {
    unsigned char digest[16];
    VSeek(file, 0, 0);
    if (MD5GetFileHash(file, 0, digest) == 0) {
      status = Fail(kExitFailure, "%s: out of memory", path);
    } else {
      std::printf("%s md5 ", name);
      for (unsigned char b : digest) std::printf("%02x", b);
      std::printf("\n");
    }
  }
  vrkvfile_close(file);
  return status;
}

}  // namespace

VRK_COMMAND(kSig);

}  // namespace vrkutil
