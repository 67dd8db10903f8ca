#include <gtest/gtest.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/trace.h"
#include "orva_database/database_addin.h"
#include "orva_host/config_sections.h"
#include "share/archive_manager.h"
#include "share/events_archive_manager.h"
#include "share/status_codes.h"
#include "support/trace_capture.h"

namespace orva::archive::event_archive_manager_test {
namespace {

using test::TraceCapture;
using Texts = std::vector<std::string>;

const char* const kParseFailed =
    "<--ReturnError: parse_json(GetConfigDataValue(\"EventsArchive\"), cfg) returns 0x";

// Makes archives that say in `calls` what happens to them.
class RecordingFactory final : public IEventsArchiveProcFactory {
 public:
  boost::shared_ptr<IEventsArchiveProc> create(const ArchiveCfg& limits,
                                               const ConnectionCfg& connection) override;

  Texts calls;
  ArchiveCfg limits;
  ConnectionCfg connection;
  int created = 0;
  bool createsNothing = false;
  std::function<void(int)> onCreate;  // with the number of the archive, from 1
  std::function<void(int)> onStart;
  std::function<void(int)> onEnd;
};

class RecordingArchive final : public IEventsArchiveProc {
 public:
  RecordingArchive(RecordingFactory& factory, int number) : factory_(factory), number_(number) {}
  ~RecordingArchive() override {
    factory_.calls.push_back("end " + std::to_string(number_));
    if (factory_.onEnd) factory_.onEnd(number_);
  }
  void stop() override { factory_.calls.push_back("stop " + std::to_string(number_)); }
  void start() override {
    factory_.calls.push_back("start " + std::to_string(number_));
    if (factory_.onStart) factory_.onStart(number_);
  }

 private:
  RecordingFactory& factory_;
  const int number_;
};

boost::shared_ptr<IEventsArchiveProc> RecordingFactory::create(const ArchiveCfg& archiveLimits,
                                                               const ConnectionCfg& where) {
  if (createsNothing) return {};
  limits = archiveLimits;
  connection = where;
  ++created;
  if (onCreate) onCreate(created);
  return boost::make_shared<RecordingArchive>(*this, created);
}

// One entry of "archives".
std::string entry(const std::string& providerType) {
  return R"({"limits":{},"connection":{"providerType":")" + providerType + R"("}})";
}

class EventArchiveManagerTest : public ::testing::Test {
 protected:
  EventArchiveManagerTest() { manager().regFactory("recording", &factory_); }
  ~EventArchiveManagerTest() override {
    manager().clear();
    manager().regFactory("recording", nullptr);
    host::replaceConfigSections({});
  }

  static EventsArchiveManager& manager() { return EventsArchiveManager::instance(); }
  static int initWith(const std::string& section) {
    host::setConfigSection("EventsArchive", section);
    return manager().init();
  }
  static int start(int archives = 1) {
    std::string list;
    for (int i = 0; i < archives; ++i) list += (i == 0 ? "" : ",") + entry("recording");
    return initWith(R"({"archives":[)" + list + "]}");
  }

  RecordingFactory factory_;
  TraceCapture traces_;
};

TEST_F(EventArchiveManagerTest, ThereIsOneManager) {
  EXPECT_EQ(&EventsArchiveManager::instance(), &EventsArchiveManager::instance());
}

TEST_F(EventArchiveManagerTest, ArchiveGetsItsConfigurationAndIsStarted) {
  EXPECT_EQ(initWith(R"({"archives":[{"limits":{"maxSize":7},"filter":5,
      "connection":{"providerType":"recording","location":"here"}}]})"),
            0);
  EXPECT_EQ(factory_.calls, Texts{"start 1"});
  EXPECT_EQ(factory_.limits.maxSize, 7U);
  EXPECT_EQ(factory_.connection.location, "here");
  EXPECT_EQ(factory_.connection.type, kEventsArchive);
  EXPECT_TRUE(traces_.texts().empty());
}

TEST_F(EventArchiveManagerTest, ArchiveIsKeptUnderItsPosition) {
  EXPECT_EQ(initWith(R"({"archives":[)" + entry("nobody") + "," + entry("recording") + "]}"), 0);
  EXPECT_EQ(factory_.created, 1);
  EXPECT_FALSE(manager().archive(0));
  EXPECT_TRUE(manager().archive(1));
  EXPECT_TRUE(traces_.texts().empty());
}

TEST_F(EventArchiveManagerTest, SecondInitCreatesNothing) {
  start();
  EXPECT_EQ(initWith("not JSON"), 0);
  EXPECT_EQ(factory_.created, 1);
  EXPECT_TRUE(traces_.texts().empty());
}

TEST_F(EventArchiveManagerTest, AnInitThatComesDuringAnotherCreatesNothing) {
  std::thread second;
  factory_.onStart = [&second](int number) {
    if (number != 1) return;
    second = std::thread([] { EXPECT_EQ(manager().init(), 0); });
    for (int i = 0; i < 10'000; ++i) std::this_thread::yield();
  };
  EXPECT_EQ(start(2), 0);
  second.join();
  EXPECT_EQ(factory_.calls, (Texts{"start 1", "start 2"}));
}

TEST_F(EventArchiveManagerTest, AClearThatComesDuringInitEndsTheArchivesThatItMakes) {
  std::thread clearing;
  factory_.onStart = [&clearing](int number) {
    if (number != 1) return;
    clearing = std::thread([] { manager().clear(); });
    for (int i = 0; i < 10'000; ++i) std::this_thread::yield();
  };
  EXPECT_EQ(start(2), 0);
  clearing.join();
  EXPECT_EQ(factory_.calls, (Texts{"start 1", "start 2", "end 1", "end 2"}));
}

TEST_F(EventArchiveManagerTest, LaterFactoryOfTheSameNameReplacesTheEarlier) {
  RecordingFactory second;
  manager().regFactory("recording", &second);
  start();
  EXPECT_EQ(factory_.created, 0);
  EXPECT_EQ(second.created, 1);
  manager().clear();
}

TEST_F(EventArchiveManagerTest, AbsentSectionIsTracedAndItsCodeReturnedAtEveryInit) {
  EXPECT_EQ(static_cast<StatusCode>(manager().init()), status::kBadDecodingError);
  EXPECT_LT(manager().init(), 0);
  EXPECT_EQ(traces_.count(std::string(kParseFailed) + "80070000\n"), 2);
  for (const auto& line : traces_.lines()) EXPECT_EQ(line.level, kTraceError);
}

TEST_F(EventArchiveManagerTest, SectionThatNestsTooDeepIsRefused) {
  EXPECT_EQ(static_cast<StatusCode>(initWith(std::string(65, '[') + std::string(65, ']'))),
            status::kBadRequest);
  EXPECT_EQ(traces_.texts(), Texts{std::string(kParseFailed) + "80B60000\n"});
}

TEST_F(EventArchiveManagerTest, EmptySectionGivesNoArchives) {
  EXPECT_EQ(initWith("{}"), 0);
  EXPECT_EQ(manager().defaultArchive(), 0);
  EXPECT_EQ(traces_.texts(), Texts{"<--Assert false failed\n"});  // "archives"
}

TEST_F(EventArchiveManagerTest, MissingPartsOfAnEntryAreTracedAndGiveTheDefaults) {
  manager().regFactory("", &factory_);
  EXPECT_EQ(initWith(R"({"archives":[null,{}]})"), 0);
  manager().regFactory("", nullptr);
  EXPECT_EQ(factory_.created, 2);
  EXPECT_EQ(factory_.limits.writeBufferSize, 10000U);
  EXPECT_EQ(traces_.count("<--Assert false failed\n"), 2);
}

TEST_F(EventArchiveManagerTest, DefaultArchiveIsReadFromAnIntegerOnly) {
  EXPECT_EQ(initWith(R"({"archives":[],"defaultArchive":3})"), 0);
  EXPECT_EQ(manager().defaultArchive(), 3);
  EXPECT_EQ(initWith(R"({"archives":[],"defaultArchive":"3"})"), 0);
  EXPECT_EQ(manager().defaultArchive(), 0);
}

TEST_F(EventArchiveManagerTest, FactoryThatThrowsLeavesItsArchiveOut) {
  factory_.onCreate = [](int number) {
    if (number == 1) throw std::runtime_error("no disk");
  };
  EXPECT_EQ(start(2), 0);
  EXPECT_FALSE(manager().archive(0));
  EXPECT_TRUE(manager().archive(1));
  EXPECT_EQ(traces_.countContaining("no disk"), 1);
}

TEST_F(EventArchiveManagerTest, StartThatThrowsLeavesItsArchiveOut) {
  factory_.onStart = [](int number) {
    if (number == 1) throw 5;
  };
  EXPECT_EQ(start(2), 0);
  EXPECT_EQ(factory_.calls, (Texts{"start 1", "end 1", "start 2"}));
  EXPECT_FALSE(manager().archive(0));
  EXPECT_EQ(traces_.countContaining("EventsArchiveManager::addArchive throws"), 1);
}

using EventArchiveManagerDeathTest = EventArchiveManagerTest;

TEST_F(EventArchiveManagerDeathTest, FactoryThatCreatesNothingStopsTheProcess) {
  factory_.createsNothing = true;
  EXPECT_EXIT(start(), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(EventArchiveManagerTest, ArchiveUnderATakenNumberReplacesTheEarlier) {
  start();
  json::Document other;
  other.Parse(entry("recording").c_str());
  manager().addArchive(0, other);
  EXPECT_EQ(factory_.calls, (Texts{"start 1", "start 2", "end 1"}));
}

// ---- clear

TEST_F(EventArchiveManagerTest, ClearEndsTheArchivesByAscendingNumberWithoutStoppingThem) {
  start(3);
  factory_.calls.clear();
  manager().clear();
  EXPECT_EQ(factory_.calls, (Texts{"end 1", "end 2", "end 3"}));
  EXPECT_FALSE(manager().archive(0));
  manager().clear();
}

TEST_F(EventArchiveManagerTest, ArchiveThatEndsMayWaitForAThreadThatUsesTheManager) {
  start(2);
  std::vector<std::future<bool>> lookUps;
  factory_.onEnd = [&lookUps](int) {
    lookUps.push_back(
        std::async(std::launch::async, [] { return manager().archive(1) != nullptr; }));
    EXPECT_EQ(lookUps.back().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  };
  manager().clear();
  factory_.onEnd = nullptr;
  ASSERT_EQ(lookUps.size(), 2U);
  for (auto& found : lookUps) EXPECT_FALSE(found.get());
}

TEST_F(EventArchiveManagerTest, ClearKeepsTheFactories) {
  start(2);
  manager().clear();
  EXPECT_EQ(manager().init(), 0);
  EXPECT_EQ(factory_.created, 4);
}

// ---- configuration events

class EventArchiveEventsTest : public EventArchiveManagerTest {
 protected:
  EventArchiveEventsTest() {
    host::setConfigSection("DataArchive", "{}");
    host::setConfigSection(
        "EventsArchive", R"({"archives":[)" + entry("recording") + "," + entry("recording") + "]}");
  }
  ~EventArchiveEventsTest() override { event(9); }
  static void event(int mode) {
    EXPECT_EQ(DataBaseAddin::GetInstance().OnConfigEvent(mode, nullptr), 0);
  }
};

TEST_F(EventArchiveEventsTest, EventTwoStartsEveryArchive) {
  event(2);
  EXPECT_EQ(factory_.calls, (Texts{"start 1", "start 2"}));
}

TEST_F(EventArchiveEventsTest, EventsNineAndTwoStartEveryArchiveAgain) {
  event(2);
  event(9);
  event(2);
  EXPECT_EQ(factory_.calls, (Texts{"start 1", "start 2", "end 1", "end 2", "start 3", "start 4"}));
}

TEST_F(EventArchiveEventsTest, EventEightKeepsTheArchivesThereAre) {
  event(2);
  const auto first = manager().archive(0);
  event(8);
  EXPECT_EQ(manager().archive(0), first);
  EXPECT_EQ(factory_.calls, (Texts{"start 1", "start 2"}));
}

TEST_F(EventArchiveEventsTest, EventEightStartsArchivesWhenThereAreNone) {
  event(8);
  EXPECT_EQ(factory_.created, 2);
}

TEST_F(EventArchiveEventsTest, ArchivesOfEventsStartWithoutASectionOfDataArchives) {
  host::setConfigSection("DataArchive", "");
  event(2);
  EXPECT_EQ(factory_.created, 2);
}

}  // namespace
}  // namespace orva::archive::event_archive_manager_test
