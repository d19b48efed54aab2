/* libVrkutil text encodings: the code-page registry, conversion through
 * iconv, UTF-16/UTF-8 transcoding, UTF-8 utilities and Unicode case folding.
 * Lengths of -1 mean "up to the terminator" throughout. Every block returned
 * comes from the allocator library and belongs to the caller. */
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

/* ---- Conversion between character sets (through iconv) ---- */

/* A converter handle; `cd` is the platform's iconv_t descriptor. */
typedef struct charconv_t {
  void *cd;
} charconv_t;
VRK_LAYOUT_ASSERT(sizeof(charconv_t) == 4, "charconv_t is one pointer");

/* A converter from `fromcode` to `tocode` (iconv_open's order: target
 * first), or null when the handle cannot be allocated or iconv_open fails.
 * Names are passed to iconv unchanged. */
VRK_API charconv_t *charconv_open(const char *tocode, const char *fromcode) VRK_NOEXCEPT;

/* Closes and frees `conv`: 0, or 1 when iconv_close failed. Null gives 0. */
VRK_API int charconv_close(charconv_t *conv) VRK_NOEXCEPT;

/* Exactly iconv() on the handle's descriptor, with all its effects on the
 * pointers and on errno. `conv` must not be null. */
VRK_API size_t charconv(charconv_t *conv, char **inbuf, size_t *inbytesleft, char **outbuf,
                        size_t *outbytesleft) VRK_NOEXCEPT;

/* Converts `inlen` bytes at `in` from `fromcode` to `tocode` (source first
 * here) into a new NUL-terminated buffer stored in `*out`, which must be null
 * on entry. `*outlen`, if `outlen` is given, receives the converted bytes
 * without the NUL. 0 on success; 1 on invalid or incomplete input, an
 * unknown name or a refused allocation, with `*out` left null. Release the
 * buffer with charconv_FreeBuffer. */
VRK_API int charconv_convert(const char *fromcode, const char *tocode, const char *in, size_t inlen, char **out,
                             size_t *outlen) VRK_NOEXCEPT;

/* Replaces `*text` (null, or a string from this library) by a new string
 * holding the old text followed by the UTF-8 form of `in`, up to the first
 * NUL it converts to; the old string is freed. 0 on success; 1 on failure,
 * with `*text` unchanged and still the caller's. */
VRK_API int charconv_ToUTF8(const char *fromcode, const char *in, size_t inlen, char **text) VRK_NOEXCEPT;

/* Frees `*buffer` and sets it to null; does nothing for a null `buffer` or
 * `*buffer`. */
VRK_API void charconv_FreeBuffer(char **buffer) VRK_NOEXCEPT;

/* ---- UTF-16 <-> UTF-8 ---- */

/* UTF-16 (host byte order, `len` units or -1) to a new NUL-terminated UTF-8
 * text; `*outlen`, if given, receives its bytes. Lone surrogates become
 * their 3-byte forms. Null when `src` is null, the input ends with a high
 * surrogate or an allocation is refused. Lengths below -1 count as 0. */
VRK_API char *charconv_UTF16ToUTF8(const uint16_t *src, int len, int *outlen) VRK_NOEXCEPT;

/* UTF-8 (`len` bytes or -1) to a new 0-terminated UTF-16 text; `*outlen`,
 * if given, receives its units. Lenient: stray continuation bytes are
 * skipped, malformed sequences and values above 0x10FFFF dropped, an
 * incomplete last sequence ends the text. Null when `src` is null or an
 * allocation is refused. Lengths below -1 count as 0. */
VRK_API uint16_t *charconv_UTF8ToUTF16(const char *src, int len, int *outlen) VRK_NOEXCEPT;

/* ---- UTF-8 characters (NUL-terminated strings) ---- */

/* Length of the character from its lead byte alone: 1 to 4, or -1 for a
 * continuation byte (0x80 to 0xBF). */
VRK_API int utf8charlen(const char *s) VRK_NOEXCEPT;

/* 1 when the bytes after the lead byte are continuation bytes, else 0.
 * Overlong forms and encoded surrogates are accepted. */
VRK_API int utf8isvalidchar(const char *s) VRK_NOEXCEPT;

/* The character after the one at `s`, or null at the terminator, a
 * continuation byte or a malformed character. */
VRK_API char *utf8nextchar(const char *s) VRK_NOEXCEPT;

/* Characters before the terminator, or -1 for a continuation byte where a
 * character begins or a last character cut short by the terminator. */
VRK_API int utf8len(const char *s) VRK_NOEXCEPT;

/* Copies whole valid characters of `src` into `dst` while they leave room
 * for the terminator in `size` bytes, stopping at the first that does not
 * fit or is malformed; terminates and returns the bytes copied. With a null
 * pointer or `size` 0 nothing is written. */
VRK_API size_t utf8strncpy(char *dst, const char *src, size_t size) VRK_NOEXCEPT;

/* Frees a result of utf8foldstrict; null is ignored. */
VRK_API void utf8freeresult(void *result) VRK_NOEXCEPT;

/* ---- Case folding (Unicode 3.2.0) ---- */

#define UTF8_FOLD_TURKIC 1     /* admit the Turkic mappings of I and U+0130 */
#define UTF8_CMP_LENGTHFIRST 2 /* utf8icmp: shorter folded character first */
#define UTF8_ERR_NULLARG 17    /* utf8icmp: a null argument */
#define UTF8_ERR_INVALID 18    /* utf8icmp: a malformed character */

/* Folds `s` in place (simple folding that keeps every character's length)
 * up to its first malformed character; returns `s`. */
VRK_API char *utf8foldstring(char *s) VRK_NOEXCEPT;

/* A new, fully folded copy of `s` (release with utf8freeresult), or null for
 * an empty string, a malformed character or a refused allocation. */
VRK_API char *utf8foldstrict(const char *s, int flags) VRK_NOEXCEPT;

/* Compares `a` and `b` character by character after folding each: -1, 0 or
 * 1; UTF8_ERR_NULLARG or UTF8_ERR_INVALID (met before a difference). */
VRK_API int utf8icmp(const char *a, const char *b, int flags) VRK_NOEXCEPT;

VRK_EXTERN_C_END

#endif /* VRK_TEXT_H */
