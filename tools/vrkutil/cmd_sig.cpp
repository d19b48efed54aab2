// vrkutil sig: signature lines derived from a sample file.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "command.h"
#include "io/file_input.h"
#include "scan/database.h"
#include "vrk_checksum.h"
#include "vrk_search.h"
#include "vrk_standin_ctl.h"
#include "vrkvfile.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kColumn, kMd5 };
constexpr Option kOptions[] = {{kColumn, 0, "column", true}, {kMd5, 0, "md5", false}};

const Command kSig{
    "sig", "[--column N]... [--md5] NAME FILE", "derive signature lines from a sample file",
    "Prints database lines for signature NAME recognising FILE: one 'crc'\n"
    "line per --column N (1 to 37; default 37, the whole 2048-byte head) with\n"
    "the fingerprint word of that column, and with --md5 an 'md5' line with\n"
    "the digest and size of the whole file (so that a scan hashes only files\n"
    "of that size). FILE '-' is standard input. NAME must be one the database\n"
    "reader accepts (letters, digits and . _ - / :). A column whose word is 0\n"
    "(a region of one repeated byte, or past the end of a short file) is\n"
    "refused: it would match far too many files.",
    Run, kOptions};

// Whether the fingerprint computes column `c` for a file of `length` bytes:
// block columns past the data are not computed.
bool Computed(uint32_t c, uint32_t length) {
  if (c == 1 || c == 2 || c >= 33) return true;
  return 64ull * (c - 1) < length;
}

int Run(const Invocation& in) {
  std::vector<uint32_t> columns;
  for (const ParsedOption& o : in.options()) {
    long long c = 0;
    if (o.id != kColumn) continue;
    if (!ParseInt(o.value, c) || c < 1 || c > 37) return UsageError(kSig, "--column needs a number from 1 to 37");
    columns.push_back(static_cast<uint32_t>(c));
  }
  const bool md5 = in.Has(kMd5);
  if (in.operands().size() != 2) return UsageError(kSig, "expected NAME and FILE");
  if (columns.empty()) columns.push_back(37);
  const char* name = in.operands()[0];
  const char* path = in.operands()[1];
  if (std::string why; !vrk::scan::ValidSignatureName(name, why)) return UsageError(kSig, "%s", why.c_str());

  vrktool::VFile opened;
  if (!opened.Open(path)) return Fail(kExitFailure, "%s: %s", path, opened.error().c_str());
  const VFileHandle file = opened.handle();
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
    if (fingerprint.words[c] == 0) {
      status = Fail(kExitFailure, "%s: column %u is 0 (one repeated byte or padding), which matches too much", path, c);
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
      std::printf(" %u\n", VFilelength(file));
    }
  }
  return status;
}

}  // namespace

VRK_COMMAND(kSig);

}  // namespace vrkutil
