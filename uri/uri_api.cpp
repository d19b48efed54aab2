// C boundary of the URI family.
#include "uri/uri_internal.h"
#include "vrk_uri.h"

extern "C" {

URI_Record* URI_Parse(const char* text) noexcept { return vrk::uri::Parse(text); }

void URI_Free(URI_Record* record) noexcept { vrk::uri::FreeRecord(record); }

URI_Record* URI_GetServer(const char* text) noexcept { return vrk::uri::GetServer(text); }

}  // extern "C"
