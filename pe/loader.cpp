// The module loader: the process's list of PE and native modules, lookups by
// name and ordinal, and the binding of a PE module's imports against them.
#include "pe/loader.h"

#include <strings.h>

#include <cstring>

#include "pe/image.h"
#include "pe/pipeline.h"
#include "pe/walk.h"
#include "vrkalloc.h"

namespace vrk::pe {
namespace {

// Keys of FindProc: a pointer value above 0xFFFF is a name.
bool IsNameKey(const char* key) { return reinterpret_cast<uintptr_t>(key) > kMaxOrdinal; }

// Unlinks `module` from its owner's list.
void Unlink(PELOAD_MODULE* module) {
  for (PELOAD_MODULE** link = &module->owner->modules; *link; link = &(*link)->next) {
    if (*link == module) {
      *link = module->next;
      return;
    }
  }
}

PELOAD_MODULE* LoadPeModule(VFileHandle handle, MODLOAD_PROCESS* process) {
  PELOAD_IMAGE* record = LoadImageModule(handle, process);
  if (!record) return nullptr;
  PELOAD_MODULE* entry = NewModuleEntry(&process->modules, record->name);
  if (!entry) {
    FreeImage(record);
    return nullptr;
  }
  entry->handle = record;
  entry->owner = process;
  entry->kind = PELOAD_KIND_PE;
  return entry;
}

PELOAD_MODULE* LoadByName(const char* name, MODLOAD_PROCESS* process) {
  if (!name) return nullptr;
  // Whole names, case ignored, nothing stripped or added: "a.dll" is not
  // "dir/a.dll" nor "a".
  for (PELOAD_MODULE* m = process->modules; m; m = m->next) {
    if (strcasecmp(m->fullName, name) == 0) {
      ++m->refcount;
      return m;
    }
  }
  if (!process->load) return nullptr;
  void* native = process->load(name, 0, 0);
  if (!native) return nullptr;
  PELOAD_MODULE* entry = NewModuleEntry(&process->modules, name);
  if (!entry) {
    process->free(native);
    return nullptr;
  }
  entry->handle = native;
  entry->owner = process;
  entry->kind = PELOAD_KIND_NATIVE;
  return entry;
}

void ReleaseEntry(PELOAD_MODULE* entry) {
  if (entry->kind == PELOAD_KIND_NATIVE) {
    entry->owner->free(entry->handle);
  } else {
    FreeImage(static_cast<PELOAD_IMAGE*>(entry->handle));
  }
  Pfree(entry);
}

// Binding against the process: each imported DLL by name (loading it when
// missing), each import by name or ordinal, its address into the slot.
class Binder {
 public:
  Binder(const ImageSpan& image, MODLOAD_PROCESS* process) : image_(image), process_(process) {}

  LoadStatus Module(const char* dll) {
    module_ = LoadModule(dll, process_, 0);
    return module_ ? LoadStatus::kOk : LoadStatus::kModuleNotFound;
  }

  LoadStatus Entry(const ImportEntry& entry) {
    const char* key = entry.name ? entry.name : reinterpret_cast<const char*>(uintptr_t(entry.ordinal));
    const uint32_t address = FindProc(module_, key);
    if (address == 0) return LoadStatus::kProcNotFound;
    (void)image_.Write(entry.slot, address);
    return LoadStatus::kOk;
  }

 private:
  const ImageSpan& image_;
  MODLOAD_PROCESS* process_;
  PELOAD_MODULE* module_ = nullptr;
};

}  // namespace

LoadStatus BindImports(const ImageSpan& image, MODLOAD_PROCESS* process) {
  PE_IMAGE_NT_HEADERS32 nt;
  if (!image || !image.NtHeaders(nt)) return LoadStatus::kImageTooSmall;
  Binder binder(image, process);
  return WalkImports(image, nt, binder);
}

PELOAD_MODULE* NewModuleEntry(PELOAD_MODULE** head, const char* name) {
  // The whole name lives in the entry's own block, right after the record;
  // the fixed field keeps a prefix for display.
  const size_t length = std::strlen(name);
  if (length > UINT32_MAX - sizeof(PELOAD_MODULE) - 1) return nullptr;
  auto* entry = static_cast<PELOAD_MODULE*>(Pcalloc(1, uint32_t(sizeof(PELOAD_MODULE) + length + 1), 0));
  if (!entry) return nullptr;
  char* whole = reinterpret_cast<char*>(entry + 1);
  std::memcpy(whole, name, length);
  std::memcpy(entry->name, name, length < PELOAD_SHORT_NAME_SIZE ? length : PELOAD_SHORT_NAME_SIZE - 1);
  entry->fullName = whole;
  entry->refcount = 1;
  entry->next = *head;
  *head = entry;
  return entry;
}

PELOAD_MODULE* LoadModule(const void* name_or_handle, MODLOAD_PROCESS* process, uint32_t flags) {
  if (!process) return nullptr;
  // A PE module is not looked for first: loading one file twice gives two
  // entries with two images.
  if (flags != 0) return LoadPeModule(const_cast<void*>(name_or_handle), process);
  return LoadByName(static_cast<const char*>(name_or_handle), process);
}

uint32_t FindProc(PELOAD_MODULE* module, const char* key) {
  if (!module || !key) return 0;
  if (module->kind == PELOAD_KIND_NATIVE) return module->owner->getProc(module->handle, key);
  const auto* record = static_cast<const PELOAD_IMAGE*>(module->handle);
  const bool by_name = IsNameKey(key);
  const uint32_t ordinal = uint32_t(reinterpret_cast<uintptr_t>(key));
  // The list runs from the highest function index down, so the first match
  // is the highest-numbered export of that name or ordinal. Nameless nodes
  // and empty slots never match a name.
  for (const PELOAD_EXPORT* e = record->exports; e; e = e->next) {
    if (by_name) {
      if (e->name && e->address != kEmptySlot && strcasecmp(e->name, key) == 0) return e->address;
    } else if (e->ordinal == ordinal) {
      return e->address;
    }
  }
  return 0;
}

void ReleaseModule(PELOAD_MODULE* module) {
  if (!module || module->refcount < 1) return;
  if (--module->refcount == 0 && module->kind == PELOAD_KIND_NATIVE) {
    // The handle is gone, so the entry goes too: a later load by this name
    // asks the load callback again, and teardown cannot free it twice.
    module->owner->free(module->handle);
    Unlink(module);
    Pfree(module);
  }
}

LoadStatus ReadDllName(VFileHandle handle, char* dst, uint32_t len) {
  if (!handle) return LoadStatus::kIoError;
  int in_place = 0;
  ImageSpan image;
  if (const LoadStatus s = ReadImage(handle, in_place, image); s != LoadStatus::kOk) return s;
  GetImageName(image, dst, len);
  if (!in_place) PfreeX(image.base());
  return LoadStatus::kOk;
}

void FreeModuleChain(PELOAD_MODULE* first) {
  // Reverse the list in place, then release from its old tail: the oldest
  // module first, without recursion as deep as the list is long.
  PELOAD_MODULE* oldest_first = nullptr;
  while (first) {
    PELOAD_MODULE* next = first->next;
    first->next = oldest_first;
    oldest_first = first;
    first = next;
  }
  while (oldest_first) {
    PELOAD_MODULE* next = oldest_first->next;
    ReleaseEntry(oldest_first);
    oldest_first = next;
  }
}

}  // namespace vrk::pe
