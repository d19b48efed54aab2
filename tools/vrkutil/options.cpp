// The command-line parser shared by every subcommand (see options.h).
#include "options.h"

#include <cstring>
#include <string_view>

namespace vrkutil {

bool Invocation::Has(int id) const {
  for (const ParsedOption& o : options_) {
    if (o.id == id) return true;
  }
  return false;
}

const char* Invocation::Value(int id) const {
  const char* last = nullptr;
  for (const ParsedOption& o : options_) {
    if (o.id == id) last = o.value;
  }
  return last;
}

std::vector<const char*> Invocation::Values(int id) const {
  std::vector<const char*> values;
  for (const ParsedOption& o : options_) {
    if (o.id == id) values.push_back(o.value);
  }
  return values;
}

namespace {

bool LooksLikeNumber(std::string_view arg) {
  return arg.size() >= 2 && arg[0] == '-' && arg[1] >= '0' && arg[1] <= '9';
}

const Option* FindShort(std::span<const Option> options, char c) {
  for (const Option& o : options) {
    if (o.short_name == c) return &o;
  }
  return nullptr;
}

const Option* FindLong(std::span<const Option> options, std::string_view name) {
  for (const Option& o : options) {
    if (o.long_name && name == o.long_name) return &o;
  }
  return nullptr;
}

}  // namespace

ParseResult ParseCommandLine(std::span<char* const> args, std::span<const Option> options, Operands mode,
                             Invocation& out, std::string& error) {
  bool options_done = false;
  for (size_t i = 0; i < args.size(); ++i) {
    char* const arg = args[i];
    const std::string_view text = arg;
    if (options_done || text == "-" || text.empty() || text[0] != '-' || LooksLikeNumber(text)) {
      out.operands_.push_back(arg);
      if (mode == Operands::kStopAtFirst) options_done = true;
      continue;
    }
    if (text == "--") {
      options_done = true;
      continue;
    }
    if (text == "--help" || text == "-h") return ParseResult::kHelp;

    if (text.starts_with("--")) {
      const size_t eq = text.find('=');
      const std::string_view name = text.substr(2, eq == std::string_view::npos ? std::string_view::npos : eq - 2);
      const Option* o = FindLong(options, name);
      if (!o) {
        error = "unknown option '--" + std::string(name) + "'";
        return ParseResult::kUsageError;
      }
      const char* value = nullptr;
      if (eq != std::string_view::npos) {
        if (!o->takes_value) {
          error = "option '--" + std::string(name) + "' takes no value";
          return ParseResult::kUsageError;
        }
        value = arg + eq + 1;
      } else if (o->takes_value) {
        if (i + 1 == args.size()) {
          error = "option '--" + std::string(name) + "' needs a value";
          return ParseResult::kUsageError;
        }
        value = args[++i];
      }
      out.options_.push_back({o->id, value, "--" + std::string(name)});
      continue;
    }

    // One or more bundled short options; one that takes a value takes the
    // rest of the word, or else the next word.
    for (size_t k = 1; k < text.size(); ++k) {
      if (text[k] == 'h') return ParseResult::kHelp;
      const Option* o = FindShort(options, text[k]);
      if (!o) {
        error = std::string("unknown option '-") + text[k] + "'";
        return ParseResult::kUsageError;
      }
      const std::string spelling = std::string("-") + text[k];
      if (!o->takes_value) {
        out.options_.push_back({o->id, nullptr, spelling});
        continue;
      }
      const char* value = nullptr;
      if (k + 1 < text.size()) {
        value = arg + k + 1;
      } else if (i + 1 < args.size()) {
        value = args[++i];
      } else {
        error = std::string("option '-") + text[k] + "' needs a value";
        return ParseResult::kUsageError;
      }
      out.options_.push_back({o->id, value, spelling});
      break;
    }
  }
  return ParseResult::kOk;
}

}  // namespace vrkutil
