// C boundary of path splitting and joining: the system gate, then the work.
#include "osutil/path.h"
#include "osutil/system_gate.h"
#include "vrk_osutil.h"

static_assert(OSUTIL_MAX_PATH == vrk::osutil::kMaxPath && OSUTIL_MAX_FNAME == vrk::osutil::kMaxFname &&
              OSUTIL_MAX_EXT == vrk::osutil::kMaxExt);

extern "C" {

void OSUtil_splitpathUTF8(const char* path, char* drive, char* dir, char* fname, char* ext) noexcept {
  if (!vrk::osutil::PathGateOpen()) return;
  vrk::osutil::SplitPath(path, {drive, dir, fname, ext});
}

void OSUtil_makepathUTF8(char* dst, const char*, const char* dir, const char* fname, const char* ext) noexcept {
  if (!vrk::osutil::PathGateOpen()) return;
  vrk::osutil::MakePath(dst, dir, fname, ext);
}

}  // extern "C"
