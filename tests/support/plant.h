#pragma once

#include <memory>
#include <string>

#include "support/history_client.h"
#include "support/host_process.h"
#include "support/temp_folder.h"

namespace orva::test {

// The parts of a configuration file, each as JSON text; what is not said stands here.
struct PlantConfig {
  std::string log = R"({"levels": 48})";
  std::string addins = R"(["liborva_database.so", "liborva_sqlite.so"])";
  // Raw values; minutes; hours. Intervals are ticks.
  std::string layers = R"([{"number": 0, "cache": true, "resampleInterval": 0},
    {"number": 1, "cache": true, "resampleInterval": 600000000},
    {"number": 2, "cache": true, "resampleInterval": 36000000000}])";
  std::string variables = "[]";
  std::string programs = "[]";
  std::string sources = "[]";
  std::string http = R"({"port": 0})";
  std::string network;     // none
  std::string remoteData;  // none
  // One archive that keeps every value, with a transaction each tenth of a second, and room for
  // what a program writes at once.
  std::string dataArchive = R"({"archives": [{
    "connection": {"providerType": "sqlite", "location": "store"},
    "limits": {"writePeriod": 1000000, "writeBufferSize": 100000},
    "filter": {"allValues": true}}]})";
  std::string eventsArchive;  // none

  std::string text() const;
};

// {"id": ..., "path": ..., "type": ..., "layers": {"0": {"archive": 0}}}
std::string variable(int id, const std::string& path, const std::string& type,
                     const std::string& layers = R"({"0": {"archive": 0}})");
// {"name": ..., "file": ..., "cycleMs": ...}
std::string program(const std::string& name, const std::string& file, int cycleMs);

// A host with a folder of its own, for its configuration, programs and stores.
class Plant {
 public:
  explicit Plant(const PlantConfig& config) { configure(config); }

  const TempFolder& folder() const { return folder_; }
  std::string configFile() const { return folder_.path("plant.json"); }
  void configure(const PlantConfig& config) const { folder_.write("plant.json", config.text()); }

  // Starts a host (after the one before has ended) and waits until it listens; false, with its log
  // as a test failure, when it does not.
  bool start();
  HostProcess& host() { return *host_; }
  const HistoryClient& client() const { return client_; }
  std::uint16_t port() const { return client_.port(); }

  // The id by which history is asked for; waits until the path has one.
  std::int64_t itemId(const std::string& path) const;
  // Waits until the newest value of the item is this JSON text.
  bool waitForValue(std::int64_t archiveItemId, const std::string& value,
                    int timeoutMs = 10'000) const;

 private:
  TempFolder folder_;
  std::unique_ptr<HostProcess> host_;
  HistoryClient client_{0};
};

}  // namespace orva::test
