// Character classes of the RFC 2396 grammar as 256-bit masks built at compile
// time, and the unit reader that steps over one byte or one escape.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace vrk::uri {

// A set of byte values. '%' in a set stands for "escaped": the unit reader
// admits a complete "%" HEX HEX escape where the set holds '%', and a bare
// "%" never, so no class ever contains a lone percent sign.
//
// The set is defined and combined as a 256-bit mask; a byte-per-value copy
// of it is derived at compile time as well, because the scanners' inner
// loops test one byte per iteration and a single load beats extracting a
// bit (a variable shift) on every byte. The copy leaves "%" out, so that the
// inner loop stops at every "%" without testing for it.
class CharSet {
 public:
  constexpr CharSet() = default;
  constexpr explicit CharSet(std::string_view members) {
    for (char c : members) Add(static_cast<uint8_t>(c));
  }
  static constexpr CharSet Range(char first, char last) {
    CharSet set;
    for (int c = static_cast<uint8_t>(first); c <= static_cast<uint8_t>(last); ++c) set.Add(uint8_t(c));
    return set;
  }

  // Whether the byte `c` alone is a unit of the set (never true for "%").
  constexpr bool Has(uint8_t c) const { return member_[c] != 0; }
  // Whether the set admits "%" HEX HEX escapes.
  constexpr bool Escapes() const { return (bits_['%' >> 5] >> ('%' & 31)) & 1u; }

  constexpr CharSet operator|(const CharSet& other) const { return Combine(other, false); }
  constexpr CharSet Without(const CharSet& other) const { return Combine(other, true); }

 private:
  constexpr void Add(uint8_t c) {
    bits_[c >> 5] |= 1u << (c & 31);
    member_[c] = c != '%';
  }
  constexpr CharSet Combine(const CharSet& other, bool remove) const {
    CharSet out;
    for (std::size_t i = 0; i < 8; ++i) out.bits_[i] = remove ? bits_[i] & ~other.bits_[i] : bits_[i] | other.bits_[i];
    for (std::size_t c = 0; c < 256; ++c) out.member_[c] = c != '%' && ((out.bits_[c >> 5] >> (c & 31)) & 1u);
    return out;
  }

  std::array<uint32_t, 8> bits_{};
  std::array<uint8_t, 256> member_{};
};

// alpha = lowalpha | upalpha
inline constexpr CharSet kAlpha = CharSet::Range('a', 'z') | CharSet::Range('A', 'Z');
// digit = "0" | "1" | ... | "9"
inline constexpr CharSet kDigit = CharSet::Range('0', '9');
// alphanum = alpha | digit
inline constexpr CharSet kAlphanum = kAlpha | kDigit;
// hex = digit | "A" | ... | "F" | "a" | ... | "f"
inline constexpr CharSet kHex = kDigit | CharSet::Range('a', 'f') | CharSet::Range('A', 'F');
// mark = "-" | "_" | "." | "!" | "~" | "*" | "'" | "(" | ")"
inline constexpr CharSet kMark{"-_.!~*'()"};
// unreserved = alphanum | mark
inline constexpr CharSet kUnreserved = kAlphanum | kMark;
// escaped = "%" hex hex
inline constexpr CharSet kEscaped{"%"};
// reserved = ";" | "/" | "?" | ":" | "@" | "&" | "=" | "+" | "$" | ","
inline constexpr CharSet kReserved{";/?:@&=+$,"};
// uric = reserved | unreserved | escaped
inline constexpr CharSet kUric = kReserved | kUnreserved | kEscaped;
// uric_no_slash = unreserved | escaped | ";" | "?" | ":" | "@" | "&" | "=" | "+" | "$" | ","
inline constexpr CharSet kUricNoSlash = kUric.Without(CharSet{"/"});
// unwise = "{" | "}" | "|" | "\" | "^" | "[" | "]" | "`"
inline constexpr CharSet kUnwise{"{}|\\^[]`"};
// pchar = unreserved | escaped | ":" | "@" | "&" | "=" | "+" | "$" | ","
inline constexpr CharSet kPchar = kUnreserved | kEscaped | CharSet{":@&=+$,"};

// scheme, after its first letter: alpha | digit | "+" | "-" | "."
inline constexpr CharSet kSchemeRest = kAlphanum | CharSet{"+-."};
// rel_segment = 1*( unreserved | escaped | ";" | "@" | "&" | "=" | "+" | "$" | "," )
inline constexpr CharSet kRelSegment = kUnreserved | kEscaped | CharSet{";@&=+$,"};
// fragment = *( uric | unwise ); "#" is in no class, so a second "#" ends it
inline constexpr CharSet kFragment = kUric | kUnwise;
// path_segments = segment *( "/" segment ); segment = *pchar *( ";" param ),
// with the backslash taken as a separator too
inline constexpr CharSet kPathSegments = kPchar | CharSet{";/\\"};
// userinfo = *( unreserved | escaped | ";" | ":" | "&" | "=" | "+" | "$" | "," ),
// plus the control byte 0x01, which some senders put into user names
inline constexpr CharSet kUserinfo = kUnreserved | kEscaped | CharSet{";:&=+$,\x01"};
// reg_name = 1*( unreserved | escaped | "$" | "," | ";" | ":" | "@" | "&" | "=" | "+" )
inline constexpr CharSet kRegName = kUnreserved | kEscaped | CharSet{"$,;:@&=+"};

static_assert(!kUric.Has('#') && !kFragment.Has('#') && !kUric.Has(' ') && !kUric.Has(0x80));
static_assert(kFragment.Has('\\') && !kUric.Has('\\') && kPathSegments.Has('\\'));
static_assert(kUserinfo.Has(0x01) && !kUserinfo.Has('@') && kRegName.Has('@'));
static_assert(kUric.Escapes() && !kUric.Has('%') && !kAlphanum.Escapes() && !kUnwise.Escapes());

// True when `p` starts a complete escape. The text is NUL-terminated and the
// tests short-circuit, so nothing past a terminator is read.
constexpr bool IsEscape(const char* p) {
  return p[0] == '%' && kHex.Has(static_cast<uint8_t>(p[1])) && kHex.Has(static_cast<uint8_t>(p[2]));
}

// Length of the unit at `p` when it belongs to `set`: 3 for an escape (when
// the set admits escapes), 1 for a member byte, 0 when the unit is outside
// the set or `p` is on the terminator.
constexpr uint32_t UnitIn(const char* p, const CharSet& set) {
  const auto c = static_cast<uint8_t>(*p);
  if (c == '%') return set.Escapes() && IsEscape(p) ? 3 : 0;
  return set.Has(c) ? 1 : 0;
}

// The first position from `p` on whose unit is outside `set`. Plain member
// bytes are the common case and are taken in a tight loop; only a "%" goes
// through the escape test.
constexpr const char* SkipUnits(const char* p, const CharSet& set) {
  for (;;) {
    auto c = static_cast<uint8_t>(*p);
    while (set.Has(c)) c = static_cast<uint8_t>(*++p);
    if (c != '%' || !set.Escapes() || !IsEscape(p)) return p;
    p += 3;
  }
}

// Value of a hex digit already known to be one.
constexpr uint8_t HexValue(char c) {
  return c <= '9' ? uint8_t(c - '0') : uint8_t((c | 0x20) - 'a' + 10);
}

}  // namespace vrk::uri
