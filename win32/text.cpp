// UTF-16/UTF-8 and path conversions for guest text.
#include "win32/text.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace vrk::win32 {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += char(0xC0 | (c >> 6));
    out += char(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += char(0xE0 | (c >> 12));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  } else {
    out += char(0xF0 | (c >> 18));
    out += char(0x80 | ((c >> 12) & 0x3F));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  }
}

// One UTF-8 sequence at text[i], advancing i; shortest forms only, no
// surrogates, nothing above U+10FFFF. A bad sequence gives U+FFFD with ok
// false, having consumed its lead byte and the continuation bytes before
// the fault.
char32_t DecodeUtf8(std::string_view text, size_t& i, bool& ok) {
  ok = true;
  const uint8_t lead = uint8_t(text[i++]);
  if (lead < 0x80) return lead;
  const int extra = lead >= 0xF0 && lead <= 0xF4   ? 3
                    : lead >= 0xE0 && lead < 0xF0 ? 2
                    : lead >= 0xC2 && lead < 0xE0 ? 1
                                                  : -1;
  ok = false;
  if (extra < 0) return kReplacement;
  char32_t c = lead & (0x3F >> extra);
  for (int k = 0; k < extra; ++k) {
    if (i >= text.size() || (uint8_t(text[i]) & 0xC0) != 0x80) return kReplacement;
    c = (c << 6) | (uint8_t(text[i++]) & 0x3F);
  }
  constexpr char32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
  if (c < kMinimum[extra] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return kReplacement;
  ok = true;
  return c;
}

}  // namespace

size_t WideLength(LPCWSTR text) {
  size_t n = 0;
  while (text && text[n]) ++n;
  return n;
}

std::string Narrow(std::u16string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = kReplacement;
    }
    AppendUtf8(out, c);
  }
  return out;
}

std::string Narrow(LPCWSTR text) { return Narrow(std::u16string_view(text ? text : u"", WideLength(text))); }

std::u16string Widen(std::string_view text, bool* invalid) {
  std::u16string out;
  for (size_t i = 0; i < text.size();) {
    bool ok = true;
    const char32_t c = DecodeUtf8(text, i, ok);
    if (!ok && invalid) *invalid = true;
    if (c >= 0x10000) {
      out += char16_t(0xD800 + ((c - 0x10000) >> 10));
      out += char16_t(0xDC00 + ((c - 0x10000) & 0x3FF));
    } else {
      out += char16_t(c);
    }
  }
  return out;
}

std::string HostPath(std::string_view windows_path) {
  std::string path(windows_path);
  if (path.size() >= 2 && path[1] == ':' && std::isalpha(uint8_t(path[0]))) path.erase(0, 2);
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

std::string WindowsPath(std::string_view host_path) {
  std::string path(host_path);
  std::replace(path.begin(), path.end(), '/', '\\');
  return path.size() > 0 && path[0] == '\\' ? "Z:" + path : path;
}

DWORD CopyOut(std::string_view text, LPSTR buffer, DWORD size) {
  if (text.size() >= size || !buffer) return DWORD(text.size() + 1);
  std::memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
  return DWORD(text.size());
}

DWORD CopyOut(std::u16string_view text, LPWSTR buffer, DWORD size) {
  if (text.size() >= size || !buffer) return DWORD(text.size() + 1);
  std::memcpy(buffer, text.data(), 2 * text.size());
  buffer[text.size()] = u'\0';
  return DWORD(text.size());
}

}  // namespace vrk::win32
