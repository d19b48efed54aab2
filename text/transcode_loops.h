// The transcoders' reference loops, one character at a time except for runs
// of ASCII, which a copier passed in converts many units per step, and runs
// of 3-byte characters. The plain kernels use them with copiers of 32-bit
// words, the SSE2 kernels with vector copiers; either way the result and the
// stopping point are those of the character-by-character rules.
#pragma once

#include <cstddef>
#include <cstdint>

#include "text/transcode.h"
#include "text/transcode_char.h"
#include "text/utf8.h"

namespace vrk::text {

// Copies the run of ASCII units or bytes at `in`, at most `limit` of them,
// and returns its length.
using CopyUnitsFn = uint32_t (*)(const uint16_t* in, uint8_t* out, uint32_t limit);
using CopyBytesFn = uint32_t (*)(const uint8_t* in, uint16_t* out, uint32_t limit);

// The kernels work on local cursors: byte stores through `out` could alias
// the caller's pointer variables, which would keep the compiler from holding
// the cursors in registers.
template <CopyUnitsFn kCopyAscii>
Transcode Utf16ToUtf8Loop(const uint16_t*& in_ref, const uint16_t* in_end, uint8_t*& out_ref, const uint8_t* out_end) {
  const uint16_t* in = in_ref;
  uint8_t* out = out_ref;
  const auto finish = [&](Transcode result) {
    in_ref = in;
    out_ref = out;
    return result;
  };
  while (in != in_end) {
    const ptrdiff_t room = out_end - out;
    uint32_t value = in[0];
    // The common characters are written directly; each needs more room than
    // its byte count, so that one byte always stays for the terminator.
    if (value < 0x80) {
      if (room <= 1) return finish(Transcode::kOutputFull);
      // A lone ASCII unit (a space between words of another script) goes
      // straight out; a run may fill all but the last byte of the room.
      if (in_end - in == 1 || in[1] >= 0x80) {
        *out++ = uint8_t(value);
        ++in;
        continue;
      }
      const ptrdiff_t left = in_end - in;
      const uint32_t run = kCopyAscii(in, out, uint32_t(left < room - 1 ? left : room - 1));
      in += run;
      out += run;
      continue;
    }
    if (value < 0x800) {
      if (room <= 2) return finish(Transcode::kOutputFull);
      out[0] = uint8_t(0xC0 | (value >> 6));
      out[1] = uint8_t(0x80 | (value & 0x3F));
      out += 2;
      ++in;
      continue;
    }
    if (!IsHighSurrogate(value) && !IsLowSurrogate(value)) {
      if (room <= 3) return finish(Transcode::kOutputFull);
      // A run of 3-byte characters (most CJK text), each with the same
      // room rule, without going round the outer loop.
      do {
        out[0] = uint8_t(0xE0 | (value >> 12));
        out[1] = uint8_t(0x80 | ((value >> 6) & 0x3F));
        out[2] = uint8_t(0x80 | (value & 0x3F));
        out += 3;
        ++in;
        if (in == in_end || out_end - out <= 3) break;
        value = in[0];
      } while (value >= 0x800 && (value < 0xD800 || value > 0xDFFF));
      continue;
    }
    // Surrogates: a pair makes one character; a lone one stands for itself
    // and comes out in its 3-byte form.
    uint32_t consumed = 1;
    if (IsHighSurrogate(value)) {
      if (in_end - in == 1) return finish(Transcode::kHighSurrogateAtEnd);
      if (IsLowSurrogate(in[1])) {
        value = ((value - 0xD800) << 10) + (in[1] - 0xDC00) + 0x10000;
        consumed = 2;
      }
    }
    const uint32_t length = Utf8Length(value);
    if (room <= ptrdiff_t(length)) return finish(Transcode::kOutputFull);
    PutUtf8(value, length, out);
    out += length;
    in += consumed;
  }
  return finish(Transcode::kDone);
}

template <CopyBytesFn kCopyAscii>
Transcode Utf8ToUtf16Loop(const uint8_t*& in_ref, const uint8_t* in_end, uint16_t*& out_ref, const uint16_t* out_end) {
  const uint8_t* in = in_ref;
  uint16_t* out = out_ref;
  const auto finish = [&](Transcode result) {
    in_ref = in;
    out_ref = out;
    return result;
  };
  while (in != in_end) {
    const uint8_t lead = in[0];
    // Every converted character needs room for a surrogate pair, ASCII
    // included; a run of ASCII may therefore fill all but the last unit.
    if (lead < 0x80) {
      if (out_end - out < 2) return finish(Transcode::kOutputFull);
      if (in_end - in == 1 || in[1] >= 0x80) {
        *out++ = lead;
        ++in;
        continue;
      }
      const ptrdiff_t left = in_end - in;
      const ptrdiff_t room = out_end - out - 1;
      const uint32_t run = kCopyAscii(in, out, uint32_t(left < room ? left : room));
      in += run;
      out += run;
      continue;
    }
    // A run of well-formed 3-byte sequences (most CJK text), each needing
    // room for a surrogate pair like any character.
    if ((lead & 0xF0) == 0xE0) {
      const uint8_t* p = in;
      uint16_t* o = out;
      while (in_end - p >= 3 && out_end - o >= 2 && (p[0] & 0xF0) == 0xE0 && IsContinuation(p[1]) &&
             IsContinuation(p[2])) {
        *o++ = uint16_t(((p[0] & 0x0F) << 12) | ((p[1] & 0x3F) << 6) | (p[2] & 0x3F));
        p += 3;
      }
      if (p != in) {
        in = p;
        out = o;
        continue;
      }
    }
    const int32_t length = LeadLength(lead);
    if (length < 0) {  // a stray continuation byte
      ++in;
      continue;
    }
    if (in_end - in < length) {  // the tail is cut short: drop it and finish
      in = in_end;
      break;
    }
    if (!TrailIsValid(in, length)) {
      // Resume at the sequence's last byte, which may begin a character.
      in += length - 1;
      continue;
    }
    if (out_end - out < 2) return finish(Transcode::kOutputFull);
    // With valid continuation bytes the sum of the bytes less the offset is
    // the payload bits; 2- and 3-byte leads carry no bits beyond their mask.
    if (length == 2) {
      *out++ = uint16_t(((lead & 0x1F) << 6) | (in[1] & 0x3F));
      in += 2;
      continue;
    }
    if (length == 3) {
      *out++ = uint16_t(((lead & 0x0F) << 12) | ((in[1] & 0x3F) << 6) | (in[2] & 0x3F));
      in += 3;
      continue;
    }
    // Four bytes, summed as such: leads 0xF8 to 0xFF carry more bits than a
    // mask would keep, and give values above 0x10FFFF.
    uint32_t value = lead;
    for (int32_t i = 1; i < 4; ++i) value = (value << 6) + in[i];
    value -= 0x3C82080;  // the marks and continuation tags summed in
    in += 4;
    if (value <= 0xFFFF) {
      *out++ = uint16_t(value);  // an overlong 4-byte form
    } else if (value <= kMaxCodePoint) {
      value -= 0x10000;
      *out++ = uint16_t(0xD800 + (value >> 10));
      *out++ = uint16_t(0xDC00 + (value & 0x3FF));
    }
    // Above 0x10FFFF (a 4-byte lead of 0xF4 with a high second byte, or of
    // 0xF5 and up): nothing is written and reading goes on behind it.
  }
  return finish(Transcode::kDone);
}

}  // namespace vrk::text
