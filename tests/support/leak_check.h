// Every test binary that links the test support checks, after each test,
// that the test left no allocator block and no virtual file behind.
#pragma once

#include <cstdint>

namespace vrk::test {

// Live blocks of both allocator families (regular and executable).
uint32_t LiveBlocks();

}  // namespace vrk::test
