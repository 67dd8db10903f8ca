// Waiting for the answer of a read of the older archive interface.

#include "host/archive_request.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

namespace orva::host {
namespace {

// A signal that interrupts whoever waits, and does nothing else.
class Interruption {
 public:
  Interruption() {
    struct sigaction action {};
    action.sa_handler = [](int) { ++count; };
    sigaction(SIGUSR2, &action, &before_);
  }
  ~Interruption() { sigaction(SIGUSR2, &before_, nullptr); }
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  // Interrupts the thread so many times.
  static void interrupt(std::thread& thread, int times) {
    count = 0;
    for (int n = 0; n < times; ++n) {
      pthread_kill(thread.native_handle(), SIGUSR2);
      while (count <= n) std::this_thread::yield();
    }
  }

 private:
  static std::atomic<int> count;
  struct sigaction before_ {};  // what the signal did before
};
std::atomic<int> Interruption::count{0};

TEST(ArchiveRequestTest, BeginsEmptyAndUnanswered) {
  ArchiveRequest request;
  EXPECT_TRUE(request.items.empty());
  EXPECT_TRUE(request.records.empty());
  EXPECT_EQ(request.status, 0U);
  EXPECT_EQ(request.maxValues, 0U);
  EXPECT_FALSE(request.WaitFor(0));
  EXPECT_FALSE(request.WaitFor(-5));
  EXPECT_FALSE(request.WaitFor(1));
}

TEST(ArchiveRequestTest, AnAnswerThatIsThereIsTakenOnce) {
  ArchiveRequest request;
  sem_post(&request.semaphore);
  EXPECT_TRUE(request.WaitFor(0));
  EXPECT_FALSE(request.WaitFor(0));
  sem_post(&request.semaphore);
  request.Wait();
  EXPECT_FALSE(request.WaitFor(0));
}

TEST(ArchiveRequestTest, TheAnswerWakesTheWaitingThread) {
  for (const bool limited : {false, true}) {
    ArchiveRequest request;
    std::thread answering([&request] {
      request.records.emplace_back(7, OpcUa_VariantHlp());
      sem_post(&request.semaphore);
    });
    if (limited) {
      EXPECT_TRUE(request.WaitFor(60'000));
    } else {
      request.Wait();
    }
    ASSERT_EQ(request.records.size(), 1U);
    EXPECT_EQ(request.records[0].time, 7);
    answering.join();
  }
}

TEST(ArchiveRequestTest, SignalsDoNotEndAWait) {
  const Interruption interruption;
  for (const bool limited : {false, true}) {
    ArchiveRequest request;
    std::atomic<bool> answered{false};
    std::atomic<bool> woken{false};
    std::thread waiting([&] {
      if (limited) {
        EXPECT_TRUE(request.WaitFor(60'000));
      } else {
        request.Wait();
      }
      EXPECT_TRUE(answered);
      woken = true;
    });
    Interruption::interrupt(waiting, 20);
    EXPECT_FALSE(woken);
    answered = true;
    sem_post(&request.semaphore);
    waiting.join();
  }
}

TEST(ArchiveRequestTest, ALimitedWaitEndsWhenItsTimeHasPassed) {
  using Clock = std::chrono::steady_clock;
  ArchiveRequest request;
  const Clock::time_point begin = Clock::now();
  EXPECT_FALSE(request.WaitFor(30));
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(30));
}

}  // namespace
}  // namespace orva::host
