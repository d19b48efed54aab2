/* The virtual-file library libVrkvfile.so: files that callers opened are
 * read through these operations (argument order as fread). */
#ifndef VRKVFILE_H
#define VRKVFILE_H

#include <stdint.h>

#ifndef VRK_VFILEHANDLE_DEFINED
#define VRK_VFILEHANDLE_DEFINED
typedef void *VFileHandle;
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Moves to `offset`; whence 0 is from the start. 0 on success. */
int VSeek(VFileHandle handle, int32_t offset, int whence);
/* Current byte position. */
int32_t VTell(VFileHandle handle);
/* Reads count elements of `size` bytes into buffer; returns elements read. */
uint32_t VRead(void *buffer, uint32_t size, uint32_t count, VFileHandle handle);
/* Like VRead into *pointer, or, for a file held in memory, sets *pointer to
 * the data in place and copies nothing. Returns elements read. */
uint32_t VReadPtr(void **pointer, uint32_t size, uint32_t count, VFileHandle handle);
/* The file's length in bytes; 0xFFFFFFFF on failure. */
uint32_t VFilelength(VFileHandle handle);

#ifdef __cplusplus
}
#endif

#endif /* VRKVFILE_H */
