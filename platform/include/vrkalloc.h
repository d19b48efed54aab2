/* The allocator library libVrkalloc.so: every block that libVrkutil hands
 * out or uses comes from here and goes back through the partner operation. */
#ifndef VRKALLOC_H
#define VRKALLOC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Block of `size` bytes with unspecified contents, or null when refused. */
void *Pmalloc(uint32_t size, uint32_t flags);
/* Zero-filled block of count * size bytes, or null. */
void *Pcalloc(uint32_t count, uint32_t size, uint32_t flags);
/* Resizes `block` (null allocates afresh), keeping its contents. On refusal
 * returns null and the old block stays valid and owned by the caller. */
void *Prealloc(void *block, uint32_t size);
/* Releases a block from Pmalloc, Pcalloc or Prealloc. */
void Pfree(void *block);
/* Zero-filled block whose memory allows code to run (module images). */
void *PcallocX(uint32_t count, uint32_t size, uint32_t flags);
/* Releases a block from PcallocX. */
void PfreeX(void *block);
/* Releases *block and sets *block to null. */
void PSafeFree(void **block);
void SetModuleVersion(int module, int version);
int GetOSType(void);
int GetOSVersion(void);
void *GetNULLSecurityAttr(void);

#ifdef __cplusplus
}
#endif

#endif /* VRKALLOC_H */
