// vrkutil convert (alias conv): converts a file or standard input between
// character sets through the library's iconv handle, like iconv(1).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

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
    "Windows code-page numbers, turned into names by the code-page registry.\n"
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

// A code-page number becomes its registry name; anything else is a name.
const char* ResolveCharset(const char* text) {
  long long number = 0;
  if (!ParseInt(text, number)) return text;
  if (number < INT32_MIN || number > INT32_MAX) return nullptr;
  return charconv_GetCPName(int32_t(number));
}

bool WriteAll(const char* bytes, size_t size) { return std::fwrite(bytes, 1, size, stdout) == size; }

int Run(const Command& command, const Invocation& in) {
  const char* from = in.Value(kFrom);
  const char* to = in.Value(kTo);
  if (in.operands().size() > 1) return UsageError(command, "only one FILE may be given");
  const char* path = in.operands().empty() ? "-" : in.operands()[0];
  if (from == nullptr || to == nullptr) return UsageError(command, "both -f FROM and -t TO are needed");
  const char* from_name = ResolveCharset(from);
  const char* to_name = ResolveCharset(to);
  if (from_name == nullptr) return Fail(kExitFailure, "no character set has code page %s", from);
  if (to_name == nullptr) return Fail(kExitFailure, "no character set has code page %s", to);

  std::vector<uint8_t> input;
  if (std::string why; !vrktool::ReadWholeFile(path, input, why)) {
    return Fail(kExitFailure, "%s: %s", std::strcmp(path, "-") == 0 ? "standard input" : path, why.c_str());
  }
  charconv_t* conv = charconv_open(to_name, from_name);
  if (conv == nullptr) return Fail(kExitFailure, "cannot convert from '%s' to '%s'", from_name, to_name);

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
