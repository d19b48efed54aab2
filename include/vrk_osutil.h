/* libVrkutil OS utilities: Linux counterparts of Windows system calls under
 * their Windows names and shapes. Strings are UTF-8 and reach the system
 * unconverted; paths use "/" as the separator. */
#ifndef VRK_OSUTIL_H
#define VRK_OSUTIL_H

#include "vrk_common.h"

VRK_EXTERN_C_BEGIN

/* Buffer sizes, in bytes, that the path and name functions rely on. */
#define OSUTIL_MAX_PATH 4096  /* directory and temporary-name buffers */
#define OSUTIL_MAX_FNAME 255  /* file-name buffer of OSUtil_splitpathUTF8 */
#define OSUTIL_MAX_EXT 120    /* extension buffer of OSUtil_splitpathUTF8 */

/* ---- Paths ----
 * The two path functions work only when the allocator library reports
 * system type 3 or, failing that, version 0x2001; otherwise they return at
 * once and write nothing. */

/* Splits `path` into drive (always ""), directory (OSUTIL_MAX_PATH bytes,
 * ending in "/" when not empty), file name (OSUTIL_MAX_FNAME bytes, the rest
 * of the buffer zero-filled) and extension (OSUTIL_MAX_EXT bytes, with its
 * leading "."). Any buffer may be null. Only the first 4095 bytes of `path`
 * are read. An existing directory (symbolic links followed) goes whole into
 * `dir`; anything else, missing paths included, is split as a file name. No
 * buffer is written past its size, whatever the length of `path`. */
VRK_API void OSUtil_splitpathUTF8(const char *path, char *drive, char *dir, char *fname,
                                  char *ext) VRK_NOEXCEPT;

/* Joins dir, fname and ext into `dst`, adding "/" after a directory that
 * lacks one and "." before an extension that lacks one. Null and empty parts
 * are left out; `drive` is not used. The result is not bounded: `dst` must
 * hold every part, the added "/" and "." and the terminating zero. */
VRK_API void OSUtil_makepathUTF8(char *dst, const char *drive, const char *dir, const char *fname,
                                 const char *ext) VRK_NOEXCEPT;

/* ---- Names of files and programs ---- */

/* Puts into `dst` (OSUTIL_MAX_PATH bytes) a file name that no file has at
 * the moment, made by tempnam(dir, prefix): the directory is TMPDIR when set,
 * else `dir`, else the system's default. No file is created and `unique`
 * plays no part in the name. Returns `unique`, or 1 when `unique` is 0; 0
 * when no name could be made (then `dst` is untouched). */
VRK_API uint32_t OSUtil_GetTempFileNameUTF8(const char *dir, const char *prefix, uint32_t unique,
                                            char *dst) VRK_NOEXCEPT;

/* Puts the file name of the running program into `dst` (`size` bytes, the
 * terminating zero included), whatever `module` names. Returns 0 on success
 * and 1 on failure: `dst` null or `size` below 2, system type 2, the name
 * unreadable, or a name that does not fit in `size` - 1 bytes (then `dst` is
 * left holding the empty string, never a cut name). Never writes past `size`
 * bytes. */
VRK_API uint32_t OSUtil_GetModuleFileNameUTF8(void *module, char *dst, uint32_t size) VRK_NOEXCEPT;

/* ---- Shared libraries ---- */

/* Loads the shared library `name` with every symbol bound at once and
 * returns the dynamic loader's handle (release it with dlclose, look symbols
 * up with dlsym), or null: `name` null, system type 2, a system version other
 * than 0x2001 and 0x1000, or a failed load. `name` goes to the loader as it
 * is, searched by its usual rules. `file` and `flags` are not used. */
VRK_API void *OSUtil_LoadLibraryExUTF8(const char *name, void *file, uint32_t flags) VRK_NOEXCEPT;

/* ---- Advisory file locks ---- */

/* Opens the existing file `path` read-only and takes an exclusive flock
 * lock on it, waiting until it is granted. Stores the descriptor, or -1 when
 * the file could not be opened, in *fd. Always returns 0. */
VRK_API uint32_t OSUtil_UnixFileLock(const char *path, int *fd) VRK_NOEXCEPT;

/* Releases the lock of *fd, closes it and sets *fd to -1; does nothing when
 * *fd is -1. Always returns 0. */
VRK_API uint32_t OSUtil_UnixFileUnlock(int *fd) VRK_NOEXCEPT;

/* ---- System queries, passed on from the allocator library ---- */

VRK_API int OSUtil_GetOSType(void) VRK_NOEXCEPT;
VRK_API int OSUtil_GetOSVersion(void) VRK_NOEXCEPT;
VRK_API void *OSUtil_GetNULLSecurityAttr(void) VRK_NOEXCEPT;

/* ---- Windows-only calls, answered with constants ----
 * These read no argument. They are declared without parameters; a caller
 * written against the Windows shape may still pass arguments, since the
 * caller removes them from the stack again (cdecl). */

/* Stores 0 in *type when `type` is not null; returns 0. `path` is not read. */
VRK_API uint32_t OSUtil_GetDriveTypeUTF8(const char *path, uint32_t *type) VRK_NOEXCEPT;

VRK_API uint32_t OSUtil_DisableWow32FsRedirection(void) VRK_NOEXCEPT;
VRK_API uint32_t OSUtil_RevertWow32FsRedirection(void) VRK_NOEXCEPT;
VRK_API uint32_t OSUtil_DisableVistaVirtualization(void) VRK_NOEXCEPT;
VRK_API uint32_t OSUtil_RevertVistaVirtualization(void) VRK_NOEXCEPT;
VRK_API uint32_t OSUtil_IsFileRedirectedByFs(void) VRK_NOEXCEPT;
VRK_API uint32_t OSUtil_IsWow32Process(void) VRK_NOEXCEPT;
VRK_API uint32_t OSUtil_IsThisWow32Process(void) VRK_NOEXCEPT;

VRK_EXTERN_C_END

#endif /* VRK_OSUTIL_H */
