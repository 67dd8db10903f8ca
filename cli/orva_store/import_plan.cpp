#include "orva_store/import_plan.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "host/config_data.h"
#include "orva_cli/failure.h"
#include "orva_host/config_file.h"
#include "orva_host/text_file.h"
#include "share/archive_configs.h"
#include "share/json.h"

namespace orva::store {

// An archive of a configuration.
struct ArchiveEntry {
  std::string place;  // empty: no SQLite archive
  std::string file;   // there
  archive::Filter filter;
};

namespace {

using cli::Failure;
using cli::UsageError;

std::string fileAt(const std::string& place) {
  const sqlite::Location location(place, "archive.db");
  std::error_code error;
  const auto file =
      std::filesystem::weakly_canonical(std::filesystem::absolute(location.file()), error);
  return error ? location.file() : file.string();
}

// Programs and sources are of no concern here, so their files need not be there.
host::HostConfig readConfig(const std::string& file) {
  std::string text;
  if (const int error = host::readTextFile(file, text); error != 0) {
    throw Failure(file + " cannot be read: " + std::strerror(error));
  }
  host::HostConfig config;
  std::vector<std::string> errors;
  if (!host::readConfigText(text, file, config, errors)) throw Failure(errors.front());
  return config;
}

std::vector<ArchiveEntry> archivesOf(const host::HostConfig& config) {
  std::vector<ArchiveEntry> all;
  const auto section = config.sections.find("DataArchive");
  json::Document document;
  if (section == config.sections.end() || parse_json(section->second, document) != 0) return all;
  const json::Value& archives = json::member(document, "archives");
  for (rapidjson::SizeType i = 0; archives.IsArray() && i < archives.Size(); ++i) {
    const archive::ConnectionCfg connection(json::member(archives[i], "connection"),
                                            archive::kDataArchive);
    ArchiveEntry entry;
    if (connection.providerType == "sqlite" && !connection.location.empty()) {
      entry.place = (std::filesystem::path(config.folder) / connection.location).string();
      entry.file = fileAt(entry.place);
    }
    if (const json::Value& filter = json::member(archives[i], "filter"); filter.IsObject()) {
      entry.filter.load(filter);
    }
    all.push_back(std::move(entry));
  }
  return all;
}

std::int64_t intervalOf(const host::HostConfig& config, std::int32_t layer) {
  for (const vm::Layer& each : config.layers) {
    if (each.number == layer) return each.resampleInterval;
  }
  return 0;
}

const ArchiveEntry* entryOf(const std::vector<ArchiveEntry>& archives, std::int32_t number) {
  const auto index = static_cast<std::size_t>(number);
  if (number < 0 || index >= archives.size() || archives[index].place.empty()) return nullptr;
  return &archives[index];
}

}  // namespace

// Makes the plan of each item of a configuration.
class ImportPlan::Configuration {
 public:
  Configuration(ImportPlan& plan, const std::string& place, const std::string& configFile)
      : plan_(plan),
        config_(readConfig(configFile)),
        archives_(archivesOf(config_)),
        file_(fileAt(place)) {
    const bool isKnown = std::any_of(archives_.begin(), archives_.end(),
                                     [this](const ArchiveEntry& entry) { return isHere(entry); });
    if (isKnown) return;
    throw UsageError("no SQLite archive of " + configFile + " has its location at " + place);
  }

  void planAll() {
    for (const host::VariableCfg& variable : config_.variables) {
      plan_.items_.emplace(archive::ItemKey(variable.item.id, variable.item.path),
                           planOf(variable.layers));
    }
  }

 private:
  bool isHere(const ArchiveEntry& entry) const {
    return !entry.place.empty() && entry.file == file_;
  }

  ItemPlan planOf(const vm::ArchivedLayers& layers) {
    ItemPlan plan;
    const auto raw = layers.find(0);
    const ArchiveEntry* const entry =
        raw == layers.end() ? nullptr : entryOf(archives_, raw->second.first);
    if (entry == nullptr || !isHere(*entry)) {
      plan.reason = "the configuration does not keep layer 0 of the item in this store";
      return plan;
    }
    plan.store = storeOf(*entry);
    plan.filter = entry->filter;
    for (const auto& [number, target] : layers) {
      const ArchiveEntry* const other = entryOf(archives_, target.first);
      if (number == 0 || other == nullptr) continue;
      plan.others.push_back({number, intervalOf(config_, number), storeOf(*other)});
    }
    return plan;
  }

  StoreWriter* storeOf(const ArchiveEntry& entry) {
    StoreWriter*& store = open_[entry.file];
    if (store == nullptr) store = plan_.open(entry.place);
    return store;
  }

  ImportPlan& plan_;
  const host::HostConfig config_;
  const std::vector<ArchiveEntry> archives_;
  const std::string file_;                    // that is imported into
  std::map<std::string, StoreWriter*> open_;  // by file
};

ImportPlan::ImportPlan(const std::string& place, bool dryRun) : place_(place), dryRun_(dryRun) {}

ImportPlan::ImportPlan(const std::string& place, const std::string& configFile, bool dryRun)
    : place_(place),
      dryRun_(dryRun),
      configuration_(std::make_unique<Configuration>(*this, place, configFile)) {}

ImportPlan::~ImportPlan() = default;

void ImportPlan::openStores() {
  if (configuration_ == nullptr) {
    everyItem_.store = open(place_);
  } else {
    everyItem_.reason = "the configuration has no such item";
    configuration_->planAll();
  }
}

StoreWriter* ImportPlan::open(const std::string& place) {
  std::error_code error;
  const bool exists = std::filesystem::exists(sqlite::Location(place, "archive.db").file(), error);
  stores_.push_back(dryRun_ && !exists
                        ? StoreWriter::temporary()
                        : std::make_unique<StoreWriter>(place, StoreWriter::Missing::kIsMade));
  return stores_.back().get();
}

const ItemPlan& ImportPlan::planOf(const archive::ItemKey& key) const {
  const auto found = items_.find(key);
  return found == items_.end() ? everyItem_ : found->second;
}

}  // namespace orva::store
