// Scanners of the simple URI components: one function per production, each
// storing the decoded component in its field of the record.
#include <cstring>

#include "uri/char_class.h"
#include "uri/uri_internal.h"
#include "vrkalloc.h"

namespace vrk::uri {

namespace {

// The common shape of a simple component: an optional required first unit
// from `first`, then any number of units from `rest`. On a match the decoded
// span replaces `field` and the cursor moves past it; otherwise nothing
// changes and `mismatch` is returned.
Scan ScanComponent(const char** cursor, char*& field, const CharSet& first, const CharSet& rest, bool required,
                  Scan mismatch) {
  if (!cursor || !*cursor) return Scan::kFailed;
  const char* const begin = *cursor;
  const char* p = begin;
  if (required) {
    const uint32_t n = UnitIn(p, first);
    if (n == 0) return mismatch;
    p += n;
  }
  p = SkipUnits(p, rest);
  StoreText(field, begin, p);
  *cursor = p;
  return Scan::kOk;
}

}  // namespace

// scheme = alpha *( alpha | digit | "+" | "-" | "." )
// The ":" after it is the caller's to test and consume.
Scan ScanScheme(URI_Record* record, const char** cursor) {
  return ScanComponent(cursor, record->scheme, kAlpha, kSchemeRest, true, Scan::kBadScheme);
}

// opaque_part = uric_no_slash *uric
Scan ScanOpaquePart(URI_Record* record, const char** cursor) {
  return ScanComponent(cursor, record->opaque, kUricNoSlash, kUric, true, Scan::kNoMatch);
}

// rel_segment = 1*( unreserved | escaped | ";" | "@" | "&" | "=" | "+" | "$" | "," )
// It starts the path of a relative reference, so it replaces any path.
Scan ScanRelSegment(URI_Record* record, const char** cursor) {
  return ScanComponent(cursor, record->path, kRelSegment, kRelSegment, true, Scan::kNoMatch);
}

// query = *uric
Scan ScanQuery(URI_Record* record, const char** cursor) {
  return ScanComponent(cursor, record->query, kUric, kUric, false, Scan::kOk);
}

// fragment = *( uric | unwise )
// Wider than the query: brackets, braces and backslashes stay in a fragment.
Scan ScanFragment(URI_Record* record, const char** cursor) {
  return ScanComponent(cursor, record->fragment, kFragment, kFragment, false, Scan::kOk);
}

// path_segments = segment *( "/" segment )
// segment       = *pchar *( ";" param )
// param         = *pchar
// Read after a "/" the caller consumed; the backslash separates segments
// too and is kept as written. The new path is the old one, "/" and the
// decoded span, built in a fresh block of exactly that size.
Scan ScanPathSegments(URI_Record* record, const char** cursor) {
  if (!cursor || !*cursor) return Scan::kFailed;
  const char* const begin = *cursor;
  const char* const end = SkipUnits(begin, kPathSegments);
  const uint32_t span = uint32_t(end - begin);
  const uint32_t old_length = record->path ? uint32_t(std::strlen(record->path)) : 0;
  auto* grown = static_cast<char*>(Pmalloc(old_length + 1 + span + 1, 0));
  if (!grown) {
    *cursor = end;
    return Scan::kFailed;
  }
  if (old_length) std::memcpy(grown, record->path, old_length);
  grown[old_length] = '/';
  if (span) {
    Unescape(begin, int32_t(span), grown + old_length + 1);
  } else {
    grown[old_length + 1] = '\0';
  }
  if (record->path) Pfree(record->path);
  record->path = grown;
  *cursor = end;
  return Scan::kOk;
}

}  // namespace vrk::uri
