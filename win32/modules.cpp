// Modules of a context: finding DLL files, loading them with their PE
// dependencies in dependency order, starting and stopping them as Windows
// does, and answering GetModuleHandle, LoadLibrary and GetProcAddress.
#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "pe/image_span.h"
#include "win32/context.h"
#include "win32/natives.h"
#include "win32/pe_imports.h"
#include "vrkvfile.h"

namespace vrk::win32 {
namespace {

constexpr uint32_t kDllProcessDetach = 0;
constexpr uint32_t kDllProcessAttach = 1;

// The file name of a Windows or POSIX path.
std::string BaseName(const std::string& path) {
  const size_t slash = path.find_last_of("/\\");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : slash == 0 ? "/" : path.substr(0, slash);
}

// LoadLibrary adds ".dll" to a name without an extension.
std::string WithExtension(std::string name) {
  if (name.find('.') == std::string::npos) name += ".dll";
  return name;
}

bool IsFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool ReadAll(VFileHandle file, std::vector<uint8_t>& bytes) {
  const uint32_t length = VFilelength(file);
  if (length == 0xFFFFFFFF || VSeek(file, 0, 0) != 0) return false;
  bytes.resize(length);
  return VRead(bytes.data(), 1, length, file) == length;
}

const PELOAD_IMAGE* ImageOf(const PELOAD_MODULE* entry) {
  return entry && entry->kind == PELOAD_KIND_PE ? static_cast<const PELOAD_IMAGE*>(entry->handle) : nullptr;
}

// The NT headers of a loaded module, read within its image.
bool NtHeadersOf(const PELOAD_MODULE* entry, PE_IMAGE_NT_HEADERS32& nt) {
  const PELOAD_IMAGE* image = ImageOf(entry);
  if (!image || !image->image) return false;
  return pe::ImageSpan(image->image, image->size).NtHeaders(nt);
}

uint32_t BaseOf(const PELOAD_MODULE* entry) {
  const PELOAD_IMAGE* image = ImageOf(entry);
  return image ? AddressOf(image->image) : 0;
}

void SetText(Failure& why, Failed what, const std::string& text) {
  why.what = what;
  why.text = text;
}

struct LoadCall {
  VFileHandle file;
  MODLOAD_PROCESS* process;
  PELOAD_MODULE* entry;
};

void LoadBody(void* arg) {
  auto* call = static_cast<LoadCall*>(arg);
  call->entry = PELOAD_LoadLibraryEx(call->file, call->process, 1);
}

}  // namespace

Failure GuestFailure(const Context& context, const CallOutcome& outcome, const std::string& during) {
  std::string text = Describe(context, outcome);
  if (!during.empty()) text += " (" + during + ")";
  return Failure{Failed::kGuest, outcome, text};
}

void Context::AddSearchDir(const std::string& dir) { search_dirs_.push_back(dir); }

std::string Context::FindFile(const std::string& name, const std::string& first_dir) const {
  if (name.find('/') != std::string::npos) return IsFile(name) ? name : "";
  // Windows file names ignore letter case: compare each folder's entries.
  const std::string wanted = WithExtension(BaseName(name));
  std::vector<std::string> dirs;
  if (!first_dir.empty()) dirs.push_back(first_dir);
  dirs.insert(dirs.end(), search_dirs_.begin(), search_dirs_.end());
  for (const std::string& dir : dirs) {
    DIR* d = opendir(dir.c_str());
    if (!d) continue;
    std::string found;
    while (const dirent* e = readdir(d)) {
      if (strcasecmp(e->d_name, wanted.c_str()) == 0) {
        found = dir + "/" + e->d_name;
        if (IsFile(found)) break;
        found.clear();
      }
    }
    closedir(d);
    if (!found.empty()) return found;
  }
  return "";
}

PELOAD_MODULE* Context::ListedByName(const char* name) const {
  for (PELOAD_MODULE* m = process_->modules; m; m = m->next) {
    if (strcasecmp(m->fullName, name) == 0) return m;
  }
  return nullptr;
}

bool Context::Plan(const std::string& path, std::vector<std::string>& order, std::vector<std::string>& visiting,
                   Failure& why) {
  VFileHandle file = open_(path.c_str());
  if (!file) {
    SetText(why, Failed::kNotFound, path + " cannot be opened");
    return false;
  }
  std::vector<uint8_t> bytes;
  std::vector<ImportedDll> imports;
  const bool read = ReadAll(file, bytes);
  close_(file);
  const ByteView view(bytes.data(), uint32_t(bytes.size()));
  if (!read || !ReadFileImports(view, imports)) {
    SetText(why, Failed::kBadImage, path + " is not a PE file whose imports can be read");
    return false;
  }
  // The loader reads every image as PE32; code for another machine would
  // run as garbage.
  uint32_t lfanew = 0;
  PE_IMAGE_NT_HEADERS32 nt{};
  if (!view.Read(pe::kLfanewOffset, lfanew) || !view.Read(lfanew, nt) || nt.FileHeader.Machine != pe::kMachineI386 ||
      nt.OptionalHeader.Magic != pe::kMagicPe32) {
    char detail[64];
    std::snprintf(detail, sizeof detail, " (machine 0x%04x, optional header 0x%03x)", nt.FileHeader.Machine,
                  nt.OptionalHeader.Magic);
    SetText(why, Failed::kBadImage, path + " is not a 32-bit x86 PE file" + detail);
    return false;
  }
  visiting.push_back(path);
  for (const ImportedDll& dll : imports) {
    if (ListedByName(dll.dll.c_str()) || FindServedDll(dll.dll.c_str())) continue;
    // A DLL's own folder comes first, as when Windows loads it by its path.
    const std::string found = FindFile(dll.dll, DirectoryOf(path));
    // A DLL found nowhere becomes a module of stubs when the import is bound;
    // a cycle is broken the same way.
    if (found.empty() || std::find(order.begin(), order.end(), found) != order.end() ||
        std::find(visiting.begin(), visiting.end(), found) != visiting.end()) {
      continue;
    }
    if (!Plan(found, order, visiting, why)) return false;
  }
  visiting.pop_back();
  order.push_back(path);
  return true;
}

void Context::Diagnose(const std::string& path, VFileHandle file, Failure& why) const {
  const std::string name = BaseName(path);
  char exported[PELOAD_NAME_SIZE];
  if (PELOAD_GetDllNameH(file, exported, sizeof exported) != 1) {
    SetText(why, Failed::kBadImage, name + " is not a loadable PE DLL (no PE headers, or no base relocations)");
    return;
  }
  std::vector<uint8_t> bytes;
  std::vector<ImportedDll> imports;
  if (ReadAll(file, bytes)) (void)ReadFileImports(ByteView(bytes.data(), uint32_t(bytes.size())), imports);
  for (const ImportedDll& dll : imports) {
    const PELOAD_MODULE* from = ListedByName(dll.dll.c_str());
    if (!from || from->kind != PELOAD_KIND_PE) continue;
    for (size_t i = 0; i < dll.names.size(); ++i) {
      const char* key = dll.ordinals[i] ? reinterpret_cast<const char*>(uintptr_t(dll.ordinals[i]))
                                        : dll.names[i].c_str();
      if (PELOAD_GetProcAddress(const_cast<PELOAD_MODULE*>(from), key) == 0) {
        SetText(why, Failed::kBadImage, name + " imports " + dll.dll + "!" + dll.names[i] + ", which " +
                                             dll.dll + " does not export");
        return;
      }
    }
  }
  SetText(why, Failed::kBadImage, name + " could not be loaded (its imports could not be bound, its entry "
                                          "point refused, or memory ran out)");
}

PELOAD_MODULE* Context::LoadOne(const std::string& path, bool requested, Failure& why) {
  VFileHandle file = open_(path.c_str());
  if (!file) {
    SetText(why, Failed::kNotFound, path + " cannot be opened");
    return nullptr;
  }
  // The file stays open while the context lives: an image used in place is
  // the virtual file's own memory.
  modules_.push_back(LoadedModule{nullptr, path, file, false});
  const size_t index = modules_.size() - 1;
  LoadCall call{file, process_, nullptr};
  const CallOutcome loaded = RunGuarded(*this, LoadBody, &call);
  if (loaded.end != CallEnd::kReturned) {
    why = GuestFailure(*this, loaded, "while loading " + BaseName(path));
    return nullptr;
  }
  if (!call.entry) {
    Diagnose(path, file, why);
    return nullptr;
  }
  PELOAD_MODULE* entry = call.entry;
  modules_[index].entry = entry;
  if (requested && !main_module_) main_module_ = reinterpret_cast<HMODULE>(uintptr_t(BaseOf(entry)));
  const std::string file_name = BaseName(path);
  if (strcasecmp(file_name.c_str(), entry->fullName) != 0) {
    aliases_.push_back(std::make_unique<Alias>(Alias{file_name, entry}));
  }

  PE_IMAGE_NT_HEADERS32 nt;
  if (!NtHeadersOf(entry, nt)) return entry;
  const bool is_dll = (nt.FileHeader.Characteristics & pe::kFileDll) != 0;
  if (!is_dll || nt.OptionalHeader.AddressOfEntryPoint == 0) return entry;
  if (pe::AsksForEntryPoint(nt)) {
    // The loader ran it already, with the process record as lpReserved.
    modules_[index].attached = true;
    attach_order_.push_back(index);
    return entry;
  }
  // Windows starts a DLL once its imports are bound, whatever its header
  // says; lpReserved is null, as for LoadLibrary.
  const uint32_t args[3] = {BaseOf(entry), kDllProcessAttach, 0};
  const CallOutcome started = CallGuest(*this, BaseOf(entry) + nt.OptionalHeader.AddressOfEntryPoint, args, 3);
  if (started.end != CallEnd::kReturned) {
    why = GuestFailure(*this, started, "in the entry point of " + std::string(entry->fullName));
    return nullptr;
  }
  if (started.eax == 0) {
    SetText(why, Failed::kBadImage, std::string("the entry point of ") + entry->fullName +
                                         " refused DLL_PROCESS_ATTACH");
    return nullptr;
  }
  modules_[index].attached = true;
  attach_order_.push_back(index);
  return entry;
}

PELOAD_MODULE* Context::Load(const std::string& path_or_name, Failure& why) {
  const std::string path = FindFile(path_or_name);
  if (path.empty()) {
    SetText(why, Failed::kNotFound, "no DLL file " + path_or_name +
                                       (path_or_name.find('/') == std::string::npos ? " in the search folders" : ""));
    return nullptr;
  }
  std::vector<std::string> order, visiting;
  if (!Plan(path, order, visiting, why)) return nullptr;
  PELOAD_MODULE* entry = nullptr;
  for (const std::string& p : order) {
    entry = LoadOne(p, p == path, why);
    if (!entry) return nullptr;
  }
  return entry;
}

void Context::DetachAll(Failure& why) {
  // Newest started first: a module is stopped before those it started on.
  bool reported = false;
  while (!attach_order_.empty()) {
    LoadedModule* m = &modules_[attach_order_.back()];
    attach_order_.pop_back();
    PE_IMAGE_NT_HEADERS32 nt;
    if (!m->attached || !NtHeadersOf(m->entry, nt)) continue;
    m->attached = false;
    // Guest code may load more modules, which moves modules_: copy first.
    const PELOAD_MODULE* entry = m->entry;
    const uint32_t base = BaseOf(entry);
    const uint32_t args[3] = {base, kDllProcessDetach, 0};
    const CallOutcome outcome = CallGuest(*this, base + nt.OptionalHeader.AddressOfEntryPoint, args, 3);
    if (outcome.end != CallEnd::kReturned && !reported) {
      why = GuestFailure(*this, outcome, "in the entry point of " + std::string(entry->fullName) + " at detach");
      reported = true;
    }
  }
}

void* Context::AliasFor(const char* name) const {
  for (const auto& alias : aliases_) {
    if (strcasecmp(alias->name.c_str(), name) == 0) return alias.get();
  }
  return nullptr;
}

PELOAD_MODULE* Context::AliasedEntry(const void* handle) const {
  for (const auto& alias : aliases_) {
    if (alias.get() == handle) return alias->entry;
  }
  return nullptr;
}

HMODULE Context::FindModule(const char* name) const {
  if (!name) return main_module_;
  const std::string wanted = WithExtension(BaseName(name));
  for (const PELOAD_MODULE* m = process_->modules; m; m = m->next) {
    if (strcasecmp(m->fullName, wanted.c_str()) != 0) continue;
    return m->kind == PELOAD_KIND_PE ? reinterpret_cast<HMODULE>(uintptr_t(BaseOf(m))) : m->handle;
  }
  for (const auto& alias : aliases_) {
    if (strcasecmp(alias->name.c_str(), wanted.c_str()) == 0) {
      return reinterpret_cast<HMODULE>(uintptr_t(BaseOf(alias->entry)));
    }
  }
  // The system DLLs are always there in a Windows process.
  return const_cast<NativeDll*>(FindServedDll(wanted.c_str()));
}

PELOAD_MODULE* Context::EntryOf(HMODULE module) const {
  if (!module) return nullptr;
  for (PELOAD_MODULE* m = process_->modules; m; m = m->next) {
    if (m->kind == PELOAD_KIND_PE ? BaseOf(m) == AddressOf(module) : m->handle == module) return m;
  }
  return nullptr;
}

HMODULE Context::LoadFromGuest(const char* name) {
  if (!name) return nullptr;
  const std::string wanted = WithExtension(BaseName(name));
  if (const NativeDll* served = FindServedDll(wanted.c_str())) return const_cast<NativeDll*>(served);
  if (PELOAD_MODULE* listed = ListedByName(wanted.c_str())) {
    if (listed->kind == PELOAD_KIND_PE) {
      (void)PELOAD_LoadLibraryEx(listed->fullName, process_, 0);  // one more reference
      return reinterpret_cast<HMODULE>(uintptr_t(BaseOf(listed)));
    }
  }
  if (HMODULE aliased = FindModule(wanted.c_str()); aliased && !IsNativeDll(aliased)) return aliased;
  if (FindFile(wanted).empty()) return nullptr;
  Failure why;
  PELOAD_MODULE* entry = Load(wanted, why);
  return entry ? reinterpret_cast<HMODULE>(uintptr_t(BaseOf(entry))) : nullptr;
}

const PELOAD_MODULE* Context::ModuleAt(uint32_t address) const {
  for (const PELOAD_MODULE* m = process_->modules; m; m = m->next) {
    const PELOAD_IMAGE* image = ImageOf(m);
    if (!image || !image->image) continue;
    const uint32_t base = AddressOf(image->image);
    if (address >= base && address - base < image->size) return m;
  }
  return nullptr;
}

}  // namespace vrk::win32
