#include "orva_host/config_fields.h"

#include "orva_host/number_text.h"

namespace orva::host {
namespace {

// More than anybody reads; a broken file with 100000 variables would have as many faults.
constexpr std::size_t kMostErrors = 100;

std::string nameOf(const json::Value::Member& member) {
  return std::string(member.name.GetString(), member.name.GetStringLength());
}

}  // namespace

void ConfigErrors::add(const std::string& field, const std::string& what) {
  const std::size_t count = out_.size() - before_;
  if (count > kMostErrors) return;
  if (count == kMostErrors) {
    out_.push_back(file_ + ": more faults are not listed");
    return;
  }
  out_.push_back(file_ + ": " + (field.empty() ? "" : field + ": ") + what);
}

ConfigFields::ConfigFields(const json::Value& object, std::string place, ConfigErrors& errors)
    : object_(object.IsObject() ? object : json::nullValue()),
      place_(std::move(place)),
      errors_(errors) {
  if (object.IsObject()) {
    reportDuplicates();
  } else {
    errors_.add(place_, "must be an object");
  }
}

std::string ConfigFields::placeOf(const std::string& name) const {
  return place_.empty() ? name : place_ + "." + name;
}

void ConfigFields::wrong(const std::string& name, const std::string& what) {
  errors_.add(placeOf(name), what);
}

const json::Value* ConfigFields::value(const char* name, Need need) {
  known_.insert(name);
  if (!object_.IsObject()) return nullptr;  // reported already
  const auto found = object_.FindMember(name);
  if (found != object_.MemberEnd()) return &found->value;
  if (need == kRequired) wrong(name, "is missing");
  return nullptr;
}

void ConfigFields::text(const char* name, Need need, std::string& out) {
  const json::Value* found = value(name, need);
  if (found == nullptr) return;
  if (!found->IsString()) {
    wrong(name, "must be a text");
  } else if (need == kRequired && found->GetStringLength() == 0) {
    wrong(name, "must not be empty");
  } else {
    out.assign(found->GetString(), found->GetStringLength());
  }
}

void ConfigFields::flag(const char* name, bool& out) {
  const json::Value* found = value(name, kOptional);
  if (found == nullptr) return;
  if (found->IsBool()) {
    out = found->GetBool();
  } else {
    wrong(name, "must be true or false");
  }
}

void ConfigFields::number(const char* name, double least, double most, double& out) {
  const json::Value* found = value(name, kOptional);
  if (found == nullptr) return;
  if (!found->IsNumber() || found->GetDouble() < least || found->GetDouble() > most) {
    wrong(name, "must be a number from " + textOf(least) + " to " + textOf(most));
  } else {
    out = found->GetDouble();
  }
}

bool ConfigFields::readInteger(const char* name, Need need, std::int64_t least, std::int64_t most,
                               std::int64_t& out) {
  const json::Value* found = value(name, need);
  if (found == nullptr) return false;
  if (!found->IsInt64() || found->GetInt64() < least || found->GetInt64() > most) {
    wrong(name, "must be an integer from " + std::to_string(least) + " to " + std::to_string(most));
    return false;
  }
  out = found->GetInt64();
  return true;
}

const json::Value* ConfigFields::object(const char* name, Need need) {
  const json::Value* found = value(name, need);
  if (found == nullptr || found->IsObject()) return found;
  wrong(name, "must be an object");
  return nullptr;
}

const json::Value* ConfigFields::array(const char* name, Need need) {
  const json::Value* found = value(name, need);
  if (found == nullptr || found->IsArray()) return found;
  wrong(name, "must be an array");
  return nullptr;
}

void ConfigFields::reportUnknown() {
  if (!object_.IsObject()) return;
  for (const auto& member : object_.GetObject()) {
    if (known_.count(nameOf(member)) == 0) wrong(nameOf(member), "is not a known field");
  }
}

void ConfigFields::reportDuplicates() {
  std::set<std::string> seen;
  for (const auto& member : object_.GetObject()) {
    if (!seen.insert(nameOf(member)).second) wrong(nameOf(member), "is there twice");
  }
}

}  // namespace orva::host
