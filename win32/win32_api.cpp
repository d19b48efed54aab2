// The C interface of libVrkwin32: argument checks, then one call inside.
#include <cstdio>
#include <new>

#include "win32/context.h"
#include "win32/natives.h"
#include "win32/pe_imports.h"
#include "vrk_win32.h"

using vrk::win32::Context;

struct VRKW32_CONTEXT {
  Context context;
};

namespace {

void Clear(VRKW32_RESULT* result) {
  if (result) *result = VRKW32_RESULT{};
}

int StatusOf(vrk::win32::CallEnd end) {
  using vrk::win32::CallEnd;
  switch (end) {
    case CallEnd::kReturned: return VRKW32_OK;
    case CallEnd::kNotImplemented: return VRKW32_NOT_IMPLEMENTED;
    case CallEnd::kFault: return VRKW32_FAULT;
    case CallEnd::kExited: return VRKW32_EXITED;
    case CallEnd::kNoSegment: return VRKW32_NO_SEGMENT;
    case CallEnd::kWrongContext: return VRKW32_BAD_CALL;
  }
  return VRKW32_BAD_CALL;
}

// The documented code and text of an internal failure.
int Report(const vrk::win32::Failure& failure, VRKW32_RESULT* result) {
  using vrk::win32::Failed;
  int status = VRKW32_OK;
  switch (failure.what) {
    case Failed::kNothing: status = VRKW32_OK; break;
    case Failed::kNotFound: status = VRKW32_NOT_FOUND; break;
    case Failed::kBadImage: status = VRKW32_LOAD_FAILED; break;
    case Failed::kGuest: status = StatusOf(failure.outcome.end); break;
  }
  if (result) {
    result->status = status;
    result->exitCode = failure.outcome.exit_code;
    std::snprintf(result->text, sizeof result->text, "%s", failure.text.c_str());
  }
  return status;
}

int BadCall(VRKW32_RESULT* result, const char* text) {
  if (result) {
    result->status = VRKW32_BAD_CALL;
    std::snprintf(result->text, sizeof result->text, "%s", text);
  }
  return VRKW32_BAD_CALL;
}

}  // namespace

extern "C" {

void* VRKW32_LoadNative(const char* name, uint32_t, uint32_t) noexcept {
  if (!name) return nullptr;
  if (const auto* served = vrk::win32::FindServedDll(name)) return const_cast<vrk::win32::NativeDll*>(served);
  // During a load through a context, a PE module under another name.
  if (const Context* context = vrk::win32::CurrentContext()) {
    if (void* alias = context->AliasFor(name)) return alias;
  }
  return const_cast<vrk::win32::NativeDll*>(vrk::win32::StubOnlyDll(name));
}

void VRKW32_FreeNative(void*) noexcept {}

uint32_t VRKW32_GetProcNative(void* handle, const char* key) noexcept {
  if (!handle || !key) return 0;
  if (vrk::win32::IsNativeDll(handle)) {
    return vrk::win32::BindImport(*static_cast<const vrk::win32::NativeDll*>(handle), key);
  }
  if (const Context* context = vrk::win32::CurrentContext()) {
    if (PELOAD_MODULE* entry = context->AliasedEntry(handle)) return PELOAD_GetProcAddress(entry, key);
  }
  return 0;
}

VRKW32_CONTEXT* VRKW32_CreateContext(MODLOAD_PROCESS* process, VRKW32_OPEN_FN open, VRKW32_CLOSE_FN close) noexcept {
  if (!process || !open || !close) return nullptr;
  auto* context = new (std::nothrow) VRKW32_CONTEXT{Context(process, open, close)};
  if (context && !context->context.ok()) {
    delete context;
    return nullptr;
  }
  return context;
}

int VRKW32_AddSearchDir(VRKW32_CONTEXT* context, const char* dir) noexcept {
  if (!context || !dir) return 0;
  context->context.AddSearchDir(dir);
  return 1;
}

PELOAD_MODULE* VRKW32_LoadLibrary(VRKW32_CONTEXT* context, const char* path, VRKW32_RESULT* result) noexcept {
  Clear(result);
  if (!context || !path) {
    BadCall(result, "no context or no DLL name");
    return nullptr;
  }
  vrk::win32::Failure failure;
  PELOAD_MODULE* module = context->context.Load(path, failure);
  if (!module) (void)Report(failure, result);
  return module;
}

int VRKW32_Call(VRKW32_CONTEXT* context, uint32_t address, const uint32_t* args, uint32_t count,
                VRKW32_RESULT* result) noexcept {
  Clear(result);
  if (!context || address == 0 || (count > 0 && !args) || count > 1024) {
    return BadCall(result, "no context, no function, or bad arguments");
  }
  const vrk::win32::CallOutcome outcome = vrk::win32::CallGuest(context->context, address, args, count);
  if (outcome.end != vrk::win32::CallEnd::kReturned) {
    return Report(vrk::win32::GuestFailure(context->context, outcome, ""), result);
  }
  if (result) {
    result->value = outcome.eax;
    result->high = outcome.edx;
    result->popped = outcome.popped;
  }
  return VRKW32_OK;
}

void VRKW32_DestroyContext(VRKW32_CONTEXT* context, VRKW32_RESULT* result) noexcept {
  Clear(result);
  if (!context) return;
  Context& c = context->context;
  vrk::win32::Failure failure;
  const vrk::win32::CallOutcome outcome =
      vrk::win32::RunGuarded(c, [](void* arg) { static_cast<Context*>(arg)->RunAtExit(); }, &c);
  if (outcome.end != vrk::win32::CallEnd::kReturned) {
    failure = vrk::win32::GuestFailure(c, outcome, "in an atexit function");
  }
  vrk::win32::Failure detach;
  c.DetachAll(detach);
  (void)Report(failure.what != vrk::win32::Failed::kNothing ? failure : detach, result);
  delete context;
}

int VRKW32_IsImplemented(const char* dll, const char* name) noexcept {
  const vrk::win32::NativeDll* native = vrk::win32::FindServedDll(dll);
  return native && name && vrk::win32::ImplementedExport(*native, name) != 0 ? 1 : 0;
}

int VRKW32_ListImports(VRKW32_CONTEXT* context, VRKW32_IMPORT_FN fn, void* user) noexcept {
  if (!context || !fn) return 0;
  int listed = 0;
  for (const vrk::win32::LoadedModule& m : context->context.modules()) {
    if (!m.entry) continue;
    const auto* image = static_cast<const PELOAD_IMAGE*>(m.entry->handle);
    std::vector<vrk::win32::ImportedDll> imports;
    (void)vrk::win32::ReadImageImports(image->image, image->size, imports);
    ++listed;
    for (const vrk::win32::ImportedDll& dll : imports) {
      const vrk::win32::NativeDll* native = vrk::win32::FindServedDll(dll.dll.c_str());
      const vrk::win32::HMODULE found = context->context.FindModule(dll.dll.c_str());
      const bool is_pe = !native && found && !vrk::win32::IsNativeDll(found);
      for (const std::string& name : dll.names) {
        int kind = VRKW32_IMPORT_STUB;
        if (is_pe) {
          kind = VRKW32_IMPORT_PE;
        } else if (native && vrk::win32::ImplementedExport(*native, name.c_str())) {
          kind = VRKW32_IMPORT_IMPLEMENTED;
        }
        fn(user, m.entry->fullName, dll.dll.c_str(), name.c_str(), kind);
      }
    }
  }
  return listed;
}

}  // extern "C"
