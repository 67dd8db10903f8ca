#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/opcua_variant.h"
#include "orva_host/command_words.h"

namespace orva::host {

// Takes the arguments of a command one by one. What is wrong is remembered, and each one after it
// is 0 or empty: look at error() before the arguments are used.
class CommandArguments {
 public:
  // "key=value"; both empty when an argument is none.
  struct Setting {
    std::string key;
    std::string value;
  };

  // `words` begin with the command's name, which is none of the arguments.
  explicit CommandArguments(const CommandWords& words) : words_(words) {}

  bool atEnd() const { return next_ == words_.size() || !error_.empty(); }
  // Empty when all is fine so far. Arguments that nobody took are wrong, too.
  std::string error() const;
  void wrong(const std::string& what);

  // `name` says in errors what is missing or wrong.
  CommandWord word(const char* name);
  std::string text(const char* name) { return word(name).text; }
  std::int64_t integer(const char* name, std::int64_t least = INT64_MIN,
                       std::int64_t most = INT64_MAX);
  int item(const char* name);
  std::vector<int> items(const char* name);   // separated by commas
  std::int64_t time(const char* name);        // a date, ticks, or "now"
  OpcUa_StatusCode status(const char* name);  // decimal, or hexadecimal after 0x
  bool flag(const char* name);
  Setting setting();

  // The value of a setting.
  bool flagOf(const Setting& setting);
  std::int64_t integerOf(const Setting& setting, std::int64_t least, std::int64_t most);
  double numberOf(const Setting& setting);

 private:
  std::int64_t readInteger(const std::string& text, const std::string& name, std::int64_t least,
                           std::int64_t most);
  bool readFlag(const std::string& text, const std::string& name);

  const CommandWords& words_;
  std::size_t next_ = 1;
  std::string error_;
};

}  // namespace orva::host
