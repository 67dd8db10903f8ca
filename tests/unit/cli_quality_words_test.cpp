#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "orva_cli/quality_words.h"

namespace orva::cli {
namespace {

using Words = std::map<StatusCode, std::string>;

std::string pageSource() {
  std::ifstream file(ORVA_SOURCE_DIR "/web/js/quality.js");
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The rows "[code, 'words']" of a table of the page; a code may be the name of a constant.
Words tableOfThePage(const std::string& name) {
  const std::string source = pageSource();
  const std::size_t begin = source.find("const " + name + " = new Map([");
  EXPECT_NE(begin, std::string::npos) << name;
  if (begin == std::string::npos) return {};
  const std::string table = source.substr(begin, source.find("]);", begin) - begin);
  const std::regex row(R"(\n  \[(\w+), '([^']*)'\],)");
  Words words;
  for (std::sregex_iterator at(table.begin(), table.end(), row), end; at != end; ++at) {
    std::string code = (*at)[1];
    std::smatch constant;
    if (std::regex_search(source, constant, std::regex("const " + code + " = (0x[0-9a-f]+);"))) {
      code = constant[1];
    }
    words[static_cast<StatusCode>(std::stoul(code, nullptr, 16))] = (*at)[2];
  }
  return words;
}

TEST(QualityWordsTest, TheTrendPageHasTheSame) {
  const Words page = tableOfThePage("WORDS");
  EXPECT_GE(page.size(), 10U);
  EXPECT_EQ(namedQualities(), page);
}

TEST(QualityWordsTest, WhatThePageSaysOfAnItemIsSaidHereToo) {
  const Words page = tableOfThePage("ITEM_WORDS");
  EXPECT_GE(page.size(), 5U);
  for (const auto& [code, words] : page) {
    EXPECT_EQ(itemWords(code).find("the read failed"), std::string::npos) << words;
  }
}

TEST(QualityWordsTest, TheFlagsOfTheLowHalfDoNotCount) {
  EXPECT_EQ(qualityWords(0x808A0400), "bad, not connected");
}

TEST(QualityWordsTest, WhatHasNoWordsShowsItsNumber) {
  EXPECT_EQ(qualityWords(0x40FF0001), "uncertain, 0x40FF0001");
}

}  // namespace
}  // namespace orva::cli
