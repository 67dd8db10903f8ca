#include <gtest/gtest.h>

#include <atomic>
#include <boost/smart_ptr/make_shared.hpp>
#include <stdexcept>
#include <string>
#include <thread>

#include "share/archive_request.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

namespace orva::archive {
namespace {

using test::realPin;
using test::TraceCapture;

SharedRequest requestWith(int items) {
  const auto request = boost::make_shared<Request>();
  for (int i = 1; i <= items; ++i) request->addItem(i);
  return request;
}

// Counts how often a request tells that it is complete.
int countCompletions(const SharedRequest& request, const boost::shared_ptr<std::atomic<int>>& n) {
  request->setCompletion([n](const SharedRequest&) { ++*n; });
  return 0;
}

}  // namespace

TEST(RequestTest, NewRequestWaits) {
  const Request request;
  EXPECT_EQ(request.status(), 0x80320000U);
  EXPECT_EQ(request.finalizedItems(), 0U);
  EXPECT_EQ(request.tag(), 0);
  EXPECT_EQ(Request(-5).tag(), -5);
}

TEST(RequestTest, ItemsKnowTheirIdAndTheirRequest) {
  const auto request = requestWith(0);
  const SharedItem item = request->addItem(77);
  EXPECT_EQ(item->cacheId, 77);
  EXPECT_EQ(item->request.lock(), request);
  EXPECT_EQ(request->addItem(77)->cacheId, 77) << "ids may repeat";
  EXPECT_EQ(request->items().size(), 2U);
}

TEST(RequestTest, RequestOfTwoItemsCompletesOnceAfterBoth) {
  const auto request = requestWith(2);
  const auto completions = boost::make_shared<std::atomic<int>>(0);
  countCompletions(request, completions);
  request->items()[1]->finalize();
  EXPECT_EQ(*completions, 0);
  EXPECT_EQ(request->status(), 0x80320000U);
  EXPECT_EQ(request->finalizedItems(), 1U);
  EXPECT_FALSE(request->complete());
  request->items()[0]->finalize();
  EXPECT_EQ(*completions, 1);
  EXPECT_EQ(request->status(), 0U);
  EXPECT_TRUE(request->complete());
}

TEST(RequestTest, ItemFinalizedTwiceCountsOnce) {
  const auto request = requestWith(2);
  request->items()[0]->finalize();
  request->items()[0]->finalize();
  EXPECT_EQ(request->finalizedItems(), 1U);
  EXPECT_EQ(request->status(), 0x80320000U);
}

TEST(RequestTest, IdOfAFinalizedItemIsUsedForNothing) {
  const auto request = requestWith(2);
  request->finalizeItem(12345);
  request->finalizeItem(12345);
  EXPECT_EQ(request->status(), 0U);
}

TEST(RequestTest, CompletionGetsTheRequestUnderNoLock) {
  const auto request = requestWith(1);
  SharedRequest given;
  request->setCompletion([&](const SharedRequest& done) {
    given = done;
    EXPECT_EQ(done->status(), 0U);
    EXPECT_TRUE(done->items()[0]->isFinal());
    done->items()[0]->push_back(realPin(1, 0));  // would hang under the item's lock
    done->setCompletion({});                     // ... or under that of the callbacks
  });
  request->items()[0]->finalize();
  EXPECT_EQ(given, request);
}

TEST(RequestTest, CompletionMayDropTheLastReference) {
  boost::weak_ptr<Request> gone;
  {
    auto request = requestWith(1);
    gone = request;
    const SharedItem item = request->items()[0];
    request->setCompletion([&request](const SharedRequest&) { request.reset(); });
    item->addInterval(0, 1, 2)->finalize();
  }
  EXPECT_TRUE(gone.expired());
}

TEST(RequestTest, CompletionIsLetGoOfOnceItRan) {
  const auto held = boost::make_shared<int>(0);
  const auto request = requestWith(1);
  request->setCompletion([held](const SharedRequest&) {});
  request->items()[0]->finalize();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(RequestTest, CompletionThatThrowsIsTracedAndGoesNoFurther) {
  TraceCapture traces;
  const auto request = requestWith(1);
  request->setCompletion([](const SharedRequest&) { throw std::runtime_error("no disk"); });
  EXPECT_NO_THROW(request->items()[0]->finalize());
  EXPECT_EQ(request->status(), 0U);
  EXPECT_EQ(traces.countContaining("no disk"), 1);
  const auto other = requestWith(1);
  other->setCompletion([](const SharedRequest&) { throw 5; });
  EXPECT_NO_THROW(other->items()[0]->finalize());
  EXPECT_EQ(traces.lines().size(), 2U);
}

TEST(RequestTest, CompletionNotifiesThoseWhoWait) {
  const auto request = requestWith(1);
  const std::uint64_t seen = request->completed().count();
  request->items()[0]->finalize();
  EXPECT_TRUE(request->completed().wait(seen, 0));
}

TEST(RequestTest, RequestWithoutItemsIsCompleteOnceLoaded) {
  const auto request = requestWith(0);
  const auto completions = boost::make_shared<std::atomic<int>>(0);
  countCompletions(request, completions);
  request->completeIfEmpty();
  EXPECT_EQ(request->status(), 0U);
  EXPECT_EQ(*completions, 1);
  const auto other = requestWith(1);
  other->completeIfEmpty();
  EXPECT_EQ(other->status(), 0x80320000U);
}

TEST(RequestDeathTest, NoItemIsAddedToACompleteRequest) {
  const auto request = requestWith(0);
  request->completeIfEmpty();
  EXPECT_DEATH(request->addItem(1), "");
}

TEST(RequestTest, TimeoutSetsTheStatusAndLogsWhatWasAsked) {
  TraceCapture traces;
  const auto request = requestWith(2);
  request->options.startTime = 5;
  request->timeout();
  EXPECT_EQ(request->status(), 0x800A0000U);
  rapidjson::StringBuffer options;
  rapidjson::Writer<rapidjson::StringBuffer> writer(options);
  request->options.toJson(writer);
  const std::string expected = std::string("Request::timeout \n{\"CacheIds\":[1,2],\"Options\":") +
                               options.GetString() + "}";
  ASSERT_EQ(traces.texts().size(), 1U);
  EXPECT_EQ(traces.texts()[0], expected);
}

TEST(RequestTest, TimeoutClosesNothingAndWhatComesLastStands) {
  TraceCapture traces;
  const auto request = requestWith(1);
  const auto completions = boost::make_shared<std::atomic<int>>(0);
  countCompletions(request, completions);
  const SharedInterval interval = request->items()[0]->addInterval(0, 1, 10);
  request->timeout();
  EXPECT_EQ(*completions, 0) << "a time-out is no completion";
  interval->push(realPin(5, 0));
  interval->finalize();
  EXPECT_EQ(request->items()[0]->values().size(), 1U);
  EXPECT_EQ(request->status(), 0U) << "a late completion sets it to good again";
  EXPECT_EQ(*completions, 1);
  request->timeout();
  EXPECT_EQ(request->status(), 0x800A0000U) << "also of a request that had completed";
  EXPECT_TRUE(request->complete());
}

TEST(RequestTest, TimeoutListenerRunsOnceAndNotInsideTimeout) {
  TraceCapture traces;
  const auto request = requestWith(1);
  int told = 0;
  request->setTimeoutListener([&](const SharedRequest& late) {
    ++told;
    EXPECT_EQ(late, request);
  });
  request->timeout();
  EXPECT_EQ(told, 0);
  request->runTimeoutListener();
  request->runTimeoutListener();
  EXPECT_EQ(told, 1);
}

TEST(RequestTest, ClearedCallbacksDoNotRun) {
  const auto request = requestWith(1);
  const auto completions = boost::make_shared<std::atomic<int>>(0);
  countCompletions(request, completions);
  request->setTimeoutListener([completions](const SharedRequest&) { ++*completions; });
  request->clearCallbacks();
  EXPECT_EQ(completions.use_count(), 1);
  request->items()[0]->finalize();
  request->runTimeoutListener();
  EXPECT_EQ(*completions, 0);
  EXPECT_EQ(request->status(), 0U);
}

// Both threads may see the count full if they read it after the increment.
TEST(RequestTest, TwoThreadsThatFinishTheLastTwoItemsCompleteItOnce) {
  constexpr int kRounds = 100'000;
  constexpr int kBatch = 1000;  // a thread that waits for the other costs more than a round
  std::vector<SharedRequest> requests(kBatch);
  std::vector<std::atomic<int>> completions(kBatch);
  int wrong = 0;
  for (int done = 0; done < kRounds; done += kBatch) {
    for (int i = 0; i < kBatch; ++i) {
      const auto at = static_cast<std::size_t>(i);
      requests[at] = requestWith(2);
      completions[at] = 0;
      std::atomic<int>& count = completions[at];
      requests[at]->setCompletion([&count](const SharedRequest&) { ++count; });
    }
    const auto finish = [&requests](std::size_t item) {
      for (const SharedRequest& request : requests) request->items()[item]->finalize();
    };
    std::thread other(finish, 1);
    finish(0);
    other.join();
    for (const std::atomic<int>& count : completions) wrong += count != 1;
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace orva::archive
