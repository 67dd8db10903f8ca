#include "orva_database/remote_archive_source.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "orva_database/service_metrics.h"
#include "orva_host/metrics_registry.h"
#include "orva_host/prometheus_text.h"
#include "support/exposition_parser.h"
#include "unit/orva_database/remote_fixture.h"

namespace orva::archive {
namespace {

using test::RemoteRecord;

// ---- the exchange

TEST_F(RemoteArchiveSourceTest, AsksForNewRecordsInTheForm) {
  configureLoad();
  pass();
  ASSERT_EQ(peer().texts.size(), 1U);
  const std::string& text = peer().texts[0];
  EXPECT_EQ(text.substr(0, text.find('\n')), "/Methods/ReadNewRecords");
  json::Document body;
  body.Parse(text.c_str() + text.find('\n', text.find('\n') + 1) + 1);
  ASSERT_TRUE(body.IsObject());
  EXPECT_EQ(body["reqID"].GetInt64(), 1);
  ASSERT_EQ(body["items"].Size(), 1U);
  EXPECT_STREQ(body["items"][0]["path"].GetString(), "Load");
  EXPECT_EQ(body["items"][0]["continuationPoint"].GetInt64(), 1);
  EXPECT_NE(body["items"][0]["randID"].GetInt64(), 0);
}

TEST_F(RemoteArchiveSourceTest, StoresWithTheSendersTimeAndQuality) {
  configureLoad();
  peer().history["Load"] = {{kStart, "1.5", 0}, {kStart + kSecond, "2.5", 0x80AB0000}};
  pass();
  const auto pins = stored();
  ASSERT_EQ(pins.size(), 2U);
  EXPECT_EQ(pins[0]->time, kStart);
  EXPECT_EQ(pins[1]->time, kStart + kSecond);
  EXPECT_EQ(pins[1]->value.ToText(), "2.5");
  EXPECT_EQ(static_cast<std::uint32_t>(pins[1]->quality), 0x80AB0000U);
}

TEST_F(RemoteArchiveSourceTest, AsksOnceAPeriod) {
  configureLoad();
  pass();
  clock.advance(kSecond - 1);
  pass();
  EXPECT_EQ(network.exchanges, 1);
  clock.advance(1);
  pass();
  EXPECT_EQ(network.exchanges, 2);
}

TEST_F(RemoteArchiveSourceTest, AClockThatIsSetChangesNothingOfThePeriod) {
  configureLoad();
  pass();
  for (const int hours : {-1, 2, -3}) {
    clock.setTime(clock.now() + hours * 3600 * kSecond);
    pass();
  }
  EXPECT_EQ(network.exchanges, 1);
  clock.setFrozen(true);
  nextRound();
  EXPECT_EQ(network.exchanges, 2);
}

TEST_F(RemoteArchiveSourceTest, APeriodOfNothingAsksInEachPass) {
  configureLoad();
  init(sectionText({itemText(1, 7, "Load")}, R"("requestPeriod":0,)"));
  pass();
  pass();
  EXPECT_EQ(network.exchanges, 2);
}

TEST_F(RemoteArchiveSourceTest, PagesFollowEachOtherWithoutAPeriodBetween) {
  configureLoad();
  peer().page = 10;
  peer().add("Load", kStart, 95);
  pass();
  EXPECT_EQ(network.exchanges, 10);
  ASSERT_EQ(stored().size(), 95U);
  EXPECT_EQ(storedTimes().back(), kStart + 94 * kSecond);
}

TEST_F(RemoteArchiveSourceTest, APassEndsAndTheNextOneGoesOn) {
  configureLoad();
  peer().page = 1;
  peer().add("Load", kStart, 40);
  pass();
  EXPECT_LT(stored().size(), 40U);
  pass();
  pass();
  EXPECT_EQ(stored().size(), 40U);
}

TEST_F(RemoteArchiveSourceTest, TheContinuationIsTheOtherControllersToTheTick) {
  configureLoad();
  peer().history["Load"] = {{kStart + 1, "1.0", 0}, {kStart + 7, "1.0", 0}};
  pass();
  peer().history["Load"].push_back({kStart + 9, "1.0", 0});
  nextRound();
  EXPECT_EQ(peer().requests[1][0].point, kStart + 8);
  // Three equal samples within one millisecond are three samples.
  EXPECT_EQ(storedTimes(), (std::vector<std::int64_t>{kStart, kStart, kStart}));
}

TEST_F(RemoteArchiveSourceTest, EverySampleArrivesOnceThoughAnswersGetLost) {
  configureLoad();
  localItem(8, "Here/Flow");
  init(sectionText({itemText(1, 7, "Load"), itemText(1, 8, "Flow")}));
  std::mt19937 random(4711);
  network.lose = [&random](std::int32_t) { return random() % 10 < 3 ? kNLTimedOut : 0; };
  peer().page = 7;
  for (int round = 0; round < 300; ++round) {
    peer().add("Load", kStart + round * kSecond + 1, 3, 4'000);
    peer().add("Flow", kStart + round * kSecond, 1);
    nextRound();
  }
  network.lose = nullptr;
  for (int i = 0; i < 40; ++i) nextRound();
  const auto& sent = peer().history["Load"];
  const auto pins = stored();
  ASSERT_EQ(pins.size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(pins[i]->time, sent[i].time / kMs * kMs);
    EXPECT_EQ(pins[i]->value.Get().Value.Double, std::stod(sent[i].value));
  }
  EXPECT_EQ(stored({8, "Here/Flow"}).size(), 300U);
  EXPECT_EQ(source->counts(1).stored, 1200U);
  EXPECT_EQ(source->counts(1).refused, 0U);
}

TEST_F(RemoteArchiveSourceTest, AnAnswerToOtherQuestionsIsNone) {
  configureLoad();
  peer().add("Load", kStart, 3);
  std::string late;
  peer().spoil = [&late](const std::string& text) {
    late.empty() ? void(late = text) : void();
    return late;
  };
  pass();
  EXPECT_EQ(stored().size(), 3U);
  peer().add("Load", kStart + 3 * kSecond, 3);
  nextRound();
  EXPECT_EQ(stored().size(), 3U);
  EXPECT_EQ(peer().requests.back()[0].point, kStart + 2 * kSecond + 1);
  peer().spoil = nullptr;
  nextRound();
  EXPECT_EQ(stored().size(), 6U);
}

TEST_F(RemoteArchiveSourceTest, RandIdsDiffer) {
  configureLoad();
  std::set<std::int64_t> seen;
  for (int i = 0; i < 100; ++i) nextRound();
  for (const auto& request : peer().requests) seen.insert(request.at(0).randId);
  EXPECT_EQ(seen.size(), peer().requests.size());
}

TEST_F(RemoteArchiveSourceTest, AnAnswerWithoutItemsIsTraced) {
  configureLoad();
  peer().add("Load", kStart, 1);
  const Texts answers = {R"({"code":0})",     R"({"items":{},"code":0})", "[]", "5",
                         R"({"items":null})", R"({"code":2159411200})"};
  for (const std::string& answer : answers) {
    traces.clear();
    peer().spoil = [&answer](const std::string&) { return answer; };
    clock.advance(60 * kSecond);
    pass();
    EXPECT_EQ(traces.count("<-- ReturnError: !items.IsArray() evaluated to true! Returning "
                           "0x80B60000\n"),
              1)
        << answer;
  }
  EXPECT_TRUE(stored().empty());
}

TEST_F(RemoteArchiveSourceTest, AnAnswerThatCannotBeParsedIsLogged) {
  configureLoad();
  peer().add("Load", kStart, 1);
  const Texts answers = {"", "{", R"({"items":[)", std::string(1'000'000, '['),
                         std::string("\0{}", 3)};
  for (const std::string& answer : answers) {
    traces.clear();
    peer().spoil = [&answer](const std::string&) { return answer; };
    clock.advance(60 * kSecond);
    pass();
    EXPECT_EQ(traces.count("Error parsing response for GetRemouteArchiveData"), 1);
  }
  EXPECT_TRUE(stored().empty());
}

TEST_F(RemoteArchiveSourceTest, AnswersCutAtEveryByteHarmNothing) {
  configureLoad();
  peer().add("Load", kStart, 2);
  std::size_t keep = 0;
  peer().spoil = [&keep](const std::string& text) { return text.substr(0, keep); };
  for (; keep < 200; ++keep) {
    clock.advance(60 * kSecond);
    pass();
  }
  peer().spoil = nullptr;
  clock.advance(60 * kSecond);
  pass();
  EXPECT_EQ(stored().size(), 2U);
}

TEST_F(RemoteArchiveSourceTest, MutatedAnswersHarmNothing) {
  configureLoad();
  peer().page = 5;
  peer().add("Load", kStart, 200);
  std::mt19937 random(99);
  peer().spoil = [&random](std::string text) {
    for (unsigned changes = random() % 4; changes != 0 && !text.empty(); --changes) {
      const std::size_t at = random() % text.size();
      switch (random() % 3) {
        case 0:
          text[at] = static_cast<char>(random() % 256);
          break;
        case 1:
          text.erase(at, random() % 20);
          break;
        default:
          text.insert(at, text.substr(random() % text.size(), random() % 20));
      }
    }
    return text;
  };
  for (int i = 0; i < 5'000; ++i) {
    clock.advance(60 * kSecond);
    pass();
    if (i % 100 == 99) restart();
  }
  const std::vector<std::int64_t> times = storedTimes();
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
  EXPECT_GE(times.size(), 100U);
}

TEST_F(RemoteArchiveSourceTest, SamplesOfOtherFormsAreSkippedWithATrace) {
  configureLoad();
  peer().history["Load"];
  peer().spoil = [](const std::string& text) {
    const std::size_t at = text.find(R"("values":[)") + 10;
    return text.substr(0, at) +
           R"([1715932800000,1.5],[1715932800000,1.5,0,0],[],5,null,["x",1.5,0],
              [1715932800000.5,1.5,0],[-1,1.5,0],[99999999999999999,1.5,0],
              [1715932800000,1.5,-1],[1715932800000,1.5,4294967296],[1715932800000,1.5,"0"],
              [1715932800000,[1],0],[1715932800000,{"a":1},0],
              [1715932800000,1.5,0])" +
           text.substr(at);
  };
  pass();
  EXPECT_EQ(stored().size(), 1U);
  EXPECT_EQ(traces.count("<--ReturnError: Invalid var type (0x80740000)\n"), 14);
  EXPECT_EQ(source->counts(1).skipped, 14U);
}

TEST_F(RemoteArchiveSourceTest, FewerItemsAreAskedForWhenTheAnswerDoesNotFit) {
  Texts items;
  for (int i = 0; i < 50; ++i) {
    const std::string path = "P" + std::to_string(i);
    localItem(100 + i, "Here/" + path);
    items.push_back(itemText(1, 100 + i, path));
    peer().add(path, kStart, 1);
  }
  peer().mostItems = 7;
  init(sectionText(items));
  pass();
  EXPECT_EQ(source->counts(1).stored, 50U);
  EXPECT_LE(peer().requests.back().size(), 7U);
  // With room again, more of them go into one request by and by.
  peer().mostItems = 1000;
  for (int i = 0; i < 60; ++i) nextRound();
  EXPECT_EQ(peer().requests.back().size(), 50U);
}

TEST_F(RemoteArchiveSourceTest, AnItemWhoseRecordFitsNoAnswerLeavesTheOthersAlone) {
  Texts items;
  for (int i = 0; i < 5; ++i) {
    const std::string path = "P" + std::to_string(i);
    localItem(100 + i, "Here/" + path);
    items.push_back(itemText(1, 100 + i, path));
    peer().add(path, kStart, 1);
  }
  peer().spoil = [](const std::string& text) {
    return text.find("needle") != std::string::npos ? std::string(R"({"code":2148007936})") : text;
  };
  peer().history["P2"] = {{kStart, "\"needle\"", 0}};
  init(sectionText(items));
  for (int i = 0; i < 20; ++i) nextRound();
  EXPECT_EQ(source->counts(1).stored, 4U);
  EXPECT_EQ(traces.countContaining("has a record that fits no answer"), 1);
}

TEST_F(RemoteArchiveSourceTest, ItemsThatAnAnswerHasNoRoomForAreAskedForAtOnceAndFirst) {
  configureItems(10, 30);
  peer().page = 10;
  peer().room = 25;
  pass();
  EXPECT_EQ(source->counts(1).stored, 300U);
  EXPECT_EQ(network.exchanges, 12);
  EXPECT_EQ(peer().requests[1][0].path, "P3");
}

TEST_F(RemoteArchiveSourceTest, ARecordThatHasRoomInNoAnswerIsLoggedOnceAndHoldsNoOtherItemUp) {
  configureItems(5, 1);
  peer().tooLarge = {"P2"};
  for (int i = 0; i < 20; ++i) nextRound();
  EXPECT_EQ(source->counts(1).stored, 4U);
  EXPECT_EQ(traces.countContaining("\"P2\" of controller 1 has a record that fits no answer"), 1);
  // Each round it is asked for with the others, and then alone.
  ASSERT_EQ(network.exchanges, 40);
  EXPECT_EQ(peer().requests[38].size(), 5U);
  EXPECT_EQ(peer().requests[39].size(), 1U);
  peer().tooLarge.clear();
  nextRound();
  EXPECT_EQ(source->counts(1).stored, 5U);
}

TEST_F(RemoteArchiveSourceTest, WhenNoItemHasRoomFewerAreAskedForUntilOneIsAlone) {
  configureItems(8, 1);
  peer().tooLarge = {"P0", "P1", "P2", "P3", "P4", "P5", "P6", "P7"};
  for (int i = 0; i < 5; ++i) nextRound();
  EXPECT_EQ(traces.countContaining("has a record that fits no answer"), 8);
  peer().tooLarge = {"P0"};
  nextRound();
  EXPECT_EQ(source->counts(1).stored, 7U);
}

TEST_F(RemoteArchiveSourceTest, AtMostAHundredItemsGoIntoOneRequest) {
  Texts items;
  for (int i = 0; i < 250; ++i) {
    const std::string path = "P" + std::to_string(i);
    localItem(1000 + i, "Here/" + path);
    items.push_back(itemText(1, 1000 + i, path));
    peer().add(path, kStart, 2);
  }
  init(sectionText(items));
  pass();
  ASSERT_EQ(peer().requests.size(), 3U);
  EXPECT_EQ(peer().requests[0].size(), 100U);
  EXPECT_EQ(peer().requests[2].size(), 50U);
  EXPECT_EQ(source->counts(1).stored, 500U);
}

TEST_F(RemoteArchiveSourceTest, AnItemThatTheOtherSideDoesNotKnowKeepsItsPoint) {
  configureLoad();
  pass();
  nextRound();
  EXPECT_EQ(peer().requests[1][0].point, 1);
  EXPECT_EQ(traces.countContaining("the other controller says 0x803E0000"), 1);
  peer().add("Load", kStart, 2);
  nextRound();
  EXPECT_EQ(stored().size(), 2U);
}

// ---- the point that an answer gives

// The answer with another continuation point in place of its own.
std::string withPoint(const std::string& text, std::int64_t point, bool more) {
  const std::size_t at = text.find(R"("areMoreValues":)");
  return text.substr(0, at) + R"("areMoreValues":)" + (more ? "true" : "false") +
         R"(,"continuationPoint":)" + std::to_string(point) + text.substr(text.find('}', at));
}

TEST_F(RemoteArchiveSourceTest, APointThatNoSampleAccountsForIsNotBelieved) {
  for (const std::int64_t point :
       {kStart + 1000 * kSecond, kStart + 2 * kSecond + kMs + 1, INT64_MAX, INT64_MIN}) {
    for (const bool hasSamples : {true, false}) {
      SCOPED_TRACE(std::to_string(point) + (hasSamples ? " with samples" : ""));
      configureLoad();
      auto& history = peer().history["Load"];
      history.clear();
      if (!hasSamples) nextRound();
      peer().spoil = [point](const std::string& text) { return withPoint(text, point, false); };
      if (hasSamples) peer().add("Load", kStart, 3);
      nextRound();
      peer().spoil = nullptr;
      if (!hasSamples) peer().add("Load", kStart, 3);
      peer().add("Load", kStart + 3 * kSecond, 3);
      nextRound();
      nextRound();
      EXPECT_EQ(stored().size(), 6U);
      EXPECT_EQ(peer().requests.back()[0].point, kStart + 5 * kSecond + 1);
      manager().clear();
      source = std::make_unique<RemoteArchiveSource>(link());
      start();
    }
  }
}

TEST_F(RemoteArchiveSourceTest, APointNeverGoesBack) {
  configureLoad();
  peer().add("Load", kStart, 3);
  pass();
  peer().spoil = [](const std::string& text) { return withPoint(text, 1, false); };
  peer().add("Load", kStart + 3 * kSecond, 1);
  nextRound();
  nextRound();
  EXPECT_GE(peer().requests.back()[0].point, kStart + 2 * kSecond + 1);
  EXPECT_EQ(stored().size(), 4U);
}

TEST_F(RemoteArchiveSourceTest, APageMayEndWhereTheNextSampleIs) {
  configureLoad();
  peer().page = 3;
  peer().add("Load", kStart, 6, 3600 * kSecond);
  peer().spoil = [this](const std::string& text) {
    const bool isFirst = peer().requests.size() == 1;
    return isFirst ? withPoint(text, kStart + 3 * 3600 * kSecond, true) : text;
  };
  pass();
  EXPECT_EQ(peer().requests[1][0].point, kStart + 3 * 3600 * kSecond);
  EXPECT_EQ(stored().size(), 6U);
}

TEST_F(RemoteArchiveSourceTest, AnAnnouncedSampleThatIsNotThereIsLookedForBehindTheLastOne) {
  configureLoad();
  peer().history["Load"] = {{kStart + 1, "1.0", 0}, {kStart + 2, "2.0", 0}};
  peer().spoil = [](const std::string& text) {
    return withPoint(text, kStart + 1'000'000 * kSecond, true);
  };
  pass();
  peer().spoil = nullptr;
  nextRound();
  EXPECT_EQ(peer().requests.back()[0].point, kStart + 1'000'000 * kSecond);
  // Of the millisecond that it goes back to nothing is stored twice.
  peer().history["Load"].push_back({kStart + 3, "2.0", 0});
  peer().history["Load"].push_back({kStart + kSecond, "3.0", 0});
  nextRound();
  EXPECT_EQ(storedValues(), (Texts{"1", "2", "2", "3"}));
}

TEST_F(RemoteArchiveSourceTest, SamplesThatCannotBeTakenAccountForAPointToo) {
  configureLoad();
  peer().history["Load"] = {{kStart, "[1]", 0}};
  pass();
  nextRound();
  EXPECT_EQ(peer().requests.back()[0].point, kStart + 1);
  EXPECT_EQ(source->counts(1).skipped, 1U);
}

TEST_F(RemoteArchiveSourceTest, EqualSamplesOfOneMillisecondAreTwoThoughNothingCameBetween) {
  configureLoad();
  peer().history["Load"] = {{kStart + 1, "1.0", 0}};
  pass();
  nextRound();
  peer().history["Load"].push_back({kStart + 5, "1.0", 0});
  nextRound();
  EXPECT_EQ(storedValues(), (Texts{"1", "1"}));
}

TEST_F(RemoteArchiveSourceTest, APageThatComesAgainAndAgainEndsThePassAndIsStoredOnce) {
  configureLoad();
  peer().add("Load", kStart, 3);
  peer().spoil = [](const std::string& text) { return withPoint(text, 1, true); };
  for (int i = 0; i < 5; ++i) nextRound();
  EXPECT_EQ(network.exchanges, 5);
  EXPECT_EQ(stored().size(), 3U);
}

// ---- metrics

TEST_F(RemoteArchiveSourceTest, MetricsTellWhatBecameOfTheSamples) {
  registerServiceMetrics();
  const auto value = [](const std::string& name) {
    host::PrometheusText text;
    host::MetricsRegistry::instance().collect(text);
    return test::Exposition(text.text()).value("orva_remote_" + name + "_total");
  };
  std::map<std::string, double> before;
  for (const char* name : {"exchanges", "failed_exchanges", "received_samples", "stored_samples",
                           "refused_samples", "repeated_samples", "unusable_samples"}) {
    before[name] = value(name);
  }
  const auto grown = [&](const std::string& name) { return value(name) - before.at(name); };
  configureLoad();
  manager().createPinCache(kLoad);
  archive().add(kLoad, 0, test::realPin(kStart, 7));
  // Here already, older than that after all, fine, and of no form.
  peer().history["Load"] = {{kStart + 1, "7.0", 0},
                            {kStart + kSecond, "1.0", 0},
                            {kStart + 2 * kSecond, "[]", 0},
                            {kStart + 3 * kSecond, "2.0", 0}};
  peer().spoil = [](std::string text) {
    const std::size_t at = text.find("],\"areMore");
    return at == std::string::npos ? text : text.insert(at, ",[1000,1.0,0]");
  };
  pass();
  network.lose = [](std::int32_t) { return kNLTimedOut; };
  nextRound();
  EXPECT_EQ(grown("exchanges"), 2);
  EXPECT_EQ(grown("failed_exchanges"), 1);
  EXPECT_EQ(grown("received_samples"), 5);
  EXPECT_EQ(grown("stored_samples"), 2);
  EXPECT_EQ(grown("refused_samples"), 1);
  EXPECT_EQ(grown("repeated_samples"), 1);
  EXPECT_EQ(grown("unusable_samples"), 1);
}

// ---- several controllers

TEST_F(RemoteArchiveSourceTest, ControllersAreAskedInAscendingOrderPageByPage) {
  for (const std::int32_t index : {3, 1, 2}) {
    network.peer(index).page = 5;
    network.peer(index).add("Load", kStart, 10);
  }
  localItem(7, "Here/Load");
  localItem(8, "Here/Load");
  localItem(9, "Here/Load");
  init(sectionText({itemText(3, 9, "Load"), itemText(1, 7, "Load"), itemText(2, 8, "Load")}));
  pass();
  EXPECT_EQ(network.order, (std::vector<std::int32_t>{1, 2, 3, 1, 2, 3}));
}

TEST_F(RemoteArchiveSourceTest, ADeadControllerIsAskedMoreAndMoreRarely) {
  configureLoad();
  localItem(8, "Here/Flow");
  network.peer(2);
  init(sectionText({itemText(1, 7, "Load"), itemText(2, 8, "Flow")}));
  network.lose = [](std::int32_t index) { return index == 1 ? kNLTimedOut : 0; };
  for (int i = 0; i < 1200; ++i) {
    clock.advance(kSecond / 10);
    pass();
  }
  const auto asked = [this](std::int32_t index) {
    return std::count(network.order.begin(), network.order.end(), index);
  };
  EXPECT_GE(asked(2), 119);
  EXPECT_LE(asked(1), 10);
  EXPECT_GE(asked(1), 6);
  EXPECT_EQ(traces.countContaining("Controller 1 does not answer"), 1);
  // It is heard of again within half a minute, and then asked as ever.
  network.lose = nullptr;
  peer().add("Load", kStart, 5);
  for (int i = 0; i < 300; ++i) {
    clock.advance(kSecond / 10);
    pass();
  }
  EXPECT_EQ(stored().size(), 5U);
  EXPECT_EQ(traces.countContaining("Controller 1 answers again"), 1);
}

TEST_F(RemoteArchiveSourceTest, OneOfTheDeadControllersIsTriedInAPass) {
  Texts items;
  for (int i = 0; i < 20; ++i) {
    network.peer(i);
    localItem(100 + i, "Here/Load");
    items.push_back(itemText(i, 100 + i, "Load"));
  }
  init(sectionText(items));
  network.lose = [](std::int32_t) { return kNLTimedOut; };
  pass();
  EXPECT_EQ(network.limits.front(), 5000);
  EXPECT_EQ(network.limits.back(), 2000);
  clock.advance(60 * kSecond);
  std::set<std::int32_t> tried;
  for (int i = 0; i < 20; ++i) {
    const int before = network.exchanges;
    clock.advance(kSecond / 10);
    pass();
    EXPECT_EQ(network.exchanges - before, 1);
    tried.insert(network.order.back());
  }
  EXPECT_GE(tried.size(), 10U);
}

// ---- where an item begins, and begins again

TEST_F(RemoteArchiveSourceTest, ANewItemBeginsBehindTheLocalHistory) {
  configureLoad();
  manager().createPinCache(kLoad);
  archive().add(kLoad, 0, test::realPin(kStart, 5));
  archive().add(kLoad, 0, test::realPin(kStart + kSecond, 6));
  pass();
  EXPECT_EQ(peer().requests[0][0].point, kStart + kSecond + 1);
}

TEST_F(RemoteArchiveSourceTest, SamplesOfTheNewestMillisecondAreNotStoredAgainAfterARestart) {
  configureLoad();
  peer().history["Load"] = {{kStart + 1, "1.0", 0}, {kStart + 2, "2.0", 0}, {kStart + 3, "1.0", 0}};
  pass();
  EXPECT_EQ(stored().size(), 3U);
  peer().history["Load"].push_back({kStart + 4, "1.0", 0});
  peer().history["Load"].push_back({kStart + 5, "3.0", 0});
  peer().history["Load"].push_back({kStart + kSecond, "4.0", 0});
  restart();
  pass();
  EXPECT_EQ(peer().requests.back()[0].point, kStart + 1);
  EXPECT_EQ(storedValues(), (Texts{"1", "2", "1", "1", "3", "4"}));
  EXPECT_EQ(source->counts(1).duplicates, 3U);
}

TEST_F(RemoteArchiveSourceTest, RestartsBetweenAnyTwoPagesLoseAndDoubleNothing) {
  configureLoad();
  Texts sent;
  for (int i = 0; i < 200; ++i) {
    sent.push_back(std::to_string(i % 2));
    peer().history["Load"].push_back({kStart + i * 3'000 + 1, sent.back() + ".0", 0});
  }
  std::mt19937 random(5);
  network.lose = [&random](std::int32_t) { return random() % 3 == 0 ? kNLTimedOut : 0; };
  for (int i = 0; i < 200; ++i) {
    peer().page = 1 + random() % 4;
    nextRound();
    restart();
  }
  EXPECT_EQ(storedValues(), sent);
}

TEST_F(RemoteArchiveSourceTest, TheContinuationSurvivesInitWhileTheItemIsTheSame) {
  configureLoad();
  peer().history["Load"] = {{kStart + 77, "1.0", 0}};
  pass();
  init(sectionText({itemText(1, 9, "Other"), itemText(1, 7, "Load")}));
  nextRound();
  EXPECT_EQ(peer().requests.back()[0].point, kStart + 78);
  // Another remote path, or another controller, is another item.
  network.peer(2);
  init(sectionText({itemText(2, 7, "Load")}));
  nextRound();
  EXPECT_EQ(network.peer(2).requests.back()[0].point, kStart + 1);
}

TEST_F(RemoteArchiveSourceTest, AnItemConfiguredTwiceIsAskedForOnce) {
  configureLoad();
  init(sectionText({itemText(1, 7, "Load"), itemText(1, 7, "Load")}));
  peer().add("Load", kStart, 3);
  pass();
  EXPECT_EQ(source->controllers().at(1).size(), 2U);
  EXPECT_EQ(peer().requests[0].size(), 1U);
  EXPECT_EQ(stored().size(), 3U);
}

TEST_F(RemoteArchiveSourceTest, AnItemThatIsNotArchivedHereIsLoggedOnceAndLookedForAgain) {
  network.peer(1).add("Load", kStart, 3);
  init(sectionText({itemText(1, 7, "Load")}));
  for (int i = 0; i < 5; ++i) nextRound();
  EXPECT_EQ(network.exchanges, 0);
  EXPECT_EQ(traces.countContaining("item 7 \"Here/Load\" is not archived here"), 1);
  localItem(7, "Here/Load");
  clock.advance(kSecond / 10);
  pass();
  EXPECT_EQ(stored().size(), 3U);
}

TEST_F(RemoteArchiveSourceTest, WhileThereAreNoArchivesNothingIsAskedAndThenNothingMissed) {
  configureLoad();
  peer().add("Load", kStart, 3);
  pass();
  manager().clear();
  peer().add("Load", kStart + 10 * kSecond, 3);
  nextRound();
  const int asked = network.exchanges;
  EXPECT_EQ(asked, 1);
  start();
  nextRound();
  EXPECT_EQ(peer().requests.back()[0].point, kStart + 2 * kSecond + 1);
  EXPECT_EQ(stored().size(), 3U);
}

TEST_F(RemoteArchiveSourceTest, ASilentLocalArchiveHoldsNoOtherItemUp) {
  configureLoad();
  localItem(8, "Here/Flow");
  manager().createPinCache(kLoad);
  archive().add(kLoad, 0, test::realPin(kStart, 5));
  archive().scriptNext({test::When::held});
  init(sectionText({itemText(1, 7, "Load"), itemText(1, 8, "Flow")}));
  peer().add("Load", kStart, 3);
  peer().add("Flow", kStart, 3);
  pass();
  EXPECT_EQ(stored({8, "Here/Flow"}).size(), 3U);
  EXPECT_EQ(stored().size(), 1U);
  archive().releaseAll();
  nextRound();
  EXPECT_EQ(storedTimes(),
            (std::vector<std::int64_t>{kStart, kStart + kSecond, kStart + 2 * kSecond}));
}

TEST_F(RemoteArchiveSourceTest, WhatAnArchiveSaysThatEndsIsNotTakenForItsHistory) {
  configureLoad();
  manager().createPinCache(kLoad);
  archive().add(kLoad, 0, test::realPin(kStart, 5));
  archive().scriptNext({test::When::held});  // finalised empty when the archive stops
  pass();
  manager().clear();
  start();
  factory.last().add(kLoad, 0, test::realPin(kStart, 5));
  nextRound();
  nextRound();
  EXPECT_EQ(peer().requests.at(0)[0].point, kStart + 1);
}

TEST_F(RemoteArchiveSourceTest, AFailedLocalReadIsRepeatedBeforeAnythingIsAsked) {
  configureLoad();
  manager().createPinCache(kLoad);
  archive().add(kLoad, 0, test::realPin(kStart, 5));
  test::Script failing;
  failing.fail = 0x80310000;
  archive().setScript(failing);
  pass();
  EXPECT_EQ(network.exchanges, 0);
  archive().setScript({});
  clock.advance(5 * kSecond);
  pass();
  EXPECT_EQ(peer().requests.back()[0].point, kStart + 1);
}

// ---- the local filter

TEST_F(RemoteArchiveSourceTest, SamplesThatTheFilterRefusesAreCountedAndLoggedOnceAMinute) {
  configureLoad();
  peer().add("Load", kStart, 3);
  pass();
  *pin(manager().getCacheId(kLoad)) << test::realPin(kStart + 3600 * kSecond, 1);
  for (int i = 3; i < 63; ++i) {
    peer().add("Load", kStart + i * kSecond, 1);
    nextRound();
  }
  EXPECT_EQ(source->counts(1).refused, 60U);
  EXPECT_EQ(source->counts(1).stored, 3U);
  EXPECT_EQ(traces.countContaining("refused by the local write filter"), 1);
  nextRound();
  EXPECT_EQ(traces.countContaining("60 refused by the local write filter"), 1);
  for (int i = 0; i < 100; ++i) nextRound();
  EXPECT_EQ(traces.countContaining("refused by the local write filter"), 2);
}

TEST_F(RemoteArchiveSourceTest, ASampleOlderThanTheLocalHistoryIsRefusedRightAfterAStartToo) {
  configureLoad();
  manager().createPinCache(kLoad);
  archive().add(kLoad, 0, test::realPin(kStart + 5'000, 5));
  peer().history["Load"] = {{kStart + 6'000, "1.0", 0}, {kStart + kSecond, "2.0", 0}};
  pass();
  EXPECT_EQ(storedTimes(), (std::vector<std::int64_t>{kStart + 5'000, kStart + kSecond}));
  EXPECT_EQ(source->counts(1).refused, 1U);
}

TEST_F(RemoteArchiveSourceTest, WaitsForRoomInTheLocalArchiveAndLosesNothing) {
  configureLoad();
  peer().page = 25;
  peer().add("Load", kStart, 60);
  test::CrowdedWriter writer;
  pin(manager().createPinCache(kLoad))->addLayer(writer, 0);
  pass();
  EXPECT_EQ(writer.times.size(), 10U);
  EXPECT_EQ(network.exchanges, 1);
  for (int i = 0; i < 20; ++i) {
    writer.makeRoom();
    nextRound();
  }
  ASSERT_EQ(writer.times.size(), 60U);
  EXPECT_TRUE(std::is_sorted(writer.times.begin(), writer.times.end()));
  manager().clear();
}

}  // namespace
}  // namespace orva::archive
