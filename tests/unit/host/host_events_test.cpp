#include "orva_host/host_events.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "share/condition.h"
#include "share/mutex.h"
#include "support/manual_clock.h"
#include "support/trace_capture.h"

namespace orva::host::host_events_test {
namespace {

using Numbers = std::vector<std::uint64_t>;

// Remembers what it is told.
class Recorder final : public HostEventListener {
 public:
  void onEvent(const HostEvent& event, std::uint64_t missed) noexcept override {
    {
      MutexLock lock(mutex_);
      numbers_.push_back(event.number);
      texts_.emplace_back(event.text);
      missed_ += missed;
      last_ = event;
    }
    if (during) during(event);
  }
  Numbers numbers() const {
    MutexLock lock(mutex_);
    return numbers_;
  }
  std::vector<std::string> texts() const {
    MutexLock lock(mutex_);
    return texts_;
  }
  std::uint64_t missed() const {
    MutexLock lock(mutex_);
    return missed_;
  }
  HostEvent last() const {  // without its texts
    MutexLock lock(mutex_);
    return last_;
  }

  std::function<void(const HostEvent&)> during;

 private:
  mutable Mutex mutex_;
  Numbers numbers_ GUARDED_BY(mutex_);
  std::vector<std::string> texts_ GUARDED_BY(mutex_);
  std::uint64_t missed_ GUARDED_BY(mutex_) = 0;
  HostEvent last_ GUARDED_BY(mutex_);
};

// Lets a thread wait until another has come so far.
class Gate {
 public:
  void open() {
    MutexLock lock(mutex_);
    open_ = true;
    opened_.notifyAll();
  }
  void pass() {
    MutexLock lock(mutex_);
    while (!open_) opened_.wait(mutex_);
  }

 private:
  Mutex mutex_;
  Condition opened_;
  bool open_ GUARDED_BY(mutex_) = false;
};

Numbers upTo(std::uint64_t last, std::uint64_t first = 1) {
  Numbers numbers;
  for (std::uint64_t n = first; n <= last; ++n) numbers.push_back(n);
  return numbers;
}

class HostEventsTest : public ::testing::Test {
 protected:
  void post(const std::string& text = "") {
    HostEvent event;
    event.text = text.c_str();
    events_.post(event);
  }
  void post(int count) {
    for (int i = 0; i < count; ++i) post();
  }

  test::ManualClock clock_;
  test::TraceCapture traces_;
  HostEvents events_;
  Recorder recorder_;
};

TEST_F(HostEventsTest, ListenerIsToldOnThePostersThreadWithNumberAndTime) {
  events_.attach("log", recorder_);
  HostEvent event;
  event.kind = HostEventKind::kSamplesDropped;
  event.severity = HostEventSeverity::kWarning;
  event.count = 7;
  event.number = 1000;  // the host's to set
  event.time = 1000;
  events_.post(event);
  EXPECT_EQ(recorder_.numbers(), upTo(1));
  EXPECT_EQ(recorder_.last().kind, HostEventKind::kSamplesDropped);
  EXPECT_EQ(recorder_.last().severity, HostEventSeverity::kWarning);
  EXPECT_EQ(recorder_.last().count, 7);
  EXPECT_EQ(recorder_.last().time, clock_.now());
}

TEST_F(HostEventsTest, NewListenerIsFirstToldWhatCameBefore) {
  post("a");
  post("b");
  EXPECT_TRUE(events_.attach("log", recorder_));
  post("c");
  EXPECT_EQ(recorder_.texts(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(HostEventsTest, NextListenerOfANameIsToldOnlyWhatTheOneBeforeWasNot) {
  events_.attach("log", recorder_);
  post("a");
  events_.detach("log");
  post("b");
  Recorder next;
  events_.attach("log", next);
  post("c");
  EXPECT_EQ(recorder_.texts(), std::vector<std::string>{"a"});
  EXPECT_EQ(next.texts(), (std::vector<std::string>{"b", "c"}));
}

TEST_F(HostEventsTest, EachNameIsToldEverything) {
  Recorder other;
  events_.attach("log", recorder_);
  events_.attach("other", other);
  post(3);
  EXPECT_EQ(recorder_.numbers(), upTo(3));
  EXPECT_EQ(other.numbers(), upTo(3));
}

TEST_F(HostEventsTest, NameHasOneListenerAtATime) {
  Recorder second;
  EXPECT_TRUE(events_.attach("log", recorder_));
  EXPECT_FALSE(events_.attach("log", second));
  post(1);
  EXPECT_EQ(recorder_.numbers(), upTo(1));
  EXPECT_TRUE(second.numbers().empty());
}

TEST_F(HostEventsTest, LatestEventsAreKeptAndWhatIsGoneIsCountedAndSaid) {
  post(static_cast<int>(HostEvents::kKept));
  EXPECT_EQ(events_.missed(), 0U);
  post(10);
  events_.attach("log", recorder_);
  EXPECT_EQ(recorder_.numbers(), upTo(HostEvents::kKept + 10, 11));
  EXPECT_EQ(recorder_.missed(), 10U);
  EXPECT_EQ(events_.missed(), 10U);
  EXPECT_EQ(traces_.count("10 events came and went before \"log\" was told of them\n"), 1);
  post(1);
  EXPECT_EQ(recorder_.missed(), 10U);
}

TEST_F(HostEventsTest, EventsThatNobodyAskedForAreNotMissed) {
  post(1000);
  EXPECT_EQ(events_.missed(), 0U);
  EXPECT_TRUE(traces_.texts().empty());
}

TEST_F(HostEventsTest, LongTextsAreCutBetweenCharacters) {
  events_.attach("log", recorder_);
  post(std::string(HostEvents::kTextBytes - 1, 'x') + "\xC3\xA4");
  EXPECT_EQ(recorder_.texts()[0], std::string(HostEvents::kTextBytes - 1, 'x'));
  post(std::string(HostEvents::kTextBytes, 'x'));
  EXPECT_EQ(recorder_.texts()[1].size(), HostEvents::kTextBytes);
}

TEST_F(HostEventsTest, EventPostedByAListenerComesToItAfterwards) {
  recorder_.during = [this](const HostEvent& event) {
    if (event.number != 1) return;
    post("second");
    EXPECT_EQ(recorder_.numbers(), upTo(1));
  };
  events_.attach("log", recorder_);
  post("first");
  EXPECT_EQ(recorder_.texts(), (std::vector<std::string>{"first", "second"}));
}

TEST_F(HostEventsTest, ListenerMayDetachItself) {
  recorder_.during = [this](const HostEvent&) { events_.detach("log"); };
  events_.attach("log", recorder_);
  post(3);
  EXPECT_EQ(recorder_.numbers(), upTo(1));
}

TEST_F(HostEventsTest, PostingGoesOnWhileAListenerIsBusy) {
  Gate inside;
  Gate leave;
  recorder_.during = [&](const HostEvent& event) {
    if (event.number != 1) return;
    inside.open();
    leave.pass();
  };
  events_.attach("log", recorder_);
  std::thread poster([this] { post(1); });
  inside.pass();
  post(5);  // returns: the other thread tells these, too
  EXPECT_EQ(recorder_.numbers(), upTo(1));
  leave.open();
  poster.join();
  EXPECT_EQ(recorder_.numbers(), upTo(6));
}

TEST_F(HostEventsTest, DetachWaitsForACallThatRuns) {
  Gate inside;
  Gate leave;
  std::atomic<bool> ended{false};
  recorder_.during = [&](const HostEvent&) {
    inside.open();
    leave.pass();
    ended = true;
  };
  events_.attach("log", recorder_);
  std::thread poster([this] { post(1); });
  inside.pass();
  std::thread opener([&leave] {
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    leave.open();
  });
  events_.detach("log");
  EXPECT_TRUE(ended);
  poster.join();
  opener.join();
}

TEST_F(HostEventsTest, ManyPostersAndChangingListenersGetEveryEventOnceAndInOrder) {
  constexpr int kEach = 2000;
  std::atomic<int> running{4};
  std::vector<std::thread> posters;
  for (int i = 0; i < 4; ++i) {
    posters.emplace_back([&] {
      post(kEach);
      --running;
    });
  }
  Numbers told;
  std::uint64_t missed = 0;
  const auto listenOnce = [&] {
    Recorder turn;
    events_.attach("log", turn);
    std::this_thread::yield();
    events_.detach("log");
    const Numbers got = turn.numbers();
    told.insert(told.end(), got.begin(), got.end());
    missed += turn.missed();
  };
  while (running > 0) listenOnce();
  for (std::thread& poster : posters) poster.join();
  listenOnce();
  EXPECT_EQ(told.size() + missed, 4U * kEach);
  for (std::size_t i = 1; i < told.size(); ++i) ASSERT_LT(told[i - 1], told[i]);
  EXPECT_EQ(told.back(), 4U * kEach);
}

// ---- what add-ins call

TEST(HostEventServiceTest, AddinsReachTheHostsEvents) {
  hostEvents().forget();
  Recorder recorder;
  ASSERT_TRUE(hostHasEvents());
  EXPECT_TRUE(attachHostEvents("service test", recorder));
  EXPECT_FALSE(attachHostEvents("service test", recorder));
  postHostEvent(HostEventKind::kProviderFailure, HostEventSeverity::kError, "test", "told", 3);
  detachHostEvents("service test");
  postHostEvent(HostEventKind::kProviderFailure, HostEventSeverity::kError, "test", "not told");
  EXPECT_EQ(recorder.texts(), std::vector<std::string>{"told"});
  EXPECT_EQ(recorder.last().kind, HostEventKind::kProviderFailure);
  EXPECT_EQ(recorder.last().count, 3);
  hostEvents().forget();
}

TEST(HostEventServiceTest, NullsAreRefused) {
  OrvaPostHostEvent(nullptr);
  OrvaDetachHostEvents(nullptr);
  Recorder recorder;
  EXPECT_FALSE(OrvaAttachHostEvents(nullptr, &recorder));
  EXPECT_FALSE(OrvaAttachHostEvents("log", nullptr));
  postHostEvent(HostEventKind::kStarted, HostEventSeverity::kError, nullptr, nullptr);
  EXPECT_TRUE(attachHostEvents("nulls test", recorder));
  EXPECT_EQ(recorder.texts().back(), "");
  detachHostEvents("nulls test");
  hostEvents().forget();
}

}  // namespace
}  // namespace orva::host::host_events_test
