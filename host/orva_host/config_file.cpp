#include "orva_host/config_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>

#include "orva_host/bind_address.h"
#include "orva_host/config_fields.h"
#include "orva_host/number_text.h"
#include "orva_host/text_file.h"
#include "orva_host/type_names.h"

namespace orva::host {
namespace {

constexpr std::int64_t kMaxInt32 = INT32_MAX;
constexpr int kMaxMs = 86'400'000;  // a day
const char* const kSections[] = {"DataArchive", "EventsArchive", "RemoteData", "network"};

// Reads the sections one after the other; later ones refer to earlier ones.
class Reader {
 public:
  Reader(ConfigFields& root, ConfigErrors& errors, HostConfig& out)
      : root_(root), errors_(errors), out_(out) {}

  void readAll() {
    readLog();
    readAddins();
    eachOf("layers", [this](ConfigFields& fields) { readLayer(fields); });
    eachOf("variables", [this](ConfigFields& fields) { readVariable(fields); });
    eachOf("programs", [this](ConfigFields& fields) { readProgram(fields); });
    eachOf("sources", [this](ConfigFields& fields) { readSource(fields); });
    readHttp();
    readNetwork(root_, errors_, out_.network);
    readSections();
    root_.reportUnknown();
  }

 private:
  // Calls `read` with the fields of every element of an array of the file.
  template <class Read>
  void eachOf(const char* section, Read read) {
    const json::Value* array = root_.array(section);
    if (array == nullptr) return;
    for (rapidjson::SizeType i = 0; i < array->Size(); ++i) {
      ConfigFields fields((*array)[i], std::string(section) + "[" + std::to_string(i) + "]",
                          errors_);
      read(fields);
      fields.reportUnknown();
    }
  }

  std::string absolute(const std::string& path) const {
    if (path.empty()) return path;
    return (std::filesystem::path(out_.folder) / path).lexically_normal().string();
  }

  void readLog();
  void readAddins();
  void readLayer(ConfigFields& fields);
  void readVariable(ConfigFields& fields);
  void readArchivedLayers(ConfigFields& variable, vm::ArchivedLayers& out);
  void readProgram(ConfigFields& fields);
  void readSource(ConfigFields& fields);
  void readSourceValues(ConfigFields& source, SourceCfg& out);
  void readSpeed(ConfigFields& source, double& out);
  void readHttp();
  void readHttpLimits(ConfigFields& http);
  void checkAccess(ConfigFields& http);
  void readSections();

  ConfigFields& root_;
  ConfigErrors& errors_;
  HostConfig& out_;
  std::set<std::int32_t> layers_;
  std::set<std::int64_t> ids_;
  std::set<std::string> paths_;
  std::set<std::string> programs_;
};

void Reader::readLog() {
  const json::Value* section = root_.object("log");
  if (section == nullptr) return;
  ConfigFields fields(*section, "log", errors_);
  fields.integer("levels", ConfigFields::kOptional, 0, UINT32_MAX, out_.log.levels);
  fields.text("file", ConfigFields::kOptional, out_.log.file);
  out_.log.file = absolute(out_.log.file);
  fields.reportUnknown();
}

void Reader::readAddins() {
  const json::Value* array = root_.array("addins");
  if (array == nullptr) return;
  std::set<std::string> seen;
  for (rapidjson::SizeType i = 0; i < array->Size(); ++i) {
    const json::Value& element = (*array)[i];
    const std::string place = "addins[" + std::to_string(i) + "]";
    if (!element.IsString() || element.GetStringLength() == 0) {
      errors_.add(place, "must be the name of a file");
      continue;
    }
    std::string name = element.GetString();
    if (name.find('/') != std::string::npos) name = absolute(name);
    if (!seen.insert(name).second) errors_.add(place, "is there twice");
    out_.addins.push_back(name);
  }
}

void Reader::readLayer(ConfigFields& fields) {
  vm::Layer layer;
  const bool numbered =
      fields.integer("number", ConfigFields::kRequired, 0, kMaxInt32, layer.number);
  fields.flag("cache", layer.cache);
  fields.integer("resampleInterval", ConfigFields::kOptional, 0, INT64_MAX, layer.resampleInterval);
  if (numbered && !layers_.insert(layer.number).second) {
    fields.wrong("number", "another layer has it already");
  }
  out_.layers.push_back(layer);
}

void Reader::readVariable(ConfigFields& fields) {
  VariableCfg variable;
  vm::Item& item = variable.item;
  const bool identified =
      fields.integer("id", ConfigFields::kRequired, INT64_MIN, INT64_MAX, item.id);
  fields.text("path", ConfigFields::kRequired, item.path);
  std::string type;
  fields.text("type", ConfigFields::kRequired, type);
  if (!type.empty() && !typeOfName(type, item.type)) {
    fields.wrong("type", "\"" + type + "\" is not the name of a built-in type");
  }
  readArchivedLayers(fields, variable.layers);
  if (identified && !ids_.insert(item.id).second) {
    fields.wrong("id", "another variable has it already");
  }
  if (!item.path.empty() && !paths_.insert(item.path).second) {
    fields.wrong("path", "another variable has it already");
  }
  out_.variables.push_back(std::move(variable));
}

void Reader::readArchivedLayers(ConfigFields& variable, vm::ArchivedLayers& out) {
  const json::Value* layers = variable.object("layers");
  if (layers == nullptr) return;
  const std::string place = variable.placeOf("layers");
  ConfigFields all(*layers, place, errors_);
  for (const auto& member : layers->GetObject()) {
    const std::string key(member.name.GetString(), member.name.GetStringLength());
    std::int64_t number = 0;
    if (!readWholeInt64(key, number) || std::to_string(number) != key ||
        layers_.count(static_cast<std::int32_t>(number)) == 0 || number > kMaxInt32) {
      all.wrong(key, "is not the number of a layer of the section \"layers\"");
      continue;
    }
    ConfigFields fields(member.value, place + "." + key, errors_);
    auto& archived = out[static_cast<std::int32_t>(number)];
    fields.integer("archive", ConfigFields::kRequired, 0, kMaxInt32, archived.first);
    fields.integer("parameter", ConfigFields::kOptional, INT64_MIN, INT64_MAX, archived.second);
    fields.reportUnknown();
  }
}

void Reader::readProgram(ConfigFields& fields) {
  ProgramCfg program;
  fields.text("name", ConfigFields::kRequired, program.name);
  fields.text("file", ConfigFields::kRequired, program.file);
  fields.integer("cycleMs", ConfigFields::kOptional, 1, kMaxMs, program.cycleMs);
  program.file = absolute(program.file);
  if (!program.name.empty() && !programs_.insert(program.name).second) {
    fields.wrong("name", "another program has it already");
  }
  out_.programs.push_back(std::move(program));
}

void Reader::readSource(ConfigFields& fields) {
  SourceCfg source;
  fields.text("type", ConfigFields::kRequired, source.type);
  if (source.type == "system") {
    fields.integer("periodMs", ConfigFields::kOptional, 10, kMaxMs, source.periodMs);
  } else if (source.type == "csv") {
    fields.text("file", ConfigFields::kRequired, source.file);
    source.file = absolute(source.file);
    readSpeed(fields, source.speed);
  } else if (!source.type.empty()) {
    fields.wrong("type", "must be \"system\" or \"csv\"");
    return;
  }
  readSourceValues(fields, source);
  out_.sources.push_back(std::move(source));
}

void Reader::readSpeed(ConfigFields& source, double& out) {
  const json::Value* speed = source.value("speed", ConfigFields::kOptional);
  if (speed != nullptr && speed->IsString() && std::strcmp(speed->GetString(), "max") == 0) {
    out = 0;
  } else {
    source.number("speed", 0, 1e9, out);
  }
}

void Reader::readSourceValues(ConfigFields& source, SourceCfg& out) {
  const auto need = out.type == "system" ? ConfigFields::kRequired : ConfigFields::kOptional;
  const json::Value* values = source.object("values", need);
  if (values == nullptr) return;
  ConfigFields fields(*values, source.placeOf("values"), errors_);
  for (const auto& member : values->GetObject()) {
    const std::string name = member.name.GetString();
    std::int64_t id = 0;
    if (!fields.integer(name.c_str(), ConfigFields::kRequired, INT64_MIN, INT64_MAX, id)) continue;
    if (ids_.count(id) == 0) {
      fields.wrong(name, "there is no variable with the id " + std::to_string(id));
    }
    out.values[name] = id;
  }
}

void Reader::readHttp() {
  const json::Value* section = root_.object("http");
  if (section == nullptr) return;
  HttpCfg& http = out_.http;
  http.enabled = true;
  ConfigFields fields(*section, "http", errors_);
  fields.text("bind", ConfigFields::kOptional, http.bind);
  fields.integer("port", ConfigFields::kOptional, 0, UINT16_MAX, http.port);
  fields.text("token", ConfigFields::kOptional, http.token);
  fields.text("web", ConfigFields::kOptional, http.web);
  if (!http.web.empty()) http.web = absolute(http.web);
  readHttpLimits(fields);
  checkAccess(fields);
  fields.reportUnknown();
}

void Reader::readHttpLimits(ConfigFields& http) {
  const json::Value* section = http.object("limits");
  if (section == nullptr) return;
  ConfigFields fields(*section, "http.limits", errors_);
  HttpLimits& limits = out_.http.limits;
  constexpr auto kOptional = ConfigFields::kOptional;
  fields.integer("bodyBytes", kOptional, 1, 1 << 30, limits.bodyBytes);
  fields.integer("headerBytes", kOptional, 256, 1 << 20, limits.headerBytes);
  fields.integer("headerTimeMs", kOptional, 10, kMaxMs, limits.headerTimeMs);
  fields.integer("bodyTimeMs", kOptional, 10, kMaxMs, limits.bodyTimeMs);
  fields.integer("idleTimeMs", kOptional, 10, kMaxMs, limits.idleTimeMs);
  fields.integer("connections", kOptional, 1, 10'000, limits.connections);
  fields.integer("threads", kOptional, 1, 256, limits.threads);
  fields.reportUnknown();
}

void Reader::checkAccess(ConfigFields& http) {
  const HttpCfg& cfg = out_.http;
  if (!isAddress(cfg.bind)) {
    http.wrong("bind", "\"" + cfg.bind + "\" is not a numeric IP address");
  } else if (!isLoopback(cfg.bind) && cfg.token.empty()) {
    http.wrong("token", "must be set, since http.bind is reached from other machines");
  }
  for (const char c : cfg.token) {
    if (c > ' ' && c < 0x7F) continue;
    http.wrong("token", "must consist of visible ASCII characters");
    return;
  }
}

void Reader::readSections() {
  for (const char* name : kSections) {
    const json::Value* section = root_.object(name);
    if (section == nullptr) continue;
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    section->Accept(writer);
    out_.sections[name] = std::string(text.GetString(), text.GetSize());
  }
}

// "line 3, column 7".
std::string positionOf(const std::string& text, std::size_t offset) {
  std::size_t line = 1;
  std::size_t column = 1;
  for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
    column = text[i] == '\n' ? 1 : column + 1;
    line += text[i] == '\n' ? 1 : 0;
  }
  return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

bool parse(const std::string& text, json::Document& document, ConfigErrors& errors) {
  if (json::nestsTooDeep(text.data(), text.size())) {
    errors.add("", "nests deeper than " + std::to_string(json::kMaxNesting) + " levels");
    return false;
  }
  // Full precision: numbers of the sections are written out again for the add-ins.
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseFullPrecisionFlag |
                              rapidjson::kParseValidateEncodingFlag;
  document.Parse<kFlags>(text.data(), text.size());
  if (!document.HasParseError()) return true;
  errors.add(positionOf(text, document.GetErrorOffset()),
             rapidjson::GetParseError_En(document.GetParseError()));
  return false;
}

// What the programs and sources name must be there.
void checkFiles(const HostConfig& config, ConfigErrors& errors) {
  const auto check = [&errors](const std::string& place, const std::string& file) {
    if (const int error = file.empty() ? 0 : cannotRead(file); error != 0) {
      errors.add(place, "\"" + file + "\" cannot be read: " + std::strerror(error));
    }
  };
  for (std::size_t i = 0; i < config.programs.size(); ++i) {
    check("programs[" + std::to_string(i) + "].file", config.programs[i].file);
  }
  for (std::size_t i = 0; i < config.sources.size(); ++i) {
    check("sources[" + std::to_string(i) + "].file", config.sources[i].file);
  }
}

}  // namespace

bool readConfigText(const std::string& text, const std::string& path, HostConfig& out,
                    std::vector<std::string>& errors) {
  ConfigErrors faults(path, errors);
  out = HostConfig();
  out.folder = std::filesystem::absolute(path).lexically_normal().parent_path().string();
  json::Document document;
  if (!parse(text, document, faults)) return false;
  ConfigFields root(document, "", faults);
  if (document.IsObject()) Reader(root, faults, out).readAll();
  return !faults.any();
}

bool readConfigFile(const std::string& path, HostConfig& out, std::vector<std::string>& errors) {
  ConfigErrors faults(path, errors);
  std::string text;
  if (const int error = readTextFile(path, text); error != 0) {
    faults.add("", std::string("cannot be read: ") + std::strerror(error));
    return false;
  }
  readConfigText(text, path, out, errors);
  checkFiles(out, faults);
  return !faults.any();
}

}  // namespace orva::host
