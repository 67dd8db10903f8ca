#include "orva_host/command_words.h"

#include <gtest/gtest.h>

namespace orva::host {
namespace {

// The words, quoted ones in quotes; or what is wrong.
std::string split(std::string_view line) {
  CommandWords words;
  if (const char* error = splitCommand(line, words)) return std::string("error: ") + error;
  std::string joined;
  for (const CommandWord& word : words) {
    joined += (joined.empty() ? "" : "|") + (word.quoted ? quotedWord(word.text) : word.text);
  }
  return joined;
}

TEST(CommandWordsTest, BlanksDivideWords) {
  EXPECT_EQ(split(""), "");
  EXPECT_EQ(split(" \t \r"), "");
  EXPECT_EQ(split("find 1"), "find|1");
  EXPECT_EQ(split("\t write  1 2\t3 \r"), "write|1|2|3");
}

TEST(CommandWordsTest, CommentsBeginWithAWord) {
  EXPECT_EQ(split("# all of it"), "");
  EXPECT_EQ(split("find 1 # Plant/Load"), "find|1");
  EXPECT_EQ(split("find #1"), "find");
  EXPECT_EQ(split("id 1 Plant#2"), "id|1|Plant#2");
  EXPECT_EQ(split("id 1 \"#2\""), "id|1|\"#2\"");
}

TEST(CommandWordsTest, QuotesKeepAnyText) {
  EXPECT_EQ(split("w \"two words\" \"\""), "w|\"two words\"|\"\"");
  CommandWords words;
  ASSERT_EQ(splitCommand(R"("a\"b\\c\nd\re\tf")", words), nullptr);
  ASSERT_EQ(words.size(), 1U);
  EXPECT_EQ(words[0].text, "a\"b\\c\nd\re\tf");
  EXPECT_TRUE(words[0].quoted);
}

TEST(CommandWordsTest, WhatIsQuotedReadsBack) {
  std::string text;
  for (int c = 0; c < 256; ++c) text += static_cast<char>(c);
  CommandWords words;
  ASSERT_EQ(splitCommand(quotedWord(text), words), nullptr);
  ASSERT_EQ(words.size(), 1U);
  EXPECT_EQ(words[0].text, text);
}

TEST(CommandWordsTest, FaultsAreNamed) {
  EXPECT_EQ(split("w \"abc"), "error: a quote that does not end");
  EXPECT_EQ(split("w \""), "error: a quote that does not end");
  EXPECT_EQ(split("w \"abc\\"), "error: a quote that does not end");
  EXPECT_EQ(split("w \"a\"b"), "error: text after a closing quote");
  EXPECT_EQ(split("w \"a\"\"b\""), "error: text after a closing quote");
  EXPECT_EQ(split("w a\"b"), "error: a quote inside a word");
  EXPECT_EQ(split("w \"\\x\""), "error: a backslash before a letter without meaning");
}

}  // namespace
}  // namespace orva::host
