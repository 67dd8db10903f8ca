#include "host/config_data.h"

#include <map>

#include "orva_host/config_sections.h"
#include "share/mutex.h"
#include "share/status_codes.h"

namespace orva::host {
namespace {

struct Sections {
  Mutex mutex;
  std::map<std::string, std::string> texts GUARDED_BY(mutex);
};

Sections& sections() {
  static Sections& made = *new Sections;
  return made;
}

}  // namespace

void setConfigSection(const std::string& name, const std::string& text) {
  Sections& all = sections();
  MutexLock lock(all.mutex);
  all.texts[name] = text;
}

void replaceConfigSections(const std::map<std::string, std::string>& replacement) {
  Sections& all = sections();
  MutexLock lock(all.mutex);
  all.texts = replacement;
}

}  // namespace orva::host

std::string GetConfigDataValue(const char* section) {
  if (section == nullptr) return {};
  orva::host::Sections& all = orva::host::sections();
  orva::MutexLock lock(all.mutex);
  const auto found = all.texts.find(section);
  return found == all.texts.end() ? std::string() : found->second;
}

namespace orva {

int parse_json(const std::string& text, json::Document& out) {
  if (json::nestsTooDeep(text.data(), text.size())) {
    out.SetNull();
    return static_cast<int>(status::kBadRequest);
  }
  out.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
  if (!out.HasParseError()) return 0;
  out.SetNull();
  return static_cast<int>(status::kBadDecodingError);
}

}  // namespace orva
