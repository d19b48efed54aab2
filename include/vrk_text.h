/* libVrkutil text encodings: the code-page registry. */
#ifndef VRK_TEXT_H
#define VRK_TEXT_H

#include "vrk_common.h"

VRK_EXTERN_C_BEGIN

/* The Windows code-page number of the character-set name `name` (ASCII case
 * ignored), or -1 when the registry has no such name. `name` must be a
 * NUL-terminated string. */
VRK_API int32_t charconv_GetCP(const char *name) VRK_NOEXCEPT;

/* A character-set name of code page `codepage`, or null when the registry
 * has none. The text is constant and belongs to the library. */
VRK_API const char *charconv_GetCPName(int32_t codepage) VRK_NOEXCEPT;

VRK_EXTERN_C_END

#endif /* VRK_TEXT_H */
