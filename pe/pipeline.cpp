// A PE load is a fixed pipeline of stages over one load context; the first
// stage that fails sends the half-built image record to the teardown below
// it, which copes with every stage of completion.
#include "pe/pipeline.h"

#include "pe/image.h"
#include "pe/loader.h"
#include "vrkalloc.h"

namespace vrk::pe {
namespace {

struct LoadContext {
  VFileHandle handle;
  MODLOAD_PROCESS* process;
  PELOAD_IMAGE* record;
  ImageSpan image;
};

// Headers and sections into memory; the name is taken at once so that it is
// set however far the load gets.
LoadStatus StageRead(LoadContext& c) {
  const LoadStatus status = ReadImage(c.handle, c.record->inPlace, c.image);
  c.record->image = c.image.base();
  c.record->size = c.image.size();
  GetImageName(c.image, c.record->name, PELOAD_NAME_SIZE);
  return status;
}

// Fix absolute addresses for the base the block happens to have.
LoadStatus StageRelocate(LoadContext& c) {
  ApplyRelocations(c.image);
  return LoadStatus::kOk;
}

// Every import must resolve; a module with a hole in its address table
// would crash at the first call through it.
LoadStatus StageBind(LoadContext& c) { return BindImports(c.image, c.process); }

// The export list, built through a temporary slot table.
LoadStatus StageExports(LoadContext& c) {
  const Block<ExportSlot> slots = BuildExportTable(c.image);
  if (!slots) return LoadStatus::kNoMemory;
  AddExports(slots.get(), &c.record->exports);
  return LoadStatus::kOk;
}

// Last, once the module is complete: its entry point may refuse the load.
LoadStatus StageStart(LoadContext& c) { return CallEntryPoint(c.image, c.process); }

using Stage = LoadStatus (*)(LoadContext&);
constexpr Stage kLoadStages[] = {StageRead, StageRelocate, StageBind, StageExports, StageStart};

}  // namespace

PELOAD_IMAGE* LoadImageModule(VFileHandle handle, MODLOAD_PROCESS* process) {
  if (!handle || !process) return nullptr;
  auto* record = static_cast<PELOAD_IMAGE*>(Pcalloc(1, sizeof(PELOAD_IMAGE), 0));
  if (!record) return nullptr;
  LoadContext context{handle, process, record, {}};
  for (Stage stage : kLoadStages) {
    if (stage(context) != LoadStatus::kOk) {
      FreeImage(record);
      return nullptr;
    }
  }
  return record;
}

void FreeImage(PELOAD_IMAGE* record) {
  if (!record) return;
  if (record->inPlace != 1 && record->image) PfreeX(record->image);
  FreeExports(record->exports);
  Pfree(record);
}

}  // namespace vrk::pe
