// vrkutil run: loads a Windows DLL with its PE dependencies through the Win32
// native layer and calls one of its exports, as rundll32 does on Windows.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "command.h"
#include "vrk_pe.h"
#include "vrk_standin_ctl.h"
#include "vrk_text.h"
#include "vrk_win32.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kCdecl, kStdcall, kString, kList, kDir };
constexpr Option kOptions[] = {{kCdecl, 0, "cdecl", false},
                               {kStdcall, 0, "stdcall", false},
                               {kString, 0, "string", false},
                               {kList, 0, "list", false},
                               {kDir, 'L', nullptr, true}};

const Command kRun{
    "run", "[--cdecl|--stdcall] [--string] [-L DIR]... DLL EXPORT [ARG...] | [-L DIR]... --list DLL",
    "run an export of a Windows DLL (RUNS ITS CODE)",
    "Loads DLL and the PE DLLs it imports (found beside it or in the -L folders,\n"
    "loaded first), starts them, calls EXPORT with the arguments, prints its\n"
    "result and unloads them (their entry points see DLL_PROCESS_DETACH).\n"
    "KERNEL32.dll, msvcrt.dll and parts of other system DLLs come from the\n"
    "Win32 layer; calling an import it does not implement ends the call.\n"
    "ARG is one of:\n"
    "  N          an integer (decimal or 0x...)\n"
    "  s:TEXT     pointer to TEXT, NUL-terminated\n"
    "  w:TEXT     pointer to TEXT in UTF-16, NUL-terminated\n"
    "  buf:FILE   pointer to the bytes of FILE\n"
    "  len:FILE   the length of FILE\n"
    "  out:N      pointer to N zeroed bytes, printed in hex after the call\n"
    "  outlen:N   pointer to a 32-bit word holding N, printed after the call\n"
    "The result is printed as 0xXXXXXXXX (decimal), or with --string as the\n"
    "text it points to. --stdcall and --cdecl say how EXPORT takes its\n"
    "arguments; a function that behaves otherwise is reported (either way the\n"
    "call returns cleanly). --list loads DLL and lists each loaded module's\n"
    "imports as implemented, stub or pe.\n"
    "Running a DLL runs its code with your rights: trusted DLLs only.\n"
    "Exit status: 1 when a DLL or EXPORT cannot be loaded or found; 3 when the\n"
    "DLL's code crashed, called an unimplemented import or ended the process.",
    // The first operand (DLL) ends the options: what follows is the call's.
    Run, kOptions, Operands::kStopAtFirst};
VRK_COMMAND(kRun);

constexpr int kExitGuest = 3;  // the DLL's code did not return normally

struct Options {
  bool cdecl_convention = false;
  bool stdcall_convention = false;
  bool as_string = false;
  bool list = false;
  std::vector<const char*> dirs;
  std::vector<const char*> rest;  // DLL, EXPORT, ARG...
};

// An argument as passed, with the memory it points to.
struct Argument {
  uint32_t value = 0;
  enum Kind { kPlain, kOut, kOutLength } kind = kPlain;
  std::vector<uint8_t> bytes;  // what a pointer argument points to
  uint32_t out_length = 0;     // outlen:N
};

VFileHandle OpenFile(const char* path) { return vrkvfile_open_path(path, VRKVFILE_COPY); }

bool ReadFile(const char* path, std::vector<uint8_t>& out) {
  FILE* f = std::fopen(path, "rb");
  if (!f) return false;
  uint8_t buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) out.insert(out.end(), buffer, buffer + n);
  const bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

// Decimal or 0x hexadecimal, optionally negative, within 32 bits.
bool ParseWord(std::string_view text, uint32_t& out) {
  long long value = 0;
  if (!ParseInt(text, value) || value < INT32_MIN || value > 0xFFFFFFFFLL) return false;
  out = uint32_t(value);
  return true;
}

bool ParseCount(std::string_view text, uint32_t& out) {
  return ParseWord(text, out) && text[0] != '-' && out <= (256u << 20);
}

uint32_t AddressOf(const void* p) { return uint32_t(reinterpret_cast<uintptr_t>(p)); }

// Fills `arg` from its text; an error message, or null.
const char* ParseArgument(const std::string& text, Argument& arg, std::string& error) {
  auto after = [&text](const char* prefix) { return text.substr(std::strlen(prefix)); };
  if (text.rfind("s:", 0) == 0) {
    const std::string s = after("s:");
    arg.bytes.assign(s.begin(), s.end());
    arg.bytes.push_back(0);
  } else if (text.rfind("w:", 0) == 0) {
    const std::string s = after("w:");
    char* wide = nullptr;
    size_t bytes = 0;
    if (charconv_convert("UTF-8", "UTF-16LE", s.data(), s.size(), &wide, &bytes) != 0) {
      error = "'" + text + "' is not UTF-8 text";
      return error.c_str();
    }
    arg.bytes.assign(wide, wide + bytes);
    arg.bytes.insert(arg.bytes.end(), {0, 0});
    charconv_FreeBuffer(&wide);
  } else if (text.rfind("buf:", 0) == 0 || text.rfind("len:", 0) == 0) {
    std::vector<uint8_t> file;
    if (!ReadFile(after("buf:").c_str(), file)) {
      error = "cannot read '" + after("buf:") + "'";
      return error.c_str();
    }
    if (text[0] == 'l') {
      arg.value = uint32_t(file.size());
      return nullptr;
    }
    arg.bytes = std::move(file);
    arg.bytes.push_back(0);  // a valid pointer even for an empty file
  } else if (text.rfind("out:", 0) == 0) {
    uint32_t n = 0;
    if (!ParseCount(after("out:"), n)) {
      error = "'" + text + "': N must be a size of at most 256 MiB";
      return error.c_str();
    }
    arg.kind = Argument::kOut;
    arg.out_length = n;
    arg.bytes.assign(n ? n : 1, 0);
  } else if (text.rfind("outlen:", 0) == 0) {
    uint32_t n = 0;
    if (!ParseWord(after("outlen:"), n)) {
      error = "'" + text + "': N must be a number";
      return error.c_str();
    }
    arg.kind = Argument::kOutLength;
    arg.bytes.resize(4);
    std::memcpy(arg.bytes.data(), &n, 4);
  } else if (!ParseWord(text, arg.value)) {
    error = "'" + text + "' is neither a 32-bit number nor s:, w:, buf:, len:, out: or outlen:";
    return error.c_str();
  }
  if (!arg.bytes.empty()) arg.value = AddressOf(arg.bytes.data());
  return nullptr;
}

// The text at a guest address, measured by the layer's own msvcrt strlen
// inside the fault guard, so that a bad pointer is reported, not followed.
bool GuestString(VRKW32_CONTEXT* context, uint32_t address, std::string& out, VRKW32_RESULT& result) {
  if (address == 0) {
    out = "(null)";
    return true;
  }
  void* msvcrt = VRKW32_LoadNative("msvcrt.dll", 0, 0);
  const uint32_t strlen_address = VRKW32_GetProcNative(msvcrt, "strlen");
  if (VRKW32_Call(context, strlen_address, &address, 1, &result) != VRKW32_OK) return false;
  out.assign(reinterpret_cast<const char*>(uintptr_t(address)), result.value);
  return true;
}

struct ImportCounts {
  std::string module;
  uint32_t implemented = 0, stubs = 0, pe = 0;
  std::vector<std::string> lines;
};

void CountImport(void* user, const char* module, const char* dll, const char* name, int kind) {
  auto& all = *static_cast<std::vector<ImportCounts>*>(user);
  if (all.empty() || all.back().module != module) {
    all.emplace_back();
    all.back().module = module;
  }
  ImportCounts& c = all.back();
  static const char* const kKinds[] = {"pe", "implemented", "stub"};
  (kind == VRKW32_IMPORT_PE ? c.pe : kind == VRKW32_IMPORT_IMPLEMENTED ? c.implemented : c.stubs)++;
  c.lines.push_back(std::string(dll) + "!" + name + " " + kKinds[kind]);
}

int ListImports(VRKW32_CONTEXT* context) {
  std::vector<ImportCounts> all;
  (void)VRKW32_ListImports(context, CountImport, &all);
  for (const ImportCounts& c : all) {
    std::printf("%s: %" PRIu32 " implemented, %" PRIu32 " stubs, %" PRIu32 " from PE modules\n", c.module.c_str(),
                c.implemented, c.stubs, c.pe);
    for (const std::string& line : c.lines) std::printf("  %s\n", line.c_str());
  }
  return kExitOk;
}

void PrintOuts(const std::vector<Argument>& arguments) {
  for (size_t i = 0; i < arguments.size(); ++i) {
    const Argument& a = arguments[i];
    if (a.kind == Argument::kOut) {
      std::printf("out %zu: ", i + 1);
      for (uint32_t k = 0; k < a.out_length; ++k) std::printf("%02x", a.bytes[k]);
      std::printf("\n");
    } else if (a.kind == Argument::kOutLength) {
      uint32_t n = 0;
      std::memcpy(&n, a.bytes.data(), 4);
      std::printf("outlen %zu: %" PRIu32 "\n", i + 1, n);
    }
  }
}

// Calls the export and prints what it gave; the exit status.
int CallExport(VRKW32_CONTEXT* context, PELOAD_MODULE* module, const Options& o) {
  const char* dll = o.rest[0];
  const char* name = o.rest[1];
  const uint32_t address = PELOAD_GetProcAddress(module, name);
  if (address == 0) return Fail(kExitFailure, "%s has no export '%s'", dll, name);
  std::vector<Argument> arguments(o.rest.size() - 2);
  std::string error;
  for (size_t i = 0; i < arguments.size(); ++i) {
    if (ParseArgument(o.rest[i + 2], arguments[i], error)) return UsageError(kRun, "%s", error.c_str());
  }
  std::vector<uint32_t> words;
  for (const Argument& a : arguments) words.push_back(a.value);
  VRKW32_RESULT result{};
  if (VRKW32_Call(context, address, words.data(), uint32_t(words.size()), &result) != VRKW32_OK) {
    return Fail(kExitGuest, "%s", result.text);
  }
  const uint32_t stdcall_bytes = 4 * uint32_t(words.size());
  if ((o.stdcall_convention && result.popped != stdcall_bytes) || (o.cdecl_convention && result.popped != 0)) {
    std::fprintf(stderr, "vrkutil: warning: %s removed %" PRIu32 " bytes of arguments, so it is not %s with %zu %s\n",
                 name, result.popped, o.cdecl_convention ? "cdecl" : "stdcall", words.size(),
                 words.size() == 1 ? "argument" : "arguments");
  }
  if (o.as_string) {
    std::string text;
    VRKW32_RESULT read{};
    if (!GuestString(context, result.value, text, read)) {
      return Fail(kExitGuest, "the result 0x%08" PRIx32 " is not a readable string: %s", result.value, read.text);
    }
    std::printf("%s\n", text.c_str());
  } else {
    std::printf("0x%08" PRIx32 " (%" PRIu32 ")\n", result.value, result.value);
  }
  PrintOuts(arguments);
  return kExitOk;
}

bool ReadOptions(const Invocation& in, Options& o, int& status) {
  o.cdecl_convention = in.Has(kCdecl);
  o.stdcall_convention = in.Has(kStdcall);
  o.as_string = in.Has(kString);
  o.list = in.Has(kList);
  o.dirs = in.Values(kDir);
  o.rest.assign(in.operands().begin(), in.operands().end());
  if (o.cdecl_convention && o.stdcall_convention) {
    status = UsageError(kRun, "--cdecl and --stdcall exclude each other");
    return false;
  }
  if (o.list ? o.rest.size() != 1 : o.rest.size() < 2) {
    status = UsageError(kRun, o.list ? "--list takes exactly one DLL" : "expected DLL and EXPORT");
    return false;
  }
  return true;
}

std::string DirectoryOf(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? std::string(path, size_t(slash - path)) : ".";
}

int Run(const Invocation& in) {
  Options o;
  int status = kExitOk;
  if (!ReadOptions(in, o, status)) return status;
  MODLOAD_PROCESS* process = MODLOAD_CreateProcess(nullptr, VRKW32_LoadNative, VRKW32_FreeNative, VRKW32_GetProcNative);
  VRKW32_CONTEXT* context = process ? VRKW32_CreateContext(process, OpenFile, vrkvfile_close) : nullptr;
  if (!context) {
    MODLOAD_TerminateProcess(process);
    return Fail(kExitFailure, "out of memory");
  }
  // The DLL's own folder first, as Windows looks beside the application.
  const std::string own = DirectoryOf(o.rest[0]);
  VRKW32_AddSearchDir(context, own.c_str());
  for (const char* dir : o.dirs) VRKW32_AddSearchDir(context, dir);
  const std::string path = std::strchr(o.rest[0], '/') ? o.rest[0] : "./" + std::string(o.rest[0]);
  VRKW32_RESULT result{};
  PELOAD_MODULE* module = VRKW32_LoadLibrary(context, path.c_str(), &result);
  if (!module) {
    status = Fail(result.status >= VRKW32_NOT_IMPLEMENTED && result.status <= VRKW32_EXITED ? kExitGuest
                                                                                              : kExitFailure,
                  "%s", result.text);
  } else {
    status = o.list ? ListImports(context) : CallExport(context, module, o);
  }
  std::fflush(stdout);
  VRKW32_RESULT detach{};
  VRKW32_DestroyContext(context, &detach);
  MODLOAD_TerminateProcess(process);
  if (detach.status != VRKW32_OK && status == kExitOk) status = Fail(kExitGuest, "%s", detach.text);
  return status;
}

}  // namespace
}  // namespace vrkutil
