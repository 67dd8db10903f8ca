#include "orva_host/command_words.h"

#include <algorithm>

namespace orva::host {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";
// Each escaped character, and the letter that stands for it.
constexpr std::string_view kEscaped = "\"\\\n\r\t";
constexpr std::string_view kEscapes = "\"\\nrt";

// Reads from the opening quote on; `line` is what follows the closing one then.
const char* takeQuoted(std::string_view& line, std::string& out) {
  for (std::size_t i = 1; i < line.size(); ++i) {
    if (line[i] == '"') {
      line.remove_prefix(i + 1);
      const bool ends = line.empty() || kBlanks.find(line.front()) != std::string_view::npos;
      return ends ? nullptr : "text after a closing quote";
    }
    if (line[i] != '\\') {
      out += line[i];
      continue;
    }
    if (++i == line.size()) break;
    const std::size_t escape = kEscapes.find(line[i]);
    if (escape == std::string_view::npos) return "a backslash before a letter without meaning";
    out += kEscaped[escape];
  }
  return "a quote that does not end";
}

}  // namespace

const char* splitCommand(std::string_view line, CommandWords& out) {
  out.clear();
  while (true) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    if (line.empty() || line.front() == '#') return nullptr;
    CommandWord& word = out.emplace_back();
    if (line.front() == '"') {
      word.quoted = true;
      if (const char* error = takeQuoted(line, word.text)) return error;
      continue;
    }
    const std::size_t end = std::min(line.find_first_of(kBlanks), line.size());
    word.text = line.substr(0, end);
    if (word.text.find('"') != std::string::npos) return "a quote inside a word";
    line.remove_prefix(end);
  }
}

std::string quotedWord(std::string_view text) {
  std::string word = "\"";
  for (const char c : text) {
    const std::size_t escape = kEscaped.find(c);
    if (escape == std::string_view::npos) {
      word += c;
    } else {
      word += '\\';
      word += kEscapes[escape];
    }
  }
  return word + '"';
}

}  // namespace orva::host
