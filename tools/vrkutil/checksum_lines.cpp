// Checksum lines and their check mode (see checksum_lines.h).
#include "checksum_lines.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <vector>

#include "io/file_input.h"

namespace vrkutil {
namespace {

void PrintEscapedName(const char* name) {
  for (const char* c = name; *c; ++c) {
    if (*c == '\\') {
      std::fputs("\\\\", stdout);
    } else if (*c == '\n') {
      std::fputs("\\n", stdout);
    } else {
      std::putchar(*c);
    }
  }
}

// Undoes PrintEscapedName; false for an escape it never writes.
bool Unescape(std::string_view text, std::string& out) {
  out.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
    } else if (i + 1 < text.size() && (text[i + 1] == '\\' || text[i + 1] == 'n')) {
      out += text[++i] == 'n' ? '\n' : '\\';
    } else {
      return false;
    }
  }
  return true;
}

// Splits "[\]VALUE  NAME" into value and name; false when ill-formed.
bool ParseLine(std::string_view line, unsigned digits, std::string& value, std::string& name) {
  const bool escaped = !line.empty() && line[0] == '\\';
  if (escaped) line.remove_prefix(1);
  if (line.size() < digits + 3 || line.substr(digits, 2) != "  ") {
    // md5sum also writes "VALUE *NAME" for binary mode.
    if (line.size() < digits + 3 || line.substr(digits, 2) != " *") return false;
  }
  for (unsigned i = 0; i < digits; ++i) {
    if (!std::isxdigit(static_cast<unsigned char>(line[i]))) return false;
  }
  value.assign(line.substr(0, digits));
  for (char& c : value) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const std::string_view rest = line.substr(digits + 2);
  if (escaped) return Unescape(rest, name);
  name.assign(rest);
  return !name.empty();
}

// Prints "NAME: STATUS", the name escaped as in the checksum lines.
void PrintStatus(const std::string& name, const char* status) {
  if (name.find_first_of("\\\n") != std::string::npos) std::putchar('\\');
  PrintEscapedName(name.c_str());
  std::printf(": %s\n", status);
}

}  // namespace

void PrintNameLine(const char* name) {
  if (std::strpbrk(name, "\\\n") != nullptr) std::putchar('\\');
  PrintEscapedName(name);
  std::putchar('\n');
}

void PrintChecksumLine(const std::string& value, const char* name) {
  if (std::strpbrk(name, "\\\n") != nullptr) std::putchar('\\');
  std::fputs(value.c_str(), stdout);
  std::fputs("  ", stdout);
  PrintEscapedName(name);
  std::putchar('\n');
}

int PrintChecksums(std::span<const char* const> files, ChecksumFn compute) {
  static const char* const kStdin[] = {"-"};
  if (files.empty()) files = kStdin;
  int status = kExitOk;
  for (const char* path : files) {
    std::string value, error;
    if (compute(path, value, error)) {
      PrintChecksumLine(value, path);
    } else {
      status = Fail(kExitFailure, "%s: %s", path, error.c_str());
    }
  }
  return status;
}

int CheckChecksums(const Command& command, std::span<const char* const> lists, unsigned value_digits,
                   ChecksumFn compute) {
  static const char* const kStdin[] = {"-"};
  if (lists.empty()) lists = kStdin;
  unsigned failed = 0, unreadable = 0, ill_formed = 0, checked = 0;
  for (const char* list : lists) {
    std::vector<uint8_t> text;
    std::string error;
    if (!vrktool::ReadWholeFile(list, text, error)) {
      Fail(kExitFailure, "%s: %s", list, error.c_str());
      ++unreadable;
      continue;
    }
    size_t line_number = 0;
    for (size_t start = 0; start < text.size();) {
      size_t end = start;
      while (end < text.size() && text[end] != '\n') ++end;
      std::string_view line(reinterpret_cast<const char*>(text.data()) + start, end - start);
      start = end + 1;
      ++line_number;
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      if (line.empty()) continue;
      std::string expected, name, actual;
      if (!ParseLine(line, value_digits, expected, name)) {
        ++ill_formed;
        continue;
      }
      ++checked;
      if (!compute(name.c_str(), actual, error)) {
        PrintStatus(name, "FAILED open or read");
        Fail(kExitFailure, "%s: %s", name.c_str(), error.c_str());
        ++unreadable;
      } else if (actual != expected) {
        PrintStatus(name, "FAILED");
        ++failed;
      } else {
        PrintStatus(name, "OK");
      }
    }
  }
  if (ill_formed) Fail(kExitFailure, "%s: %u line(s) are improperly formatted", command.name, ill_formed);
  if (failed) Fail(kExitFailure, "%s: %u computed checksum(s) did NOT match", command.name, failed);
  if (checked == 0 && unreadable == 0) {
    return Fail(kExitFailure, "%s: no properly formatted checksum lines found", command.name);
  }
  return failed || unreadable ? kExitFailure : kExitOk;
}

}  // namespace vrkutil
