#include "bench/memory/measured_service.h"

#include <boost/smart_ptr/make_shared.hpp>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "bench/memory/heap_count.h"
#include "orva_host/config_sections.h"
#include "orva_host/variables.h"
#include "share/archive_manager.h"
#include "share/json.h"
#include "share/ticks.h"

namespace orva::bench {
namespace {

constexpr int kReplyBytes = 8 << 20;
constexpr std::int64_t kStart = kUnixEpochTicks + 1'700'000'000 * kTicksPerSecond;

class CountingFactory final : public archive::IDataArchiveProcFactory {
 public:
  boost::shared_ptr<archive::IDataArchiveProc> create(const archive::ArchiveCfg&,
                                                      const archive::ConnectionCfg&) override {
    return boost::make_shared<CountingArchive>();
  }
};

archive::DataArchiveManager& manager() { return archive::DataArchiveManager::instance(); }

// The values of all items in a reply; 0 when it cannot be read.
std::size_t valuesIn(const char* reply) {
  json::Document document;
  document.Parse(reply);
  if (document.HasParseError()) return 0;
  const json::Value& data = json::member(document, "data");
  if (!data.IsArray()) return 0;
  std::size_t sum = 0;
  for (const json::Value& item : data.GetArray()) {
    const json::Value& values = json::member(item, "values");
    if (values.IsArray()) sum += values.Size();
  }
  return sum;
}

}  // namespace

MeasuredService::MeasuredService(Archive archive, Kind kind)
    : kind_(kind), reply_(new char[kReplyBytes]) {
  static CountingFactory counting;
  static sqlite::Factory sqlite;
  manager().clear();
  manager().regFactory("counting", &counting);
  manager().regFactory("sqlite", &sqlite);
  host::clearInstallation();
  host::setLayer({0, kind != Kind::uncached, 0});
  host::setLayer({1, kind == Kind::threeLayers, 60 * kTicksPerSecond});
  host::setLayer({2, kind == Kind::threeLayers, 3600 * kTicksPerSecond});
  host::setConfigSection("DataArchive",
                         std::string(R"({"archives":[{"limits":{},"filter":{"allValues":true},)") +
                             R"("connection":{"providerType":")" +
                             (archive == Archive::sqlite ? "sqlite" : "counting") +
                             R"(","location":")" + folder_.file("store") + R"("}}]})");
  manager().init();
}

MeasuredService::~MeasuredService() {
  pins_.clear();
  manager().clear();
  host::clearInstallation();
  cache::Layer::storage = cache::BlockStorage::make(cache::Layer::kStorageBlocks);
}

archive::ItemKey MeasuredService::key(std::uint32_t index) {
  char path[64];
  std::snprintf(path, sizeof path, "Plant/Area %u/Unit %02u/T%08u", index % 8, index % 100, index);
  return {std::int64_t{index} + 1, path};
}

std::int64_t MeasuredService::time(std::uint32_t n) { return kStart + n * kTicksPerSecond; }

PinPtr MeasuredService::sample(std::uint32_t n) {
  OpcUa_VariantHlp value;
  value.SetDouble(std::round(std::sin(n / 500.0) * 1000) / 100);
  return makePin(time(n), std::move(value));
}

void MeasuredService::describe(std::uint32_t count) {
  vm::ArchivedLayers layers{{0, {0, 0}}};
  if (kind_ == Kind::threeLayers) layers = {{0, {0, 0}}, {1, {0, 0}}, {2, {0, 0}}};
  for (const std::uint32_t end = described_ + count; described_ < end; ++described_) {
    archive::ItemKey variable = key(described_);
    vm::Item item;
    item.id = variable.first;
    item.path = std::move(variable.second);
    item.type = OpcUaType_Double;
    host::setVariable(item, layers);
  }
}

void MeasuredService::makeItems() {
  pins_.reserve(described_);
  ids_.reserve(described_);
  for (std::uint32_t i = items(); i < described_; ++i) {
    std::int64_t id = 0;
    pins_.push_back(manager().providePin(key(i), id));
    ids_.push_back(id);
  }
}

std::string MeasuredService::request(std::uint32_t firstItem, std::uint32_t count,
                                     std::uint32_t first, std::uint32_t values) const {
  const auto milliseconds = [](std::uint32_t n) {
    return std::to_string((time(n) - kUnixEpochTicks) / kTicksPerMillisecond);
  };
  std::string text = "/Methods/HistoryReadRaw\nmemory\n{\"data\":[";
  for (std::uint32_t i = 0; i < count; ++i) {
    if (i != 0) text += ",";
    text += "{\"archiveItemId\":" + std::to_string(ids_[firstItem + i]) + "}";
  }
  return text + "],\"parameters\":{\"startTime\":" + milliseconds(first) +
         ",\"endTime\":" + milliseconds(first + values - 1) +
         ",\"numValuesPerNode\":" + std::to_string(values) + "}}";
}

void MeasuredService::restart() {
  pins_.clear();
  ids_.clear();
  manager().clear();
  manager().init();
  makeItems();
}

MeasuredService::Reply MeasuredService::read(std::uint32_t firstItem, std::uint32_t count,
                                             std::uint32_t first, std::uint32_t values) {
  const std::string text = request(firstItem, count, first, values);
  int length = 0;
  const std::int64_t before = heapBytes();
  restartHeapPeak();
  const int code = RequestProcessor::ProcessJSONRequest(&processor_, 0, text.data(),
                                                        static_cast<int>(text.size()), reply_.get(),
                                                        kReplyBytes, &length);
  Reply reply;
  reply.peak = heapPeak() - before;
  reply.bytes = length;
  if (code == 0) reply.values = valuesIn(reply_.get());
  return reply;
}

}  // namespace orva::bench
