// Finding the files a scan reads: named files, and the regular files inside
// named directories (recursively on request), never following a symbolic
// link that leads out of the tree being scanned.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vrk::scan {

struct WalkOptions {
  bool recursive = false;
  // Shell patterns (fnmatch); an entry whose name or whole path matches one
  // is left out, and so is everything below an excluded directory.
  std::vector<std::string> excludes;
};

// Whether `path` is left out by one of `excludes` (see WalkOptions).
bool Excluded(const std::string& path, const std::vector<std::string>& excludes);

// Calls `file` for each regular file found under `roots` ("-", standard
// input, is passed on as it is), and `problem` with
// a path and a message for each root or entry that cannot be read.
void Walk(const std::vector<std::string>& roots, const WalkOptions& options,
          const std::function<void(const std::string& path)>& file,
          const std::function<void(const std::string& path, const std::string& message)>& problem);

}  // namespace vrk::scan
