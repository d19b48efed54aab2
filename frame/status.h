// The internal result of operations that can fail; mapped to each exported
// function's documented result only at the C boundary.
#pragma once

#include <cstdint>

namespace vrk {

enum class [[nodiscard]] Status : uint8_t {
  kOk,
  kNoMemory,   // the allocator refused a block
  kBadInput,   // the caller's or the file's data does not fit the format
  kIoError,    // the virtual file could not be sought or read
  kNotFound,
};

}  // namespace vrk
