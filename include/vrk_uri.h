/* libVrkutil URI handling: URI references in the generic syntax of RFC 2396
 * read into a record of percent-decoded components. */
#ifndef VRK_URI_H
#define VRK_URI_H

#include "vrk_common.h"

VRK_EXTERN_C_BEGIN

/* The components of one URI reference. Every text is a NUL-terminated,
 * percent-decoded copy in an allocator block of its own, owned by the record;
 * null means the component is absent. Release the whole record with
 * URI_Free. */
typedef struct URI_Record {
  char *scheme;   /* without its ":"; letter case as written */
  char *opaque;   /* what follows "scheme:" when it does not begin with "/" or "\" */
  char *reg_name; /* the authority, when it is not a server */
  char *host;     /* host name or dotted address of a server authority */
  char *userinfo; /* the text before the "@" of a server authority */
  int32_t port;   /* port of a server authority; 0 when none is given */
  char *path;
  char *query;    /* the text after "?"; empty, not null, for a bare "?" */
  char *fragment; /* the text after "#" */
  uint32_t flags; /* always 0 */
} URI_Record;

VRK_LAYOUT_ASSERT(sizeof(URI_Record) == 40, "URI_Record size");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, scheme) == 0, "URI_Record.scheme");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, opaque) == 4, "URI_Record.opaque");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, reg_name) == 8, "URI_Record.reg_name");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, host) == 12, "URI_Record.host");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, userinfo) == 16, "URI_Record.userinfo");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, port) == 20, "URI_Record.port");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, path) == 24, "URI_Record.path");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, query) == 28, "URI_Record.query");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, fragment) == 32, "URI_Record.fragment");
VRK_LAYOUT_ASSERT(offsetof(URI_Record, flags) == 36, "URI_Record.flags");

/* Parses the NUL-terminated URI reference `text` (only read). A reference
 * without a scheme is read again behind "http://", and its host, when it has
 * one, must then contain a "." that is not its last byte. Trailing spaces,
 * tabs, line ends and UTF-8 no-break spaces are allowed. Returns a new record
 * for the caller to release with URI_Free, or null when `text` is null, does
 * not parse, or the record cannot be allocated. A component whose copy the
 * allocator refuses is left absent. "" gives a record with every field
 * absent. */
VRK_API URI_Record *URI_Parse(const char *text) VRK_NOEXCEPT;

/* Releases every text of `record` and the record itself; null is accepted. */
VRK_API void URI_Free(URI_Record *record) VRK_NOEXCEPT;

/* Reads only the scheme and the authority of `text`: on success the record
 * holds `scheme` and either `host` (with `userinfo` and `port`) or
 * `reg_name`, or neither for an empty authority; whatever follows the
 * authority is not read. The scheme must be followed by "//" (or two
 * backslashes). A text without a scheme is read behind "http://" and its
 * server name must then contain a "." that is not its last byte. Returns
 * null on any failure; release the record with URI_Free. */
VRK_API URI_Record *URI_GetServer(const char *text) VRK_NOEXCEPT;

VRK_EXTERN_C_END

#endif /* VRK_URI_H */
