#include "bench/fleet/history_check.h"

#include <boost/smart_ptr/make_shared.hpp>
#include <vector>

#include "bench/fleet/plant_methods.h"
#include "host/controller_network.h"
#include "orva_database/request_processor.h"
#include "share/archive_manager.h"

namespace orva::bench {
namespace {

constexpr std::uint32_t kValuesAtOnce = 100'000;

bool isRecord(const FleetPlant& plant, std::uint32_t number, std::uint64_t n, const Pin& pin) {
  double value = 0;
  return pin.time == plant.time(plant.controllerOf(number), n) && pin.value.GetDouble(value) &&
         value == plant.value(number, n) && pin.quality == 0;
}

std::string requestFor(const FleetPlant& plant, bool local, std::uint32_t items,
                       std::int64_t from) {
  std::string text = "/Methods/ReadNewRecords\norva_fleet\n{\"reqID\":1,\"items\":[";
  for (std::uint32_t i = 0; i < items; ++i) {
    const std::string path = local ? plant.localKey(i).second : FleetPlant::remotePath(i);
    text += (i == 0 ? "" : ",") + (R"({"path":")" + path) + R"(","randID":)" +
            std::to_string(i + 1) + R"(,"continuationPoint":)" + std::to_string(from) + "}";
  }
  return text + "]}";
}

template <class Processor>
std::string replyOf(Processor& processor, const std::string& request) {
  std::vector<char> reply(static_cast<std::size_t>(kNLMaxMessage));
  int length = 0;
  Processor::ProcessJSONRequest(&processor, 0, request.data(), static_cast<int>(request.size()),
                                reply.data(), static_cast<int>(reply.size()), &length);
  return std::string(reply.data(), static_cast<std::size_t>(length));
}

}  // namespace

std::string historyProblem(const FleetPlant& plant, std::uint32_t number, std::uint64_t records) {
  auto& manager = archive::DataArchiveManager::instance();
  const archive::ItemKey key = plant.localKey(number);
  const std::string name = "the history of " + key.second;
  std::uint64_t n = 0;
  boost::optional<std::int64_t> from;
  do {
    const auto request = boost::make_shared<archive::Request>();
    const archive::SharedItem item = request->addItem(manager.getCacheId(key));
    item->numValuesPerNode = kValuesAtOnce;
    item->setContinuationPoint(from);
    manager.syncRead(request);
    if (!request->complete()) return name + " cannot be read";
    for (const PinPtr& pin : item->values()) {
      if (n >= records || !isRecord(plant, number, n, *pin)) {
        return name + " is wrong at record " + std::to_string(n);
      }
      ++n;
    }
    from = item->continuationPoint();
  } while (from);
  return n == records ? "" : name + " ends after " + std::to_string(n) + " records";
}

std::string replyProblem(const FleetPlant& plant) {
  RequestProcessor service;
  PlantMethods simulated(plant, 0);
  const std::uint64_t records = plant.available(0);
  for (const std::uint32_t items : {1U, plant.items() / 2 + 1, plant.items()}) {
    for (const std::uint64_t n : {std::uint64_t{0}, records / 2, records - 1, records}) {
      const std::int64_t from = plant.time(0, n);
      const std::string expected = replyOf(service, requestFor(plant, true, items, from));
      const std::string given = replyOf(simulated, requestFor(plant, false, items, from));
      if (given == expected) continue;
      return "the simulated reply for " + std::to_string(items) + " items from record " +
             std::to_string(n) + " on differs from the service's:\n" + given + "\n" + expected;
    }
  }
  return "";
}

}  // namespace orva::bench
