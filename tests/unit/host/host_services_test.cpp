// Threads, critical sections, configuration sections and events.

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "host/addin_base.h"
#include "host/config_data.h"
#include "host/critical_section.h"
#include "host/threads.h"
#include "orva_host/config_events.h"
#include "orva_host/config_sections.h"
#include "support/trace_capture.h"

namespace orva::host {
namespace {

void increment(void* counter) { ++*static_cast<std::atomic<int>*>(counter); }

TEST(HostThreadTest, FunctionRunsWithItsArgumentUntilJoined) {
  std::atomic<int> counter{0};
  tthread::thread thread(increment, &counter);
  EXPECT_TRUE(thread.joinable());
  thread.join();
  EXPECT_EQ(counter, 1);
  EXPECT_FALSE(thread.joinable());
  thread.join();
  thread.detach();
}

TEST(HostThreadTest, DestroyedHandleLetsItsThreadRunOn) {
  static std::atomic<int> counter{0};
  { tthread::thread thread(increment, &counter); }
  while (counter == 0) std::this_thread::yield();
  EXPECT_EQ(counter, 1);
}

TEST(CriticalSectionTest, OneThreadMayEnterAgainWhileOthersWait) {
  RCriticalSection* section = RInitCriticalSection("test");
  REnterCriticalSection(section);
  REnterCriticalSection(section);
  std::atomic<bool> entered{false};
  std::thread other([&] {
    REnterCriticalSection(section);
    entered = true;
    RLeaveCriticalSection(section);
  });
  RLeaveCriticalSection(section);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(entered);
  RLeaveCriticalSection(section);
  other.join();
  EXPECT_TRUE(entered);
  RDoneCriticalSection(section);
}

TEST(CriticalSectionTest, TheHostMayBeCalledInside) {
  setConfigSection("Inside", "{}");
  RCriticalSection* section = RInitCriticalSection("test");
  REnterCriticalSection(section);
  EXPECT_EQ(GetConfigDataValue("Inside"), "{}");
  RLeaveCriticalSection(section);
  RDoneCriticalSection(section);
}

TEST(CriticalSectionTest, NullIsIgnored) {
  REnterCriticalSection(nullptr);
  RLeaveCriticalSection(nullptr);
  RDoneCriticalSection(nullptr);
  RDoneCriticalSection(RInitCriticalSection(nullptr));
}

class ConfigDataTest : public testing::Test {
 protected:
  ~ConfigDataTest() override { replaceConfigSections({}); }
};

TEST_F(ConfigDataTest, SectionsAreHandedOutAsText) {
  setConfigSection("DataArchive", "{\"a\":1}");
  EXPECT_EQ(GetConfigDataValue("DataArchive"), "{\"a\":1}");
  EXPECT_EQ(GetConfigDataValue("EventsArchive"), "");
  EXPECT_EQ(GetConfigDataValue(nullptr), "");
  replaceConfigSections({{"RemoteData", "[]"}});
  EXPECT_EQ(GetConfigDataValue("DataArchive"), "");
  EXPECT_EQ(GetConfigDataValue("RemoteData"), "[]");
}

TEST_F(ConfigDataTest, JsonIsParsedIntoTheCallersDocument) {
  json::Document document;
  EXPECT_EQ(parse_json("{\"a\": [1, 2]}", document), 0);
  EXPECT_EQ(document["a"][1].GetInt(), 2);
}

TEST_F(ConfigDataTest, TextThatIsNoJsonGivesANullDocument) {
  json::Document document;
  document.SetObject();
  for (const std::string& text : {std::string(), std::string("{"), std::string("{} x"),
                                  std::string("{\"a\":\0}", 7), std::string("nul")}) {
    EXPECT_EQ(parse_json(text, document), static_cast<int>(0x80070000U)) << text;
    EXPECT_TRUE(document.IsNull());
  }
}

TEST_F(ConfigDataTest, NestingBeyondTheLimitIsABadRequest) {
  json::Document document;
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_EQ(parse_json(nested(64), document), 0);
  EXPECT_EQ(parse_json(nested(65), document), static_cast<int>(0x80B60000U));
  EXPECT_TRUE(document.IsNull());
  EXPECT_EQ(parse_json(nested(1'000'000), document), static_cast<int>(0x80B60000U));
}

// Notes the events it gets.
class Listener : public AddinBase {
 public:
  int OnConfigEvent(ConfigProcessorMode mode, ControllerConfig*) override {
    modes.push_back(mode);
    if (throws) throw std::runtime_error("no");
    return result;
  }
  using AddinBase::AttachConfigProcessor;

  std::vector<int> modes;
  bool throws = false;
  int result = 0;
};

TEST(ConfigEventsTest, EventsGoToThoseWhoAskedForThem) {
  Listener all;
  Listener few;
  EXPECT_EQ(all.AttachConfigProcessor("all", 65535), 0);
  EXPECT_EQ(few.AttachConfigProcessor("few", 1U << 2 | 1U << 9), 0);
  for (int mode = -1; mode <= 10; ++mode) deliverConfigEvent(mode);
  EXPECT_EQ(all.modes, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(few.modes, (std::vector<int>{2, 9}));
}

TEST(ConfigEventsTest, AttachingAgainUnderANameReplacesTheFirst) {
  Listener first;
  Listener second;
  first.AttachConfigProcessor("same", 65535);
  second.AttachConfigProcessor("same", 65535);
  deliverConfigEvent(3);
  EXPECT_TRUE(first.modes.empty());
  EXPECT_EQ(second.modes, std::vector<int>{3});
  EXPECT_LT(first.AttachConfigProcessor(nullptr, 65535), 0);
}

// Counts its events in a place that outlives it.
class Counting : public AddinBase {
 public:
  explicit Counting(int& count) : count_(count) { AttachConfigProcessor("counting", 65535); }
  int OnConfigEvent(ConfigProcessorMode, ControllerConfig*) override { return ++count_; }

 private:
  int& count_;
};

TEST(ConfigEventsTest, AddinThatIsGoneGetsNoEvents) {
  int count = 0;
  {
    Counting listener(count);
    deliverConfigEvent(0);
  }
  deliverConfigEvent(0);
  EXPECT_EQ(count, 1);
}

TEST(ConfigEventsTest, FailuresAreTracedAndTheOthersServed) {
  test::TraceCapture trace;
  Listener throwing;
  Listener failing;
  Listener last;
  throwing.throws = true;
  failing.result = static_cast<int>(0x80030000U);
  throwing.AttachConfigProcessor("throwing", 65535);
  failing.AttachConfigProcessor("failing", 65535);
  last.AttachConfigProcessor("last", 65535);
  deliverConfigEvent(5);
  EXPECT_EQ(last.modes, std::vector<int>{5});
  EXPECT_EQ(trace.countContaining("throwing: configuration event 5 let an exception out"), 1);
  EXPECT_EQ(trace.countContaining("failing: configuration event 5 answered with 0x80030000"), 1);
}

}  // namespace
}  // namespace orva::host
