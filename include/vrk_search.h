/* libVrkutil signature search. */
#ifndef VRK_SEARCH_H
#define VRK_SEARCH_H

#include "vrk_common.h"

VRK_EXTERN_C_BEGIN

/* ---- Pattern search tables ----
 *
 * The caller builds and owns its tables; the library only reads them. A
 * table is found through a 16-bit key K = b0 + 256 * b1 (the first two bytes
 * at a position): a presence bitmap of 65536 bits (bit K & 7 of byte K >> 3)
 * and a bucket index of 65536 entries. A pattern is a byte record:
 *   byte 0       L, the length of the literal head
 *   byte 1       where the program starts when the record is read under the
 *                gap key of its first byte (K = b0 + 256 * 0xDD)
 *   bytes 2..    the literal head (L bytes, compared with the data after the
 *                two key bytes), then the program: 0xDF ends (match),
 *                0xDD G N means "byte N within the next G data bytes", any
 *                other byte is a literal. */

#pragma pack(push, 1)
/* One table, as the caller describes it; an array of these is indexed by
 * table number. Packed: 14 bytes, no padding. */
typedef struct SEARCH_BuscaTblDesc {
  const unsigned char *const *patterns; /* pattern pointers, grouped in buckets by key */
  const void *index;                    /* 65536 SEARCH_BuscaTblBucket entries */
  const unsigned char *bitmap;          /* 8192 bytes, one bit per key */
  uint16_t count;                       /* number of patterns */
} SEARCH_BuscaTblDesc;
#pragma pack(pop)

/* One entry of the bucket index: the bucket of key K is
 * patterns[first] .. patterns[first + count - 1]. */
typedef struct SEARCH_BuscaTblBucket {
  uint16_t count;
  uint16_t first;
} SEARCH_BuscaTblBucket;

/* The caller's result list: the library appends pattern pointers while
 * count < capacity and drops further hits silently. Never cleared or grown
 * by the library; hits of several searches accumulate. */
typedef struct SEARCH_BuscaTblList {
  uint32_t capacity;
  uint32_t count;
  const unsigned char **items;
} SEARCH_BuscaTblList;

VRK_LAYOUT_ASSERT(sizeof(SEARCH_BuscaTblDesc) == 14, "SEARCH_BuscaTblDesc is packed to 14 bytes");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_BuscaTblDesc, patterns) == 0, "SEARCH_BuscaTblDesc.patterns");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_BuscaTblDesc, index) == 4, "SEARCH_BuscaTblDesc.index");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_BuscaTblDesc, bitmap) == 8, "SEARCH_BuscaTblDesc.bitmap");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_BuscaTblDesc, count) == 12, "SEARCH_BuscaTblDesc.count");
VRK_LAYOUT_ASSERT(sizeof(SEARCH_BuscaTblBucket) == 4, "SEARCH_BuscaTblBucket is 4 bytes");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_BuscaTblBucket, first) == 2, "SEARCH_BuscaTblBucket.first");
VRK_LAYOUT_ASSERT(sizeof(SEARCH_BuscaTblList) == 12, "SEARCH_BuscaTblList is 12 bytes");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_BuscaTblList, count) == 4, "SEARCH_BuscaTblList.count");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_BuscaTblList, items) == 8, "SEARCH_BuscaTblList.items");

/* Makes table number `table` of the array `tables` known. The first call in
 * the process tries once to bind the analysis module "qel.dll"; when that
 * module offers the pattern search, the description is copied into the
 * module's registry (table numbers 0 to 14) and every later search goes to
 * the module. Otherwise registration has no effect and tables are read in
 * place at each search. Must not run concurrently with other registrations
 * or searches. */
VRK_API void SEARCH_BuscaTblRegisterTable(SEARCH_BuscaTblDesc *tables, unsigned int table) VRK_NOEXCEPT;

/* Tries every start position 0 .. positions - 1 of the `length` bytes at
 * `data` against table number `table` and appends each matching pattern's
 * pointer to `out`, in ascending position. Nothing is validated: `positions`
 * must not exceed length - 1 (the key at the last position reads the byte
 * after it), and every pattern must end with 0xDF inside its record. Never
 * allocates when searching locally. */
VRK_API void SEARCH_BuscaTbl(unsigned int table, SEARCH_BuscaTblDesc *tables, const unsigned char *data,
                             int positions, int length, SEARCH_BuscaTblList *out) VRK_NOEXCEPT;

/* ---- end of pattern search tables ---- */

VRK_EXTERN_C_END

#endif /* VRK_SEARCH_H */
