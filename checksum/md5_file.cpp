// MD5 of a virtual file, whole or up to a byte limit, read in pieces of at
// most 2048 bytes (in place when the file is held in memory).
#include "checksum/md5.h"

namespace vrk::checksum {
namespace {

constexpr uint32_t kPieceBytes = 2048;
constexpr uint32_t kLengthFailed = 0xFFFFFFFFu;

}  // namespace

bool Md5FileHash(VFileHandle handle, uint32_t limit, uint8_t digest[16]) {
  uint32_t size = handle ? VFilelength(handle) : 0;
  if (size == kLengthFailed) size = 0;  // an unreadable length digests as empty
  uint32_t wanted = (limit != 0 && size >= limit) ? limit : size;

  MD5_CTX* ctx = Md5Init();
  if (!ctx) return false;
  if (size != 0) {
    // A failed seek is not fatal: the reads then report what they deliver.
    (void)VSeek(handle, 0, 0);
    uint8_t piece[kPieceBytes];
    while (wanted != 0) {
      // The pointer is aimed at our buffer before every read, so that a
      // copying read never lands in memory the file library handed out.
      void* p = piece;
      const uint32_t request = wanted < kPieceBytes ? wanted : kPieceBytes;
      const uint32_t got = VReadPtr(&p, 1, request, handle);
      if (got == 0) break;  // end of file or a read error: digest what came
      Md5Update(ctx, static_cast<const uint8_t*>(p), got);
      wanted -= got < wanted ? got : wanted;
    }
  }
  Md5Final(ctx, digest);
  return true;
}

}  // namespace vrk::checksum
