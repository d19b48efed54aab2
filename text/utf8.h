// UTF-8 character utilities: the one rule for the length of a character (its
// lead byte's high four bits) and the checks built on it. Shared by the
// transcoders and the case folding.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace vrk::text {

// Sequence length by the lead byte's high four bits; -1 for a continuation
// byte, which cannot begin a character. 0xF8 to 0xFF count as 4-byte leads:
// this library knows no 5- or 6-byte forms and does not reject them either.
inline constexpr std::array<int32_t, 16> kLeadLength = {1, 1, 1, 1, 1, 1, 1, 1, -1, -1, -1, -1, 2, 2, 3, 4};

// The length of the character whose lead byte is `lead` (1 to 4), or -1.
constexpr int32_t LeadLength(uint8_t lead) { return kLeadLength[lead >> 4]; }

constexpr bool IsContinuation(uint8_t byte) { return (byte & 0xC0) == 0x80; }

// 1 to 4 bytes after the lead are continuation bytes. Stops at the first byte
// that is not one, so it never reads past a NUL.
constexpr bool TrailIsValid(const uint8_t* s, int32_t length) {
  for (int32_t i = 1; i < length; ++i) {
    if (!IsContinuation(s[i])) return false;
  }
  return true;
}

// The character at `s` has a valid lead byte and continuation bytes after it.
// Overlong forms, encoded surrogates and values above 0x10FFFF are accepted.
constexpr bool IsValidChar(const uint8_t* s) {
  const int32_t length = LeadLength(s[0]);
  return length > 0 && TrailIsValid(s, length);
}

// The character after the one at `s`, or null at the terminator, at a
// continuation byte or at a malformed character.
const uint8_t* NextChar(const uint8_t* s);

// Characters before the terminator; none when a continuation byte stands
// where a character should begin or the last character is cut short by the
// terminator. Never reads past the terminator.
std::optional<int32_t> CountChars(const uint8_t* s);

// Copies the longest run of whole valid characters of `src` that leaves room
// for a terminator in `size` bytes, terminates it and returns its length.
// With a null pointer or a zero size nothing is written and 0 is returned.
size_t CopyChars(uint8_t* dst, const uint8_t* src, size_t size);

}  // namespace vrk::text
