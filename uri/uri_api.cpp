// C boundary of the URI family.
#include "uri/uri_internal.h"
#include "vrk_uri.h"

extern "C" {

URI_Record* URI_Parse(const char* text) noexcept { return vrk::uri::URI_Parse(text); }

void URI_Free(URI_Record* record) noexcept { vrk::uri::URI_Free(record); }

URI_Record* URI_GetServer(const char* text) noexcept { return vrk::uri::URI_GetServer(text); }

}  // extern "C"
