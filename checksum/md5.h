// MD5 inside the library (RFC 1321), on contexts from the allocator library.
#pragma once

#include <cstdint>

#include "vrk_checksum.h"
#include "vrkvfile.h"

namespace vrk::checksum {

// A zero-filled context from Pcalloc(1, 88, 0) in the initial state; null
// when refused.
MD5_CTX* Md5Init();
void Md5Update(MD5_CTX* ctx, const uint8_t* data, uint32_t length);
// Writes the digest and releases the context with Pfree.
void Md5Final(MD5_CTX* ctx, uint8_t digest[16]);
// False, with `digest` untouched, when no context could be allocated.
bool Md5FileHash(VFileHandle handle, uint32_t limit, uint8_t digest[16]);

}  // namespace vrk::checksum
