// MD5 (RFC 1321): the compression function and the start/feed/finish steps
// over an allocator-held context.
#include "checksum/md5.h"

#include <cstring>

#include "vrkalloc.h"

namespace vrk::checksum {
namespace {

static_assert(sizeof(MD5_CTX) == 88);

inline uint32_t LoadLe32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);  // the target is little-endian
  return v;
}

inline uint32_t Rotl(uint32_t x, int s) { return (x << s) | (x >> (32 - s)); }

// Each step is a = b + ((a + f(b, c, d) + X[k] + T[i]) <<< s). Only b comes
// from the step before, so everything else is added first and the
// dependency chain per step is f's last operation, one add, the rotate and
// the final add. F and G are written in forms whose b-dependent part is a
// single operation.
#define VRK_MD5_F(a, b, c, d, x, t, s) \
  a += (x) + (t) + (((c ^ d) & b) ^ d);   \
  a = Rotl(a, s) + b
#define VRK_MD5_G(a, b, c, d, x, t, s)  \
  a += (x) + (t) + (c & ~d);            \
  a += b & d;                           \
  a = Rotl(a, s) + b
#define VRK_MD5_H(a, b, c, d, x, t, s) \
  a += (x) + (t) + (b ^ c ^ d);        \
  a = Rotl(a, s) + b
#define VRK_MD5_I(a, b, c, d, x, t, s) \
  a += (x) + (t) + (c ^ (b | ~d));     \
  a = Rotl(a, s) + b

// Compresses `blocks` consecutive 64-byte blocks of `p` into `state`.
void Transform(uint32_t state[4], const uint8_t* p, uint32_t blocks) {
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (; blocks != 0; --blocks, p += 64) {
    const uint32_t a0 = a, b0 = b, c0 = c, d0 = d;
#define X(k) LoadLe32(p + 4 * (k))
    VRK_MD5_F(a, b, c, d, X(0), 0xd76aa478, 7);
    VRK_MD5_F(d, a, b, c, X(1), 0xe8c7b756, 12);
    VRK_MD5_F(c, d, a, b, X(2), 0x242070db, 17);
    VRK_MD5_F(b, c, d, a, X(3), 0xc1bdceee, 22);
    VRK_MD5_F(a, b, c, d, X(4), 0xf57c0faf, 7);
    VRK_MD5_F(d, a, b, c, X(5), 0x4787c62a, 12);
    VRK_MD5_F(c, d, a, b, X(6), 0xa8304613, 17);
    VRK_MD5_F(b, c, d, a, X(7), 0xfd469501, 22);
    VRK_MD5_F(a, b, c, d, X(8), 0x698098d8, 7);
    VRK_MD5_F(d, a, b, c, X(9), 0x8b44f7af, 12);
    VRK_MD5_F(c, d, a, b, X(10), 0xffff5bb1, 17);
    VRK_MD5_F(b, c, d, a, X(11), 0x895cd7be, 22);
    VRK_MD5_F(a, b, c, d, X(12), 0x6b901122, 7);
    VRK_MD5_F(d, a, b, c, X(13), 0xfd987193, 12);
    VRK_MD5_F(c, d, a, b, X(14), 0xa679438e, 17);
    VRK_MD5_F(b, c, d, a, X(15), 0x49b40821, 22);

    VRK_MD5_G(a, b, c, d, X(1), 0xf61e2562, 5);
    VRK_MD5_G(d, a, b, c, X(6), 0xc040b340, 9);
    VRK_MD5_G(c, d, a, b, X(11), 0x265e5a51, 14);
    VRK_MD5_G(b, c, d, a, X(0), 0xe9b6c7aa, 20);
    VRK_MD5_G(a, b, c, d, X(5), 0xd62f105d, 5);
    VRK_MD5_G(d, a, b, c, X(10), 0x02441453, 9);
    VRK_MD5_G(c, d, a, b, X(15), 0xd8a1e681, 14);
    VRK_MD5_G(b, c, d, a, X(4), 0xe7d3fbc8, 20);
    VRK_MD5_G(a, b, c, d, X(9), 0x21e1cde6, 5);
    VRK_MD5_G(d, a, b, c, X(14), 0xc33707d6, 9);
    VRK_MD5_G(c, d, a, b, X(3), 0xf4d50d87, 14);
    VRK_MD5_G(b, c, d, a, X(8), 0x455a14ed, 20);
    VRK_MD5_G(a, b, c, d, X(13), 0xa9e3e905, 5);
    VRK_MD5_G(d, a, b, c, X(2), 0xfcefa3f8, 9);
    VRK_MD5_G(c, d, a, b, X(7), 0x676f02d9, 14);
    VRK_MD5_G(b, c, d, a, X(12), 0x8d2a4c8a, 20);

    VRK_MD5_H(a, b, c, d, X(5), 0xfffa3942, 4);
    VRK_MD5_H(d, a, b, c, X(8), 0x8771f681, 11);
    VRK_MD5_H(c, d, a, b, X(11), 0x6d9d6122, 16);
    VRK_MD5_H(b, c, d, a, X(14), 0xfde5380c, 23);
    VRK_MD5_H(a, b, c, d, X(1), 0xa4beea44, 4);
    VRK_MD5_H(d, a, b, c, X(4), 0x4bdecfa9, 11);
    VRK_MD5_H(c, d, a, b, X(7), 0xf6bb4b60, 16);
    VRK_MD5_H(b, c, d, a, X(10), 0xbebfbc70, 23);
    VRK_MD5_H(a, b, c, d, X(13), 0x289b7ec6, 4);
    VRK_MD5_H(d, a, b, c, X(0), 0xeaa127fa, 11);
    VRK_MD5_H(c, d, a, b, X(3), 0xd4ef3085, 16);
    VRK_MD5_H(b, c, d, a, X(6), 0x04881d05, 23);
    VRK_MD5_H(a, b, c, d, X(9), 0xd9d4d039, 4);
    VRK_MD5_H(d, a, b, c, X(12), 0xe6db99e5, 11);
    VRK_MD5_H(c, d, a, b, X(15), 0x1fa27cf8, 16);
    VRK_MD5_H(b, c, d, a, X(2), 0xc4ac5665, 23);

    VRK_MD5_I(a, b, c, d, X(0), 0xf4292244, 6);
    VRK_MD5_I(d, a, b, c, X(7), 0x432aff97, 10);
    VRK_MD5_I(c, d, a, b, X(14), 0xab9423a7, 15);
    VRK_MD5_I(b, c, d, a, X(5), 0xfc93a039, 21);
    VRK_MD5_I(a, b, c, d, X(12), 0x655b59c3, 6);
    VRK_MD5_I(d, a, b, c, X(3), 0x8f0ccc92, 10);
    VRK_MD5_I(c, d, a, b, X(10), 0xffeff47d, 15);
    VRK_MD5_I(b, c, d, a, X(1), 0x85845dd1, 21);
    VRK_MD5_I(a, b, c, d, X(8), 0x6fa87e4f, 6);
    VRK_MD5_I(d, a, b, c, X(15), 0xfe2ce6e0, 10);
    VRK_MD5_I(c, d, a, b, X(6), 0xa3014314, 15);
    VRK_MD5_I(b, c, d, a, X(13), 0x4e0811a1, 21);
    VRK_MD5_I(a, b, c, d, X(4), 0xf7537e82, 6);
    VRK_MD5_I(d, a, b, c, X(11), 0xbd3af235, 10);
    VRK_MD5_I(c, d, a, b, X(2), 0x2ad7d2bb, 15);
    VRK_MD5_I(b, c, d, a, X(9), 0xeb86d391, 21);
#undef X
    a += a0;
    b += b0;
    c += c0;
    d += d0;
  }
  state[0] = a;
  state[1] = b;
  state[2] = c;
  state[3] = d;
}

#undef VRK_MD5_F
#undef VRK_MD5_G
#undef VRK_MD5_H
#undef VRK_MD5_I

void StoreLe32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, sizeof v); }

}  // namespace

MD5_CTX* Md5Init() {
  auto* ctx = static_cast<MD5_CTX*>(Pcalloc(1, sizeof(MD5_CTX), 0));
  if (!ctx) return nullptr;
  ctx->state[0] = 0x67452301u;
  ctx->state[1] = 0xEFCDAB89u;
  ctx->state[2] = 0x98BADCFEu;
  ctx->state[3] = 0x10325476u;
  return ctx;
}

void Md5Update(MD5_CTX* ctx, const uint8_t* data, uint32_t length) {
  uint32_t index = (ctx->count[0] >> 3) & 63u;
  // The 64-bit bit count, kept as two words.
  const uint32_t low = ctx->count[0] + (length << 3);
  if (low < ctx->count[0]) ++ctx->count[1];
  ctx->count[0] = low;
  ctx->count[1] += length >> 29;

  // 1. Complete the block begun by an earlier call.
  if (index != 0) {
    const uint32_t room = 64 - index;
    if (length < room) {
      if (length != 0) std::memcpy(ctx->buffer + index, data, length);
      return;
    }
    std::memcpy(ctx->buffer + index, data, room);
    Transform(ctx->state, ctx->buffer, 1);
    data += room;
    length -= room;
  }
  // 2. Whole blocks, compressed where they lie. The buffer is left holding
  // the last of them, as if each had been staged through it.
  const uint32_t blocks = length / 64;
  if (blocks != 0) {
    Transform(ctx->state, data, blocks);
    std::memcpy(ctx->buffer, data + 64 * (blocks - 1), 64);
    data += 64 * blocks;
    length -= 64 * blocks;
  }
  // 3. Keep the tail for the next call.
  if (length != 0) std::memcpy(ctx->buffer, data, length);
}

void Md5Final(MD5_CTX* ctx, uint8_t digest[16]) {
  const uint32_t index = (ctx->count[0] >> 3) & 63u;
  ctx->buffer[index] = 0x80;
  if (index < 56) {
    std::memset(ctx->buffer + index + 1, 0, 55 - index);
  } else {
    // No room for the bit count: it goes into one more block.
    std::memset(ctx->buffer + index + 1, 0, 63 - index);
    Transform(ctx->state, ctx->buffer, 1);
    std::memset(ctx->buffer, 0, 56);
  }
  StoreLe32(ctx->buffer + 56, ctx->count[0]);
  StoreLe32(ctx->buffer + 60, ctx->count[1]);
  Transform(ctx->state, ctx->buffer, 1);
  for (int i = 0; i < 4; ++i) StoreLe32(digest + 4 * i, ctx->state[i]);
  Pfree(ctx);
}

}  // namespace vrk::checksum
