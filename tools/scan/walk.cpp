// Directory walking for the scanner.
#include "scan/walk.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace vrk::scan {
namespace {

std::string RealPath(const std::string& path) {
  char buffer[PATH_MAX];
  return realpath(path.c_str(), buffer) ? std::string(buffer) : std::string();
}

bool Inside(const std::string& path, const std::string& root) {
  return path == root || (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
                          (root == "/" || path[root.size()] == '/'));
}

struct Walker {
  const WalkOptions& options;
  const std::function<void(const std::string&)>& file;
  const std::function<void(const std::string&, const std::string&)>& problem;
  std::string root_real;  // the tree a symbolic link must stay inside

  void Directory(const std::string& dir, int depth) {
    DIR* d = opendir(dir.c_str());
    if (!d) {
      problem(dir, std::strerror(errno));
      return;
    }
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());  // a stable order makes reports comparable
    for (const std::string& name : names) Entry(dir == "/" ? "/" + name : dir + "/" + name, depth);
  }

  void Entry(const std::string& path, int depth) {
    if (Excluded(path, options.excludes)) return;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
      problem(path, std::strerror(errno));
      return;
    }
    if (S_ISLNK(st.st_mode)) {
      // A link is followed only to a regular file inside the tree; links to
      // directories are never followed (no cycles, no escape).
      const std::string target = RealPath(path);
      struct stat target_st;
      if (target.empty() || !Inside(target, root_real) || stat(target.c_str(), &target_st) != 0 ||
          !S_ISREG(target_st.st_mode)) {
        return;
      }
      file(path);
    } else if (S_ISREG(st.st_mode)) {
      file(path);
    } else if (S_ISDIR(st.st_mode) && options.recursive && depth < 256) {
      Directory(path, depth + 1);
    }
  }
};

}  // namespace

bool Excluded(const std::string& path, const std::vector<std::string>& excludes) {
  const size_t slash = path.find_last_of('/');
  const std::string name = slash == std::string::npos || slash + 1 == path.size() ? path : path.substr(slash + 1);
  for (const std::string& pattern : excludes) {
    if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0 || fnmatch(pattern.c_str(), path.c_str(), 0) == 0) return true;
  }
  return false;
}

void Walk(const std::vector<std::string>& roots, const WalkOptions& options,
          const std::function<void(const std::string& path)>& file,
          const std::function<void(const std::string& path, const std::string& message)>& problem) {
  for (const std::string& root : roots) {
    if (root == "-") {
      file(root);
      continue;
    }
    if (Excluded(root, options.excludes)) continue;
    struct stat st;
    if (stat(root.c_str(), &st) != 0) {
      problem(root, std::strerror(errno));
      continue;
    }
    Walker walker{options, file, problem, RealPath(root)};
    if (S_ISDIR(st.st_mode)) {
      walker.Directory(root, 0);
    } else if (S_ISREG(st.st_mode)) {
      file(root);
    } else {
      problem(root, "not a regular file or directory");
    }
  }
}

}  // namespace vrk::scan
