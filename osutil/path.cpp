// Path splitting and joining. The split reads only a bounded copy of its
// input and writes every part through a length check of its own, so no
// input length can carry a write past a caller's buffer.
#include "osutil/path.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace vrk::osutil {
namespace {

// The part of `text` from `from` on, at most `count` bytes long; `from` is
// within `text`. (string_view::substr would bring in the C++ runtime for
// its out-of-range exception.)
std::string_view Part(std::string_view text, size_t from, size_t count = std::string_view::npos) {
  return std::string_view(text.data() + from, std::min(count, text.size() - from));
}

// Copies `text` into `out` and terminates it; the caller has checked that
// text.size() < the buffer size.
void PutString(char* out, std::string_view text) {
  if (!text.empty()) std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
}

// The index of the dot that starts the extension of `name`, or npos. The
// first character is never taken, so ".profile" has no extension, and a
// dot at the very end starts none either ("name." keeps its dot).
size_t ExtensionDot(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return std::string_view::npos;
  return dot;
}

}  // namespace

void SplitPath(const char* path, const SplitParts& out) {
  // Everything below, the stat included, sees this copy only, so a path of
  // any length behaves as its first kMaxPath - 1 bytes.
  char work[kMaxPath];
  const size_t length = strnlen(path, kMaxPath - 1);
  PutString(work, std::string_view(path, length));
  const std::string_view whole(work, length);

  // A path that cannot be asked about (missing, dangling link, no access)
  // is split as a file name.
  struct stat info;
  const bool is_directory = stat(work, &info) == 0 && S_ISDIR(info.st_mode);

  if (out.drive) out.drive[0] = '\0';

  if (is_directory) {
    if (out.dir) {
      if (whole.ends_with('/')) {
        PutString(out.dir, whole);
      } else if (length + 1 < kMaxPath) {
        PutString(out.dir, whole);
        out.dir[length] = '/';
        out.dir[length + 1] = '\0';
      } else {
        // The "/" would not fit: an empty directory rather than one that
        // reads as a file name.
        out.dir[0] = '\0';
      }
    }
    if (out.fname) out.fname[0] = '\0';
    if (out.ext) out.ext[0] = '\0';
    return;
  }

  const size_t slash = whole.rfind('/');
  const std::string_view name = slash == std::string_view::npos ? whole : Part(whole, slash + 1);

  // The directory keeps its last "/", so "/x" gives "/" and "x" gives "".
  if (out.dir) PutString(out.dir, slash == std::string_view::npos ? std::string_view() : Part(whole, 0, slash + 1));

  const size_t dot = ExtensionDot(name);
  const std::string_view stem = dot == std::string_view::npos ? name : Part(name, 0, dot);

  if (out.fname) {
    // Callers compare the whole buffer, so the name is zero-filled to its
    // end like strncpy would, and its last byte is always the terminator.
    const size_t n = std::min<size_t>(stem.size(), kMaxFname - 1);
    std::memcpy(out.fname, stem.data(), n);
    std::memset(out.fname + n, 0, kMaxFname - n);
  }

  if (out.ext) {
    if (dot == std::string_view::npos) {
      out.ext[0] = '\0';
    } else {
      // "." plus at most kMaxExt - 2 characters and the terminator.
      const std::string_view tail = Part(name, dot + 1);
      out.ext[0] = '.';
      PutString(out.ext + 1, Part(tail, 0, kMaxExt - 2));
    }
  }
}

void MakePath(char* dst, const char* dir, const char* fname, const char* ext) {
  char* end = dst;
  *end = '\0';
  if (dir && *dir) {
    end = stpcpy(end, dir);
    if (end[-1] != '/') {
      *end++ = '/';
      *end = '\0';
    }
  }
  if (fname && *fname) end = stpcpy(end, fname);
  if (ext && *ext) {
    if (*ext != '.') *end++ = '.';
    stpcpy(end, ext);
  }
}

}  // namespace vrk::osutil
