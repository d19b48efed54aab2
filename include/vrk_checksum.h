/* libVrkutil checksums: the bare CRC-32 register (reflected polynomial
 * 0xEDB88320) and MD5 digests (RFC 1321) on allocator-held contexts. */
#ifndef VRK_CHECKSUM_H
#define VRK_CHECKSUM_H

#include "vrk_common.h"

VRK_EXTERN_C_BEGIN

/* ---- CRC-32 ----
 * The register is exposed as it is: no initial or final complement. The
 * common CRC-32 of a buffer is CRC32_Mem(data, 0xFFFFFFFF, length) ^
 * 0xFFFFFFFF. Both functions are pure and thread-safe. */

/* The register after feeding `length` bytes of `data`, in address order,
 * starting from `crc`. Note the argument order. With `length` 0 it returns
 * `crc` and does not read `data`. */
VRK_API uint32_t CRC32_Mem(const unsigned char *data, uint32_t crc, uint32_t length) VRK_NOEXCEPT;

/* The register after one byte: (crc >> 8) ^ table[(crc ^ byte) & 0xFF]. */
VRK_API uint32_t GET1CRC32(uint32_t crc, unsigned char byte) VRK_NOEXCEPT;

/* ---- MD5 ---- */

/* A digest in progress. Allocated by MD5Init, released by MD5Final. */
typedef struct MD5_CTX {
  uint32_t state[4];       /* chaining state A, B, C, D */
  uint32_t count[2];       /* bits fed so far, low word first */
  unsigned char buffer[64]; /* bytes of the current, incomplete block */
} MD5_CTX;

VRK_LAYOUT_ASSERT(sizeof(MD5_CTX) == 88, "MD5_CTX is 88 bytes");
VRK_LAYOUT_ASSERT(offsetof(MD5_CTX, state) == 0, "MD5_CTX.state");
VRK_LAYOUT_ASSERT(offsetof(MD5_CTX, count) == 16, "MD5_CTX.count");
VRK_LAYOUT_ASSERT(offsetof(MD5_CTX, buffer) == 24, "MD5_CTX.buffer");

/* A new context in the initial state, zero-filled from the allocator
 * library; null when the allocator refuses. */
VRK_API MD5_CTX *MD5Init(void) VRK_NOEXCEPT;

/* Feeds `length` bytes of `data` (any alignment) into `ctx`. */
VRK_API void MD5Update(MD5_CTX *ctx, const void *data, uint32_t length) VRK_NOEXCEPT;

/* Pads, writes the 16-byte digest into `digest` and releases `ctx`, which
 * must not be used afterwards. */
VRK_API void MD5Final(MD5_CTX *ctx, unsigned char digest[16]) VRK_NOEXCEPT;

/* Digests the first `limit` bytes of the virtual file `handle` (the whole
 * file when `limit` is 0 or the file is shorter), reading from its start in
 * pieces of at most 2048 bytes; a file held in memory is digested in place.
 * A null handle, or a file whose length cannot be read, digests as empty; a
 * read that ends early ends the digest there. Returns 0, without writing
 * `digest`, when no context could be allocated, and 1 when it was written.
 * The file position is left behind the last byte read. */
VRK_API int32_t MD5GetFileHash(VFileHandle handle, uint32_t limit, unsigned char digest[16]) VRK_NOEXCEPT;

VRK_EXTERN_C_END

#endif /* VRK_CHECKSUM_H */
