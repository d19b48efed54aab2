// Text as guest code has it: UTF-16 wide strings, and Windows paths, which
// the layer maps to the host's UTF-8 POSIX paths and back. The ANSI code page
// of the layer is UTF-8 (65001), so that file names pass through unchanged.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "win32/wintypes.h"

namespace vrk::win32 {

inline constexpr UINT kCodePageUtf8 = 65001;

// UTF-16 (null: empty) to UTF-8; unpaired surrogates become U+FFFD.
std::string Narrow(LPCWSTR text);
std::string Narrow(std::u16string_view text);
// UTF-8 to UTF-16; bytes that are not UTF-8 become U+FFFD (and set
// *invalid when given).
std::u16string Widen(std::string_view text, bool* invalid = nullptr);
size_t WideLength(LPCWSTR text);

// A Windows path as the host sees it: a drive letter ("C:") is dropped and
// backslashes become slashes, so "C:\tmp\a.gz" is "/tmp/a.gz" and
// "dir\a.txt" stays relative.
std::string HostPath(std::string_view windows_path);
// A host path as guest code sees it: "/tmp/a.gz" is "Z:\tmp\a.gz".
std::string WindowsPath(std::string_view host_path);

// Copies `text` and its terminator into a guest buffer of `size` characters
// the way GetEnvironmentVariable and GetTempPath do: the length without the
// terminator when it fits, else the size needed (with the terminator) and
// nothing written.
DWORD CopyOut(std::string_view text, LPSTR buffer, DWORD size);
DWORD CopyOut(std::u16string_view text, LPWSTR buffer, DWORD size);

}  // namespace vrk::win32
