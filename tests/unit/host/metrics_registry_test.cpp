#include "orva_host/metrics_registry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "orva_host/gate.h"
#include "orva_host/host_metrics.h"
#include "orva_host/metrics_route.h"
#include "orva_host/prometheus_text.h"
#include "support/exposition_parser.h"
#include "support/trace_capture.h"

namespace orva::metrics_registry_test {
namespace {

using host::Gate;
using metrics::Family;
using metrics::Kind;
using metrics::Registration;
using metrics::Sink;
using test::Exposition;

constexpr Family kFirst{"test_first", Kind::gauge, "First."};
constexpr Family kSecond{"test_second", Kind::gauge, "Second."};

std::string scrape() {
  host::PrometheusText text;
  host::MetricsRegistry::instance().collect(text);
  return text.text();
}
double valueOf(const std::string& name) { return Exposition(scrape()).value(name); }
bool isServed(const std::string& name) { return scrape().find(name) != std::string::npos; }

TEST(MetricsRegistryTest, CollectorsAreAskedAtEachScrape) {
  int asked = 0;
  const Registration registration("first", [&](Sink& sink) { sink.add(kFirst, ++asked); });
  EXPECT_EQ(valueOf("test_first"), 1);
  EXPECT_EQ(valueOf("test_first"), 2);
}

TEST(MetricsRegistryTest, CollectorsAreAskedInTheOrderInWhichTheyCame) {
  const Registration first("first", [](Sink& sink) { sink.add(kSecond, 2); });
  const Registration second("second", [](Sink& sink) { sink.add(kFirst, 1); });
  const std::string text = scrape();
  EXPECT_LT(text.find("test_second 2"), text.find("test_first 1"));
}

TEST(MetricsRegistryTest, OneThatIsRemovedIsAskedNoMore) {
  auto held = std::make_shared<int>(7);
  const std::weak_ptr<int> watched = held;
  {
    const Registration registration("gone", [held](Sink& sink) { sink.add(kFirst, *held); });
    EXPECT_EQ(valueOf("test_first"), 7);
    held.reset();
  }
  EXPECT_FALSE(isServed("test_first"));
  EXPECT_TRUE(watched.expired());
}

TEST(MetricsRegistryTest, RemovingTwiceOrWhatIsNotThereIsHarmless) {
  const auto id = metrics::addCollector("x", [](Sink& sink) { sink.add(kFirst, 1); });
  metrics::removeCollector(id);
  metrics::removeCollector(id);
  metrics::removeCollector(0);
  EXPECT_FALSE(isServed("test_first"));
}

TEST(MetricsRegistryTest, ACollectorThatThrowsCostsTheRestOfItsOwnSamplesOnly) {
  const test::TraceCapture trace;
  const Registration bad("bad", [](Sink& sink) {
    sink.add(kFirst, 1);
    throw std::runtime_error("no figures");
  });
  const Registration worse("worse", [](Sink&) { throw 1; });
  const Registration good("good", [](Sink& sink) { sink.add(kSecond, 2); });
  const Exposition text(scrape());
  EXPECT_EQ(text.value("test_first"), 1);
  EXPECT_EQ(text.value("test_second"), 2);
  EXPECT_EQ(trace.count("the metrics collector \"bad\" throws: no figures\n"), 1);
  EXPECT_EQ(trace.count("the metrics collector \"worse\" throws\n"), 1);
}

TEST(MetricsRegistryTest, RemovalWaitsForTheCallInProgress) {
  Gate entered;
  Gate leave;
  std::atomic<bool> left{false};
  std::optional<Registration> registration;
  registration.emplace("slow", [&](Sink&) {
    entered.open();
    leave.wait();
    left = true;
  });
  std::thread scraper([] { scrape(); });
  entered.wait();
  std::thread remover([&] {
    registration.reset();
    EXPECT_TRUE(left);
  });
  leave.open();
  remover.join();
  scraper.join();
}

TEST(MetricsRegistryTest, ACollectorMayRemoveItselfAndAddOthers) {
  std::int64_t self = 0;
  std::optional<Registration> other;
  self = metrics::addCollector("self", [&](Sink& sink) {
    sink.add(kFirst, 1);
    metrics::removeCollector(self);
    other.emplace("other", [](Sink& later) { later.add(kSecond, 2); });
  });
  EXPECT_EQ(valueOf("test_first"), 1);
  const Exposition text(scrape());
  EXPECT_EQ(text.families().count("test_first"), 0U);
  EXPECT_EQ(text.value("test_second"), 2);
}

TEST(MetricsRegistryTest, ACollectorNeverRunsTwiceAtATime) {
  std::atomic<int> inside{0};
  std::atomic<int> calls{0};
  std::atomic<bool> met{false};
  const Registration registration("alone", [&](Sink&) {
    if (++inside > 1) met = true;
    std::this_thread::yield();
    --inside;
    ++calls;
  });
  std::vector<std::thread> scrapers;
  for (int i = 0; i < 4; ++i) {
    scrapers.emplace_back([] {
      for (int n = 0; n < 100; ++n) scrape();
    });
  }
  for (std::thread& scraper : scrapers) scraper.join();
  EXPECT_EQ(calls, 400);
  EXPECT_FALSE(met);
}

TEST(MetricsRegistryTest, CollectorsComeAndGoWhileOthersAsk) {
  std::atomic<bool> stop{false};
  std::thread scraper([&] {
    while (!stop) scrape();
  });
  for (int i = 0; i < 500; ++i) {
    auto value = std::make_unique<int>(i);
    const Registration registration("brief", [&value](Sink& sink) { sink.add(kFirst, *value); });
  }
  stop = true;
  scraper.join();
  EXPECT_FALSE(isServed("test_first"));
}

TEST(MetricsRouteTest, ServesTheTextWithItsContentType) {
  const Registration registration("first", [](Sink& sink) { sink.add(kFirst, 3); });
  const host::HttpRoute route = host::metricsRoute();
  EXPECT_EQ(route.method, "GET");
  EXPECT_EQ(route.path, "/metrics");
  EXPECT_FALSE(route.open);
  const host::HttpReply reply = route.handler({});
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.contentType, "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_EQ(Exposition(reply.body).error(), "");
  EXPECT_EQ(Exposition(reply.body).value("test_first"), 3);
}

TEST(HostMetricsTest, TellsOfTheProcess) {
  const host::HttpServer http;
  const host::HostNetwork network;
  const host::HostMetrics metrics(http, network);
  const Exposition text(scrape());
  EXPECT_EQ(text.error(), "");
  EXPECT_EQ(text.value("orva_host_build_info", {{"version", ORVA_VERSION}}), 1);
  EXPECT_GE(text.value("orva_host_resident_bytes"), 1'000'000);
  EXPECT_GE(text.value("orva_host_uptime_seconds"), 0);
  EXPECT_EQ(text.families().at("orva_host_http_requests_total").samples.size(), 5U);
  EXPECT_EQ(text.sum("orva_host_http_requests_total"), 0);
  EXPECT_GE(valueOf("orva_host_uptime_seconds"), text.value("orva_host_uptime_seconds"));
}

}  // namespace
}  // namespace orva::metrics_registry_test
