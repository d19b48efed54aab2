// Conversion between character sets named by labels, through the platform's
// iconv: a thin handle, a whole-buffer conversion and an appending
// conversion to UTF-8.
#pragma once

#include <cstddef>

#include "frame/status.h"
#include "vrk_text.h"

namespace vrk::text {

// A handle converting from `fromcode` to `tocode` (iconv_open's order), or
// null when it cannot be allocated or iconv does not know the pair.
charconv_t* OpenConverter(const char* tocode, const char* fromcode);

// Closes the descriptor and frees the handle (kOk for a null handle).
// kBadInput when iconv_close refused the descriptor; the handle is freed
// all the same.
Status CloseConverter(charconv_t* conv);

// Converts `inlen` bytes at `in` into a new NUL-terminated buffer stored in
// `*out`, which must be null on entry; `*outlen` (if given) receives the
// bytes converted. On failure nothing stays allocated: kBadInput for a
// non-null `*out` or input iconv rejects, kNotFound when no converter
// could be opened (an unknown pair, or its handle refused), kNoMemory for
// a refused output block.
Status ConvertBuffer(const char* fromcode, const char* tocode, const char* in, size_t inlen, char** out,
                     size_t* outlen);

// Appends the UTF-8 form of `in` to the library-allocated string `*text`
// (null for none), replacing it by a new string. On failure (as for
// ConvertBuffer) `*text` is unchanged.
Status AppendUtf8(const char* fromcode, const char* in, size_t inlen, char** text);

// Frees `*buffer` (if any) and nulls it.
void FreeBuffer(char** buffer);

}  // namespace vrk::text
