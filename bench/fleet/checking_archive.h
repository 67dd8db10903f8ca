#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/fleet/fleet_plant.h"
#include "orva_sqlite/provider.h"
#include "share/archive_provider.h"
#include "share/mutex.h"

namespace orva::bench {

// What has come in from the plant. Each item's records have to come one after the other, from its
// first one on, none of them missing, twice or changed.
//
// take() is called by one thread at a time, the rest by any.
class Arrivals {
 public:
  explicit Arrivals(const FleetPlant& plant);

  void take(std::uint32_t number, const Pin& pin);
  // How many records of an item came, all of them right, and how many of all items.
  std::uint64_t of(std::uint32_t number) const { return next_[number].load(); }
  std::uint64_t total() const { return total_.load(); }
  std::uint64_t wrong() const { return wrong_.load(); }
  // Of the first wrong one. Empty when there is none.
  std::string problem() const EXCLUDES(mutex_);

  // How old records were when they came, since the last call of this function.
  struct Ages {
    std::uint64_t records = 0;
    std::int64_t sum = 0;  // ticks
    std::int64_t most = 0;
  };
  Ages takeAges();

 private:
  void report(std::uint32_t number, const Pin& pin) EXCLUDES(mutex_);

  const FleetPlant& plant_;
  std::vector<std::atomic<std::uint32_t>> next_;
  std::atomic<std::uint64_t> total_{0};
  std::atomic<std::uint64_t> wrong_{0};
  std::atomic<std::uint64_t> ageRecords_{0};
  std::atomic<std::int64_t> ageSum_{0};
  std::atomic<std::int64_t> ageMost_{0};
  mutable Mutex mutex_;  // leaf
  std::string problem_ GUARDED_BY(mutex_);
};

// Looks at what goes into an archive. Without an archive behind it the samples are looked at and
// forgotten.
class CheckingArchive final : public archive::IDataArchiveProc, public archive::IDataArchive {
 public:
  CheckingArchive(const FleetPlant& plant, Arrivals& arrivals,
                  std::unique_ptr<sqlite::Provider> behind);

  archive::IDataArchive* archive() override { return this; }
  void start() override;
  void stop() override;
  void read(const archive::SharedInterval& interval) override;
  std::uint32_t itemHandle(const archive::ItemKey& key) override;
  const archive::Filter& filter() override { return filter_; }
  archive::ILayerWriter& layerWriter(const archive::ItemKey& key, std::int32_t layer,
                                     std::int64_t parameter) override EXCLUDES(mutex_);
  void loadFilter(const json::Value& filter) override;

  // Null when there is none.
  const sqlite::Counters* counters() const;

 private:
  class Writer;

  const FleetPlant& plant_;
  Arrivals& arrivals_;
  const std::unique_ptr<sqlite::Provider> behind_;
  archive::Filter filter_;  // unchanged after loadFilter()
  Mutex mutex_;             // leaf
  std::map<std::uint32_t, std::unique_ptr<Writer>> writers_ GUARDED_BY(mutex_);
};

// Makes the archive of a run, and a new one when the manager is set up again.
class CheckingFactory final : public archive::IDataArchiveProcFactory {
 public:
  CheckingFactory(const FleetPlant& plant, Arrivals& arrivals, bool inMemory)
      : plant_(plant), arrivals_(arrivals), inMemory_(inMemory) {}

  boost::shared_ptr<archive::IDataArchiveProc> create(
      const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection) override;
  // Null before there is one.
  const boost::shared_ptr<CheckingArchive>& archive() const { return made_; }

 private:
  const FleetPlant& plant_;
  Arrivals& arrivals_;
  const bool inMemory_;
  boost::shared_ptr<CheckingArchive> made_;
};

}  // namespace orva::bench
