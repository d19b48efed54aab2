/* Control interface of the stand-in allocator and virtual-file libraries.
 * Not part of the product's contract: tests, tools and benchmarks use it to
 * open virtual files, inject faults, count live blocks and log calls. The
 * product's own sibling libraries do not offer it. */
#ifndef VRK_STANDIN_CTL_H
#define VRK_STANDIN_CTL_H

#include <stdint.h>

#ifndef VRK_VFILEHANDLE_DEFINED
#define VRK_VFILEHANDLE_DEFINED
typedef void *VFileHandle;
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Allocator stand-in (libVrkalloc.so) ---- */

enum VrkAllocOp {
  VRKALLOC_PMALLOC = 1,
  VRKALLOC_PCALLOC,
  VRKALLOC_PREALLOC,
  VRKALLOC_PFREE,
  VRKALLOC_PCALLOCX,
  VRKALLOC_PFREEX,
  VRKALLOC_PSAFEFREE,
  VRKALLOC_SETMODULEVERSION
};

/* Block families counted apart: Pmalloc/Pcalloc/Prealloc blocks and PcallocX
 * blocks. */
enum VrkAllocFamily { VRKALLOC_FAMILY_P = 0, VRKALLOC_FAMILY_X = 1 };

/* One logged call. Arguments in call order (a, b, c; a block argument is in
 * `block`), the result block, and whether the call was refused. */
typedef struct VrkAllocCall {
  int op;
  uint32_t a, b, c;
  void *block;
  void *result;
  int refused;
} VrkAllocCall;

/* Clears faults, the log and the OS answers (back to type 3, version
 * 0x2001). Live-block counts and the module-version record stay. */
void vrkalloc_reset(void);
/* The n-th allocation request from now (1 = the next) is refused; 0 off. */
void vrkalloc_fail_nth(uint32_t n);
/* The n-th allocation request from now and every later one are refused. */
void vrkalloc_fail_from(uint32_t n);
/* Requests for exactly `bytes` bytes (count * size for the calloc forms) are
 * refused while `on` is non-zero. */
void vrkalloc_fail_size(uint32_t bytes, int on);
/* Every allocation request is refused while `on` is non-zero. */
void vrkalloc_fail_all(int on);
/* Allocation requests (Pmalloc, Pcalloc, Prealloc, PcallocX) made so far,
 * refused ones included. */
uint32_t vrkalloc_requests(void);
/* Blocks of the family currently allocated. */
uint32_t vrkalloc_live(int family);
/* Starts (clearing) or stops the call log. */
void vrkalloc_log_enable(int on);
uint32_t vrkalloc_log_size(void);
/* The i-th logged call, or null past the end. Valid until the next call. */
const VrkAllocCall *vrkalloc_log_at(uint32_t i);
/* Answers of GetOSType and GetOSVersion. */
void vrkalloc_set_os(int type, int version);
/* SetModuleVersion calls so far, the arguments of the last one, and how many
 * allocation requests had been made before the first one. */
typedef struct VrkModuleVersionRecord {
  uint32_t calls;
  int module;
  int version;
  uint32_t requests_before_first;
} VrkModuleVersionRecord;
VrkModuleVersionRecord vrkalloc_module_version(void);

/* ---- Virtual-file stand-in (libVrkvfile.so) ---- */

/* How VReadPtr answers: copying into the caller's buffer, or handing out a
 * pointer into memory that the file holds. */
enum VrkVFileMode { VRKVFILE_COPY = 0, VRKVFILE_IN_MEMORY = 1 };

/* Opens a real file. In VRKVFILE_IN_MEMORY mode its whole contents are read
 * at open. Null when the file cannot be opened or read, with errno saying
 * why: the open's own reason, EISDIR for a directory, EINVAL for something
 * that is not a regular file, EFBIG for 4 GiB - 1 bytes or more. */
VFileHandle vrkvfile_open_path(const char *path, int mode);
/* Opens a memory buffer, which is referenced, not copied: it must outlive
 * the handle. In VRKVFILE_IN_MEMORY mode VReadPtr points into it. */
VFileHandle vrkvfile_open_memory(const void *data, uint32_t size, int mode);
void vrkvfile_close(VFileHandle handle);
/* Handles open now (leak checks). */
uint32_t vrkvfile_open_count(void);
/* VFilelength answers 0xFFFFFFFF while `on`. */
void vrkvfile_fail_length(VFileHandle handle, int on);
/* VSeek fails (returns -1, position unchanged) while `on`. */
void vrkvfile_fail_seek(VFileHandle handle, int on);
/* Reads deliver nothing beyond file position `limit`, as if an I/O error
 * happened there; 0xFFFFFFFF lifts the limit. */
void vrkvfile_fail_reads_from(VFileHandle handle, uint32_t limit);

enum VrkVFileOp { VRKVFILE_SEEK = 1, VRKVFILE_READ, VRKVFILE_READPTR };

/* One logged operation on a handle: the position before it, the requested
 * element size and count (seek: offset and whence), the result, and for
 * VReadPtr whether the pointer was redirected into the file's memory. */
typedef struct VrkVFileCall {
  int op;
  uint32_t position;
  uint32_t size;
  uint32_t count;
  uint32_t result;
  int in_place;
} VrkVFileCall;

uint32_t vrkvfile_log_size(VFileHandle handle);
const VrkVFileCall *vrkvfile_log_at(VFileHandle handle, uint32_t i);
void vrkvfile_log_clear(VFileHandle handle);

#ifdef __cplusplus
}
#endif

#endif /* VRK_STANDIN_CTL_H */
