#include "sqlite_base/store_parameters.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <string_view>

#include "host/trace.h"

namespace orva::sqlite {
namespace {

std::string_view trimmed(std::string_view text) {
  const auto isBlank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool isWord(std::string_view text, const std::string& word) {
  return text.size() == word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

bool readNumber(std::string_view text, int lowest, int highest, int& out) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  if (value < lowest || value > highest) return false;
  out = value;
  return true;
}

bool readSynchronous(std::string_view text, std::string& out) {
  for (const char* const word : {"OFF", "NORMAL", "FULL", "EXTRA"}) {
    if (!isWord(text, word)) continue;
    out = word;
    return true;
  }
  return false;
}

void readPair(std::string_view pair, StoreParameters& out, std::vector<std::string>& problems) {
  const std::size_t equals = pair.find('=');
  const std::string_view key = trimmed(pair.substr(0, equals));
  const std::string_view value =
      equals == std::string_view::npos ? std::string_view() : trimmed(pair.substr(equals + 1));
  bool understood = false;
  if (isWord(key, "synchronous")) {
    understood = readSynchronous(value, out.synchronous);
  } else if (isWord(key, "cacheKiB")) {
    understood = readNumber(value, 64, 1048576, out.cacheKiB);
  } else if (isWord(key, "checkpointPages")) {
    understood = readNumber(value, 16, 1000000, out.checkpointPages);
  } else {
    problems.push_back("unknown key \"" + std::string(key) + "\"");
    return;
  }
  if (!understood) {
    problems.push_back("value \"" + std::string(value) + "\" of \"" + std::string(key) +
                       "\" is not one of those it may have");
  }
}

}  // namespace

StoreParameters parseStoreParameters(const std::string& text, std::vector<std::string>& problems) {
  StoreParameters parameters;
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(';'), rest.size());
    const std::string_view pair = trimmed(rest.substr(0, end));
    if (!pair.empty()) readPair(pair, parameters, problems);
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return parameters;
}

StoreParameters tracedStoreParameters(const char* provider, const std::string& location,
                                      const std::string& text) {
  std::vector<std::string> problems;
  StoreParameters parameters = parseStoreParameters(text, problems);
  for (const std::string& problem : problems) {
    OpcUa_Trace_Imp(kTraceError, "%s: parameters of \"%s\": %s\n", __FILE__, __LINE__, provider,
                    location.c_str(), problem.c_str());
  }
  return parameters;
}

}  // namespace orva::sqlite
