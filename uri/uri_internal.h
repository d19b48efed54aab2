// Internal interface of the URI family: result codes, record handling, the
// decoder and the scanners of each production. Internal, may change; only
// uri_api.cpp turns it into the exported functions.
#pragma once

#include <cstdint>

#include "vrk_uri.h"

namespace vrk::uri {

// Results of the scanners and parsing routines. They never leave the
// library: the exported functions report every failure as a null record.
// Each value other than kOk names why a production did not match.
enum class [[nodiscard]] Scan : uint8_t {
  kOk,
  kFailed,         // no cursor, or a path block was refused
  kNotAbsolute,    // a scheme without ":", or trailing text
  kBadScheme,      // the text does not begin with a letter
  kNoMatch,        // first unit of a component does not fit
  kLoneBackslash,  // "scheme:\" with a single backslash
  kBadAuthority,   // neither a server nor a registry name
  // The server scanner's reasons:
  kHostDot,        // host begins with ".", or "." where digits belong
  kHostStart,      // no letter, digit or escape where a name begins
  kDashAfterDot,
  kDotAfterDash,
  kDoubleDot,
  kTopLabel,       // top label does not begin with a letter
};

// ---- Record (record.cpp) ----

// A new zero-filled record (Pcalloc(1, sizeof, 0)), or null when refused.
URI_Record* NewRecord();
// Releases the eight texts of `record` and marks them absent; `port` and
// `flags` stay. Null is accepted.
void ClearRecord(URI_Record* record);
// Releases the texts and the record. Null is accepted.
void FreeRecord(URI_Record* record);

// Decodes `length` bytes from `text`, every "%" of which starts a complete
// escape, into `destination` (room for length + 1 bytes) or, when that is
// null, into a new Pmalloc(length + 1) block owned by the caller. Appends a
// NUL and returns the output; null when `text` is null or the block is
// refused.
char* Unescape(const char* text, int32_t length, char* destination);

// Releases the text `field`, if present, and marks it absent.
void ReleaseText(char*& field);

// Replaces the text `field` with the decoded copy of [begin, end): the old
// text is released first; when the copy is refused the field stays absent.
void StoreText(char*& field, const char* begin, const char* end);

// ---- Component scanners (scanners.cpp) ----
// Each takes the record to fill and the cursor by reference. On success the
// component is stored and the cursor moved past it; a scanner that fails on
// its first unit changes neither.

Scan ScanScheme(URI_Record* record, const char** cursor);
Scan ScanOpaquePart(URI_Record* record, const char** cursor);
Scan ScanRelSegment(URI_Record* record, const char** cursor);
// Appends "/" and the decoded segments to `path` (the caller has consumed
// the "/"). Returns Scan::kFailed, with the path unchanged, when the grown
// path block is refused.
Scan ScanPathSegments(URI_Record* record, const char** cursor);
Scan ScanQuery(URI_Record* record, const char** cursor);
Scan ScanFragment(URI_Record* record, const char** cursor);

// ---- Authority (authority.cpp) ----

// authority = server | reg_name, with the cursor just after the "//".
Scan ScanAuthority(URI_Record* record, const char** cursor);
// server = [ [ userinfo "@" ] hostport ]; called by ScanAuthority only.
Scan ScanServer(URI_Record* record, const char** cursor);

// ---- Grammar (parser.cpp) ----

Scan ParseReference(URI_Record* record, const char* text);
Scan ParseAbsolute(URI_Record* record, const char** cursor);
Scan ParseHierPart(URI_Record* record, const char** cursor);
Scan ParseRelative(URI_Record* record, const char** cursor);
// Byte length of the UTF-8 no-break space (U+00A0, U+202F, U+FEFF) at
// `position`, or 0.
uint32_t NoBreakSpaceLength(const char* position);
// URI_Parse and URI_GetServer: a new record, or null.
URI_Record* Parse(const char* text);

// ---- Server extraction (server.cpp) ----

URI_Record* GetServer(const char* text);

// Shared by the parser and the server extraction: a new Pmalloc block of
// strlen(text) + 8 bytes holding "http://" and the text, or null.
char* WithDefaultPrefix(const char* text);
// True when `name` holds a "." that is not its last byte (only the first "."
// is looked at).
bool HasInnerDot(const char* name);

}  // namespace vrk::uri
