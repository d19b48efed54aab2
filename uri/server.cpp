// Server extraction: the scheme and authority of a URI, nothing after them.
#include "uri/uri_internal.h"
#include "vrkalloc.h"

namespace vrk::uri {

URI_Record* GetServer(const char* text) {
  if (!text) return nullptr;
  URI_Record* record = NewRecord();
  if (!record) return nullptr;
  if (*text == '\0') return record;

  const char* cursor = text;
  if (ScanScheme(record, &cursor) != Scan::kOk) {
    uri::FreeRecord(record);
    return nullptr;
  }
  if (*cursor == ':') {
    // scheme ":" "//" authority; anything else after the ":" names no server.
    const char* p = cursor + 1;
    if (!((p[0] == '/' && p[1] == '/') || (p[0] == '\\' && p[1] == '\\'))) {
      uri::FreeRecord(record);
      return nullptr;
    }
    p += 2;
    if (ScanAuthority(record, &p) != Scan::kOk) {
      uri::FreeRecord(record);
      return nullptr;
    }
    return record;
  }

  // What looked like a scheme was the start of a name: read the whole text
  // again behind "http://". The prefixed text has a scheme, so this recurses
  // once only.
  ClearRecord(record);
  uri::FreeRecord(record);
  char* prefixed = WithDefaultPrefix(text);
  if (!prefixed) return nullptr;
  URI_Record* result = uri::GetServer(prefixed);
  if (result) {
    const char* name = result->host ? result->host : result->reg_name;
    if (name && !HasInnerDot(name)) {
      uri::FreeRecord(result);
      result = nullptr;
    }
  }
  Pfree(prefixed);
  return result;
}

}  // namespace vrk::uri
