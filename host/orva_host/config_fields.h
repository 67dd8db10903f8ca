#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "share/json.h"

namespace orva::host {

// What is wrong with a configuration file, one text per fault.
class ConfigErrors {
 public:
  ConfigErrors(std::string file, std::vector<std::string>& out)
      : file_(std::move(file)), out_(out), before_(out.size()) {}

  // "<file>: <field>: <what>".
  void add(const std::string& field, const std::string& what);
  bool any() const { return out_.size() != before_; }

 private:
  const std::string file_;
  std::vector<std::string>& out_;
  const std::size_t before_;
};

// Reads the fields of one object of the configuration. Every fault is reported with the field's
// place ("variables[2].type") and leaves the target as it was.
class ConfigFields {
 public:
  // `place` is empty for the file's outermost object.
  ConfigFields(const json::Value& object, std::string place, ConfigErrors& errors);

  enum Need { kRequired, kOptional };
  void text(const char* name, Need need, std::string& out);
  void flag(const char* name, bool& out);
  void number(const char* name, double least, double most, double& out);

  // An integer within [least, most]. False when it was not read.
  template <class T>
  bool integer(const char* name, Need need, std::int64_t least, std::int64_t most, T& out) {
    std::int64_t value = 0;
    if (!readInteger(name, need, least, most, value)) return false;
    out = static_cast<T>(value);
    return true;
  }

  // Null when absent (reported if required) or of another type (reported).
  const json::Value* object(const char* name, Need need = kOptional);
  const json::Value* array(const char* name, Need need = kOptional);
  // Of any type.
  const json::Value* value(const char* name, Need need);

  // Reports every member that no call above named. Call it last.
  void reportUnknown();

  std::string placeOf(const std::string& name) const;
  void wrong(const std::string& name, const std::string& what);

 private:
  bool readInteger(const char* name, Need need, std::int64_t least, std::int64_t most,
                   std::int64_t& out);
  void reportDuplicates();

  const json::Value& object_;
  const std::string place_;
  ConfigErrors& errors_;
  std::set<std::string> known_;
};

}  // namespace orva::host
