// The numbers of docs/limits.md are the constants of the sources, and no limit is missing there.

#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <optional>
#include <regex>
#include <set>

#include "share/ticks.h"
#include "support/documentation.h"

namespace orva::test {
namespace {

// Evaluates what constants are made of: integers, * + - / << and parentheses.
class Expression {
 public:
  explicit Expression(std::string text) : text_(std::move(text)) {}

  std::optional<long long> value() {
    const long long result = shift();
    return failed_ || at_ != text_.size() ? std::nullopt : std::optional(result);
  }

 private:
  bool take(const std::string& token) {
    while (at_ < text_.size() && text_[at_] == ' ') ++at_;
    if (text_.compare(at_, token.size(), token) != 0) return false;
    at_ += token.size();
    while (at_ < text_.size() && text_[at_] == ' ') ++at_;
    return true;
  }
  long long shift() {
    long long result = sum();
    while (take("<<")) result <<= sum();
    return result;
  }
  long long sum() {
    long long result = product();
    for (;;) {
      if (take("+")) {
        result += product();
      } else if (take("-")) {
        result -= product();
      } else {
        return result;
      }
    }
  }
  long long product() {
    long long result = single();
    for (;;) {
      if (take("*")) {
        result *= single();
      } else if (take("/")) {
        const long long divisor = single();
        failed_ = failed_ || divisor == 0;
        if (divisor != 0) result /= divisor;
      } else {
        return result;
      }
    }
  }
  long long single() {
    if (take("(")) {
      const long long result = shift();
      failed_ = !take(")") || failed_;
      return result;
    }
    const std::size_t begin = at_;
    while (at_ < text_.size() && std::isdigit(static_cast<unsigned char>(text_[at_]))) ++at_;
    if (begin == at_ || failed_) {
      failed_ = true;
      return 0;
    }
    const long long number = std::stoll(text_.substr(begin, at_ - begin));
    take("");
    return number;
  }

  std::string text_;
  std::size_t at_ = 0;
  bool failed_ = false;
};

// Without digit separators, suffixes and types, ticks as numbers.
std::string plain(std::string text) {
  const std::pair<const char*, std::string> kReplaced[] = {
      {"//.*", ""},
      {"'", ""},
      {"(\\d)U", "$1"},
      {"std::\\w+\\{(\\d+)\\}", "$1"},
      {"kTicksPerMillisecond", std::to_string(kTicksPerMillisecond)},
      {"kTicksPerSecond", std::to_string(kTicksPerSecond)},
      {"kTicksPerMinute", std::to_string(kTicksPerMinute)},
      {"^\\s+|\\s+$", ""}};
  for (const auto& [pattern, by] : kReplaced) {
    text = std::regex_replace(text, std::regex(pattern), by);
  }
  return text;
}

// "file.cpp kName" -> the expression that defines it.
using Constants = std::map<std::string, std::string>;

Constants constantsOfTheSources() {
  static const std::regex definition(R"(constexpr [\w:<> ]+? (\w+) ?(?:=\s*([^;]+)|\{([^}]+)\});)");
  Constants constants;
  for (const auto& [name, source] : deliveredSources()) {
    const std::string file = name.substr(name.rfind('/') + 1);
    for (std::sregex_iterator at(source.begin(), source.end(), definition), end; at != end; ++at) {
      constants[file + " " + (*at)[1].str()] = (*at)[2].matched ? (*at)[2] : (*at)[3];
    }
  }
  return constants;
}

// "60 s" in the unit of the constant, which its name tells; "64 MiB" in bytes.
long long valueOf(const std::string& text, const std::string& constant) {
  std::size_t end = 0;
  const long long number = std::stoll(text, &end);
  const std::string unit = end < text.size() ? text.substr(end + 1) : "";
  const std::map<std::string, long long> kBytes = {
      {"", 1}, {"KiB", 1 << 10}, {"MiB", 1 << 20}, {"GiB", 1 << 30}};
  const std::map<std::string, long long> kMilliseconds = {
      {"ms", 1}, {"s", 1000}, {"min", 60'000}, {"h", 3'600'000}};
  if (const auto bytes = kBytes.find(unit); bytes != kBytes.end()) return number * bytes->second;
  const auto time = kMilliseconds.find(unit);
  EXPECT_NE(time, kMilliseconds.end()) << text;
  if (time == kMilliseconds.end()) return -1;
  const bool isInMs = constant.compare(constant.size() - 2, 2, "Ms") == 0;
  return number * time->second * (isInMs ? 1 : kTicksPerMillisecond);
}

// Named like limits, but nobody meets them.
const std::set<std::string> kInner = {
    "archive_reads.cpp kReadLimitWaits",     // the same 60 s, counted in waits
    "signal.cpp kLongestWaitTicks",          // longer waits are cut into several
    "remote_value.cpp kMostMilliseconds",    // the end of time
    "remote_exchange.cpp kLongestRestFrom",  // how fast the pause grows
    "segment_writer.cpp kMaxRows",           // how many segments are joined in one go
    "integer_column.cpp kMaxScale",          // of the encoding
    "real_column.cpp kMaxDigits",            // of the encoding
    "real_column.cpp kWholeLimit",           // of the encoding
    "write_buffer.cpp kKeptCapacity",        // memory that is not given back
    "lua_value.cpp kMaxExactInteger",        // of Lua's numbers
    "lua_value.cpp kMaxMilliseconds",        // the end of time
    "program_api.cpp kMaxExactId",           // of Lua's numbers
    "plant_row.cpp kLimit",                  // the end of time
    "config_file.cpp kMaxInt32",             // of the type int
    "opcua_variant.cpp kLimit",              // of the type Float
    "trace.cpp kMaxPrefix",                  // more than any prefix needs
    "source_csv.cpp kLongestWaitSeconds",    // longer waits are cut into several
    "task_schedule.h kLongest",              // longer periods are cut
    "datagram_format.h kMostPieces",         // follows from the size of a message
    "ticks.h kMaxTime",                      // the end of time
    "request_processor.h kMost",             // of the type int
};

TEST(LimitsPageTest, EachNumberIsThatOfTheSources) {
  const Constants constants = constantsOfTheSources();
  int rows = 0;
  for (const auto& row : tableRows(repositoryFile("docs/limits.md"))) {
    if (row.size() != 3 || row[2] == "constant") continue;
    const std::string constant = codeOf(row[2]);
    SCOPED_TRACE(row[0]);
    const auto found = constants.find(constant);
    ASSERT_NE(found, constants.end()) << "there is no " << constant;
    const auto value = Expression(plain(found->second)).value();
    ASSERT_TRUE(value) << found->second;
    EXPECT_EQ(valueOf(row[1], constant), *value);
    ++rows;
  }
  EXPECT_GE(rows, 40);
}

TEST(LimitsPageTest, EachLimitOfTheSourcesStandsOnThePage) {
  std::set<std::string> onThePage;
  for (const auto& row : tableRows(repositoryFile("docs/limits.md"))) {
    if (row.size() == 3) onThePage.insert(codeOf(row[2]));
  }
  const std::regex limit(R"(\S+ k(Most|Max|Longest|Kept)\w*|\S+ k\w*Limit([A-Z]\w*)?)");
  int limits = 0;
  for (const auto& [constant, value] : constantsOfTheSources()) {
    if (!std::regex_match(constant, limit)) continue;
    EXPECT_EQ(onThePage.count(constant) + kInner.count(constant), 1U) << constant << " = " << value;
    ++limits;
  }
  EXPECT_GE(limits, 50);
}

}  // namespace
}  // namespace orva::test
