#include "orva_host/command_arguments.h"

#include <charconv>

#include "host/host_time.h"
#include "orva_host/number_text.h"
#include "orva_host/value_text.h"

namespace orva::host {
namespace {

std::string quotedText(const std::string& text) { return "\"" + text + "\""; }

bool readStatus(std::string_view text, OpcUa_StatusCode& out) {
  const bool isHex = text.size() > 2 && text[0] == '0' && text[1] == 'x';
  if (isHex) text.remove_prefix(2);
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, out, isHex ? 16 : 10);
  return result.ec == std::errc() && result.ptr == end;
}

}  // namespace

std::string CommandArguments::error() const {
  if (!error_.empty() || next_ == words_.size()) return error_;
  return "too many arguments: " + quotedText(words_[next_].text);
}

void CommandArguments::wrong(const std::string& what) {
  if (error_.empty()) error_ = what;
}

CommandWord CommandArguments::word(const char* name) {
  if (!atEnd()) return words_[next_++];
  wrong(std::string(name) + " is missing");
  return {};
}

std::int64_t CommandArguments::readInteger(const std::string& text, const std::string& name,
                                           std::int64_t least, std::int64_t most) {
  std::int64_t number = 0;
  if (!error_.empty()) return 0;
  if (readWholeInt64(text, number) && number >= least && number <= most) return number;
  wrong(name + ": " + quotedText(text) + " is no integer from " + std::to_string(least) + " to " +
        std::to_string(most));
  return 0;
}

bool CommandArguments::readFlag(const std::string& text, const std::string& name) {
  if (error_.empty() && text != "true" && text != "false") {
    wrong(name + ": " + quotedText(text) + " is neither true nor false");
  }
  return error_.empty() && text == "true";
}

std::int64_t CommandArguments::integer(const char* name, std::int64_t least, std::int64_t most) {
  return readInteger(text(name), name, least, most);
}

int CommandArguments::item(const char* name) {
  return static_cast<int>(integer(name, INT32_MIN, INT32_MAX));
}

std::vector<int> CommandArguments::items(const char* name) {
  const std::string list = text(name);
  std::vector<int> items;
  for (std::size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
    end = list.find(',', begin);
    const std::string one = list.substr(begin, end - begin);
    items.push_back(static_cast<int>(readInteger(one, name, INT32_MIN, INT32_MAX)));
  }
  return items;
}

std::int64_t CommandArguments::time(const char* name) {
  const std::string given = text(name);
  std::int64_t ticks = 0;
  if (!error_.empty()) return 0;
  if (given == "now") return getInt64FileTime();
  if (!readTime(given, ticks)) wrong(std::string(name) + ": " + quotedText(given) + " is no time");
  return ticks;
}

OpcUa_StatusCode CommandArguments::status(const char* name) {
  const std::string given = text(name);
  OpcUa_StatusCode code = 0;
  if (error_.empty() && !readStatus(given, code)) {
    wrong(std::string(name) + ": " + quotedText(given) + " is no status code");
  }
  return code;
}

bool CommandArguments::flag(const char* name) { return readFlag(text(name), name); }

CommandArguments::Setting CommandArguments::setting() {
  const std::string given = text("key=value");
  const std::size_t sign = given.find('=');
  if (sign == std::string::npos) {
    wrong(quotedText(given) + " is no key=value");
    return {};
  }
  return {given.substr(0, sign), given.substr(sign + 1)};
}

bool CommandArguments::flagOf(const Setting& setting) {
  return readFlag(setting.value, setting.key);
}

std::int64_t CommandArguments::integerOf(const Setting& setting, std::int64_t least,
                                         std::int64_t most) {
  return readInteger(setting.value, setting.key, least, most);
}

double CommandArguments::numberOf(const Setting& setting) {
  double number = 0;
  if (error_.empty() && !readWholeDouble(setting.value, number)) {
    wrong(setting.key + ": " + quotedText(setting.value) + " is no number");
  }
  return number;
}

}  // namespace orva::host
