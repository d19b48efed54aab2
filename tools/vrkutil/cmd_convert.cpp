// vrkutil convert (alias conv): converts a file or standard input between
// character sets through the library's iconv handle, like iconv(1).
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "charsets.h"
#include "command.h"
#include "io/file_input.h"
#include "vrk_text.h"

namespace vrkutil {
namespace {

int RunConvert(const Invocation& in);
int RunConv(const Invocation& in);

enum { kFrom, kTo };
constexpr Option kOptions[] = {{kFrom, 'f', "from", true}, {kTo, 't', "to", true}};

constexpr const char* kConvertHelp =
    "Converts FILE (standard input when absent or '-') from character set\n"
    "FROM to character set TO and writes the result to standard output.\n"
    "FROM and TO are character-set names, passed to iconv unchanged, or\n"
    "Windows code-page numbers, turned into the first of the registry's names\n"
    "(or a common spelling such as CP1252 or IBM037) that iconv accepts; see\n"
    "'vrkutil codepage --list'. As with iconv(1), TO may end in //TRANSLIT\n"
    "(approximate what TO lacks, following the locale) or //IGNORE.\n"
    "\n"
    "  -f, --from FROM   source character set\n"
    "  -t, --to TO       target character set\n"
    "\n"
    "Exit status 1 for an unknown character set, an unreadable file or input\n"
    "that is invalid in FROM or cannot be represented in TO; the message\n"
    "gives the byte offset in the input. What was converted before it has\n"
    "been written.";

const Command kConvert{"convert", "-f FROM -t TO [FILE]", "convert text between character sets", kConvertHelp,
                       RunConvert, kOptions};
const Command kConv{"conv", "-f FROM -t TO [FILE]", "same as convert", kConvertHelp, RunConv, kOptions};

// A code-page number becomes the first of its names that iconv accepts;
// anything else is a name, passed on unchanged. "" when no name serves.
std::string ResolveCharset(const char* text) {
  long long number = 0;
  if (!ParseInt(text, number)) return text;
  if (number < 0 || number > INT32_MAX) return "";
  return IconvName(static_cast<int>(number));
}

bool WriteAll(const char* bytes, size_t size) { return std::fwrite(bytes, 1, size, stdout) == size; }

int Run(const Command& command, const Invocation& in) {
  const char* from = in.Value(kFrom);
  const char* to = in.Value(kTo);
  if (in.operands().size() > 1) return UsageError(command, "only one FILE may be given");
  const char* path = in.operands().empty() ? "-" : in.operands()[0];
  if (from == nullptr || to == nullptr) return UsageError(command, "both -f FROM and -t TO are needed");
  const std::string from_name = ResolveCharset(from);
  const std::string to_name = ResolveCharset(to);
  for (const auto& [given, resolved] : {std::pair{from, &from_name}, std::pair{to, &to_name}}) {
    if (!resolved->empty()) continue;
    long long number = 0;
    ParseInt(given, number);
    return RegistryNames(static_cast<int>(number)).empty()
               ? Fail(kExitFailure, "no character set has code page %s", given)
               : Fail(kExitFailure, "code page %s: iconv knows none of its names (see 'vrkutil codepage --list')", given);
  }
  // As iconv(1) does: //TRANSLIT follows the user's locale.
  std::setlocale(LC_ALL, "");

  std::vector<uint8_t> input;
  if (std::string why; !vrktool::ReadWholeFile(path, input, why)) {
    return Fail(kExitFailure, "%s: %s", std::strcmp(path, "-") == 0 ? "standard input" : path, why.c_str());
  }
  charconv_t* conv = charconv_open(to_name.c_str(), from_name.c_str());
  if (conv == nullptr) {
    return Fail(kExitFailure, "cannot convert from '%s' to '%s'", from_name.c_str(), to_name.c_str());
  }

  int status = kExitOk;
  char* cursor = reinterpret_cast<char*>(input.data());
  size_t in_left = input.size();
  char out[65536];
  for (bool flushing = false;;) {
    char* out_ptr = out;
    size_t out_left = sizeof out;
    // The last call, with no input, writes the closing shift sequence of
    // stateful targets.
    const size_t result = flushing ? charconv(conv, nullptr, nullptr, &out_ptr, &out_left)
                                   : charconv(conv, &cursor, &in_left, &out_ptr, &out_left);
    const int error = errno;
    if (!WriteAll(out, size_t(out_ptr - out))) {
      status = Fail(kExitFailure, "cannot write the output");
      break;
    }
    if (result != size_t(-1)) {
      if (flushing) break;
      flushing = true;
      continue;
    }
    if (error == E2BIG) continue;
    const size_t offset = static_cast<size_t>(cursor - reinterpret_cast<char*>(input.data()));
    if (error == EINVAL) {
      status = Fail(kExitFailure, "incomplete character at byte offset %zu at the end of the input", offset);
    } else if (error == EILSEQ) {
      status = Fail(kExitFailure, "invalid or unconvertible input at byte offset %zu", offset);
    } else {
      status = Fail(kExitFailure, "conversion failed at byte offset %zu: %s", offset, std::strerror(error));
    }
    break;
  }
  std::fflush(stdout);
  (void)charconv_close(conv);
  return status;
}

int RunConvert(const Invocation& in) { return Run(kConvert, in); }
int RunConv(const Invocation& in) { return Run(kConv, in); }

}  // namespace

VRK_COMMAND(kConvert);
VRK_COMMAND(kConv);

}  // namespace vrkutil
