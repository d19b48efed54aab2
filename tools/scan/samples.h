// The sample tree of the demonstration and the tests: clean files, the
// standard test file, the test string embedded at an odd offset, files that
// the default database's own signatures recognise, and a large file whose
// test string straddles a border between the pieces a scan reads.
#pragma once

#include <string>

namespace vrk::scan {

// Writes the tree under `dir` (created if needed). False with `error` set on
// failure. The large file is `large_bytes` long.
bool WriteSampleTree(const std::string& dir, uint32_t large_bytes, std::string& error);

}  // namespace vrk::scan
