/* The interface of the analysis module "qel.dll" as this library calls it:
 * the entry-point types and the registry slot handed to QELLoadPatterns.
 * Plain C, so that stand-in modules can be written against the same text. */
#ifndef VRK_SEARCH_QEL_BINDING_MODULE_H
#define VRK_SEARCH_QEL_BINDING_MODULE_H

#include <stdint.h>

#include "vrk_common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Number of registry slots, one per table number 0 .. 14. */
#define QEL_PATTERN_SLOTS 15

/* Bit of the information word: the module does the pattern search. */
#define QEL_INFO_PATTERN_SEARCH 2u

/* One registry slot: four 32-bit fields, in this order. Slots never
 * registered stay all zero. */
typedef struct SEARCH_BuscaTblSlot {
  uint32_t table;
  uint32_t count;
  const void *index;                    /* the table's bucket index */
  const unsigned char *const *patterns; /* the table's pattern pointers */
} SEARCH_BuscaTblSlot;

VRK_LAYOUT_ASSERT(sizeof(SEARCH_BuscaTblSlot) == 16, "registry slot is four 32-bit fields");

typedef int (*QELInitBoardFn)(void);
typedef void (*QELReleaseBoardFn)(void);
/* Resolved but never called by this library; their arguments are the
 * module's business. */
typedef void (*QELUnusedFn)(void);
typedef void (*QELLoadPatternsFn)(SEARCH_BuscaTblSlot *slots, int count);
/* Sets *hits to an array of *hitcount 4-byte entries (low 16 bits: the
 * pattern's position in the table's pattern array) on every call; returns 0
 * on success. */
typedef int (*QELBuscaTblFn)(const unsigned char *data, int length, int positions, unsigned int table,
                             uint32_t **hits, int *hitcount);
typedef void (*QELFreeBuscaTblFn)(uint32_t *hits);
/* Writes the selected information into the buffer of `size` bytes. */
typedef void (*QELGetInfoStringFn)(int selector, void *buffer, int size);

#ifdef __cplusplus
}
#endif

#endif /* VRK_SEARCH_QEL_BINDING_MODULE_H */
