// The authority of a URI: a server (userinfo, host, port) when the text has
// that shape and ends where a server may end, else a registry name.
#include <cstring>

#include "uri/char_class.h"
#include "uri/uri_internal.h"

namespace vrk::uri {

namespace {

// The units of a host-name label.
constexpr CharSet kLabel = kAlphanum | kEscaped;

// IPv4address = 1*digit "." 1*digit "." 1*digit "." 1*digit
// Read leniently: the fourth run may be empty and no run is held to 255.
// Returns kOk with `p` after the runs and `runs` set (1 to 4), or kHostDot
// when a "." stands where a run of digits belongs.
Scan PreScanAddress(const char*& p, int& runs) {
  int dots = 0;
  for (;;) {
    if (*p == '.') return Scan::kHostDot;
    p = SkipUnits(p, kDigit);
    if (dots == 3 || *p != '.') break;
    ++p;
    ++dots;
  }
  runs = dots + 1;
  return Scan::kOk;
}

// hostname = *( domainlabel "." ) toplabel [ "." ]
// domainlabel = alphanum | alphanum *( alphanum | "-" ) alphanum
// Read from `p` (which may lie after digits and dots the address pre-scan
// took): labels of alphanumerics and escapes joined by single "." and
// inner "-". A "-" may end the last label.
Scan ScanHostName(const char*& p) {
  if (UnitIn(p, kLabel) == 0) return Scan::kHostStart;
  for (;;) {
    p = SkipUnits(p, kLabel);
    if (*p == '-') {
      if (p[-1] == '.') return Scan::kDashAfterDot;
      ++p;
    } else if (*p == '.') {
      if (p[-1] == '-') return Scan::kDotAfterDash;
      if (p[-1] == '.') return Scan::kDoubleDot;
      ++p;
    } else {
      return Scan::kOk;
    }
  }
}

// toplabel = alpha | alpha *( alphanum | "-" ) alphanum
// Only the start of the last label is checked, and only when that label
// follows a "." or starts the host: what follows a "-" (as in "x.1-a") is
// left alone. One trailing "." is not a label.
Scan CheckTopLabel(const char* host, const char* end) {
  if (end > host && end[-1] == '.') --end;
  // The host text holds only alphanumerics, escapes, "-" and ".", so the last
  // run of alphanumerics and escapes ends at the last "-" or ".".
  const char* run = end;
  while (run > host && run[-1] != '.' && run[-1] != '-') --run;
  if (run != host && run[-1] == '-') return Scan::kOk;
  if (run == end) return Scan::kOk;
  return (kAlpha.Has(static_cast<uint8_t>(*run)) || IsEscape(run)) ? Scan::kOk : Scan::kTopLabel;
}

}  // namespace

// server   = [ [ userinfo "@" ] hostport ]
// hostport = host [ ":" port ]
// host     = hostname | IPv4address
// port     = *digit
Scan ScanServer(URI_Record* record, const char** cursor) {
  if (!cursor || !*cursor) return Scan::kFailed;
  const char* const start = *cursor;

  // userinfo "@": stored up to its first "@" after decoding, so an escaped
  // "%40" cuts it short.
  const char* host = start;
  const char* run_end = SkipUnits(start, kUserinfo);
  if (*run_end == '@') {
    ReleaseText(record->userinfo);
    record->userinfo = Unescape(start, int32_t(run_end - start) + 1, nullptr);
    // An escaped NUL before the "@" has already ended the text.
    if (record->userinfo) {
      if (char* at = std::strchr(record->userinfo, '@')) *at = '\0';
    }
    host = run_end + 1;
  } else {
    ReleaseText(record->userinfo);
  }

  // Empty host: "//" directly followed by the path.
  if (*host == '/') {
    ReleaseText(record->reg_name);
    ReleaseText(record->host);
    record->port = 0;
    return Scan::kOk;
  }

  const char* p = host;
  int runs = 0;
  if (Scan rc = PreScanAddress(p, runs); rc != Scan::kOk) return rc;
  bool name = true;
  if (runs == 4) {
    if (*p == '.') {
      ++p;
    } else if (!kAlpha.Has(static_cast<uint8_t>(*p)) && !IsEscape(p)) {
      name = false;  // a dotted address, whatever follows it
    }
  }
  if (name) {
    if (Scan rc = ScanHostName(p); rc != Scan::kOk) return rc;
    if (Scan rc = CheckTopLabel(host, p); rc != Scan::kOk) return rc;
  }

  ReleaseText(record->reg_name);
  StoreText(record->host, host, p);

  // Port: a ":" with nothing numeric after it leaves the port as it was.
  if (*p == ':') {
    ++p;
    if (kDigit.Has(static_cast<uint8_t>(*p)) || IsEscape(p)) {
      // Accumulated unsigned so that an over-long port wraps instead of
      // overflowing a signed integer; nine digits are always exact.
      uint32_t port = 0;
      for (;;) {
        if (kDigit.Has(static_cast<uint8_t>(*p))) {
          port = port * 10 + uint32_t(*p - '0');
          p += 1;
        } else if (IsEscape(p) && p[1] == '3' && kDigit.Has(static_cast<uint8_t>(p[2]))) {
          port = port * 10 + uint32_t(p[2] - '0');  // "%30" to "%39"
          p += 3;
        } else {
          break;
        }
      }
      record->port = int32_t(port);
    }
  }
  *cursor = p;
  return Scan::kOk;
}

// authority = server | reg_name
// reg_name  = 1*( unreserved | escaped | "$" | "," | ";" | ":" | "@" | "&" | "=" | "+" )
// A server must end the authority: one followed by anything but the end,
// "/" or "?" is read again as a registry name.
Scan ScanAuthority(URI_Record* record, const char** cursor) {
  if (!cursor || !*cursor) return Scan::kFailed;
  const char* const start = *cursor;
  if (ScanServer(record, cursor) == Scan::kOk) {
    const char c = **cursor;
    if (c == '\0' || c == '/' || c == '?') return Scan::kOk;
  }
  *cursor = start;
  const uint32_t first = UnitIn(start, kRegName);
  if (first == 0) return Scan::kBadAuthority;
  const char* const end = SkipUnits(start + first, kRegName);
  ReleaseText(record->host);
  ReleaseText(record->userinfo);
  // The registry name keeps whatever port the server attempt read.
  StoreText(record->reg_name, start, end);
  *cursor = end;
  return Scan::kOk;
}

}  // namespace vrk::uri
