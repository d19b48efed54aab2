// JSON text for the subcommands' --json output. Strings are UTF-8; bytes
// that are not well-formed UTF-8 (file names and URIs may hold anything)
// are kept losslessly as the lone surrogates U+DC80..U+DCFF, written as
// \udc80..\udcff, the "surrogateescape" convention that Python's
// os.fsdecode and others read back to the original bytes.
#pragma once

#include <string>
#include <string_view>

namespace vrkutil {

// `bytes` as a JSON string literal, quotes included.
std::string JsonString(std::string_view bytes);

}  // namespace vrkutil
