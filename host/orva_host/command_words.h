#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orva::host {

// A word of a command line: a text without blanks, or any text in double quotes.
struct CommandWord {
  std::string text;
  bool quoted = false;
};
using CommandWords = std::vector<CommandWord>;

// Takes a line apart. In quotes \" is a quote, \\ a backslash, \n a line feed, \r a carriage return
// and \t a tabulator; outside, a # that begins a word begins a comment. Null, or what is wrong.
const char* splitCommand(std::string_view line, CommandWords& out);

// The text as one quoted word of a line.
std::string quotedWord(std::string_view text);

}  // namespace orva::host
