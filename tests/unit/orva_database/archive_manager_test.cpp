#include "share/archive_manager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "orva_host/config_sections.h"
#include "orva_host/variables.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

namespace orva::archive::archive_manager_test {
namespace {

using Texts = std::vector<std::string>;
using test::realPin;
using test::requestFor;
using test::ScriptedProvider;
using test::TraceCapture;
using test::When;

const char* const kParseFailed =
    "<--ReturnError: orva::parse_json(GetConfigDataValue(\"DataArchive\"), cfg) returns 0x";

// One entry of "archives".
std::string entry(const std::string& providerType) {
  return R"({"limits":{},"filter":{},"connection":{"providerType":")" + providerType + R"("}})";
}

class ArchiveManagerTest : public test::ArchiveFixture {
 protected:
  static int initWith(const std::string& section) {
    host::setConfigSection("DataArchive", section);
    return manager().init();
  }

  // Whether there is an archive of that number: a variable that names it is served by it.
  static bool hasArchive(std::int32_t number) {
    describeItem(900, "Probe", {{5, {number, 0}}});
    const std::int64_t id = manager().createPinCache({900, "Probe" + std::to_string(number)});
    return pin(id)->hasLayer(5);
  }
};

// ---- configuration

TEST_F(ArchiveManagerTest, ArchiveGetsItsConfigurationAndIsStartedAfterTheFilter) {
  EXPECT_EQ(initWith(R"({"archives":[{"limits":{"maxSize":7},"filter":{"deadband":0.5},
                     "connection":{"providerType":"scripted","location":"here"}}]})"),
            0);
  ASSERT_EQ(factory.count(), 1U);
  EXPECT_EQ(archive().limits.maxSize, 7U);
  EXPECT_EQ(archive().connection.location, "here");
  EXPECT_EQ(archive().connection.type, kDataArchive);
  EXPECT_EQ(archive().filterText(), R"({"deadband":0.5})");
  EXPECT_EQ(archive().calls(), Texts({"loadFilter", "start"}));
}

TEST_F(ArchiveManagerTest, ArchivesAreNumberedByTheirPosition) {
  EXPECT_EQ(initWith(R"({"archives":[)" + entry("scripted") + "," + entry("nobody") + "," +
                     entry("scripted") + "]}"),
            0);
  EXPECT_EQ(factory.count(), 2U);
  EXPECT_TRUE(hasArchive(0));
  EXPECT_FALSE(hasArchive(1));
  EXPECT_TRUE(hasArchive(2));
}

TEST_F(ArchiveManagerTest, UnknownProviderTypeIsSkippedWithoutAMessage) {
  TraceCapture traces;
  manager().regFactory("empty", nullptr);
  EXPECT_EQ(initWith(R"({"archives":[)" + entry("nobody") + "," + entry("empty") + "]}"), 0);
  EXPECT_TRUE(traces.texts().empty());
}

TEST_F(ArchiveManagerTest, LaterFactoryOfTheSameNameReplacesTheEarlier) {
  test::ScriptedFactory second;
  manager().regFactory("scripted", &second);
  start();
  EXPECT_EQ(factory.count(), 0U);
  EXPECT_EQ(second.count(), 1U);
  manager().clear();
}

TEST_F(ArchiveManagerTest, InitWithArchivesReadsNothing) {
  start();
  TraceCapture traces;
  EXPECT_EQ(initWith("not JSON"), 0);
  EXPECT_EQ(factory.count(), 1U);
  EXPECT_TRUE(traces.texts().empty());
}

TEST_F(ArchiveManagerTest, SectionThatIsNoJsonIsTracedAndItsCodeReturned) {
  TraceCapture traces;
  EXPECT_EQ(static_cast<StatusCode>(initWith("{\"archives\":[")), status::kBadDecodingError);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text, std::string(kParseFailed) + "80070000\n");
  EXPECT_EQ(traces.lines()[0].level, kTraceError);
  EXPECT_FALSE(hasArchive(0));
}

TEST_F(ArchiveManagerTest, AbsentSectionFailsAtEveryInit) {
  TraceCapture traces;
  EXPECT_LT(manager().init(), 0);
  EXPECT_LT(manager().init(), 0);
  EXPECT_EQ(traces.countContaining(kParseFailed), 2);
}

TEST_F(ArchiveManagerTest, FailureIsForgottenOnceTheSectionIsGood) {
  TraceCapture traces;
  initWith("{");
  EXPECT_EQ(start(), 0);
  EXPECT_EQ(factory.count(), 1U);
}

TEST_F(ArchiveManagerTest, SectionMayNestSixtyFourLevels) {
  TraceCapture traces;
  const auto nested = [](std::size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
  };
  EXPECT_EQ(initWith(nested(64)), 0);
  for (const std::size_t levels : {std::size_t{65}, std::size_t{1'000'000}}) {
    traces.clear();
    EXPECT_EQ(static_cast<StatusCode>(initWith(nested(levels))), status::kBadRequest);
    EXPECT_EQ(traces.texts(), Texts{std::string(kParseFailed) + "80B60000\n"});
  }
}

TEST_F(ArchiveManagerTest, EmptySectionGivesNoArchives) {
  TraceCapture traces;
  EXPECT_EQ(initWith("{}"), 0);
  EXPECT_EQ(manager().defaultArchive(), 0);
  EXPECT_EQ(traces.texts(), Texts{"<--Assert false failed\n"});  // "archives"
  EXPECT_EQ(factory.count(), 0U);
}

TEST_F(ArchiveManagerTest, SectionOfAnyOtherTypeGivesNoArchives) {
  for (const char* section : {"null", "5", "\"text\"", "true", "[1]"}) {
    TraceCapture traces;
    EXPECT_EQ(initWith(section), 0) << section;
    EXPECT_GT(traces.count("<--Assert IsObject() failed\n"), 0) << section;
  }
  EXPECT_EQ(factory.count(), 0U);
}

TEST_F(ArchiveManagerTest, ArchivesThatAreNoArrayAreNone) {
  for (const char* archives : {"null", "5", "\"text\"", "true", R"({"0":{}})"}) {
    EXPECT_EQ(initWith(R"({"archives":)" + std::string(archives) + "}"), 0) << archives;
  }
  EXPECT_EQ(factory.count(), 0U);
}

TEST_F(ArchiveManagerTest, EntriesThatAreNoObjectsAreSkipped) {
  TraceCapture traces;
  EXPECT_EQ(initWith(R"({"archives":[null,1,"x",[],)" + entry("scripted") + "]}"), 0);
  EXPECT_EQ(factory.count(), 1U);
  EXPECT_TRUE(hasArchive(4));
}

TEST_F(ArchiveManagerTest, MissingPartsOfAnEntryAreTracedAndGiveTheDefaults) {
  manager().regFactory("", &factory);
  TraceCapture traces;
  EXPECT_EQ(initWith(R"({"archives":[{}]})"), 0);
  manager().regFactory("", nullptr);
  ASSERT_EQ(factory.count(), 1U);
  EXPECT_EQ(archive().limits.writeBufferSize, 10000U);
  EXPECT_EQ(archive().connection.reconnectTimeout, 10'000'000);
  EXPECT_EQ(archive().filterText(), "null");
  EXPECT_EQ(traces.count("<--Assert false failed\n"), 3);
}

TEST_F(ArchiveManagerTest, DefaultArchiveIsReadFromAnIntegerOnly) {
  const auto defaultOf = [](const std::string& value) {
    manager().clear();
    initWith(R"({"archives":[)" + entry("scripted") + R"(],"defaultArchive":)" + value + "}");
    return manager().defaultArchive();
  };
  EXPECT_EQ(defaultOf("3"), 3);
  EXPECT_EQ(defaultOf("-1"), -1);
  for (const char* value : {"\"3\"", "3.5", "true", "null", "[]", "{}", "2147483648"}) {
    EXPECT_EQ(defaultOf(value), 0) << value;
  }
  EXPECT_EQ(defaultOf("3"), 3);
  manager().clear();
  start();  // without the member
  EXPECT_EQ(manager().defaultArchive(), 0);
}

TEST_F(ArchiveManagerTest, ProviderThatThrowsIsLeftOutAlone) {
  TraceCapture traces;
  bool first = true;
  factory.onCreate = [&first](ScriptedProvider&) {
    if (std::exchange(first, false)) throw std::runtime_error("no disk");
  };
  EXPECT_EQ(start(2), 0);
  EXPECT_FALSE(hasArchive(0));
  EXPECT_TRUE(hasArchive(1));
  EXPECT_EQ(traces.countContaining("no disk"), 1);
}

using ArchiveManagerDeathTest = ArchiveManagerTest;

TEST_F(ArchiveManagerDeathTest, FactoryThatCreatesNothingStopsTheProcess) {
  factory.createsNothing = true;
  EXPECT_DEATH(start(), "created none");
}

TEST_F(ArchiveManagerTest, ProviderMayCreateItemsFromStart) {
  describeItem(1, "Plant/Load", {{0, {0, 0}}});
  std::int64_t cacheId = 0;
  factory.onCreate = [&cacheId](ScriptedProvider& provider) {
    provider.onStart([&cacheId] { cacheId = manager().createPinCache({1, "Plant/Load"}); });
  };
  start();
  ASSERT_GT(cacheId, 0);
  EXPECT_TRUE(pin(cacheId)->hasLayer(0));
}

// ---- clear

TEST_F(ArchiveManagerTest, ClearStopsTheArchivesByAscendingNumberAndForgetsTheItems) {
  start(3);
  const std::int64_t cacheId = makeItem(1);
  const boost::shared_ptr<cache::CachedItem> item = pin(cacheId);
  std::vector<std::size_t> stopped;
  for (std::size_t i = 0; i < 3; ++i) archive(i).onStop([&stopped, i] { stopped.push_back(i); });
  manager().clear();
  EXPECT_EQ(stopped, std::vector<std::size_t>({0, 1, 2}));
  EXPECT_TRUE(item->stopped());
  EXPECT_EQ(manager().getCacheId(ItemKey(1, "Plant/Load")), -1);
  EXPECT_EQ(manager().getPinCache(cacheId), nullptr);
  EXPECT_TRUE(manager().cachedItems().empty());
  EXPECT_FALSE(hasArchive(0));
}

TEST_F(ArchiveManagerTest, ClearLetsGoOfTheProviders) {
  start();
  const auto provider = factory.weak(0);
  factory.forget();
  EXPECT_FALSE(provider.expired());
  manager().clear();
  EXPECT_TRUE(provider.expired());
}

TEST_F(ArchiveManagerTest, InitAfterClearStartsTheArchivesAnew) {
  start();
  const std::int64_t before = makeItem(1);
  manager().clear();
  EXPECT_EQ(manager().init(), 0);
  EXPECT_EQ(factory.count(), 2U);
  EXPECT_EQ(makeItem(1), before);  // an id follows from the key
  *pin(before) << realPin(5, 1);
  EXPECT_EQ(archive(1).written({1, "Plant/Load"}, 0).size(), 1U);
  EXPECT_TRUE(archive(0).written({1, "Plant/Load"}, 0).empty());
}

TEST_F(ArchiveManagerTest, StopThatThrowsDoesNotKeepTheOthersRunning) {
  start(2);
  archive(0).onStop([] { throw std::runtime_error("stuck"); });
  TraceCapture traces;
  manager().clear();
  EXPECT_EQ(archive(1).calls().back(), "stop");
  EXPECT_EQ(traces.countContaining("stuck"), 1);
}

TEST_F(ArchiveManagerTest, CallbackInsideStopMayUseTheManager) {
  start();
  const std::int64_t cacheId = makeItem(1);
  archive().setScript({When::held});
  const SharedRequest request = requestFor(cacheId);
  const SharedRequest second = requestFor(cacheId);
  request->setCompletion([&](const SharedRequest&) {
    manager().createPinCache({1, "Plant/Load"});
    manager().addRequest(second, 1000);
  });
  manager().addRequest(request, 1000);
  ASSERT_EQ(archive().heldCount(), 1U);
  manager().clear();  // finalises the held read
  EXPECT_EQ(request->status(), status::kGood);
  EXPECT_EQ(second->status(), status::kGood);
}

TEST_F(ArchiveManagerTest, CallbackOnAThreadThatStopJoinsMayUseTheManager) {
  start();
  const std::int64_t cacheId = makeItem(1);
  archive().setScript({When::held});
  const SharedRequest request = requestFor(cacheId);
  request->setCompletion([&](const SharedRequest&) { manager().addRequest(requestFor(1), 1000); });
  manager().addRequest(request, 1000);
  archive().onStop([this] { std::thread([this] { archive().releaseAll(); }).join(); });
  manager().clear();
  EXPECT_EQ(request->status(), status::kGood);
}

TEST_F(ArchiveManagerTest, InitWaitsForAClearInProgress) {
  start();
  std::thread initialiser;
  std::atomic<bool> stopping{false};
  std::atomic<bool> createdWhileStopping{false};
  factory.onCreate = [&](ScriptedProvider&) { createdWhileStopping = stopping.load(); };
  archive().onStop([&] {
    stopping = true;
    std::atomic<bool> begun{false};
    initialiser = std::thread([&] {
      begun = true;
      manager().init();
    });
    while (!begun) std::this_thread::yield();
    for (int i = 0; i < 10'000; ++i) std::this_thread::yield();
    stopping = false;
  });
  manager().clear();
  initialiser.join();
  EXPECT_FALSE(createdWhileStopping);
  EXPECT_EQ(factory.count(), 2U);
}

TEST_F(ArchiveManagerTest, ClearTimesOutRequestsThatNobodyWillAnswer) {
  start();
  const std::int64_t cacheId = makeItem(1);
  archive().setScript({When::never});
  const SharedRequest request = requestFor(cacheId);
  int completions = 0;
  int timeouts = 0;
  request->setCompletion([&](const SharedRequest&) { ++completions; });
  request->setTimeoutListener([&](const SharedRequest&) {
    ++timeouts;
    EXPECT_EQ(archive().calls().back(), "stop");
    manager().addRequest(requestFor(cacheId), 1000);  // under none of its locks
    manager().clear();
  });
  manager().addRequest(request, 60000);
  manager().clear();
  EXPECT_EQ(request->status(), status::kBadTimeout);
  EXPECT_EQ(timeouts, 1);
  EXPECT_EQ(completions, 0);
}

TEST_F(ArchiveManagerTest, ClearLeavesCompletedRequestsAlone) {
  start();
  const SharedRequest request = requestFor(makeItem(1));
  int timeouts = 0;
  request->setTimeoutListener([&](const SharedRequest&) { ++timeouts; });
  manager().addRequest(request, 60000);
  manager().clear();
  EXPECT_EQ(request->status(), status::kGood);
  EXPECT_EQ(timeouts, 0);
}

// ---- items

TEST_F(ArchiveManagerTest, ItemUnknownToTheHostHasNoCacheId) {
  start();
  TraceCapture traces;
  EXPECT_EQ(manager().createPinCache({-7, "Plant/Load"}), -1);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text, "Not found VMItem : -7");
  EXPECT_EQ(traces.lines()[0].level, kTraceWarning);
  EXPECT_TRUE(manager().cachedItems().empty());
}

TEST_F(ArchiveManagerTest, ItemThatIsNotArchivedHasNoCacheId) {
  start();
  describeItem(5'000'000'000, "Plant/Load", {});
  TraceCapture traces;
  EXPECT_EQ(manager().createPinCache({5'000'000'000, "Plant/Load"}), -1);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text, "Layers info emty for VMItem : 5000000000");
  EXPECT_EQ(traces.lines()[0].level, kTraceWarning);
}

TEST_F(ArchiveManagerTest, LayerOfAMissingArchiveIsLoggedAndLeftOut) {
  start();
  describeItem(1, "Plant/Load", {{0, {0, 0}}, {1, {4, 0}}});
  describeLayer(0, false);
  TraceCapture traces;
  const std::int64_t cacheId = manager().createPinCache({1, "Plant/Load"});
  ASSERT_GT(cacheId, 0);
  EXPECT_EQ(traces.texts(), Texts{"Archive -> 4 not found for layer 1 in VMItem : 1"});
  EXPECT_EQ(traces.lines()[0].level, kTraceWarning);
  EXPECT_TRUE(pin(cacheId)->hasLayer(0));
  EXPECT_FALSE(pin(cacheId)->hasLayer(1));
}

TEST_F(ArchiveManagerTest, ItemThatNoArchiveServesIsCachedWithoutLayers) {
  start();
  describeItem(1, "Plant/Load", {{0, {4, 0}}});
  const std::int64_t cacheId = manager().createPinCache({1, "Plant/Load"});
  ASSERT_GT(cacheId, 0);
  EXPECT_EQ(pin(cacheId)->layerCount(), 0U);
  EXPECT_EQ(manager().cachedItems().size(), 1U);
}

TEST_F(ArchiveManagerTest, EachLayerWritesToItsArchiveWithItsParameter) {
  start(2);
  describeItem(1, "Plant/Load", {{0, {1, 55}}, {1, {0, 5'000'000'000}}});
  const std::int64_t cacheId = manager().createPinCache({1, "Plant/Load"});
  *pin(cacheId) << realPin(10, 1);
  const ItemKey key(1, "Plant/Load");
  EXPECT_EQ(archive(1).written(key, 0).size(), 1U);
  EXPECT_EQ(archive(0).written(key, 1).size(), 1U);
  EXPECT_EQ(archive(1).layerParameter(key, 0), 55);
  EXPECT_EQ(archive(0).layerParameter(key, 1), 5'000'000'000);
  EXPECT_EQ(archive(0).layerWriterCount() + archive(1).layerWriterCount(), 2U);
}

TEST_F(ArchiveManagerTest, FilterComesFromTheArchiveOfLayerZero) {
  start(2);
  archive(0).mutableFilter().deadband = 10;
  archive(1).mutableFilter().deadband = 11;
  describeItem(1, "Plant/Load", {{0, {1, 0}}, {1, {0, 0}}});
  const std::int64_t cacheId = manager().createPinCache({1, "Plant/Load"});
  EXPECT_EQ(pin(cacheId)->filter().deadband, 11);
}

TEST_F(ArchiveManagerTest, LookingAnItemUpAgainLeavesItAlone) {
  start();
  describeLayer(0, true);
  const std::int64_t cacheId = makeItem(1);
  *pin(cacheId) << realPin(10, 1);
  pin(cacheId)->updateFilter([](Filter& filter) { filter.deadband = 42; });
  archive().mutableFilter().deadband = 7;
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(makeItem(1), cacheId);
  EXPECT_EQ(pin(cacheId)->filter().deadband, 42);
  EXPECT_EQ(pin(cacheId)->last()->time, 10);
  EXPECT_EQ(archive().layerWriterCount(), 1U);
  const SharedRequest request = requestFor(cacheId, 10, 11);
  std::vector<SharedInterval> intervals;
  manager().loadFromCache(request, intervals);
  EXPECT_EQ(request->items()[0]->valueCount(), 1U);  // still cached
}

TEST_F(ArchiveManagerTest, KnownItemGetsTheLayersItLacks) {
  start();
  const std::int64_t cacheId = makeItem(1);
  *pin(cacheId) << realPin(10, 1);
  describeItem(1, "Plant/Load", {{0, {0, 0}}, {1, {0, 0}}});
  EXPECT_EQ(manager().createPinCache({1, "Plant/Load"}), cacheId);
  EXPECT_TRUE(pin(cacheId)->hasLayer(1));
  EXPECT_EQ(archive().layerWriterCount(), 2U);
  EXPECT_EQ(pin(cacheId)->last()->time, 10);
}

TEST_F(ArchiveManagerTest, ItemUsedBeforeInitIsArchivedAfterIt) {
  const std::int64_t cacheId = makeItem(1);
  ASSERT_GT(cacheId, 0);
  *pin(cacheId) << realPin(100, 1);  // goes nowhere
  start(1, R"({"allValues":true,"deadband":3})");
  EXPECT_EQ(pin(cacheId)->filter().deadband, 3);
  // Older than the one that was never archived: that one is forgotten.
  *pin(cacheId) << realPin(50, 1);
  EXPECT_EQ(test::timesOf(archive().written({1, "Plant/Load"}, 0)),
            std::vector<std::int64_t>({50}));
}

TEST_F(ArchiveManagerTest, ItemUsedBetweenClearAndInitIsArchivedAgain) {
  start();
  makeItem(1);
  manager().clear();
  const std::int64_t cacheId = makeItem(1);
  manager().init();
  *pin(cacheId) << realPin(50, 1);
  EXPECT_EQ(archive(1).written({1, "Plant/Load"}, 0).size(), 1U);
  const SharedRequest request = requestFor(cacheId);
  manager().syncRead(request);
  EXPECT_EQ(request->items()[0]->valueCount(), 1U);
}

TEST_F(ArchiveManagerTest, ItemWithALayerKeepsItsLastSampleWhenItGetsAnother) {
  start();
  describeItem(1, "Plant/Load", {{1, {0, 0}}});
  const std::int64_t cacheId = manager().createPinCache({1, "Plant/Load"});
  *pin(cacheId) << realPin(100, 1);
  describeItem(1, "Plant/Load", {{0, {0, 0}}, {1, {0, 0}}});
  manager().createPinCache({1, "Plant/Load"});
  TraceCapture traces;
  *pin(cacheId) << realPin(50, 1);  // older than the last one
  EXPECT_EQ(traces.countContaining("(old time)"), 1);
}

TEST_F(ArchiveManagerTest, ItemWithoutAnArchiveOfLayerZeroIsLoggedOnce) {
  start();
  describeItem(1, "Plant/Load", {{1, {0, 0}}});
  describeLayer(1, false);
  TraceCapture traces;
  manager().createPinCache({1, "Plant/Load"});
  manager().createPinCache({1, "Plant/Load"});
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].level, kTraceWarning);
  EXPECT_NE(traces.lines()[0].text.find("VMItem : 1"), std::string::npos);
}

TEST_F(ArchiveManagerTest, ItemWithLayerZeroIsNotLogged) {
  start();
  describeLayer(0, false);
  TraceCapture traces;
  makeItem(1);
  EXPECT_TRUE(traces.texts().empty());
}

TEST_F(ArchiveManagerTest, CacheIdOfAnUnsignedItemIdIsZeroExtended) {
  start();
  describeItem(-1, "A", {{0, {0, 0}}});
  describeItem(4294967295, "A", {{0, {0, 0}}});
  describeItem(4294967296, "B", {{0, {0, 0}}});
  describeItem(0, "B", {{0, {0, 0}}});
  const std::int64_t negative = manager().createPinCache({-1, "A"});
  const std::int64_t big = manager().createPinCache({4294967295, "A"});
  const std::int64_t truncated = manager().createPinCache({4294967296, "B"});
  EXPECT_EQ(manager().getCacheId(4294967295U, "A"), big);
  EXPECT_EQ(manager().getCacheId(static_cast<unsigned>(4294967296), "B"), -1);
  EXPECT_EQ(manager().getCacheId(ItemKey(-1, "A")), negative);
  EXPECT_EQ(manager().getCacheId(ItemKey(4294967296, "B")), truncated);
  EXPECT_EQ((std::set<std::int64_t>{negative, big, truncated}.size()), 3U);
}

TEST_F(ArchiveManagerTest, PathIsPartOfTheKey) {
  start();
  const std::int64_t withPath = makeItem(1, "Plant/Load");
  EXPECT_EQ(manager().getCacheId(1, ""), -1);
  const std::int64_t withoutPath = manager().createPinCache({1, ""});
  EXPECT_NE(withPath, withoutPath);
  EXPECT_NE(pin(withPath), pin(withoutPath));
}

TEST_F(ArchiveManagerTest, CachedItemsComeByAscendingCacheId) {
  start();
  std::set<std::pair<std::int64_t, ItemKey>> made;
  for (std::int64_t id = 1; id <= 20; ++id) {
    const std::string path = "Item " + std::to_string(id);
    made.insert({makeItem(id, path), ItemKey(id, path)});
  }
  const auto cached = manager().cachedItems();
  EXPECT_EQ(cached, (std::vector<std::pair<std::int64_t, ItemKey>>(made.begin(), made.end())));
}

TEST_F(ArchiveManagerTest, AnItemIsProvidedWithItsCacheId) {
  start();
  describeItem(1, "Plant/Load", {{0, {0, 0}}});
  std::int64_t cacheId = 0;
  const auto item = manager().providePin({1, "Plant/Load"}, cacheId);
  EXPECT_EQ(cacheId, manager().createPinCache({1, "Plant/Load"}));
  EXPECT_EQ(item, pin(cacheId));
  EXPECT_TRUE(item->hasLayer(0));
  TraceCapture traces;
  EXPECT_EQ(manager().providePin({2, "Plant/Load"}, cacheId), nullptr);
  EXPECT_EQ(cacheId, -1);
}

TEST_F(ArchiveManagerTest, AnItemIsProvidedAlsoWhileAllItemsAreForgotten) {
  describeItem(1, "Plant/Load", {{0, {0, 0}}});
  TraceCapture traces;
  std::atomic<bool> done{false};
  std::thread forgetter([&done] {
    while (!done) manager().clear();
  });
  int missing = 0;
  for (int i = 0; i < 20'000; ++i) {
    std::int64_t cacheId = -1;
    if (!manager().providePin({1, "Plant/Load"}, cacheId) || cacheId == -1) ++missing;
    if (i % 1000 == 0) traces.clear();
  }
  done = true;
  forgetter.join();
  EXPECT_EQ(missing, 0);
}

TEST_F(ArchiveManagerTest, UnknownCacheIdHasNoItem) {
  start();
  EXPECT_EQ(manager().getPinCache(-1), nullptr);
  EXPECT_EQ(manager().getPinCache(12345), nullptr);
}

}  // namespace
}  // namespace orva::archive::archive_manager_test
