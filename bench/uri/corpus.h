// A deterministic corpus of realistic URLs and references for the URI
// benchmark: the same seed gives the same texts on every machine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vrk::bench {

std::vector<std::string> MakeUriCorpus(uint32_t count, uint32_t seed = 0x5eed2396u);

}  // namespace vrk::bench
