#include "orva_events_log/event_buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "share/signal.h"
#include "share/ticks.h"
#include "support/manual_clock.h"

namespace orva::events_log::test {
namespace {

using Texts = std::vector<std::string>;

class EventBufferTest : public ::testing::Test {
 protected:
  static bool offer(EventBuffer& buffer, const std::string& text) {
    HostEvent event;
    event.text = text.c_str();
    return buffer.offer(event);
  }
  static Texts take(EventBuffer& buffer) {
    Texts texts;
    for (const Event& event : buffer.take()) texts.push_back(event.text);
    return texts;
  }

  orva::test::ManualClock clock_;
  Signal wake_;
};

TEST_F(EventBufferTest, EventsComeOutInBatchesInTheirOrder) {
  EventBuffer buffer(10, 2, wake_);
  for (const char* const text : {"a", "b", "c"}) EXPECT_TRUE(offer(buffer, text));
  EXPECT_EQ(take(buffer), (Texts{"a", "b"}));
  EXPECT_EQ(take(buffer), Texts{"c"});
  EXPECT_TRUE(buffer.empty());
  EXPECT_TRUE(buffer.take().empty());
}

TEST_F(EventBufferTest, EventKeepsTextsOfItsOwn) {
  EventBuffer buffer(10, 10, wake_);
  {
    const std::string text = "a text that is gone when the event is taken";
    const std::string source = "a source that is gone when the event is taken";
    buffer.offer({1, 22, HostEventKind::kSamplesDropped, HostEventSeverity::kWarning,
                  source.c_str(), text.c_str(), 33});
  }
  const std::vector<Event> events = buffer.take();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].time, 22);
  EXPECT_EQ(events[0].kind, HostEventKind::kSamplesDropped);
  EXPECT_EQ(events[0].severity, HostEventSeverity::kWarning);
  EXPECT_EQ(events[0].source, "a source that is gone when the event is taken");
  EXPECT_EQ(events[0].text, "a text that is gone when the event is taken");
  EXPECT_EQ(events[0].count, 33);
}

TEST_F(EventBufferTest, OneEventStandsWhereOthersWereLost) {
  EventBuffer buffer(2, 10, wake_);
  EXPECT_TRUE(offer(buffer, "a"));
  EXPECT_TRUE(offer(buffer, "b"));
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(offer(buffer, "lost"));
  EXPECT_EQ(buffer.lost(), 3U);
  EXPECT_EQ(take(buffer), (Texts{"a", "b", "3 events were lost"}));
  EXPECT_TRUE(buffer.empty());
  EXPECT_TRUE(offer(buffer, "c"));
  EXPECT_EQ(take(buffer), Texts{"c"});
}

TEST_F(EventBufferTest, LossStandsBeforeTheEventsThatFollowIt) {
  EventBuffer buffer(2, 1, wake_);
  offer(buffer, "a");
  offer(buffer, "b");
  offer(buffer, "lost");
  EXPECT_EQ(take(buffer), Texts{"a"});
  EXPECT_TRUE(offer(buffer, "c"));
  EXPECT_EQ(take(buffer), Texts{"b"});
  EXPECT_EQ(take(buffer), Texts{"1 events were lost"});
  EXPECT_EQ(take(buffer), Texts{"c"});
}

TEST_F(EventBufferTest, WhatWasMissedBeforeIsALoss) {
  EventBuffer buffer(5, 10, wake_);
  buffer.lose(0);
  EXPECT_TRUE(buffer.empty());
  buffer.lose(7);
  EXPECT_FALSE(buffer.empty());
  offer(buffer, "a");
  const std::vector<Event> events = buffer.take();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].kind, HostEventKind::kEventsLost);
  EXPECT_EQ(events[0].count, 7);
  EXPECT_EQ(events[0].time, clock_.now());
}

TEST_F(EventBufferTest, WriterIsWokenForTheFirstEventAndForAWholeBatch) {
  EventBuffer buffer(10, 3, wake_);
  const auto wakes = [&](const char* text) {
    const std::uint64_t before = wake_.count();
    offer(buffer, text);
    return wake_.count() - before;
  };
  EXPECT_EQ(wakes("a"), 1U);
  EXPECT_EQ(wakes("b"), 0U);
  EXPECT_EQ(wakes("c"), 1U);
  EXPECT_EQ(wakes("d"), 0U);
  buffer.take();
  buffer.take();
  buffer.lose(1);
  EXPECT_EQ(wakes("e"), 1U);
}

TEST_F(EventBufferTest, BatchIsDueWhenItsOldestEventHasWaitedOrItIsWhole) {
  EventBuffer buffer(10, 3, wake_);
  EXPECT_FALSE(buffer.batchIsDue(Signal::elapsed(), 0));
  const std::int64_t begin = Signal::elapsed();
  offer(buffer, "a");
  clock_.advance(kTicksPerSecond);
  offer(buffer, "b");
  EXPECT_EQ(buffer.waitingSince(), begin);
  EXPECT_FALSE(buffer.batchIsDue(begin + kTicksPerMinute - 1, kTicksPerMinute));
  EXPECT_TRUE(buffer.batchIsDue(begin + kTicksPerMinute, kTicksPerMinute));
  offer(buffer, "c");
  EXPECT_TRUE(buffer.batchIsDue(begin, kTicksPerMinute));
}

}  // namespace
}  // namespace orva::events_log::test
