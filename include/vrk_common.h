/* Shared declarations of the libVrkutil public headers: export marking,
 * compile-time layout checks usable from C and C++, and the virtual-file
 * handle type. Every other public header includes this one. */
#ifndef VRK_COMMON_H
#define VRK_COMMON_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define VRK_API __attribute__((visibility("default")))
#else
#define VRK_API
#endif

#ifdef __cplusplus
#define VRK_EXTERN_C_BEGIN extern "C" {
#define VRK_EXTERN_C_END }
#define VRK_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#define VRK_NOEXCEPT noexcept
#else
#define VRK_EXTERN_C_BEGIN
#define VRK_EXTERN_C_END
#define VRK_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#define VRK_NOEXCEPT
#endif

/* The layouts in these headers are those of 32-bit x86 (i386); the asserts
 * below each record only hold there. */
#if defined(__i386__)
#define VRK_LAYOUT_ASSERT(cond, msg) VRK_STATIC_ASSERT(cond, msg)
#else
#define VRK_LAYOUT_ASSERT(cond, msg)
#endif

#ifndef VRK_VFILEHANDLE_DEFINED
#define VRK_VFILEHANDLE_DEFINED
/* Opaque, pointer-sized handle of the virtual-file library; null is no file.
 * The caller opens and closes it; this library only seeks and reads. */
typedef void *VFileHandle;
#endif

VRK_LAYOUT_ASSERT(sizeof(VFileHandle) == 4, "VFileHandle is pointer-sized");

#endif /* VRK_COMMON_H */
