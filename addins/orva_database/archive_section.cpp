#include "orva_database/archive_section.h"

#include <cstdlib>

#include "host/config_data.h"
#include "host/trace.h"
#include "orva_database/guarded.h"
#include "share/status_codes.h"

namespace orva::archive {

int readArchiveSection(const char* section, json::Document& out) {
  const std::string text = GetConfigDataValue(section);
  if (json::nestsTooDeep(text.data(), text.size())) return static_cast<int>(status::kBadRequest);
  return parse_json(text, out);
}

void addEachArchive(const json::Value& cfg, const char* what,
                    const std::function<void(int, const json::Value&)>& add) {
  const json::Value& archives = json::expectedMember(cfg, "archives");
  for (rapidjson::SizeType i = 0; archives.IsArray() && i < archives.Size(); ++i) {
    guarded(what, [&] { add(static_cast<int>(i), archives[i]); });
  }
}

std::int32_t defaultArchiveOf(const json::Value& cfg) {
  const json::Value& number = json::member(cfg, "defaultArchive");
  return number.IsInt() ? number.GetInt() : 0;
}

void requireProvider(bool created, const std::string& providerType) {
  if (created) return;
  OpcUa_Trace_Imp(kTraceError, "<--Assert provider failed: factory \"%s\" created none\n", __FILE__,
                  __LINE__, providerType.c_str());
  std::abort();
}

}  // namespace orva::archive
