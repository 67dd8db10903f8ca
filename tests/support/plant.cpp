#include "support/plant.h"

#include <gtest/gtest.h>

namespace orva::test {

std::string PlantConfig::text() const {
  const auto member = [](const char* name, const std::string& value) {
    return value.empty() ? std::string() : std::string(",\n\"") + name + "\": " + value;
  };
  return "{\"log\": " + log + member("addins", addins) + member("layers", layers) +
         member("variables", variables) + member("programs", programs) +
         member("sources", sources) + member("http", http) + member("network", network) +
         member("RemoteData", remoteData) + member("DataArchive", dataArchive) +
         member("EventsArchive", eventsArchive) + "}\n";
}

std::string variable(int id, const std::string& path, const std::string& type,
                     const std::string& layers) {
  return R"({"id": )" + std::to_string(id) + R"(, "path": ")" + path + R"(", "type": ")" + type +
         R"(", "layers": )" + layers + "}";
}

std::string program(const std::string& name, const std::string& file, int cycleMs) {
  return R"({"name": ")" + name + R"(", "file": ")" + file + R"(", "cycleMs": )" +
         std::to_string(cycleMs) + "}";
}

bool Plant::start() {
  host_.reset();
  host_ = std::make_unique<HostProcess>(configFile());
  client_ = HistoryClient(host_->waitUntilListening());
  if (client_.port() == 0) ADD_FAILURE() << "the host does not listen; its log:\n" << host_->log();
  return client_.port() != 0;
}

std::int64_t Plant::itemId(const std::string& path) const {
  std::int64_t id = -1;
  waitUntil([&] { return (id = client_.archiveItemId(path)) != -1; }, 5'000);
  return id;
}

bool Plant::waitForValue(std::int64_t archiveItemId, const std::string& value,
                         int timeoutMs) const {
  return waitUntil(
      [&] {
        const HistoryReply reply =
            client_.readRaw(archiveItemId, R"("returnFirstLastValue": true)");
        return !reply.item().values.empty() && reply.item().values.back().value == value;
      },
      timeoutMs);
}

}  // namespace orva::test
