// Character-set names for code-page numbers (see charsets.h).
#include "charsets.h"

#include <iconv.h>

#include <algorithm>
#include <cstdio>

namespace vrkutil {
namespace {

struct Row {
  int number;
  const char* name;
};

// The registry's own rows, from the same data file the library is built from.
constexpr Row kRegistry[] = {
#define VRK_CODEPAGE(number, name) {number, name},
#include "text/codepage_table.inc"
#undef VRK_CODEPAGE
};

// Spellings that do not follow from the number alone.
constexpr Row kKnownSpellings[] = {
    {1200, "UTF-16LE"},     {1201, "UTF-16BE"},  {12000, "UTF-32LE"},  {12001, "UTF-32BE"},
    {65000, "UTF-7"},       {65001, "UTF-8"},    {20127, "ASCII"},     {932, "SHIFT_JIS"},
    {936, "GBK"},           {949, "UHC"},        {950, "BIG5"},        {1361, "JOHAB"},
    {10000, "MACINTOSH"},   {10007, "MACCYRILLIC"}, {20866, "KOI8-R"}, {21866, "KOI8-U"},
    {20932, "EUC-JP"},      {51932, "EUC-JP"},   {51936, "GB2312"},    {51949, "EUC-KR"},
    {50220, "ISO-2022-JP"}, {50221, "ISO-2022-JP-1"}, {50225, "ISO-2022-KR"}, {52936, "HZ-GB-2312"},
    {54936, "GB18030"},     {20936, "GB2312"},   {38598, "ISO-8859-8"}, {28603, "ISO-8859-13"},
    {28605, "ISO-8859-15"}, {1047, "IBM1047"},   {20924, "IBM1047"},  {10017, "MAC-UK"},
    {10029, "MAC-CENTRALEUROPE"}, {10079, "MAC-IS"}, {20261, "T.61-8BIT"}, {20269, "ISO6937"},
};

bool Opens(const std::string& name) {
  for (const auto& [to, from] : {std::pair{name.c_str(), "UTF-8"}, std::pair{"UTF-8", name.c_str()}}) {
    const iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) return false;
    iconv_close(cd);
  }
  return true;
}

}  // namespace

std::vector<std::string> RegistryNames(int number) {
  std::vector<std::string> names;
  for (const Row& r : kRegistry) {
    if (r.number == number && number != -1) names.emplace_back(r.name);
  }
  return names;
}

std::vector<int> RegistryNumbers() {
  std::vector<int> numbers;
  for (const Row& r : kRegistry) {
    if (r.number != -1 && (numbers.empty() || numbers.back() != r.number)) numbers.push_back(r.number);
  }
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  return numbers;
}

std::vector<std::string> CandidateNames(int number) {
  std::vector<std::string> names = RegistryNames(number);
  for (const Row& r : kKnownSpellings) {
    if (r.number == number) names.emplace_back(r.name);
  }
  char spelled[32];
  std::snprintf(spelled, sizeof spelled, "CP%d", number);
  names.emplace_back(spelled);
  if (number == 874 || (number >= 1250 && number <= 1258)) {
    std::snprintf(spelled, sizeof spelled, "WINDOWS-%d", number);
    names.emplace_back(spelled);
  }
  if (number >= 28591 && number <= 28599) {
    std::snprintf(spelled, sizeof spelled, "ISO-8859-%d", number - 28590);
    names.emplace_back(spelled);
  }
  if (number >= 20000 && number < 30000) {  // IBM EBCDIC pages live at 20000 + their number
    std::snprintf(spelled, sizeof spelled, "IBM%03d", number - 20000);
    names.emplace_back(spelled);
  }
  std::snprintf(spelled, sizeof spelled, "IBM%03d", number);
  names.emplace_back(spelled);
  std::vector<std::string> unique;
  for (const std::string& n : names) {
    if (std::find(unique.begin(), unique.end(), n) == unique.end()) unique.push_back(n);
  }
  return unique;
}

std::string IconvName(int number) {
  for (const std::string& name : CandidateNames(number)) {
    if (Opens(name)) return name;
  }
  return "";
}

}  // namespace vrkutil
