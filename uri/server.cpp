// Server extraction: the scheme and authority of a URI, nothing after them.
#include "uri/uri_internal.h"
#include "vrkalloc.h"

namespace vrk::uri {

URI_Record* URI_GetServer(const char* text) {
  if (!text) return nullptr;
  URI_Record* record = URI_NewRecord();
  if (!record) return nullptr;
  if (*text == '\0') return record;

  const char* cursor = text;
  if (URI_ScanScheme(record, &cursor) != code::kOk) {
    uri::URI_Free(record);
    return nullptr;
  }
  if (*cursor == ':') {
    // scheme ":" "//" authority; anything else after the ":" names no server.
    const char* p = cursor + 1;
    if (!((p[0] == '/' && p[1] == '/') || (p[0] == '\\' && p[1] == '\\'))) {
      uri::URI_Free(record);
      return nullptr;
    }
    p += 2;
    if (URI_ScanAuthority(record, &p) != code::kOk) {
      uri::URI_Free(record);
      return nullptr;
    }
    return record;
  }

  // What looked like a scheme was the start of a name: read the whole text
  // again behind "http://". The prefixed text has a scheme, so this recurses
  // once only.
  URI_ClearRecord(record);
  uri::URI_Free(record);
  char* prefixed = WithDefaultPrefix(text);
  if (!prefixed) return nullptr;
  URI_Record* result = uri::URI_GetServer(prefixed);
  if (result) {
    const char* name = result->host ? result->host : result->reg_name;
    if (name && !HasInnerDot(name)) {
      uri::URI_Free(result);
      result = nullptr;
    }
  }
  Pfree(prefixed);
  return result;
}

}  // namespace vrk::uri
