// Internal interface of the URI family: result codes, record handling, the
// decoder and the scanners of each production. Internal, may change; only
// uri_api.cpp turns it into the exported functions.
#pragma once

#include <cstdint>

#include "vrk_uri.h"

namespace vrk::uri {

// Result codes of the scanners and parsing routines. They never leave the
// library: the exported functions report every failure as a null record.
// The positive codes name why a production did not match; the same number
// means different things in the generic scanners and in the server scanner.
namespace code {
inline constexpr int kOk = 0;
inline constexpr int kFailed = -1;           // no cursor, or a path block was refused
inline constexpr int kNotAbsolute = 1;       // a scheme without ":", or trailing text
inline constexpr int kBadScheme = 2;         // the text does not begin with a letter
inline constexpr int kNoMatch = 3;           // first unit of a component does not fit
inline constexpr int kLoneBackslash = 4;     // "scheme:\" with a single backslash
inline constexpr int kBadAuthority = 5;      // neither a server nor a registry name
// URI_ScanServer only:
inline constexpr int kHostDot = 3;           // host begins with ".", or "." where digits belong
inline constexpr int kHostStart = 4;         // no letter, digit or escape where a name begins
inline constexpr int kDashAfterDot = 5;
inline constexpr int kDotAfterDash = 6;
inline constexpr int kDoubleDot = 7;
inline constexpr int kTopLabel = 8;          // top label does not begin with a letter
}  // namespace code

// ---- Record (record.cpp) ----

// A new zero-filled record (Pcalloc(1, sizeof, 0)), or null when refused.
URI_Record* URI_NewRecord();
// Releases the eight texts of `record` and marks them absent; `port` and
// `flags` stay. Null is accepted.
void URI_ClearRecord(URI_Record* record);
// Releases the texts and the record. Null is accepted. URI_Free, URI_Parse
// and URI_GetServer share their names with the exported C functions, which
// argument-dependent lookup also finds: call them as uri::URI_Free.
void URI_Free(URI_Record* record);

// Decodes `length` bytes from `text`, every "%" of which starts a complete
// escape, into `destination` (room for length + 1 bytes) or, when that is
// null, into a new Pmalloc(length + 1) block owned by the caller. Appends a
// NUL and returns the output; null when `text` is null or the block is
// refused.
char* URI_Unescape(const char* text, int32_t length, char* destination);

// Releases the text `field`, if present, and marks it absent.
void ReleaseText(char*& field);

// Replaces the text `field` with the decoded copy of [begin, end): the old
// text is released first; when the copy is refused the field stays absent.
void StoreText(char*& field, const char* begin, const char* end);

// ---- Component scanners (scanners.cpp) ----
// Each takes the record to fill and the cursor by reference. On success the
// component is stored and the cursor moved past it; a scanner that fails on
// its first unit changes neither.

int URI_ScanScheme(URI_Record* record, const char** cursor);
int URI_ScanOpaquePart(URI_Record* record, const char** cursor);
int URI_ScanRelSegment(URI_Record* record, const char** cursor);
// Appends "/" and the decoded segments to `path` (the caller has consumed
// the "/"). Returns code::kFailed, with the path unchanged, when the grown
// path block is refused.
int URI_ScanPathSegments(URI_Record* record, const char** cursor);
int URI_ScanQuery(URI_Record* record, const char** cursor);
int URI_ScanFragment(URI_Record* record, const char** cursor);

// ---- Authority (authority.cpp) ----

// authority = server | reg_name, with the cursor just after the "//".
int URI_ScanAuthority(URI_Record* record, const char** cursor);
// server = [ [ userinfo "@" ] hostport ]; called by URI_ScanAuthority only.
int URI_ScanServer(URI_Record* record, const char** cursor);

// ---- Grammar (parser.cpp) ----

int URI_ParseReference(URI_Record* record, const char* text);
int URI_ParseAbsolute(URI_Record* record, const char** cursor);
int URI_ParseHierPart(URI_Record* record, const char** cursor);
int URI_ParseRelative(URI_Record* record, const char** cursor);
// Byte length of the UTF-8 no-break space (U+00A0, U+202F, U+FEFF) at
// `position`, or 0.
uint32_t URI_IsNoBreakSpace(const char* position);
URI_Record* URI_Parse(const char* text);

// ---- Server extraction (server.cpp) ----

URI_Record* URI_GetServer(const char* text);

// Shared by the parser and the server extraction: a new Pmalloc block of
// strlen(text) + 8 bytes holding "http://" and the text, or null.
char* WithDefaultPrefix(const char* text);
// True when `name` holds a "." that is not its last byte (only the first "."
// is looked at).
bool HasInnerDot(const char* name);

}  // namespace vrk::uri
