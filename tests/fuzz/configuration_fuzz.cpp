#include <boost/smart_ptr/make_shared.hpp>
#include <cmath>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_targets.h"
#include "orva_database/remote_archive_source.h"
#include "orva_host/config_file.h"
#include "orva_host/config_sections.h"
#include "share/archive_manager.h"
#include "share/events_archive_manager.h"
#include "share/write_filter.h"
#include "sqlite_base/store_parameters.h"
#include "support/archive_fixture.h"
#include "support/manual_clock.h"
#include "support/scripted_provider.h"

// The first byte says who reads the others as text: 'D', 'E' and 'R' are the sections
// "DataArchive", "EventsArchive" and "RemoteData" of the add-in, 'P' parts of them, anything else
// the host's file, whose sections the add-in then reads as well. Archives of the type "scripted"
// can be made.

namespace orva::fuzz {
namespace {

json::Document parsed(const std::string& text) {
  json::Document document;
  if (!json::nestsTooDeep(text.data(), text.size())) {
    document.Parse<rapidjson::kParseIterativeFlag>(text.c_str(), text.size());
    if (document.HasParseError()) document.SetNull();
  }
  return document;
}

// How many elements of "archives" are objects with a known provider type.
std::size_t knownArchives(const json::Value& section) {
  const json::Value& archives = json::member(section, "archives");
  if (!archives.IsArray()) return 0;
  std::size_t known = 0;
  for (const json::Value& entry : archives.GetArray()) {
    const json::Value& type = json::member(json::member(entry, "connection"), "providerType");
    known += type.IsString() && std::string(type.GetString(), type.GetStringLength()) == "scripted"
                 ? 1
                 : 0;
  }
  return known;
}

void demandLimits(const json::Value& limits, const archive::ArchiveCfg& read) {
  const json::Value& most = json::member(limits, "maxSize");
  demand(read.maxSize == (most.IsUint() ? most.GetUint() : 0), "a limit is read as it is written");
  demand(read.reserved == 0, "reserved stays 0");
}

// ---- the add-in's sections

void readDataArchive(const std::string& text) {
  const test::ManualClock clock((test::startManagerWorker(), test::ManualClock::kStart));
  auto& manager = archive::DataArchiveManager::instance();
  test::ScriptedFactory factory;
  manager.clear();
  manager.regFactory("scripted", &factory);
  host::setConfigSection("DataArchive", text);
  const int result = manager.init();
  demand(result <= 0, "0 or a bad status");
  const json::Document section = parsed(text);
  if (result == 0) {
    demand(factory.count() == knownArchives(section), "each known entry is an archive");
  } else {
    demand(factory.count() == 0, "a bad section has no archives");
  }
  const std::size_t made = factory.count();
  demand(manager.init() <= 0 && (made == 0 || factory.count() == made),
         "archives that are there are not made again");
  manager.clear();
  for (std::size_t i = 0; i < factory.count(); ++i) {
    const std::vector<std::string> calls = factory.provider(i).calls();
    demand(calls.size() >= 2 && calls.back() == "stop", "each archive is started and stopped");
  }
  manager.regFactory("scripted", nullptr);
  host::replaceConfigSections({});
}

class CountingEvents final : public archive::IEventsArchiveProcFactory {
 public:
  boost::shared_ptr<archive::IEventsArchiveProc> create(const archive::ArchiveCfg&,
                                                        const archive::ConnectionCfg& to) override {
    demand(to.providerType == "scripted", "the factory makes its own type");
    ++made;
    return boost::make_shared<Archive>(*this);
  }

  std::size_t made = 0;
  std::size_t started = 0;
  std::size_t ended = 0;

 private:
  class Archive final : public archive::IEventsArchiveProc {
   public:
    explicit Archive(CountingEvents& counts) : counts_(counts) {}
    ~Archive() override { ++counts_.ended; }
    void start() override { ++counts_.started; }
    void stop() override {}

   private:
    CountingEvents& counts_;
  };
};

void readEventsArchive(const std::string& text) {
  auto& manager = archive::EventsArchiveManager::instance();
  CountingEvents events;
  manager.clear();
  manager.regFactory("scripted", &events);
  host::setConfigSection("EventsArchive", text);
  const int result = manager.init();
  const json::Document section = parsed(text);
  demand(result <= 0, "0 or a bad status");
  demand(events.made == (result == 0 ? knownArchives(section) : 0),
         "each known entry is an archive");
  manager.clear();
  demand(events.started == events.made && events.ended == events.made,
         "each archive is started and ends");
  manager.regFactory("scripted", nullptr);
  host::replaceConfigSections({});
}

// No controller has an address.
class NobodyThere final : public archive::ControllerLink {
 public:
  bool isOpen() const override { return false; }
  int addresses(std::int32_t, NLAddress& first) override {
    first = {};
    return 0;
  }
  int exchange(const NLAddress&, const std::string&, const NLWait&, std::string&) override {
    return -1;
  }
};

void readRemoteData(const std::string& text) {
  archive::RemoteArchiveSource source(std::make_unique<NobodyThere>());
  host::setConfigSection("RemoteData", text);
  const int result = source.Init();
  demand(result <= 0, "0 or a bad status");
  std::size_t items = 0;
  for (const auto& [index, list] : source.controllers()) items += list.size();
  const json::Document section = parsed(text);
  const json::Value& listed = json::member(section, "items");
  demand(items == (result == 0 && listed.IsArray() ? listed.Size() : 0),
         "each element is an item of some controller");
  source.DestroySource();
  demand(source.controllers().empty(), "nothing is left");
  host::replaceConfigSections({});
}

// The parts that providers read, from whatever the text is.
void readParts(const std::string& text) {
  const json::Document document = parsed(text);
  demandLimits(document, archive::ArchiveCfg(document));
  const archive::ConnectionCfg connection(document, archive::kDataArchive);
  demand(connection.type == archive::kDataArchive, "the kind is the reader's");
  const archive::Filter filter(document);
  demand(filter.blocksWrite, "no configuration silences the blocks");
  demand(std::isfinite(filter.deadband), "a dead band is a number");
  std::vector<std::string> problems;
  const sqlite::StoreParameters store = sqlite::parseStoreParameters(text, problems);
  demand(store.cacheKiB >= 64 && store.cacheKiB <= 1048576 && store.checkpointPages >= 16 &&
             store.checkpointPages <= 1000000,
         "parameters of a store stay within their bounds");
  for (const std::string& problem : problems) demand(!problem.empty(), "a problem has a text");
}

// ---- the host's file

constexpr const char* kFile = "/etc/orva/host.json";

void demandSound(const host::HostConfig& config) {
  std::set<std::int64_t> ids;
  std::set<std::int32_t> layers;
  for (const vm::Layer& layer : config.layers) {
    demand(layer.number >= 0 && layer.resampleInterval >= 0, "a layer's numbers are not negative");
    demand(layers.insert(layer.number).second, "each layer is there once");
  }
  for (const host::VariableCfg& variable : config.variables) {
    demand(ids.insert(variable.item.id).second, "each id is there once");
    demand(!variable.item.path.empty(), "each variable has a path");
    for (const auto& [layer, where] : variable.layers) {
      demand(layers.count(layer) == 1 && where.first >= 0, "a variable is archived in a layer");
    }
  }
  for (const host::SourceCfg& source : config.sources) {
    demand(source.type == "system" || source.type == "csv", "a source is of a known type");
    for (const auto& [name, id] : source.values)
      demand(ids.count(id) == 1, "values have variables");
  }
  for (const host::ProgramCfg& program : config.programs) {
    demand(!program.name.empty() && program.cycleMs > 0, "a program has a name and a cycle");
    demand(program.file.rfind('/', 0) == 0, "paths are absolute");
  }
  demand(config.http.limits.threads > 0 && config.http.limits.bodyBytes > 0, "limits are positive");
}

void readSection(const std::string& name, const std::string& text) {
  if (name == "DataArchive") readDataArchive(text);
  if (name == "EventsArchive") readEventsArchive(text);
  if (name == "RemoteData") readRemoteData(text);
}

void readHostFile(const std::string& text) {
  host::HostConfig config;
  std::vector<std::string> errors;
  const bool good = host::readConfigText(text, kFile, config, errors);
  demand(good == errors.empty(), "a file is good when nothing is wrong with it");
  for (const std::string& error : errors) {
    demand(error.rfind(std::string(kFile) + ": ", 0) == 0 && error.size() > 21,
           "an error says where it is, and what");
  }
  host::HostConfig again;
  std::vector<std::string> sameErrors;
  demand(host::readConfigText(text, kFile, again, sameErrors) == good && sameErrors == errors,
         "a file reads the same twice");
  if (good) demandSound(config);
  for (const auto& [name, section] : config.sections) {
    demand(parsed(section).IsObject(), "a section is handed on as an object");
    readSection(name, section);
  }
}

}  // namespace

void configuration(const std::uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  const char reader = static_cast<char>(in.byte());
  const std::string text = in.rest();
  if (reader == 'D') {
    readDataArchive(text);
  } else if (reader == 'E') {
    readEventsArchive(text);
  } else if (reader == 'R') {
    readRemoteData(text);
  } else if (reader == 'P') {
    readParts(text);
  } else {
    readHostFile(text);
  }
}

}  // namespace orva::fuzz
