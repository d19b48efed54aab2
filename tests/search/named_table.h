// Tables built from named patterns, for tests that speak of hits by name.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "search/pattern_builder.h"

namespace vrk::test {

struct NamedTable {
  search::builder::Table table;
  std::vector<std::string> names;

  std::vector<std::string> NamesOf(const std::vector<const unsigned char*>& hits) const {
    std::vector<std::string> out;
    for (const unsigned char* h : hits) {
      const int n = table.NumberOf(h);
      out.push_back(n >= 0 ? names[size_t(n)] : "?");
    }
    return out;
  }
};

// Builds {name, pattern} pairs; a refusal is a test failure.
inline NamedTable BuildNamed(const std::vector<std::pair<std::string, std::string>>& patterns) {
  NamedTable t;
  std::vector<std::string> texts;
  for (const auto& [name, text] : patterns) {
    t.names.push_back(name);
    texts.push_back(text);
  }
  search::builder::Refusal refusal;
  if (!search::builder::BuildTable(texts, t.table, refusal)) {
    ADD_FAILURE() << "pattern " << refusal.pattern << ": " << refusal.reason;
  }
  return t;
}

}  // namespace vrk::test
