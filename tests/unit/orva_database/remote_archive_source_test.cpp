#include "orva_database/remote_archive_source.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "orva_host/config_sections.h"
#include "orva_host/variables.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"
#include "unit/orva_database/remote_fake.h"

namespace orva::archive {
namespace {

using test::FakeLink;
using test::FakeNetwork;
using test::FakePeer;
using test::RemoteRecord;
using Texts = std::vector<std::string>;

constexpr std::int64_t kSecond = kTicksPerSecond;
constexpr std::int64_t kMs = kTicksPerMillisecond;
constexpr std::int64_t kStart = test::ManualClock::kStart;

std::string itemText(std::int32_t controller, std::int64_t id, const std::string& path) {
  return R"({"controllerIndex":)" + std::to_string(controller) + R"(,"localId":)" +
         std::to_string(id) + R"(,"remoteId":)" + std::to_string(1000 + id) +
         R"(,"localPath":"Here/)" + path + R"(","remotePath":")" + path + R"("})";
}

std::string sectionText(const Texts& items, const std::string& more = {}) {
  std::string text = "{" + more + R"("items":[)";
  for (std::size_t i = 0; i < items.size(); ++i) text += (i == 0 ? "" : ",") + items[i];
  return text + "]}";
}

class RemoteArchiveSourceTest : public test::ArchiveFixture {
 protected:
  RemoteArchiveSourceTest() : source(std::make_unique<RemoteArchiveSource>(link())) { start(); }

  std::unique_ptr<ControllerLink> link() { return std::make_unique<FakeLink>(network); }
  // As after a restart of this controller; its archive stays.
  void restart() {
    manager().clear();
    source = std::make_unique<RemoteArchiveSource>(link());
    const auto kept = stored();
    start();
    for (const PinPtr& pin : kept) factory.last().add(kLoad, 0, pin);
    source->Init();
  }

  int init(const std::string& section) {
    host::setConfigSection("RemoteData", section);
    return source->Init();
  }
  // An item of controller 1, archived here as well.
  void configureLoad() {
    network.peer(1);
    localItem(7, "Here/Load");
    init(sectionText({itemText(1, 7, "Load")}));
  }
  static void localItem(std::int64_t id, const std::string& path,
                        OpcUa_Byte type = OpcUaType_Double) {
    vm::Item item;
    item.id = id;
    item.path = path;
    item.type = type;
    host::setVariable(item, {{0, {0, 0}}});
  }

  void pass() { source->Execute(); }
  // The next round.
  void nextRound() {
    clock.advance(kSecond);
    pass();
  }

  // What the local archive holds of an item.
  std::vector<PinPtr> stored(const ItemKey& key = kLoad) { return factory.last().samples(key, 0); }
  std::vector<std::int64_t> storedTimes(const ItemKey& key = kLoad) {
    return test::timesOf(stored(key));
  }
  Texts storedValues(const ItemKey& key = kLoad) {
    Texts values;
    for (const PinPtr& pin : stored(key)) values.push_back(pin->value.ToText());
    return values;
  }
  FakePeer& peer() { return network.peer(1); }

  static inline const ItemKey kLoad{7, "Here/Load"};
  FakeNetwork network;
  test::TraceCapture traces;
  std::unique_ptr<RemoteArchiveSource> source;
};

using RemoteConfigTest = RemoteArchiveSourceTest;

// ---- configuration

TEST_F(RemoteConfigTest, ThePeriodIsOneSecondUnlessConfigured) {
  EXPECT_EQ(source->requestPeriod(), 10'000'000);
  const std::vector<std::pair<std::string, std::int64_t>> cases = {
      {R"({})", 10'000'000},
      {R"({"requestPeriod":20000000})", 20'000'000},
      {R"({"requestPeriod":"20000000"})", 20'000'000},
      {R"({"requestPeriod":-5})", -5},
      {R"({"requestPeriod":9223372036854775807})", INT64_MAX},
      {R"({"requestPeriod":9223372036854775808})", 10'000'000},
      {R"({"requestPeriod":" -5x"})", -5},
      {R"({"requestPeriod":1.5})", 10'000'000},
      {R"({"requestPeriod":null})", 10'000'000},
      {R"({"requestPeriod":[1]})", 10'000'000},
  };
  for (const auto& [section, period] : cases) {
    EXPECT_EQ(init(section), 0) << section;
    EXPECT_EQ(source->requestPeriod(), period) << section;
  }
}

TEST_F(RemoteConfigTest, ItemsKeepTheirOrderBelowTheirController) {
  EXPECT_EQ(init(R"({"items":[{"controllerIndex":2,"localId":1,"remotePath":"a"},
                              {"localId":2,"remotePath":"b"},
                              {"controllerIndex":2,"localId":3,"remotePath":"c"}]})"),
            0);
  const auto controllers = source->controllers();
  ASSERT_EQ(controllers.size(), 2U);
  ASSERT_EQ(controllers.at(0).size(), 1U);
  EXPECT_EQ(controllers.at(0).front().localId, 2);
  ASSERT_EQ(controllers.at(2).size(), 2U);
  EXPECT_EQ(controllers.at(2).front().remotePath, "a");
  EXPECT_EQ(controllers.at(2).back().remotePath, "c");
}

TEST_F(RemoteConfigTest, FieldsAreReadLeniently) {
  init(R"({"items":[{"controllerIndex":"2","localId":"-12x","remoteId":9007199254740993,
                     "localPath":5,"remotePath":"a\u0000b"},
                    {"controllerIndex":1.5,"localId":1.5,"remoteId":true,"localPath":"p"},
                    7]})");
  const auto controllers = source->controllers();
  ASSERT_EQ(controllers.size(), 1U);
  const std::vector<RemoteSourceInfo> items(controllers.at(0).begin(), controllers.at(0).end());
  ASSERT_EQ(items.size(), 3U);
  EXPECT_EQ(items[0].localId, -12);
  EXPECT_EQ(items[0].remoteId, 9007199254740993);
  EXPECT_EQ(items[0].localPath, "");
  EXPECT_EQ(items[0].remotePath, std::string("a\0b", 3));
  EXPECT_EQ(items[1].localId, 0);
  EXPECT_EQ(items[1].remoteId, 0);
  EXPECT_EQ(items[1].localPath, "p");
  EXPECT_EQ(items[2].remotePath, "");
}

TEST_F(RemoteConfigTest, SectionsOfOtherTypesConfigureNothing) {
  for (const char* section : {"[]", "5", "null", "\"x\"", R"({"items":{}})", R"({"items":5})"}) {
    configureLoad();
    EXPECT_EQ(init(section), 0) << section;
    EXPECT_TRUE(source->controllers().empty()) << section;
  }
}

TEST_F(RemoteConfigTest, InitReplacesTheTables) {
  configureLoad();
  init(sectionText({itemText(3, 8, "Other")}));
  const auto controllers = source->controllers();
  ASSERT_EQ(controllers.size(), 1U);
  EXPECT_EQ(controllers.at(3).front().localId, 8);
}

TEST_F(RemoteConfigTest, ASectionThatCannotBeParsedIsTracedAndLeavesNoItems) {
  for (const std::string& section :
       {std::string("{"), std::string(), std::string(65, '[') + std::string(65, ']')}) {
    configureLoad();
    traces.clear();
    const int result = init(section);
    EXPECT_LT(result, 0);
    char line[200];
    std::snprintf(line, sizeof line,
                  "<--ReturnError: orva::parse_json(GetConfigDataValue(\"RemoteData\"), cfg) "
                  "returns 0x%08X\n",
                  static_cast<unsigned>(result));
    EXPECT_EQ(traces.count(line), 1);
    EXPECT_TRUE(source->controllers().empty());
  }
}

TEST_F(RemoteConfigTest, AControllerWithoutAddressIsNotAsked) {
  localItem(7, "Here/Load");
  init(sectionText({itemText(1, 7, "Load"), itemText(-1, 7, "Load")}));
  pass();
  EXPECT_EQ(network.exchanges, 0);
}

TEST_F(RemoteConfigTest, WithoutASocketNothingIsDone) {
  network.open = false;
  configureLoad();
  pass();
  EXPECT_EQ(network.exchanges, 0);
  EXPECT_EQ(source->Start(), 0);
  EXPECT_EQ(source->Stop(), 0);
}

TEST_F(RemoteConfigTest, DestroySourceEmptiesTheTables) {
  configureLoad();
  source->DestroySource();
  EXPECT_TRUE(source->controllers().empty());
  pass();
  EXPECT_EQ(network.exchanges, 0);
}

TEST_F(RemoteConfigTest, ThereIsOneInstance) {
  EXPECT_EQ(RemoteArchiveSource::Instance(), RemoteArchiveSource::Instance());
}

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

TEST_F(RemoteArchiveSourceTest, AsksAtOnceWhenTheClockWasSetBack) {
  configureLoad();
  pass();
  clock.setTime(kStart - 3600 * kSecond);
  pass();
  EXPECT_EQ(network.exchanges, 2);
  pass();
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

// A local archive whose write buffer is half full at times.
struct CrowdedWriter : ILayerWriter {
  void write(const PinPtr& pin) override {
    times.push_back(pin->time);
    if (++taken == most) full = true;
  }
  bool crowded() const override { return full; }
  std::vector<std::int64_t> times;
  std::size_t taken = 0;
  std::size_t most = 10;
  bool full = false;
};

TEST_F(RemoteArchiveSourceTest, WaitsForRoomInTheLocalArchiveAndLosesNothing) {
  configureLoad();
  peer().page = 25;
  peer().add("Load", kStart, 60);
  CrowdedWriter writer;
  pin(manager().createPinCache(kLoad))->addLayer(writer, 0);
  pass();
  EXPECT_EQ(writer.times.size(), 10U);
  EXPECT_EQ(network.exchanges, 1);
  for (int i = 0; i < 20; ++i) {
    writer.taken = 0;
    writer.full = false;
    nextRound();
  }
  ASSERT_EQ(writer.times.size(), 60U);
  EXPECT_TRUE(std::is_sorted(writer.times.begin(), writer.times.end()));
  manager().clear();
}

// ---- values

class RemoteValueTest : public RemoteArchiveSourceTest {
 protected:
  // What a value that arrives as `text` becomes in a local variable of this type.
  OpcUa_VariantHlp received(const std::string& text, OpcUa_Byte type) {
    const std::int64_t id = 500 + ++made_;
    const std::string path = "V" + std::to_string(made_);
    localItem(id, "Here/" + path, type);
    peer().history[path] = {{kStart, text, 0}};
    init(sectionText({itemText(1, id, path)}));
    nextRound();
    const auto pins = stored({id, "Here/" + path});
    EXPECT_EQ(pins.size(), 1U) << text;
    return pins.size() == 1 ? pins[0]->value : OpcUa_VariantHlp();
  }

 private:
  int made_ = 0;
};

TEST_F(RemoteValueTest, BecomesTheTypeOfTheLocalVariable) {
  EXPECT_EQ(received("true", OpcUaType_Boolean).Get().Value.Boolean, true);
  EXPECT_EQ(received("-128", OpcUaType_SByte).Get().Value.SByte, -128);
  EXPECT_EQ(received("255", OpcUaType_Byte).Get().Value.Byte, 255);
  EXPECT_EQ(received("-32768", OpcUaType_Int16).Get().Value.Int16, -32768);
  EXPECT_EQ(received("65535", OpcUaType_UInt16).Get().Value.UInt16, 65535);
  EXPECT_EQ(received("-2147483648", OpcUaType_Int32).Get().Value.Int32, INT32_MIN);
  EXPECT_EQ(received("4294967295", OpcUaType_UInt32).Get().Value.UInt32, UINT32_MAX);
  EXPECT_EQ(received("-9223372036854775808", OpcUaType_Int64).Get().Value.Int64, INT64_MIN);
  EXPECT_EQ(received("18446744073709551615", OpcUaType_UInt64).Get().Value.UInt64, UINT64_MAX);
  EXPECT_EQ(received("0.10000000149011612", OpcUaType_Float).Get().Value.Float, 0.1F);
  EXPECT_EQ(received("0.1", OpcUaType_Double).Get().Value.Double, 0.1);
  EXPECT_EQ(received("\"a\\u0000\\\"b\"", OpcUaType_String).GetString(), std::string("a\0\"b", 4));
  const OpcUa_VariantHlp time = received("1715932800001", OpcUaType_DateTime);
  EXPECT_EQ(time.GetType(), OpcUaType_DateTime);
  EXPECT_EQ(OpcUa_DateTime_ToInt64(&time.Get().Value.DateTime), 133'604'064'000'010'000);
}

TEST_F(RemoteValueTest, DoublesArriveBitForBit) {
  for (const char* text : {"5e-324", "1.7976931348623157e308", "2.2250738585072014e-308", "-0.0",
                           "0.30000000000000004", "9007199254740993.0", "123456789012345680.0"}) {
    const OpcUa_VariantHlp value = received(text, OpcUaType_Double);
    EXPECT_EQ(value.GetType(), OpcUaType_Double);
    const double expected = std::strtod(text, nullptr);
    EXPECT_EQ(std::memcmp(&value.Get().Value.Double, &expected, sizeof expected), 0) << text;
  }
}

TEST_F(RemoteValueTest, NullStaysNull) {
  for (const OpcUa_Byte type : {OpcUaType_Double, OpcUaType_String, OpcUaType_Json}) {
    EXPECT_EQ(received("null", type).GetType(), OpcUaType_Null);
  }
}

TEST_F(RemoteValueTest, JsonTextIsKeptAsItIs) {
  for (const char* text : {R"({"a":[1,2.5,null,"x"]})", "[]", "5", "\"t\"", "true"}) {
    const OpcUa_VariantHlp value = received(text, OpcUaType_Json);
    EXPECT_EQ(value.GetType(), OpcUaType_Json);
    EXPECT_EQ(value.GetString(), text);
  }
}

TEST_F(RemoteValueTest, AValueThatDoesNotConvertKeepsItsForm) {
  EXPECT_EQ(received("\"abc\"", OpcUaType_Double).GetString(), "abc");
  EXPECT_EQ(received("300", OpcUaType_Byte).Get().Value.Int64, 300);
}

// ---- the worker

class RemoteWorkerTest : public RemoteArchiveSourceTest {
 protected:
  RemoteWorkerTest() {
    clock.setAutoAdvance(false);
    configureLoad();
  }

  template <class Condition>
  static bool within10s(const Condition& reached) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!reached()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }
  std::chrono::milliseconds timeToStop() {
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(source->Stop(), 0);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 begun);
  }
};

TEST_F(RemoteWorkerTest, StopWithoutStartDoesNothing) {
  EXPECT_EQ(source->Stop(), 0);
  EXPECT_EQ(source->Stop(), 0);
  EXPECT_EQ(network.exchanges, 0);
}

TEST_F(RemoteWorkerTest, MakesAPassEveryHundredMilliseconds) {
  EXPECT_EQ(source->Start(), 0);
  ASSERT_TRUE(within10s([&] { return network.exchanges == 1 && clock.waiting() == 1; }));
  for (int i = 2; i < 5; ++i) {
    const long long begun = clock.waitsBegun();
    clock.advance(kSecond);
    ASSERT_TRUE(within10s([&] { return network.exchanges == i && clock.waitsBegun() > begun; }));
  }
  EXPECT_EQ(source->Stop(), 0);
  EXPECT_EQ(network.exchanges, 4);
}

TEST_F(RemoteWorkerTest, StopEndsAnExchangeWithADeadPeerAtOnce) {
  peer().isSilent = true;
  source->Start();
  ASSERT_TRUE(within10s([&] { return network.inExchange == 1; }));
  EXPECT_LT(timeToStop(), std::chrono::milliseconds(5'000));
  EXPECT_EQ(network.inExchange, 0);
}

TEST_F(RemoteWorkerTest, InitDoesNotWaitForAnExchange) {
  peer().isSilent = true;
  source->Start();
  ASSERT_TRUE(within10s([&] { return network.inExchange == 1; }));
  EXPECT_EQ(source->Init(), 0);
  EXPECT_EQ(network.inExchange, 1);
  source->Stop();
}

TEST_F(RemoteWorkerTest, StartTwiceLeavesOneWorkerAndStopEndsBoth) {
  peer().isSilent = true;
  source->Start();
  ASSERT_TRUE(within10s([&] { return network.inExchange == 1; }));
  source->Start();
  source->Start();
  EXPECT_EQ(network.inExchange, 1);
  EXPECT_LT(timeToStop(), std::chrono::milliseconds(5'000));
  EXPECT_EQ(network.inExchange, 0);
  peer().isSilent = false;
  peer().add("Load", kStart, 3);
  source->Start();
  EXPECT_TRUE(within10s([&] { return source->counts(1).stored == 3; }));
  source->Stop();
}

TEST_F(RemoteWorkerTest, AnyOrderInATightLoopNeverHangs) {
  peer().isSilent = true;
  std::mt19937 random(11);
  for (int i = 0; i < 300; ++i) {
    switch (random() % 4) {
      case 0:
        EXPECT_EQ(source->Init(), 0);
        break;
      case 1:
        EXPECT_EQ(source->Start(), 0);
        break;
      case 2:
        EXPECT_LT(timeToStop(), std::chrono::milliseconds(5'000));
        break;
      default:
        std::this_thread::yield();
    }
  }
  EXPECT_LT(timeToStop(), std::chrono::milliseconds(5'000));
}

TEST_F(RemoteWorkerTest, StopWhileInitComesFromElsewhereDoesNotHang) {
  std::atomic<bool> done{false};
  std::thread configurer([&] {
    while (!done) source->Init();
  });
  for (int i = 0; i < 100; ++i) {
    source->Start();
    source->Stop();
  }
  done = true;
  configurer.join();
}

TEST_F(RemoteWorkerTest, ItsEndIsWaitedForWhenTheSourceGoes) {
  peer().isSilent = true;
  source->Start();
  source->Start();
  ASSERT_TRUE(within10s([&] { return network.inExchange == 1; }));
  source.reset();
  EXPECT_EQ(network.inExchange, 0);
}

}  // namespace
}  // namespace orva::archive
