// docs/operating.md explains every line that the system can write to its log, and no other.

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "support/documentation.h"

namespace orva::test {
namespace {

// "WARNING Not found VMItem : %lld"
using Lines = std::set<std::string>;

// The text of a call's arguments: from behind its opening parenthesis to the closing one.
std::string argumentsAt(const std::string& source, std::size_t begin) {
  int depth = 1;
  bool isInText = false;
  std::size_t at = begin;
  for (; at < source.size() && depth > 0; ++at) {
    const char c = source[at];
    if (isInText) {
      if (c == '\\') ++at;
      isInText = c != '"';
    } else if (c == '"') {
      isInText = true;
    } else {
      depth += c == '(' ? 1 : c == ')' ? -1 : 0;
    }
  }
  begin = std::min(source.find_first_not_of(" \n", begin), at);
  return source.substr(begin, at - begin);
}

// The literals at the beginning, or behind the first argument, joined: `"a" "b"` is `ab`.
std::string formatOf(const std::string& arguments) {
  static const std::regex literal(R"re(^(?:\w+,)?\s*"((?:[^"\\]|\\.)*)")re");
  static const std::regex next(R"re(^\s*"((?:[^"\\]|\\.)*)")re");
  std::string rest = arguments;
  std::string format;
  std::smatch found;
  for (const std::regex* each = &literal; std::regex_search(rest, found, *each); each = &next) {
    format += found[1];
    rest = found.suffix();
  }
  return format;
}

// As it stands in the log: on one line, without the escapes of the source.
std::string shownText(const std::string& format) {
  std::string text = std::regex_replace(format, std::regex(R"((\\[rn])+)"), " ");
  text = std::regex_replace(text, std::regex(R"(\\")"), "\"");
  text = std::regex_replace(text, std::regex(" +"), " ");
  return std::regex_replace(text, std::regex(" $"), "");
}

std::string levelOf(const std::string& arguments) {
  if (arguments.compare(0, 11, "kTraceError") == 0) return "ERROR ";
  if (arguments.compare(0, 13, "kTraceWarning") == 0) return "WARNING ";
  if (arguments.compare(0, 12, "kTraceDetail") == 0) return "TRACE ";
  return "INFO ";
}

void addLines(const std::string& name, const std::string& source, Lines& lines) {
  static const std::regex call(R"(\b(OpcUa_Trace_Imp|logMsg)\()");
  for (std::sregex_iterator at(source.begin(), source.end(), call), end; at != end; ++at) {
    const auto begin = static_cast<std::size_t>(at->position() + at->length());
    const std::string arguments = argumentsAt(source, begin);
    const std::string format = formatOf(arguments);
    // The declarations, the definitions, and what comments say of them.
    const bool isNoCall = arguments == ")" || arguments.find("const char* format") == 0 ||
                          arguments.find("std::uint32_t level") == 0;
    EXPECT_NE(format.empty(), !isNoCall) << name << ": " << arguments;
    if (!format.empty()) lines.insert(levelOf(arguments) + shownText(format));
  }
}

Lines linesOfTheSources() {
  Lines lines;
  for (const auto& [name, source] : deliveredSources()) addLines(name, source, lines);
  return lines;
}

Lines linesOfThePage() {
  Lines lines;
  for (const auto& row : tableRows(repositoryFile("docs/operating.md"))) {
    if (row.size() != 4 || row[0] == "text") continue;
    EXPECT_NE(row[2], "") << row[0] << " is not explained";
    EXPECT_TRUE(lines.insert(row[1] + " " + codeOf(row[0])).second) << row[0] << " is there twice";
  }
  return lines;
}

std::string difference(const Lines& lines, const Lines& others) {
  std::string text;
  for (const std::string& line : lines) {
    if (others.count(line) == 0) text += "\n  " + line;
  }
  return text;
}

TEST(LogLinesPageTest, EachLineOfTheSourcesIsExplainedAndNoOther) {
  const Lines sources = linesOfTheSources();
  const Lines page = linesOfThePage();
  EXPECT_GE(sources.size(), 90U);
  EXPECT_EQ(difference(sources, page), "") << "docs/operating.md lacks these";
  EXPECT_EQ(difference(page, sources), "") << "nothing in the sources writes these";
}

}  // namespace
}  // namespace orva::test
