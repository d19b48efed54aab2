// C boundary of MD5.
#include "checksum/md5.h"
#include "vrk_checksum.h"

extern "C" {

MD5_CTX* MD5Init(void) noexcept { return vrk::checksum::Md5Init(); }

void MD5Update(MD5_CTX* ctx, const void* data, uint32_t length) noexcept {
  vrk::checksum::Md5Update(ctx, static_cast<const uint8_t*>(data), length);
}

void MD5Final(MD5_CTX* ctx, unsigned char digest[16]) noexcept { vrk::checksum::Md5Final(ctx, digest); }

int32_t MD5GetFileHash(VFileHandle handle, uint32_t limit, unsigned char digest[16]) noexcept {
  return vrk::checksum::Md5FileHash(handle, limit, digest) ? 1 : 0;
}

}  // extern "C"
