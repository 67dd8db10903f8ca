#include "support/archive_fixture.h"

#include <boost/smart_ptr/make_shared.hpp>
#include <thread>

#include "orva_host/config_sections.h"
#include "orva_host/variables.h"
#include "share/ticks.h"

namespace orva::test {

namespace {

template <class Pins>
std::vector<std::int64_t> times(const Pins& pins) {
  std::vector<std::int64_t> result;
  result.reserve(pins.size());
  for (const PinPtr& pin : pins) result.push_back(pin->time);
  return result;
}

void waitForWaits(const ManualClock& clock, long long begun) {
  while (clock.waitsBegun() < begun) std::this_thread::yield();
}

void forgetInstallation() {
  archive::DataArchiveManager::instance().clear();
  host::clearInstallation();
  host::replaceConfigSections({});
}

}  // namespace

void startManagerWorker() {
  static bool started = false;
  if (started) return;
  started = true;
  ManualClock clock;
  clock.governOldThreads();
  archive::DataArchiveManager::instance();
  waitForWaits(clock, 1);
}

PinPtr realPin(std::int64_t time, double value) {
  OpcUa_VariantHlp variant;
  variant.SetDouble(value);
  return makePin(time, variant);
}

std::vector<PinPtr> realPins(std::int64_t first, std::size_t count, std::int64_t step) {
  std::vector<PinPtr> pins;
  pins.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    pins.push_back(realPin(first + static_cast<std::int64_t>(i) * step, static_cast<double>(i)));
  }
  return pins;
}

std::vector<std::int64_t> timesOf(const PinList& pins) { return times(pins); }
std::vector<std::int64_t> timesOf(const std::vector<PinPtr>& pins) { return times(pins); }
std::vector<std::int64_t> timesOf(const archive::SharedItem& item) { return times(item->values()); }

ArchiveFixture::ArchiveFixture() : clock((startManagerWorker(), ManualClock::kStart)) {
  clock.setAutoAdvance(true);
  forgetInstallation();
  for (const std::int32_t number : {0, 1, 2}) describeLayer(number, false);
  manager().regFactory("scripted", &factory);
}

ArchiveFixture::~ArchiveFixture() {
  forgetInstallation();
  manager().regFactory("scripted", nullptr);
}

int ArchiveFixture::start(std::size_t archives, const std::string& filter) {
  std::string section = R"({"archives":[)";
  for (std::size_t i = 0; i < archives; ++i) {
    if (i != 0) section += ',';
    section += R"({"connection":{"providerType":"scripted","location":"archive )" +
               std::to_string(i) + R"("},"limits":{},"filter":)" + filter + "}";
  }
  host::setConfigSection("DataArchive", section + "]}");
  return manager().init();
}

void ArchiveFixture::describeLayer(std::int32_t number, bool cached,
                                   std::int64_t resampleInterval) {
  vm::Layer layer;
  layer.number = number;
  layer.cache = cached;
  layer.resampleInterval = resampleInterval;
  host::setLayer(layer);
}

void ArchiveFixture::describeItem(std::int64_t id, const std::string& path,
                                  const vm::ArchivedLayers& layers) {
  vm::Item item;
  item.id = id;
  item.path = path;
  item.type = OpcUaType_Double;
  host::setVariable(item, layers);
}

std::int64_t ArchiveFixture::makeItem(std::int64_t id, const std::string& path) {
  describeItem(id, path, {{0, {0, 0}}});
  return manager().createPinCache({id, path});
}

boost::shared_ptr<cache::CachedItem> ArchiveFixture::pin(std::int64_t cacheId) {
  return manager().getPinCache(cacheId);
}

void ArchiveFixture::holdWorker() {
  clock.setAutoAdvance(false);
  const long long begun = clock.waitsBegun();
  clock.governOldThreads();
  waitForWaits(clock, begun + 1);
}

void ArchiveFixture::workerPass() {
  const long long begun = clock.waitsBegun();
  clock.advance(100 * kTicksPerMillisecond);
  waitForWaits(clock, begun + 1);
}

archive::SharedRequest requestFor(std::int64_t cacheId, std::int64_t start, std::int64_t end,
                                  std::uint32_t limit) {
  auto request = boost::make_shared<archive::Request>();
  request->options.startTime = start;
  request->options.endTime = end;
  request->addItem(cacheId)->numValuesPerNode = limit;
  return request;
}

}  // namespace orva::test
