// vrkutil os, path and tempname: the OS utility family from the command
// line (path splitting and joining, temporary names, the program's file
// name, library loading and file locks).
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "command.h"
#include "vrk_osutil.h"

namespace vrkutil {
namespace {

using Args = std::span<const char* const>;  // the operands after the action

int RunOs(const Invocation& in);
int RunPath(const Invocation& in);
int RunTempname(const Invocation& in);

enum { kDir, kName, kExt };
constexpr Option kPartOptions[] = {{kDir, 0, "dir", true}, {kName, 0, "name", true}, {kExt, 0, "ext", true}};

const Command kOs{
    "os", "ACTION [ARGS...]", "OS utilities: paths, temporary names, program name, libraries, locks",
    "Actions:\n"
    "  splitpath PATH...                  directory, file name and extension of each PATH\n"
    "  makepath [--dir D] [--name N] [--ext E]\n"
    "                                     joins the parts into one path\n"
    "  tempname [DIR [PREFIX]]            a file name no file has now (none is created)\n"
    "  exe                                the file name of the running program\n"
    "  drivetype PATH                     the drive type (always 0: no drives here)\n"
    "  load LIBRARY                       loads a shared library with every symbol bound\n"
    "  lock FILE [SECONDS]                holds an exclusive lock on FILE for SECONDS (0)\n"
    "  system                             the system type and version the library sees\n"
    "\n"
    "A PATH that names an existing directory goes whole into the directory part.\n"
    "Exit status 1 when a request fails, 2 on bad usage.",
    RunOs, kPartOptions};

const Command kPath{
    "path", "split PATH... | make [--dir D] [--name N] [--ext E]", "split paths into their parts, or join parts",
    "split prints the directory, file name and extension of each PATH (an\n"
    "existing directory goes whole into the directory part); make joins the\n"
    "parts, adding the \"/\" and \".\" they lack. Same as 'vrkutil os splitpath'\n"
    "and 'vrkutil os makepath'.",
    RunPath, kPartOptions};

const Command kTempname{
    "tempname", "[DIR [PREFIX]]", "print a file name that no file has now",
    "Prints a name in TMPDIR when set, else in DIR, else in the system's\n"
    "temporary folder, starting with PREFIX. No file is created.",
    RunTempname};

int SplitPaths(const Command& self, Args paths) {
  if (paths.empty()) return UsageError(self, "expected at least one PATH");
  for (size_t i = 0; i < paths.size(); ++i) {
    char drive[4] = "", dir[OSUTIL_MAX_PATH] = "", fname[OSUTIL_MAX_FNAME] = "", ext[OSUTIL_MAX_EXT] = "";
    OSUtil_splitpathUTF8(paths[i], drive, dir, fname, ext);
    if (i > 0) std::putchar('\n');
    std::printf("path=%s\ndir=%s\nfname=%s\next=%s\n", paths[i], dir, fname, ext);
  }
  return kExitOk;
}

int MakePath(const Command& self, const Invocation& in, Args args) {
  if (!args.empty()) return UsageError(self, "unexpected argument '%s'", args[0]);
  const char* parts[3] = {in.Value(kDir), in.Value(kName), in.Value(kExt)};
  // The join is unbounded: size the buffer for every part, a "/", a "." and
  // the terminator.
  size_t size = 3;
  for (const char* part : parts) size += part ? std::strlen(part) : 0;
  std::vector<char> joined(size);
  OSUtil_makepathUTF8(joined.data(), nullptr, parts[0], parts[1], parts[2]);
  std::printf("%s\n", joined.data());
  return kExitOk;
}

int TempName(const Command& self, Args args) {
  if (args.size() > 2) return UsageError(self, "expected at most DIR and PREFIX");
  const char* dir = args.size() > 0 ? args[0] : nullptr;
  const char* prefix = args.size() > 1 ? args[1] : nullptr;
  char name[OSUTIL_MAX_PATH];
  if (OSUtil_GetTempFileNameUTF8(dir, prefix, 0, name) == 0) return Fail(kExitFailure, "no temporary name could be made");
  std::printf("%s\n", name);
  return kExitOk;
}

int ProgramName(const Command& self, Args args) {
  if (!args.empty()) return UsageError(self, "exe takes no arguments");
  char name[OSUTIL_MAX_PATH];
  if (OSUtil_GetModuleFileNameUTF8(nullptr, name, sizeof name) != 0) {
    return Fail(kExitFailure, "the program's file name cannot be read");
  }
  std::printf("%s\n", name);
  return kExitOk;
}

int DriveType(const Command& self, Args args) {
  if (args.size() != 1) return UsageError(self, "expected one PATH");
  uint32_t type = 0;
  OSUtil_GetDriveTypeUTF8(args[0], &type);
  std::printf("%u\n", type);
  return kExitOk;
}

int Load(const Command& self, Args args) {
  if (args.size() != 1) return UsageError(self, "expected one LIBRARY");
  void* handle = OSUtil_LoadLibraryExUTF8(args[0], nullptr, 0);
  if (!handle) {
    const char* why = dlerror();
    return Fail(kExitFailure, "cannot load '%s': %s", args[0], why ? why : "refused on this system");
  }
  std::printf("loaded %s\n", args[0]);
  dlclose(handle);
  return kExitOk;
}

int Lock(const Command& self, Args args) {
  if (args.empty() || args.size() > 2) return UsageError(self, "expected FILE and optionally SECONDS");
  long long seconds = 0;
  if (args.size() == 2 && (!ParseInt(args[1], seconds) || seconds < 0 || seconds > 3600)) {
    return UsageError(self, "SECONDS must be a number from 0 to 3600");
  }
  int fd = -1;
  OSUtil_UnixFileLock(args[0], &fd);
  if (fd == -1) return Fail(kExitFailure, "cannot open '%s'", args[0]);
  std::printf("locked %s\n", args[0]);
  std::fflush(stdout);
  if (seconds > 0) sleep(unsigned(seconds));
  OSUtil_UnixFileUnlock(&fd);
  std::printf("unlocked %s\n", args[0]);
  return kExitOk;
}

int System(const Command& self, Args args) {
  if (!args.empty()) return UsageError(self, "system takes no arguments");
  std::printf("type=%d\nversion=0x%x\n", OSUtil_GetOSType(), unsigned(OSUtil_GetOSVersion()));
  return kExitOk;
}

// The part options belong to the joining action only.
int Dispatch(const Command& self, const Invocation& in, std::string_view action, Args rest) {
  const bool joining = action == "makepath" || action == "make";
  if (!joining && !in.options().empty()) {
    return UsageError(self, "%s applies only to the joining action", in.options()[0].spelling.c_str());
  }
  if (joining) return MakePath(self, in, rest);
  if (action == "splitpath" || action == "split") return SplitPaths(self, rest);
  if (action == "tempname") return TempName(self, rest);
  if (action == "exe") return ProgramName(self, rest);
  if (action == "drivetype") return DriveType(self, rest);
  if (action == "load") return Load(self, rest);
  if (action == "lock") return Lock(self, rest);
  if (action == "system") return System(self, rest);
  return UsageError(self, "unknown action '%.*s'", static_cast<int>(action.size()), action.data());
}

int RunOs(const Invocation& in) {
  if (in.operands().empty()) return UsageError(kOs, "expected an ACTION");
  const std::string_view action = in.operands()[0];
  if (action == "split" || action == "make") {
    return UsageError(kOs, "unknown action '%s'", in.operands()[0]);
  }
  return Dispatch(kOs, in, action, in.operands().subspan(1));
}

int RunPath(const Invocation& in) {
  if (in.operands().empty()) return UsageError(kPath, "expected split or make");
  const std::string_view action = in.operands()[0];
  if (action != "split" && action != "make") return UsageError(kPath, "unknown action '%s'", in.operands()[0]);
  return Dispatch(kPath, in, action, in.operands().subspan(1));
}

int RunTempname(const Invocation& in) { return TempName(kTempname, in.operands()); }

}  // namespace

VRK_COMMAND(kOs);
VRK_COMMAND(kPath);
VRK_COMMAND(kTempname);

}  // namespace vrkutil
