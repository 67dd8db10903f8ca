#include "orva_database/service_metrics.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "orva_database/inbox.h"
#include "orva_database/layer.h"
#include "orva_host/metrics_registry.h"
#include "orva_host/prometheus_text.h"
#include "share/archive_manager.h"
#include "support/archive_fixture.h"
#include "support/exposition_parser.h"
#include "support/history_service.h"
#include "support/trace_capture.h"

namespace orva::service_metrics_test {
namespace {

using archive::DataArchiveManager;
using test::Exposition;
using test::kMs0;
using test::kSecond;
using test::kT0;
using test::number;
using test::Script;
using test::steps;
using test::When;

class ServiceMetricsTest : public ::testing::Test {
 protected:
  ServiceMetricsTest() {
    registerServiceMetrics();
    before_ = std::make_unique<Exposition>(scrape());
  }

  static Exposition scrape() {
    host::PrometheusText text;
    host::MetricsRegistry::instance().collect(text);
    const Exposition parsed(text.text());
    EXPECT_EQ(parsed.error(), "");
    return parsed;
  }
  static double now(const std::string& name) { return scrape().value(name); }
  // How much a counter has grown since the test began.
  double grown(const std::string& name) { return scrape().value(name) - before_->value(name); }
  double accepted(const std::string& rule) { return judged("orva_samples_accepted_total", rule); }
  double refused(const std::string& rule) { return judged("orva_samples_refused_total", rule); }

  // Reads from second a to second b after kT0.
  void read(std::int64_t id, int a, int b, const std::string& parameters = "") {
    service_.call("HistoryReadRaw", R"({"data":[{"archiveItemId":)" + std::to_string(id) +
                                        R"(}],"parameters":{"startTime":)" +
                                        std::to_string(kMs0 + a * 1000LL) + R"(,"endTime":)" +
                                        std::to_string(kMs0 + b * 1000LL) + parameters + "}}");
  }
  static void readFirstLast(std::int64_t id, int a, int b) {
    const auto request = test::requestFor(id, kT0 + a * kSecond, kT0 + b * kSecond);
    request->options.returnFirstLastValue = true;
    DataArchiveManager::instance().syncRead(request);
  }
  void askAsync(int subscription, std::int64_t id) {
    service_.call("HistoryReadRawAsync", R"({"data":[{"archiveItemId":)" + std::to_string(id) +
                                             R"(}],"parameters":{"subscriptionId":)" +
                                             std::to_string(subscription) + R"(,"requestId":1}})");
  }
  test::Reply publish(int subscription) {
    return service_.call("PublishHistoryData", R"({"parameters":{"subscriptionId":)" +
                                                   std::to_string(subscription) +
                                                   R"(,"requestId":1}})");
  }

  test::HistoryService service_;

 private:
  double judged(const std::string& name, const std::string& rule) {
    return scrape().value(name, {{"rule", rule}}) - before_->value(name, {{"rule", rule}});
  }

  std::unique_ptr<Exposition> before_;
};

TEST_F(ServiceMetricsTest, RegisteringAgainChangesNothing) {
  registerServiceMetrics();
  EXPECT_EQ(scrape().families().at("orva_reads_total").samples.size(), 1U);
  EXPECT_TRUE(service_.traces.texts().empty());
}

TEST_F(ServiceMetricsTest, ItemsInTheCacheAreCounted) {
  EXPECT_EQ(now("orva_cache_items"), 0);
  service_.addItem(1, "A");
  service_.addItem(2, "B");
  EXPECT_EQ(now("orva_cache_items"), 2);
  DataArchiveManager::instance().clear();
  EXPECT_EQ(now("orva_cache_items"), 0);
}

TEST_F(ServiceMetricsTest, BlocksAreCountedByQueueAndDroppedOnesAsEvictions) {
  cache::Layer::storage = cache::BlockStorage::make(8);
  service_.addItem(1, "A");
  const Exposition first = scrape();
  EXPECT_EQ(first.value("orva_cache_blocks", {{"queue", "first_in"}}), 1);
  EXPECT_EQ(first.value("orva_cache_blocks", {{"queue", "probation"}}), 0);
  EXPECT_EQ(first.value("orva_cache_blocks", {{"queue", "main"}}), 0);
  EXPECT_EQ(first.value("orva_cache_capacity_blocks"), 1638);
  EXPECT_EQ(first.value("orva_cache_evictions_total"), 0);
  for (int i = 2; i <= 10; ++i) service_.addItem(i, std::to_string(i));
  const Exposition later = scrape();
  EXPECT_EQ(later.value("orva_cache_blocks", {{"queue", "first_in"}}), 2);
  EXPECT_EQ(later.value("orva_cache_blocks", {{"queue", "probation"}}), 4);
  EXPECT_EQ(later.value("orva_cache_evictions_total"), 4);
  cache::Layer::storage = cache::BlockStorage::make(cache::Layer::kStorageBlocks);
}

TEST_F(ServiceMetricsTest, EachRuleOfTheFilterCountsItsSamples) {
  const std::int64_t id = service_.addItem(1, "A");
  const auto item = DataArchiveManager::instance().getPinCache(id);
  archive::Filter filter;
  filter.writeByChange = true;
  filter.deadband = 1;
  filter.minWritePeriod = 10;
  filter.maxWritePeriod = 1000;
  item->setFilter(filter);
  *item << number(100, 5);         // first
  *item << number(99, 6);          // earlier
  *item << number(105, 9);         // too soon
  *item << number(120, 5);         // equal
  *item << number(130, 5.5);       // inside the dead band
  *item << number(140, 7);         // outside
  *item << number(2000, 7);        // long ago
  *item << test::word(2020, "x");  // another value, of a type without dead band
  item->updateFilter([](archive::Filter& f) { f.writeByChange = false; });
  *item << number(2040, 1);  // within the longest period
  item->updateFilter([](archive::Filter& f) { f.allValues = true; });
  *item << number(2040, 1);
  for (const char* rule : {"first", "all_values", "max_period", "change", "outside_deadband"}) {
    EXPECT_EQ(accepted(rule), 1) << rule;
  }
  for (const char* rule :
       {"old_time", "within_max_period", "min_period", "equal", "inside_deadband"}) {
    EXPECT_EQ(refused(rule), 1) << rule;
  }
}

TEST_F(ServiceMetricsTest, SamplesOfForgottenItemsStayCounted) {
  const std::int64_t id = service_.addItem(1, "A");
  const auto item = DataArchiveManager::instance().getPinCache(id);
  service_.write(id, steps(kT0, 5));
  DataArchiveManager::instance().clear();
  EXPECT_EQ(accepted("first"), 1);
  EXPECT_EQ(accepted("all_values"), 4);
  *item << number(kT0 + 9 * kSecond, 1);  // stopped: it goes nowhere
  EXPECT_EQ(accepted("all_values") + refused("within_max_period"), 4);
}

TEST_F(ServiceMetricsTest, SampleCountsNeverFallWhileItemsAreForgotten) {
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int round = 0; round < 20; ++round) {
      const std::int64_t id = service_.addItem(round + 1, std::to_string(round));
      const auto item = DataArchiveManager::instance().getPinCache(id);
      for (int i = 0; i < 200; ++i) *item << number(kT0 + i, i);
      DataArchiveManager::instance().clear();
    }
    stop = true;
  });
  double last = 0;
  while (!stop) {
    const double counted =
        scrape().sum("orva_samples_accepted_total") + scrape().sum("orva_samples_refused_total");
    EXPECT_GE(counted, last);
    last = counted;
  }
  writer.join();
  EXPECT_EQ(accepted("first"), 20);
}

TEST_F(ServiceMetricsTest, AStretchFromMemoryIsAHitAndOneAskedForAMiss) {
  const std::int64_t id = service_.addItem(1, "A");
  service_.write(id, steps(kT0, 2500));  // three blocks
  read(id, 100, 200);
  EXPECT_EQ(grown("orva_cache_hits_total"), 1);
  EXPECT_EQ(grown("orva_cache_misses_total"), 0);
  read(id, 900, 2100);
  EXPECT_EQ(grown("orva_cache_hits_total"), 4);
  EXPECT_EQ(grown("orva_cache_misses_total"), 0);
  read(id, -100, 100);  // the archive may hold something before the first sample
  EXPECT_EQ(grown("orva_cache_hits_total"), 5);
  EXPECT_EQ(grown("orva_cache_misses_total"), 1);
}

TEST_F(ServiceMetricsTest, BoundsFirstAndLastCountEachForItself) {
  const std::int64_t id = service_.addItem(1, "A");
  service_.write(id, steps(kT0, 50));
  read(id, 10, 20, R"(,"returnBounds":true)");
  EXPECT_EQ(grown("orva_cache_hits_total"), 3);
  readFirstLast(id, 10, 20);
  EXPECT_EQ(grown("orva_cache_hits_total"), 5);
  EXPECT_EQ(grown("orva_cache_misses_total"), 0);
  readFirstLast(id, -20, -10);
  EXPECT_EQ(grown("orva_cache_hits_total"), 5);
  EXPECT_EQ(grown("orva_cache_misses_total"), 2);
  readFirstLast(id, -20, 70);
  EXPECT_EQ(grown("orva_cache_hits_total"), 6);
  EXPECT_EQ(grown("orva_cache_misses_total"), 3);
}

TEST_F(ServiceMetricsTest, WhatWasFetchedOnceIsAHitTheNextTime) {
  const std::int64_t id = service_.addItem(1, "A");
  service_.archive().add({1, "A"}, 0, steps(kT0, 50));
  read(id, 0, 49);
  EXPECT_EQ(grown("orva_cache_hits_total"), 0);
  EXPECT_EQ(grown("orva_cache_misses_total"), 1);
  read(id, 10, 20);
  EXPECT_EQ(grown("orva_cache_hits_total"), 1);
  EXPECT_EQ(grown("orva_cache_misses_total"), 1);
}

TEST_F(ServiceMetricsTest, ReadsAndTheirValuesAreCounted) {
  const std::int64_t id = service_.addItem(1, "A");
  service_.write(id, steps(kT0, 50));
  read(id, 10, 19);
  read(id, 10, 19, R"(,"numValuesPerNode":4)");
  EXPECT_EQ(grown("orva_reads_total"), 2);
  EXPECT_EQ(grown("orva_values_returned_total"), 14);
  EXPECT_EQ(grown("orva_read_timeouts_total"), 0);
}

TEST_F(ServiceMetricsTest, AReadGivenUpIsATimeout) {
  const std::int64_t id = service_.addItem(1, "A");
  service_.archive().addItem({1, "A"});
  service_.archive().scriptNext({When::never});
  read(id, 0, 10);
  EXPECT_EQ(grown("orva_reads_total"), 1);
  EXPECT_EQ(grown("orva_read_timeouts_total"), 1);
}

TEST_F(ServiceMetricsTest, AsynchronousReadsAreOpenUntilTheyAreFetched) {
  const std::int64_t id = service_.addItem(1, "A");
  service_.archive().addItem({1, "A"});
  const double open = now("orva_open_async_reads");
  askAsync(1, id);
  askAsync(2, id);
  EXPECT_EQ(now("orva_open_async_reads"), open + 2);
  askAsync(2, id);  // in the place of the one before
  EXPECT_EQ(now("orva_open_async_reads"), open + 2);
  EXPECT_EQ(publish(1).status, 0U);
  EXPECT_EQ(now("orva_open_async_reads"), open + 1);
  EXPECT_EQ(grown("orva_read_timeouts_total"), 0);
}

TEST_F(ServiceMetricsTest, AnAsynchronousReadWithoutAnswerIsOneTimeout) {
  const std::int64_t id = service_.addItem(1, "A");
  service_.archive().addItem({1, "A"});
  service_.archive().scriptNext({When::never});
  askAsync(1, id);
  service_.clock.advance(61 * kSecond);
  EXPECT_EQ(publish(1).status, status::kBadTimeout);
  EXPECT_EQ(grown("orva_read_timeouts_total"), 1);
}

TEST_F(ServiceMetricsTest, SamplesThatNoInboxTakesAreCounted) {
  const std::uint32_t usual = cache::Inbox::maxWaiting;
  cache::Inbox::maxWaiting = 20;
  const std::int64_t id = service_.addItem(1, "A");
  service_.archive().add({1, "A"}, 0, steps(kT0, 50));
  read(id, 0, 20);  // 21 samples
  cache::Inbox::maxWaiting = usual;
  EXPECT_EQ(grown("orva_inbox_dropped_samples_total"), 21);
}

class QueueMetricsTest : public test::ArchiveFixture {
 protected:
  QueueMetricsTest() { registerServiceMetrics(); }
  static double value(const std::string& name) {
    host::PrometheusText text;
    host::MetricsRegistry::instance().collect(text);
    return Exposition(text.text()).value(name);
  }
};

TEST_F(QueueMetricsTest, RequestsAreOpenUntilTheirTimeIsUp) {
  start();
  const std::int64_t id = makeItem(1);
  archive().addItem({1, "Plant/Load"});
  archive().setScript({When::never});
  holdWorker();
  const double timeouts = value("orva_read_timeouts_total");
  const auto limited = test::requestFor(id);
  const auto unlimited = test::requestFor(id);  // its reader keeps the time
  manager().addRequest(limited, 150);
  manager().addRequest(unlimited, 0);
  EXPECT_EQ(value("orva_open_requests"), 2);
  workerPass();
  EXPECT_EQ(value("orva_open_requests"), 1);
  EXPECT_EQ(value("orva_read_timeouts_total"), timeouts);
  workerPass();
  EXPECT_EQ(value("orva_open_requests"), 0);
  EXPECT_EQ(value("orva_read_timeouts_total"), timeouts + 1);
}

TEST_F(QueueMetricsTest, ARequestThatCompletedInTimeIsNoTimeout) {
  start();
  const std::int64_t id = makeItem(1);
  archive().addItem({1, "Plant/Load"});
  holdWorker();
  const double timeouts = value("orva_read_timeouts_total");
  const auto request = test::requestFor(id);
  manager().addRequest(request, 50);
  workerPass();
  EXPECT_EQ(value("orva_open_requests"), 0);
  EXPECT_EQ(value("orva_read_timeouts_total"), timeouts);
}

TEST_F(QueueMetricsTest, RequestsReleasedWhenTheArchivesEndAreTimeouts) {
  start();
  const std::int64_t id = makeItem(1);
  archive().addItem({1, "Plant/Load"});
  archive().setScript({When::never});
  const double timeouts = value("orva_read_timeouts_total");
  const auto request = test::requestFor(id);
  manager().addRequest(request, 60'000);
  manager().clear();
  EXPECT_EQ(value("orva_read_timeouts_total"), timeouts + 1);
}

// Asked of the archives that end, but not in the queue yet when it is emptied.
TEST_F(QueueMetricsTest, ARequestQueuedAfterItsArchivesHaveEndedIsATimeoutAndNotOpen) {
  start();
  const std::int64_t id = makeItem(1);
  archive().addItem({1, "Plant/Load"});
  archive().setScript({When::never});
  archive().onRead([](const archive::SharedInterval&) { manager().clear(); });
  const double timeouts = value("orva_read_timeouts_total");
  const auto request = test::requestFor(id);
  test::TraceCapture traces;
  manager().addRequest(request, 60'000);
  EXPECT_EQ(value("orva_read_timeouts_total"), timeouts + 1);
  EXPECT_EQ(value("orva_open_requests"), 0);
  EXPECT_EQ(traces.countContaining("Request::timeout"), 1);
}

}  // namespace
}  // namespace orva::service_metrics_test
