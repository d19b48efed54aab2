// URI references: the grammar above the component scanners, and URI_Parse
// with its second reading behind the default "http://" prefix.
#include "uri/char_class.h"
#include "uri/uri_internal.h"
#include "vrkalloc.h"

namespace vrk::uri {

namespace {

bool StartsWithTwo(const char* p, char c) { return p[0] == c && p[1] == c; }

// [ "?" query ]: a query that cannot be kept is left absent, never a failure.
void ScanOptionalQuery(URI_Record* record, const char** p) {
  if (**p != '?') return;
  ++*p;
  (void)ScanQuery(record, p);
}

// The rest of an abs_path once its slash is read: path_segments
Scan ScanAbsPathRest(URI_Record* record, const char** p) {
  ++*p;
  return ScanPathSegments(record, p);
}

}  // namespace

uint32_t NoBreakSpaceLength(const char* position) {
  const auto* p = reinterpret_cast<const uint8_t*>(position);
  if (p[0] == 0xC2 && p[1] == 0xA0) return 2;                 // U+00A0 NO-BREAK SPACE
  if (p[0] == 0xE2 && p[1] == 0x80 && p[2] == 0xAF) return 3;  // U+202F NARROW NO-BREAK SPACE
  if (p[0] == 0xEF && p[1] == 0xBB && p[2] == 0xBF) return 3;  // U+FEFF ZERO WIDTH NO-BREAK SPACE
  return 0;
}

// absoluteURI = scheme ":" ( hier_part | opaque_part )
Scan ParseAbsolute(URI_Record* record, const char** cursor) {
  const char* p = *cursor;
  if (Scan rc = ScanScheme(record, &p); rc != Scan::kOk) return rc;
  if (*p != ':') return Scan::kNotAbsolute;
  ++p;
  const Scan rc = (*p == '/' || *p == '\\') ? ParseHierPart(record, &p) : ScanOpaquePart(record, &p);
  if (rc == Scan::kOk) *cursor = p;
  return rc;
}

// hier_part = ( net_path | abs_path ) [ "?" query ]
// net_path  = "//" authority [ abs_path ]
// abs_path  = "/" path_segments
// Two backslashes stand for "//" here, as senders on Windows write them; a
// backslash after the authority is not taken as the start of a path.
Scan ParseHierPart(URI_Record* record, const char** cursor) {
  const char* p = *cursor;
  Scan rc = Scan::kOk;
  if (StartsWithTwo(p, '/') || StartsWithTwo(p, '\\')) {
    p += 2;
    if (Scan auth = ScanAuthority(record, &p); auth != Scan::kOk) return auth;
    if (*p == '/') rc = ScanAbsPathRest(record, &p);
  } else if (*p == '/') {
    rc = ScanAbsPathRest(record, &p);
  } else {
    return Scan::kLoneBackslash;
  }
  if (rc != Scan::kOk) return rc;
  ScanOptionalQuery(record, &p);
  *cursor = p;
  return Scan::kOk;
}

// relativeURI = ( net_path | abs_path | rel_path ) [ "?" query ]
// rel_path    = rel_segment [ abs_path ]
// Only "//" starts a network path here; a reference that is only a query or
// a fragment has no path at all. Like the productions above, the cursor
// moves only when the whole production matched.
Scan ParseRelative(URI_Record* record, const char** cursor) {
  const char* p = *cursor;
  Scan rc = Scan::kOk;
  if (StartsWithTwo(p, '/')) {
    p += 2;
    if (Scan auth = ScanAuthority(record, &p); auth != Scan::kOk) return auth;
    if (*p == '/') rc = ScanAbsPathRest(record, &p);
  } else if (*p == '/') {
    rc = ScanAbsPathRest(record, &p);
  } else if (*p != '#' && *p != '?') {
    if (Scan seg = ScanRelSegment(record, &p); seg != Scan::kOk) return seg;
    if (*p == '/') rc = ScanAbsPathRest(record, &p);
  }
  if (rc != Scan::kOk) return Scan::kFailed;
  ScanOptionalQuery(record, &p);
  *cursor = p;
  return Scan::kOk;
}

// URI-reference = [ absoluteURI | relativeURI ] [ "#" fragment ]
// followed only by white space. The absolute reading wins whenever it
// matches, even if the text then fails on what follows it.
Scan ParseReference(URI_Record* record, const char* text) {
  if (!text) return Scan::kFailed;
  ClearRecord(record);
  const char* cursor = text;
  if (ParseAbsolute(record, &cursor) != Scan::kOk) {
    ClearRecord(record);
    cursor = text;
    if (Scan rc = ParseRelative(record, &cursor); rc != Scan::kOk) {
      ClearRecord(record);
      return rc;
    }
  }
  if (*cursor == '#') {
    ++cursor;
    (void)ScanFragment(record, &cursor);
  }
  // References copied out of documents and mail often carry trailing blanks,
  // line ends or no-break spaces; nothing else may follow.
  for (;;) {
    const char c = *cursor;
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      ++cursor;
    } else if (uint32_t n = NoBreakSpaceLength(cursor)) {
      cursor += n;
    } else if (c == '\0') {
      return Scan::kOk;
    } else {
      ClearRecord(record);
      return Scan::kNotAbsolute;
    }
  }
}

URI_Record* Parse(const char* text) {
  if (!text) return nullptr;
  URI_Record* record = NewRecord();
  if (!record) return nullptr;
  if (*text == '\0') return record;
  if (ParseReference(record, text) != Scan::kOk) {
    uri::FreeRecord(record);
    return nullptr;
  }
  if (record->scheme) return record;

  // No scheme: read the text again as "http://" + text, so that a bare
  // "host.example/a" names a web server. Without the room for that copy the
  // first reading stands.
  char* prefixed = WithDefaultPrefix(text);
  if (!prefixed) return record;
  if (ParseReference(record, prefixed) != Scan::kOk) {
    uri::FreeRecord(record);
    record = nullptr;
  } else if (record->host && !HasInnerDot(record->host)) {
    // Only a dotted host makes the guess credible: "localhost/a" or a single
    // word was most likely not meant as a server.
    uri::FreeRecord(record);
    record = nullptr;
  }
  Pfree(prefixed);
  return record;
}

}  // namespace vrk::uri
