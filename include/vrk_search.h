/* libVrkutil signature search: tables of CRC signatures matched against the
 * 38-word fingerprint of the first 2048 bytes of a buffer, and tables of byte
 * patterns searched at chosen positions of a buffer (optionally by the
 * analysis module "qel.dll"). */
#ifndef VRK_SEARCH_H
#define VRK_SEARCH_H

#include "vrk_common.h"

VRK_EXTERN_C_BEGIN

/* ---- CRC signature table ----
 * A table is rows x 38 cells, owned by the caller; cell row * 38 + column
 * holds a sorted array of the checksums of that column's kind:
 *   column 0      a key the caller supplies with the buffer;
 *   column 1      bytes 0-63;
 *   column 2-32   bytes 64k to 64k + 63, k = column - 1;
 *   column 33-37  prefixes of 128, 256, 512, 1024 and 2048 bytes.
 * Checksums are the CRC-32 register started from 0, except that a block of
 * one repeated byte value checksums as 0. */

/* The number of columns, and of words in a fingerprint. */
#define SEARCH_CRC_COLUMNS 38

/* One cell. Zero-filled by the caller, filled by SEARCH_CRCRegisterTable. */
typedef struct SEARCH_CRCTblEntry {
  uint32_t index;       /* row * 38 + column */
  uint32_t count;       /* values in `crcs`; 0 is an empty cell */
  const uint32_t *crcs; /* ascending unsigned order, repeats adjacent */
} SEARCH_CRCTblEntry;

VRK_LAYOUT_ASSERT(sizeof(SEARCH_CRCTblEntry) == 12, "SEARCH_CRCTblEntry is 12 bytes");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_CRCTblEntry, index) == 0, "SEARCH_CRCTblEntry.index");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_CRCTblEntry, count) == 4, "SEARCH_CRCTblEntry.count");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_CRCTblEntry, crcs) == 8, "SEARCH_CRCTblEntry.crcs");

/* The 38 words of a buffer, indexed like the columns. Owned by the caller;
 * may be kept and matched again against other rows. */
typedef struct SEARCH_CRCFingerprint {
  uint32_t words[SEARCH_CRC_COLUMNS];
} SEARCH_CRCFingerprint;

VRK_LAYOUT_ASSERT(sizeof(SEARCH_CRCFingerprint) == 152, "SEARCH_CRCFingerprint is 38 words");

/* One hit: the position of the matching value in its cell's array, and the
 * cell's column. */
typedef struct SEARCH_CRCHit {
  uint32_t position;
  uint32_t column;
} SEARCH_CRCHit;

VRK_LAYOUT_ASSERT(sizeof(SEARCH_CRCHit) == 8, "SEARCH_CRCHit is 8 bytes");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_CRCHit, position) == 0, "SEARCH_CRCHit.position");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_CRCHit, column) == 4, "SEARCH_CRCHit.column");

/* The hit list: the caller zeroes all three fields before first use; the
 * library grows `entries` through Prealloc, 100 entries at a time. */
typedef struct SEARCH_CRCList {
  uint32_t capacity;
  uint32_t count;
  SEARCH_CRCHit *entries;
} SEARCH_CRCList;

VRK_LAYOUT_ASSERT(sizeof(SEARCH_CRCList) == 12, "SEARCH_CRCList is 12 bytes");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_CRCList, capacity) == 0, "SEARCH_CRCList.capacity");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_CRCList, count) == 4, "SEARCH_CRCList.count");
VRK_LAYOUT_ASSERT(offsetof(SEARCH_CRCList, entries) == 8, "SEARCH_CRCList.entries");

/* Fills cell row * 38 + column with that index, `count` and `crcs` (sorted
 * ascending). The array is referenced, not copied, and must stay valid and
 * unchanged while the table is used. Bounds are not checked. */
VRK_API void SEARCH_CRCRegisterTable(SEARCH_CRCTblEntry *table, uint32_t column, uint32_t row,
                                     const uint32_t *crcs, uint32_t count) VRK_NOEXCEPT;

/* Unless `reuse` is non-zero, builds the fingerprint of the first `length`
 * bytes of `data` (read as 2048 bytes, zero-padded) and sets word 0 to
 * `key0`; then matches it against row `row` of `table`, appending hits to
 * `hits` in column order 37 down to 1, then column 0 only if the list holds
 * any hit. Returns 0 when a pointer argument is null (nothing done), else 1.
 * When the padded copy cannot be allocated the words 1-37 keep their
 * contents; when the list cannot grow, further hits are dropped. */
VRK_API int32_t SEARCH_CRCFile(const unsigned char *data, int32_t length, uint32_t row, uint32_t key0,
                               SEARCH_CRCFingerprint *fingerprint, int32_t reuse,
                               SEARCH_CRCTblEntry *table, SEARCH_CRCList *hits) VRK_NOEXCEPT;

/* Appends a hit (position, `column`) for every element of the sorted array
 * `crcs` equal to `key`, in ascending positions. Returns the list's count. */
VRK_API uint32_t SEARCH_CRC(const uint32_t *crcs, uint32_t count, uint32_t column, uint32_t key,
                            SEARCH_CRCList *hits) VRK_NOEXCEPT;

/* Releases the list's entries. The fields are left as they are: zero all
 * three before the record is used again. */
VRK_API void SEARCH_CRCFree(SEARCH_CRCList *hits) VRK_NOEXCEPT;

/* ---- Pattern search tables ----
 *
 * The caller builds and owns its tables; the library only reads them. The
 * format below is the whole contract between whoever builds a table and the
 * search.
 *
 * Keys. A table is found through a 16-bit key K = b0 + 256 * b1, the first
 * two bytes at a position: a presence bitmap of 65536 bits (bit K & 7 of
 * byte K >> 3; a clear bit means the bucket is never looked at) and a bucket
 * index of 65536 SEARCH_BuscaTblBucket entries. Two rules read the buckets
 * at each position p:
 *   two-byte rule  key data[p] + 256 * data[p + 1]; each record is read from
 *                  byte 0: the head is compared with the data after the two
 *                  key bytes, then the program runs;
 *   gap rule       key data[p] + 256 * 0xDD (the gap key of data[p]); each
 *                  record's program runs from record byte 1 against the data
 *                  after data[p]. A pattern that opens with one byte and a
 *                  gap is filed under that byte's gap key, with the gap code
 *                  as its byte 1.
 * Data whose second byte is 0xDD gives a two-byte key equal to a gap key:
 * that bucket is then read under both rules.
 *
 * Pattern records. A pattern pointer designates a byte record:
 *   byte 0       L, the length of the literal head (two-byte rule only)
 *   byte 1       where the gap rule starts the program (gap rule only)
 *   bytes 2..    the literal head (L bytes, compared literally, so they may
 *                hold any value), then the program.
 * Program codes, read one after another:
 *   0xDF         end: the pattern matches (also with no data left)
 *   0xDD G N     gap: byte N must occur within the next G data bytes (0 to
 *                G - 1 arbitrary bytes before it); matching goes on after
 *                N. G = 0 never matches. N is compared literally, whatever
 *                its value
 *   other        literal: the next data byte must equal it.
 * A literal 0xDD or 0xDF can therefore stand only in the key and the head;
 * in a program "0xDD 1 N" says "the next byte is N" for any N. Every program
 * must reach 0xDF inside its record, under each rule that can read it. */

/* Keys and buckets. */
#define SEARCH_BUSCATBL_KEYS 65536u        /* bucket index entries, one per key */
#define SEARCH_BUSCATBL_BITMAP_BYTES 8192u /* presence bitmap, one bit per key */
#define SEARCH_BUSCATBL_KEY(b0, b1) ((b0) | (b1) << 8)
#define SEARCH_BUSCATBL_GAP_KEY(b0) SEARCH_BUSCATBL_KEY(b0, SEARCH_BUSCATBL_CODE_GAP)
#define SEARCH_BUSCATBL_MAX_PATTERNS 65535u /* bucket positions and counts are 16-bit */

/* Pattern records and programs. */
#define SEARCH_BUSCATBL_REC_HEAD_LENGTH 0u /* record byte holding L */
#define SEARCH_BUSCATBL_REC_GAP_START 1u   /* where the gap rule starts the program */
#define SEARCH_BUSCATBL_REC_HEAD 2u        /* first byte of the head */
#define SEARCH_BUSCATBL_MAX_HEAD 255u      /* L is one byte */
#define SEARCH_BUSCATBL_CODE_GAP 0xDDu
#define SEARCH_BUSCATBL_CODE_END 0xDFu
#define SEARCH_BUSCATBL_MAX_WINDOW 255u    /* G is one byte: a gap skips at most 254 bytes */

/* Table numbers that registration accepts when the analysis module
 * searches: 0 to 14. */
#define SEARCH_BUSCATBL_TABLES 15u

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
