// The module loader. A PE load is a fixed pipeline of stages over one load
// context; the first stage that fails sends the half-built image record to
// the one teardown, FreeImage, which copes with every stage of completion.
#include "pe/loader.h"

#include <strings.h>

#include <cstring>

#include "pe/image_reader.h"
#include "vrkalloc.h"

namespace vrk::pe {
namespace {

constexpr uint32_t kOrdinalFlag = 0x80000000;
constexpr uint32_t kMaxOrdinal = 0xFFFF;
constexpr uint32_t kEmptySlot = 0xFFFFFFFF;

// Keys of GetProcAddress: a pointer value above 0xFFFF is a name.
bool IsNameKey(const char* key) { return reinterpret_cast<uintptr_t>(key) > kMaxOrdinal; }

struct LoadContext {
  VFileHandle handle;
  MODLOAD_PROCESS* process;
  PELOAD_IMAGE* record;
  ImageSpan image;
};

// Headers and sections into memory; the name is taken at once so that it is
// set however far the load gets.
Status StageRead(LoadContext& c) {
  c.image = ReadImage(c.handle, c.record->inPlace);
  c.record->image = c.image.base();
  c.record->size = c.image.size();
  GetImageName(c.image, c.record->name, PELOAD_NAME_SIZE);
  return c.image ? Status::kOk : Status::kBadInput;
}

// Fix absolute addresses for the base the block happens to have.
Status StageRelocate(LoadContext& c) {
  (void)ApplyRelocations(c.image);
  return Status::kOk;
}

// Every import must resolve; a module with a hole in its address table
// would crash at the first call through it.
Status StageBind(LoadContext& c) { return BindImports(c.image, c.process); }

// The export list, built through a temporary slot table.
Status StageExports(LoadContext& c) {
  ExportSlot* slots = BuildExportTable(c.image);
  if (!slots) return Status::kNoMemory;
  AddExports(slots, &c.record->exports);
  Pfree(slots);
  return Status::kOk;
}

// Last, once the module is complete: its entry point may refuse the load.
Status StageStart(LoadContext& c) {
  return CallEntryPoint(c.image, c.process) != 0 ? Status::kOk : Status::kBadInput;
}

using Stage = Status (*)(LoadContext&);
constexpr Stage kLoadStages[] = {StageRead, StageRelocate, StageBind, StageExports, StageStart};

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

}  // namespace

PELOAD_IMAGE* LoadImageModule(VFileHandle handle, MODLOAD_PROCESS* process) {
  if (!handle || !process) return nullptr;
  auto* record = static_cast<PELOAD_IMAGE*>(Pcalloc(1, sizeof(PELOAD_IMAGE), 0));
  if (!record) return nullptr;
  LoadContext context{handle, process, record, {}};
  for (Stage stage : kLoadStages) {
    if (stage(context) != Status::kOk) {
      // The one teardown: the block (unless in place), whatever exports
      // exist, the record. References that binding took stay with the
      // modules that hold them.
      FreeImage(record);
      return nullptr;
    }
  }
  return record;
}

Status BindImports(const ImageSpan& image, MODLOAD_PROCESS* process) {
  PE_IMAGE_NT_HEADERS32 nt;
  if (!image || !image.NtHeaders(nt)) return Status::kBadInput;
  const uint32_t dir = nt.OptionalHeader.DataDirectory[PE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
  if (dir == 0) return Status::kOk;
  // Descriptors, thunks and names that lie outside the image fail the
  // binding: cutting an import short would leave unbound slots behind.
  for (uint64_t d = dir;; d += sizeof(PE_IMAGE_IMPORT_DESCRIPTOR)) {
    PE_IMAGE_IMPORT_DESCRIPTOR desc;
    if (d > UINT32_MAX || !image.Read(uint32_t(d), desc)) return Status::kBadInput;
    if (desc.FirstThunk == 0) return Status::kOk;
    const char* dll = image.String(desc.Name);
    if (!dll) return Status::kBadInput;
    PELOAD_MODULE* module = LoadLibraryEx(dll, process, 0);
    if (!module) return Status::kNotFound;
    const uint32_t lookup = desc.OriginalFirstThunk != 0 ? desc.OriginalFirstThunk : desc.FirstThunk;
    for (uint64_t k = 0;; ++k) {
      const uint64_t thunk_rva = lookup + 4 * k;
      const uint64_t slot_rva = desc.FirstThunk + 4 * k;
      uint32_t thunk = 0;
      if (thunk_rva > UINT32_MAX || !image.Read(uint32_t(thunk_rva), thunk)) return Status::kBadInput;
      if (thunk == 0) break;
      const char* key = nullptr;
      if (thunk & kOrdinalFlag) {
        // An ordinal above 0xFFFF would be taken for a name pointer.
        const uint32_t ordinal = thunk & ~kOrdinalFlag;
        if (ordinal > kMaxOrdinal) return Status::kBadInput;
        key = reinterpret_cast<const char*>(uintptr_t(ordinal));
      } else {
        // Past the two-byte hint, which is not used.
        if (thunk > UINT32_MAX - 2 || !(key = image.String(thunk + 2))) return Status::kBadInput;
      }
      if (slot_rva > UINT32_MAX || !image.Has(uint32_t(slot_rva), 4)) return Status::kBadInput;
      const uint32_t address = GetProcAddress(module, key);
      if (address == 0) return Status::kNotFound;
      (void)image.Write(uint32_t(slot_rva), address);
    }
  }
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

PELOAD_MODULE* LoadLibraryEx(const void* name_or_handle, MODLOAD_PROCESS* process, uint32_t flags) {
  if (!process) return nullptr;
  // A PE module is not looked for first: loading one file twice gives two
  // entries with two images.
  if (flags != 0) return LoadPeModule(const_cast<void*>(name_or_handle), process);
  return LoadByName(static_cast<const char*>(name_or_handle), process);
}

uint32_t GetProcAddress(PELOAD_MODULE* module, const char* key) {
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

int FreeLibrary(PELOAD_MODULE* module) {
  if (!module || module->refcount < 1) return 1;
  if (--module->refcount == 0 && module->kind == PELOAD_KIND_NATIVE) {
    // The handle is gone, so the entry goes too: a later load by this name
    // asks the load callback again, and teardown cannot free it twice.
    module->owner->free(module->handle);
    Unlink(module);
    Pfree(module);
  }
  return 1;
}

int GetDllNameH(VFileHandle handle, char* dst, uint32_t len) {
  if (!handle) return 0;
  int in_place = 0;
  const ImageSpan image = ReadImage(handle, in_place);
  if (!image) return 0;
  const int result = GetImageName(image, dst, len);
  if (!in_place) PfreeX(image.base());
  return result;
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
