// Character sets by name or Windows code-page number, as iconv knows them.
// The code-page registry gives a number several names, not all of which the
// system's iconv accepts; a number is resolved by trying the registry's
// names first, then the spellings iconv implementations commonly use.
#pragma once

#include <string>
#include <vector>

namespace vrkutil {

// Every name the registry has for `number`, in the registry's order.
std::vector<std::string> RegistryNames(int number);

// Every number in the registry (the end marker excluded), ascending.
std::vector<int> RegistryNumbers();

// The candidate iconv names for `number`: the registry's, then common
// spellings (CP1252, WINDOWS-1252, IBM037, UTF-16LE ...), without repeats.
std::vector<std::string> CandidateNames(int number);

// The first candidate that iconv opens in both directions against UTF-8, or
// "" when there is none.
std::string IconvName(int number);

}  // namespace vrkutil
