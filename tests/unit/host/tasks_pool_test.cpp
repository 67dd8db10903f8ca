#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/async_task.h"
#include "orva_host/gate.h"
#include "orva_host/task_schedule.h"
#include "share/condition.h"
#include "share/mutex.h"
#include "support/failing_allocations.h"
#include "support/trace_capture.h"

namespace orva::tasks_pool_test {
namespace {

using host::Gate;
using host::TaskSchedule;
using std::chrono::milliseconds;

constexpr long long kMillisecond = 10'000;  // in 100 ns

// ---- which task is due when

class TaskScheduleTest : public ::testing::Test {
 protected:
  static TaskSchedule::Time at(int ms) { return TaskSchedule::Time(milliseconds(ms)); }
  TaskSchedule::Id add(int nowMs, int periodMs) {
    return schedule_.add(at(nowMs), milliseconds(periodMs), [] {});
  }
  // The id of the task that starts, 0 for none.
  TaskSchedule::Id start(int ms) {
    const auto started = schedule_.startDue(at(ms));
    return started ? started->id : 0;
  }

  TaskSchedule schedule_;
};

TEST_F(TaskScheduleTest, ATaskIsDueFirstWhenOnePeriodHasPassed) {
  const auto task = add(1000, 60);
  EXPECT_EQ(schedule_.nextDue(), at(1060));
  EXPECT_EQ(start(1059), 0);
  EXPECT_EQ(start(1060), task);
}

// What a task refers to may be gone when adding it failed.
TEST_F(TaskScheduleTest, ATaskThatGetsNoMemoryIsNotThere) {
  const auto held = std::make_shared<int>(0);
  bool enough = false;
  for (long count = 0; !enough && count < 20; ++count) {
    try {
      test::withAllocations(count, [&] {
        schedule_.add(at(0), milliseconds(10), [held] { static_cast<void>(held); });
      });
      enough = true;
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(held.use_count(), 1) << "with " << count << " allocations";
      EXPECT_EQ(schedule_.nextDue(), std::nullopt);
    }
  }
  EXPECT_TRUE(enough);
  EXPECT_EQ(held.use_count(), 2);
  EXPECT_EQ(start(10), 1);
}

TEST_F(TaskScheduleTest, ATaskGoesOnWithoutMemory) {
  const auto task = add(0, 10);
  EXPECT_EQ(start(10), task);
  test::withAllocations(0, [&] { schedule_.finish(task, at(11)); });
  EXPECT_EQ(start(19), 0);
  EXPECT_EQ(start(20), task);
}

TEST_F(TaskScheduleTest, ARunningTaskIsNotStartedAgain) {
  const auto task = add(0, 10);
  EXPECT_EQ(start(10), task);
  EXPECT_EQ(start(1000), 0);
  EXPECT_EQ(schedule_.nextDue(), std::nullopt);
}

TEST_F(TaskScheduleTest, ACallThatTakesTimeDoesNotShiftTheNextOnes) {
  const auto task = add(0, 10);
  EXPECT_EQ(start(12), task);
  schedule_.finish(task, at(17));
  EXPECT_EQ(schedule_.nextDue(), at(20));
}

TEST_F(TaskScheduleTest, TimesThatPassedDuringALongCallAreLeftOut) {
  const auto task = add(0, 10);
  EXPECT_EQ(start(10), task);
  schedule_.finish(task, at(47));
  EXPECT_EQ(schedule_.nextDue(), at(50));
  EXPECT_EQ(start(50), task);
  schedule_.finish(task, at(60));  // right when it would be due again
  EXPECT_EQ(schedule_.nextDue(), at(70));
}

TEST_F(TaskScheduleTest, TheTaskThatIsDueForLongestComesFirst) {
  const auto slow = add(0, 30);
  const auto quick = add(0, 10);
  EXPECT_EQ(start(100), quick);
  EXPECT_EQ(start(100), slow);
  EXPECT_EQ(start(100), 0);
}

TEST_F(TaskScheduleTest, ARemovedTaskIsNotDueAnyMore) {
  const auto task = add(0, 10);
  EXPECT_TRUE(schedule_.remove(task));
  EXPECT_EQ(start(10), 0);
  EXPECT_FALSE(schedule_.remove(task));
}

TEST_F(TaskScheduleTest, ATaskRemovedWhileItRunsDoesNotComeBack) {
  const auto task = add(0, 10);
  EXPECT_EQ(start(10), task);
  EXPECT_TRUE(schedule_.remove(task));
  schedule_.finish(task, at(11));
  EXPECT_EQ(schedule_.nextDue(), std::nullopt);
}

TEST_F(TaskScheduleTest, AllCanBeMadeDueAtOnceButThoseThatRun) {
  const auto running = add(0, 10);
  const auto waiting = add(0, 60);
  EXPECT_EQ(start(10), running);
  schedule_.makeAllDue(at(20));
  EXPECT_EQ(start(20), waiting);
  EXPECT_EQ(start(20), 0);
  schedule_.finish(waiting, at(21));
  EXPECT_EQ(schedule_.nextDue(), at(80));
}

TEST_F(TaskScheduleTest, IdsAreNeverUsedAgain) {
  const auto first = add(0, 10);
  schedule_.remove(first);
  EXPECT_NE(add(0, 10), first);
}

TEST_F(TaskScheduleTest, PeriodsAreKeptWithinAMillisecondAndAYear) {
  EXPECT_EQ(TaskSchedule::periodOf(600'000'000), std::chrono::seconds(60));
  for (const long long tooShort : {0LL, -1LL, 9'999LL, std::numeric_limits<long long>::min()}) {
    EXPECT_EQ(TaskSchedule::periodOf(tooShort), milliseconds(1)) << tooShort;
  }
  EXPECT_EQ(TaskSchedule::periodOf(std::numeric_limits<long long>::max()), TaskSchedule::kLongest);
}

// ---- the pool's threads

ParalelTasksPool& pool() { return *ParalelTasksPool::instance(); }

// Counts calls; a test waits for as many as it wants to see.
class CallCounter {
 public:
  void count() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    ++calls_;
    counted_.notifyAll();
  }
  int calls() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return calls_;
  }
  void waitFor(int calls) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    while (calls_ < calls) counted_.wait(mutex_);
  }
  void waitForMore(int calls) { waitFor(this->calls() + calls); }

 private:
  Mutex mutex_;
  Condition counted_;
  int calls_ GUARDED_BY(mutex_) = 0;
};

TEST(ParalelTasksPoolTest, ATaskIsCalledAgainAndAgain) {
  CallCounter counter;
  const auto id = pool().addTask(kMillisecond, [&] { counter.count(); });
  counter.waitFor(5);
  pool().removeTask(id);
}

TEST(ParalelTasksPoolTest, ARemovedTaskIsNeverCalledAgain) {
  CallCounter removed;
  CallCounter other;
  const auto id = pool().addTask(kMillisecond, [&] { removed.count(); });
  const auto otherId = pool().addTask(kMillisecond, [&] { other.count(); });
  removed.waitFor(1);
  pool().removeTask(id);
  const int calls = removed.calls();
  other.waitForMore(5);
  EXPECT_EQ(removed.calls(), calls);
  pool().removeTask(otherId);
}

TEST(ParalelTasksPoolTest, RemovalWaitsForTheCallInProgress) {
  Gate entered;
  Gate leave;
  std::atomic<bool> left{false};
  const auto id = pool().addTask(kMillisecond, [&] {
    entered.open();
    leave.wait();
    left = true;
  });
  entered.wait();
  std::atomic<bool> removed{false};
  std::thread remover([&] {
    pool().removeTask(id);
    EXPECT_TRUE(left);
    removed = true;
  });
  EXPECT_FALSE(removed);  // nothing lets the call end before this line
  leave.open();
  remover.join();
  EXPECT_TRUE(removed);
}

TEST(ParalelTasksPoolTest, ASecondRemovalIsHarmlessAndWaitsToo) {
  Gate entered;
  Gate leave;
  std::atomic<bool> left{false};
  const auto id = pool().addTask(kMillisecond, [&] {
    entered.open();
    leave.wait();
    left = true;
  });
  entered.wait();
  std::vector<std::thread> removers;
  for (int i = 0; i < 2; ++i) {
    removers.emplace_back([&] {
      pool().removeTask(id);
      EXPECT_TRUE(left);
    });
  }
  leave.open();
  for (std::thread& remover : removers) remover.join();
  pool().removeTask(id);
  pool().removeTask(0);
  pool().removeTask(-1);
}

TEST(ParalelTasksPoolTest, ATaskMayRemoveItself) {
  CallCounter counter;
  CallCounter other;
  std::atomic<std::int64_t> id{0};
  const auto otherId = pool().addTask(kMillisecond, [&] { other.count(); });
  id = pool().addTask(kMillisecond, [&] {
    if (id == 0) return;
    pool().removeTask(id);
    counter.count();
  });
  counter.waitFor(1);
  other.waitForMore(5);
  EXPECT_EQ(counter.calls(), 1);
  pool().removeTask(id);
  pool().removeTask(otherId);
}

TEST(ParalelTasksPoolTest, WhatATaskHoldsIsGoneWhenItsRemovalReturns) {
  for (int round = 0; round < 50; ++round) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    const auto counter = std::make_shared<CallCounter>();
    const auto id = pool().addTask(kMillisecond, [held, counter] { counter->count(); });
    held.reset();
    if (round % 2 == 0) counter->waitFor(1);
    pool().removeTask(id);
    EXPECT_TRUE(watched.expired());
  }
}

TEST(ParalelTasksPoolTest, ATaskNeverRunsTwiceAtATime) {
  CallCounter counter;
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  const auto id = pool().addTask(kMillisecond, [&] {
    most = std::max(most.load(), ++inside);
    // Longer than its period.
    const auto end = TaskSchedule::Clock::now() + milliseconds(3);
    while (TaskSchedule::Clock::now() < end) std::this_thread::yield();
    --inside;
    counter.count();
  });
  counter.waitFor(5);
  pool().removeTask(id);
  EXPECT_EQ(most, 1);
}

TEST(ParalelTasksPoolTest, SlowTasksDoNotHoldUpTheOthers) {
  Gate leave;
  CallCounter slow;
  std::vector<std::int64_t> ids;
  for (int i = 0; i < 3; ++i) {
    ids.push_back(pool().addTask(kMillisecond, [&] {
      slow.count();
      leave.wait();
    }));
  }
  slow.waitFor(3);
  CallCounter quick;
  ids.push_back(pool().addTask(kMillisecond, [&] { quick.count(); }));
  quick.waitFor(5);
  leave.open();
  for (const auto id : ids) pool().removeTask(id);
}

TEST(ParalelTasksPoolTest, ManyTasksShareAFewThreads) {
  Mutex mutex;
  std::vector<std::thread::id> threads;
  std::vector<std::int64_t> ids;
  CallCounter counter;
  for (int i = 0; i < 50; ++i) {
    ids.push_back(pool().addTask(kMillisecond, [&] {
      {
        const MutexLock lock(mutex);
        const auto me = std::this_thread::get_id();
        if (std::find(threads.begin(), threads.end(), me) == threads.end()) threads.push_back(me);
      }
      counter.count();
    }));
  }
  counter.waitFor(500);
  for (const auto id : ids) pool().removeTask(id);
  EXPECT_LE(threads.size(), 4U);
}

TEST(ParalelTasksPoolTest, ATaskThatThrowsIsTracedAndGoesOn) {
  test::TraceCapture trace;
  CallCounter counter;
  const auto id = pool().addTask(kMillisecond, [&] {
    counter.count();
    if (counter.calls() % 2 == 0) throw 1;
    throw std::runtime_error("no luck");
  });
  counter.waitFor(3);
  pool().removeTask(id);
  EXPECT_GE(trace.count("a periodic task throws: no luck\n"), 2);
  EXPECT_GE(trace.count("a periodic task throws\n"), 1);
}

// ---- what derives from AsyncLogger

class CountingLogger final : public AsyncLogger {
 public:
  explicit CountingLogger(CallCounter& counter) : AsyncLogger(kMillisecond), counter_(counter) {
    startLogging();
  }
  ~CountingLogger() override { stop(); }

  int log() override {
    counter_.count();
    return 0;
  }

 private:
  CallCounter& counter_;
};

TEST(AsyncLoggerTest, ItsLogIsCalledWhileItLives) {
  CallCounter counter;
  {
    const CountingLogger logger(counter);
    counter.waitFor(3);
  }
  const int calls = counter.calls();
  CallCounter other;
  const CountingLogger later(other);
  other.waitFor(5);
  EXPECT_EQ(counter.calls(), calls);
}

TEST(AsyncLoggerTest, OneThatNeverStartedIsNotCalled) {
  AsyncLogger logger(kMillisecond);
  EXPECT_EQ(logger.log(), 0);
}

TEST(AsyncLoggerTest, OneThatIsMadeAndDestroyedQuicklyIsNeverCalledHalfBuilt) {
  CallCounter counter;
  for (int i = 0; i < 200; ++i) {
    const CountingLogger logger(counter);
    if (i % 20 == 0) counter.waitForMore(1);
  }
  EXPECT_GE(counter.calls(), 10);
}

}  // namespace
}  // namespace orva::tasks_pool_test
