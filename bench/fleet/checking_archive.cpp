#include "bench/fleet/checking_archive.h"

#include <algorithm>
#include <boost/smart_ptr/make_shared.hpp>

namespace orva::bench {

Arrivals::Arrivals(const FleetPlant& plant) : plant_(plant), next_(plant.allItems()) {}

void Arrivals::take(std::uint32_t number, const Pin& pin) {
  const std::uint32_t n = next_[number].load(std::memory_order_relaxed);
  double value = 0;
  const bool right = pin.time == plant_.time(plant_.controllerOf(number), n) && pin.quality == 0 &&
                     pin.value.GetType() == OpcUaType_Double && pin.value.GetDouble(value) &&
                     value == plant_.value(number, n);
  if (!right) return report(number, pin);
  next_[number].store(n + 1, std::memory_order_relaxed);
  const std::int64_t age = plant_.now() - pin.time;
  ageRecords_.fetch_add(1, std::memory_order_relaxed);
  ageSum_.fetch_add(age, std::memory_order_relaxed);
  if (age > ageMost_.load(std::memory_order_relaxed)) ageMost_ = age;
  total_.fetch_add(1, std::memory_order_relaxed);
}

void Arrivals::report(std::uint32_t number, const Pin& pin) {
  if (++wrong_ != 1) return;
  const MutexLock lock(mutex_);
  const std::uint32_t n = next_[number];
  problem_ = "item " + plant_.localKey(number).second + ": instead of record " + std::to_string(n) +
             " of time " + std::to_string(plant_.time(plant_.controllerOf(number), n)) +
             " came one of time " + std::to_string(pin.time) + " with value " + pin.value.ToText() +
             " and quality " + std::to_string(pin.quality);
}

std::string Arrivals::problem() const {
  const MutexLock lock(mutex_);
  return problem_;
}

Arrivals::Ages Arrivals::takeAges() {
  return {ageRecords_.exchange(0), ageSum_.exchange(0), ageMost_.exchange(0)};
}

// ---- the archive

class CheckingArchive::Writer final : public archive::ILayerWriter {
 public:
  Writer(Arrivals& arrivals, std::uint32_t number, archive::ILayerWriter* behind)
      : arrivals_(arrivals), number_(number), behind_(behind) {}

  void write(const PinPtr& pin) override {
    arrivals_.take(number_, *pin);
    if (behind_ != nullptr) behind_->write(pin);
  }
  bool crowded() const override { return behind_ != nullptr && behind_->crowded(); }

 private:
  Arrivals& arrivals_;
  const std::uint32_t number_;
  archive::ILayerWriter* const behind_;
};

CheckingArchive::CheckingArchive(const FleetPlant& plant, Arrivals& arrivals,
                                 std::unique_ptr<sqlite::Provider> behind)
    : plant_(plant), arrivals_(arrivals), behind_(std::move(behind)) {}

void CheckingArchive::start() {
  if (behind_) behind_->start();
}

void CheckingArchive::stop() {
  if (behind_) behind_->stop();
}

void CheckingArchive::loadFilter(const json::Value& filter) {
  filter_.load(filter);
  if (behind_) behind_->archive()->loadFilter(filter);
}

void CheckingArchive::read(const archive::SharedInterval& interval) {
  if (behind_) {
    behind_->archive()->read(interval);
  } else {
    interval->finalize();
  }
}

std::uint32_t CheckingArchive::itemHandle(const archive::ItemKey& key) {
  return behind_ ? behind_->archive()->itemHandle(key) : 1;
}

archive::ILayerWriter& CheckingArchive::layerWriter(const archive::ItemKey& key, std::int32_t layer,
                                                    std::int64_t parameter) {
  const std::uint32_t number = plant_.numberOf(key);
  archive::ILayerWriter* const behind =
      behind_ ? &behind_->archive()->layerWriter(key, layer, parameter) : nullptr;
  const MutexLock lock(mutex_);
  auto& writer = writers_[number];
  if (!writer) writer = std::make_unique<Writer>(arrivals_, number, behind);
  return *writer;
}

const sqlite::Counters* CheckingArchive::counters() const {
  return behind_ ? &behind_->sqliteArchive().counters() : nullptr;
}

boost::shared_ptr<archive::IDataArchiveProc> CheckingFactory::create(
    const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection) {
  auto behind = inMemory_ ? nullptr : std::make_unique<sqlite::Provider>(limits, connection);
  made_ = boost::make_shared<CheckingArchive>(plant_, arrivals_, std::move(behind));
  return made_;
}

}  // namespace orva::bench
