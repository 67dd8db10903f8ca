#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "host/vm_info.h"
#include "orva_database/cache.h"
#include "share/archive_manager.h"
#include "support/manual_clock.h"
#include "support/scripted_provider.h"

namespace orva::test {

PinPtr realPin(std::int64_t time, double value);
// Samples `step` ticks apart, from `first` on, with values 0, 1, 2, ...
std::vector<PinPtr> realPins(std::int64_t first, std::size_t count, std::int64_t step = 1);

std::vector<std::int64_t> timesOf(const PinList& pins);
std::vector<std::int64_t> timesOf(const std::vector<PinPtr>& pins);
// The times of an item's answer.
std::vector<std::int64_t> timesOf(const archive::SharedItem& item);

// Makes the manager's worker wait under an earlier clock, so that the clock of a test, to be made
// after it, leaves the worker alone.
void startManagerWorker();

// Base of tests that use the one data archive manager: archives from `factory`, registered as
// "scripted", on a manual clock. The clock runs through waits of the test's own thread, while the
// manager's worker goes on in real time; see holdWorker(). The host describes layers 0 to 2, not
// cached. Whatever the manager held is cleared before and after each test.
class ArchiveFixture : public ::testing::Test {
 public:
  ArchiveFixture();
  ~ArchiveFixture() override;

  static archive::DataArchiveManager& manager() { return archive::DataArchiveManager::instance(); }

  // Sets the section "DataArchive" to so many archives with this filter, and calls init().
  int start(std::size_t archives = 1, const std::string& filter = R"({"allValues":true})");
  // The n-th provider made since the test began.
  ScriptedProvider& archive(std::size_t index = 0) { return factory.provider(index); }

  static void describeLayer(std::int32_t number, bool cached, std::int64_t resampleInterval = 0);
  static void describeItem(std::int64_t id, const std::string& path,
                           const vm::ArchivedLayers& layers);
  // A variable with layer 0 in archive 0, and its cache id.
  static std::int64_t makeItem(std::int64_t id, const std::string& path = "Plant/Load");
  static boost::shared_ptr<cache::CachedItem> pin(std::int64_t cacheId);

  // From then on the worker makes its passes when workerPass() says so, and only then.
  void holdWorker();
  // One pass of the worker, from beginning to end.
  void workerPass();

  ManualClock clock;
  ScriptedFactory factory;
};

// A request for the samples of one item.
archive::SharedRequest requestFor(std::int64_t cacheId, std::int64_t start = 0,
                                  std::int64_t end = 0, std::uint32_t limit = 0);

}  // namespace orva::test
