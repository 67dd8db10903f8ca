#include <gtest/gtest.h>

#include <atomic>
#include <boost/smart_ptr/make_shared.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "share/archive_manager.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

namespace orva::archive::archive_reads_test {
namespace {

using Times = std::vector<std::int64_t>;
using test::ManualClock;
using test::realPin;
using test::realPins;
using test::requestFor;
using test::Script;
using test::timesOf;
using test::TraceCapture;
using test::When;

constexpr long long kSecond = kTicksPerSecond;
const ItemKey kLoad(1, "Plant/Load");

class ArchiveReadsTest : public test::ArchiveFixture {
 protected:
  // An uncached item with samples at 10, 20 and 30 in archive 0.
  std::int64_t makeLoad() {
    const std::int64_t cacheId = makeItem(kLoad.first, kLoad.second);
    archive().add(kLoad, 0, realPins(10, 3, 10));
    return cacheId;
  }

  static SharedItem read(const SharedRequest& request) {
    manager().syncRead(request);
    return request->items()[0];
  }

  // A read that no archive answers, waiting on a thread of its own.
  struct SilentRead {
    explicit SilentRead(std::int64_t cacheId) : request(requestFor(cacheId)) {
      thread = std::thread([this] { manager().syncRead(request); });
    }
    ~SilentRead() { end(); }
    void end() {
      if (thread.joinable()) thread.join();
    }
    SharedRequest request;
    std::thread thread;
  };

  // Waits until the reader has begun so many waits.
  void waitForWaits(long long count) {
    while (clock.waitsBegun() < count) std::this_thread::yield();
  }
};

// ---- stage one: the cache

TEST_F(ArchiveReadsTest, ItemFullyInTheCacheCompletesInsideTheCall) {
  start();
  describeLayer(0, true);
  const std::int64_t cacheId = makeItem(1);
  for (const PinPtr& sample : realPins(10, 5)) *pin(cacheId) << sample;
  const SharedRequest request = requestFor(cacheId, 11, 13);
  std::thread::id completedOn;
  request->setCompletion([&](const SharedRequest& done) {
    EXPECT_EQ(done, request);
    completedOn = std::this_thread::get_id();
  });
  manager().addRequest(request, 1000);
  EXPECT_EQ(completedOn, std::this_thread::get_id());
  EXPECT_EQ(request->status(), status::kGood);
  EXPECT_EQ(timesOf(request->items()[0]), Times({11, 12, 13}));
  EXPECT_EQ(archive().readCount(), 0U);
}

TEST_F(ArchiveReadsTest, LoadFromCacheAppendsTheIntervalsThatNeedAProvider) {
  start();
  const std::int64_t first = makeItem(1, "A");
  const std::int64_t second = makeItem(2, "B");
  const SharedRequest request = requestFor(first, 5, 6);
  request->addItem(second);
  std::vector<SharedInterval> intervals{nullptr};
  manager().loadFromCache(request, intervals);
  ASSERT_EQ(intervals.size(), 3U);
  EXPECT_EQ(intervals[1]->cacheId(), first);
  EXPECT_EQ(intervals[2]->cacheId(), second);
  EXPECT_EQ(request->status(), status::kBadWaiting);
  EXPECT_EQ(archive().readCount(), 0U);
}

TEST_F(ArchiveReadsTest, UnknownItemIsLoggedMarkedAndFinalWhileTheOthersAreServed) {
  start();
  const std::int64_t cacheId = makeLoad();
  const SharedRequest request = requestFor(4'294'967'301);
  request->addItem(cacheId);
  TraceCapture traces;
  manager().syncRead(request);
  EXPECT_EQ(request->status(), status::kGood);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text,
            "DataArchiveManager::loadFromCache : not found PinCache = 4294967301");
  EXPECT_EQ(traces.lines()[0].level, kTraceError);
  EXPECT_EQ(request->items()[0]->failure(), status::kBadNotFound);
  EXPECT_EQ(request->items()[0]->status(), status::kGood);
  EXPECT_EQ(request->items()[0]->valueCount(), 0U);
  EXPECT_EQ(timesOf(request->items()[1]), Times({10, 20, 30}));
  EXPECT_EQ(request->items()[1]->failure(), status::kGood);
}

TEST_F(ArchiveReadsTest, RequestWithoutItemsIsCompleteAtOnce) {
  start();
  const auto sync = boost::make_shared<Request>();
  manager().syncRead(sync);
  EXPECT_EQ(sync->status(), status::kGood);
  EXPECT_EQ(clock.now(), ManualClock::kStart);
  const auto async = boost::make_shared<Request>();
  int completions = 0;
  async->setCompletion([&](const SharedRequest&) { ++completions; });
  manager().addRequest(async, 1000);
  EXPECT_EQ(completions, 1);
}

TEST_F(ArchiveReadsTest, FirstAndLastValueAreAskedForAsSuch) {
  start();
  const SharedRequest request = requestFor(makeLoad());
  request->options.returnFirstLastValue = true;
  EXPECT_EQ(timesOf(read(request)), Times({10, 30}));
  ASSERT_EQ(archive().readCount(), 2U);
  EXPECT_NE(archive().reads()[0].kind, Interval::Kind::range);
  EXPECT_NE(archive().reads()[1].kind, Interval::Kind::range);
}

TEST_F(ArchiveReadsTest, ItemWithoutTheLayerIsEmptyAndGood) {
  start();
  const SharedRequest request = requestFor(makeLoad());
  request->options.layerId = 2;
  const SharedItem item = read(request);
  EXPECT_EQ(item->valueCount(), 0U);
  EXPECT_EQ(item->failure(), status::kGood);
  EXPECT_EQ(archive().readCount(), 0U);
}

// ---- stage two: the archives

TEST_F(ArchiveReadsTest, ArchiveIsAskedByItsOwnHandle) {
  start();
  archive().addItem({77, "Other"});
  const std::int64_t cacheId = makeLoad();
  EXPECT_EQ(timesOf(read(requestFor(cacheId, 15, 40))), Times({20, 30}));
  ASSERT_EQ(archive().readCount(), 1U);
  const test::ReadRecord asked = archive().reads()[0];
  EXPECT_EQ(asked.handle, 2U);
  EXPECT_EQ(asked.cacheId, cacheId);
  EXPECT_EQ(asked.layer, 0);
  EXPECT_EQ(asked.start, 15);
  EXPECT_EQ(asked.end, 40);
}

TEST_F(ArchiveReadsTest, LayerIsReadFromTheArchiveThatKeepsIt) {
  start(2);
  describeItem(1, "Plant/Load", {{0, {0, 0}}, {1, {1, 0}}});
  const std::int64_t cacheId = manager().createPinCache(kLoad);
  archive(0).add(kLoad, 0, realPin(1, 1));
  archive(1).add(kLoad, 1, realPin(2, 1));
  const SharedRequest request = requestFor(cacheId);
  request->options.layerId = 1;
  EXPECT_EQ(timesOf(read(request)), Times({2}));
  EXPECT_EQ(archive(0).readCount(), 0U);
}

TEST_F(ArchiveReadsTest, ArchiveThatDoesNotHoldTheItemIsNotAskedAndNothingIsMissed) {
  start();
  const std::int64_t cacheId = makeLoad();
  archive().setHolds(false);
  const SharedItem item = read(requestFor(cacheId));
  EXPECT_EQ(item->status(), status::kGood);
  EXPECT_EQ(item->failure(), status::kGood);
  EXPECT_EQ(item->valueCount(), 0U);
  EXPECT_EQ(archive().readCount(), 0U);
  EXPECT_EQ(clock.now(), ManualClock::kStart);
}

TEST_F(ArchiveReadsTest, LayerThatNoArchiveKeepsIsLoggedMarkedAndFinal) {
  start();
  const std::int64_t cacheId = makeLoad();
  for (const bool synchronous : {true, false}) {
    const SharedRequest request = requestFor(cacheId);
    request->options.layerId = 2;  // the item has no such layer, so this adds nothing
    request->items()[0]->addInterval(7, 0, 0);
    TraceCapture traces;
    if (synchronous) {
      manager().syncRead(request);
    } else {
      manager().addRequest(request, 1000);
    }
    EXPECT_EQ(request->status(), status::kGood);
    EXPECT_EQ(request->items()[0]->failure(), status::kBadNotFound);
    ASSERT_EQ(traces.lines().size(), 1U);
    EXPECT_EQ(traces.lines()[0].text,
              "DataArchiveManager::addRequest : not find archive for cache_id = " +
                  std::to_string(cacheId) + " and layer = 7");
    EXPECT_EQ(traces.lines()[0].level, kTraceError);
  }
}

TEST_F(ArchiveReadsTest, LayerWhoseArchiveIsNotThereIsLoggedAndMarked) {
  start();
  describeItem(5, "Plant/Lost", {{0, {0, 0}}, {1, {9, 0}}});
  const std::int64_t cacheId = manager().createPinCache({5, "Plant/Lost"});
  for (const std::int32_t layer : {0, 1, 2}) {
    const SharedRequest request = requestFor(cacheId);
    request->options.layerId = layer;
    TraceCapture traces;
    manager().syncRead(request);
    EXPECT_EQ(request->status(), status::kGood);
    // The host does not archive layer 2 of the item: nothing is missing.
    const bool lost = layer == 1;
    EXPECT_EQ(request->items()[0]->failure(), lost ? status::kBadNotFound : status::kGood);
    EXPECT_EQ(traces.count("DataArchiveManager::addRequest : not find archive for cache_id = " +
                           std::to_string(cacheId) + " and layer = 1"),
              lost ? 1 : 0);
  }
}

TEST_F(ArchiveReadsTest, IntervalsLeftOverByAClearAreMarkedAndFinal) {
  start();
  const SharedRequest request = requestFor(makeItem(1, "A"));
  request->addItem(makeItem(2, "B"));
  archive().onRead([](const SharedInterval&) { manager().clear(); });
  manager().syncRead(request);
  EXPECT_EQ(request->status(), status::kGood);
  // It was answered by an archive that ended meanwhile.
  EXPECT_EQ(request->items()[0]->failure(), status::kBadDataUnavailable);
  EXPECT_EQ(request->items()[1]->failure(), status::kBadNotFound);
}

TEST_F(ArchiveReadsTest, LayerThatAnItemHadBeforeAClearIsNotReadAfterIt) {
  start();
  describeItem(1, "Plant/Load", {{0, {0, 0}}, {1, {0, 0}}});
  manager().createPinCache(kLoad);
  manager().clear();
  start();
  const SharedRequest request = requestFor(makeItem(1));  // the same cache id, layer 0 alone
  request->options.layerId = 2;
  request->items()[0]->addInterval(1, 0, 0);
  TraceCapture traces;
  manager().syncRead(request);
  EXPECT_EQ(request->items()[0]->failure(), status::kBadNotFound);
}

// A request for an item that is put together by the archives: layer -1 asks every one of them.
SharedRequest requestOfEveryArchive(std::int64_t cacheId, std::uint32_t limit = 0) {
  const SharedRequest request = requestFor(cacheId, 0, 0, limit);
  request->options.layerId = 2;
  request->items()[0]->addInterval(-1, 0, 0);
  return request;
}

TEST_F(ArchiveReadsTest, LayerMinusOneAsksEveryArchiveThatHoldsTheItemByAscendingNumber) {
  start(3);
  const std::int64_t cacheId = makeItem(1);
  archive(2).addItem(kLoad);  // and 0 has a writer for it; 1 does not know it
  std::vector<std::size_t> asked;
  for (const std::size_t i : {0U, 1U, 2U}) {
    archive(i).onRead([&asked, i](const SharedInterval&) { asked.push_back(i); });
  }
  const SharedItem item = read(requestOfEveryArchive(cacheId));
  EXPECT_EQ(asked, std::vector<std::size_t>({0, 2}));
  EXPECT_EQ(item->status(), status::kGood);
}

TEST_F(ArchiveReadsTest, AnswersOfSeveralArchivesAreMergedAndRepeatsDropped) {
  start(2);
  const std::int64_t cacheId = makeItem(1);
  archive(1).addItem({99, "Other"});  // so that the handles differ
  archive(0).add(kLoad, 0, {realPin(10, 1), realPin(30, 3)});
  archive(1).add(kLoad, 0, {realPin(10, 1), realPin(20, 2), realPin(30, 4)});
  archive(0).setScript({When::held});
  const SharedRequest request = requestOfEveryArchive(cacheId);
  manager().addRequest(request, 1000);
  EXPECT_EQ(request->status(), status::kBadWaiting);  // one of two has answered
  archive(0).releaseAll();
  EXPECT_EQ(request->status(), status::kGood);
  EXPECT_EQ(timesOf(request->items()[0]), Times({10, 20, 30, 30}));
  EXPECT_EQ(archive(0).reads()[0].handle, 1U);
  EXPECT_EQ(archive(1).reads()[0].handle, 2U);
}

TEST_F(ArchiveReadsTest, LayerMinusOneOfAnItemThatNobodyHoldsIsEmptyAndGood) {
  start(2);
  const std::int64_t cacheId = makeItem(1);
  archive(0).setHolds(false);
  const SharedItem item = read(requestOfEveryArchive(cacheId));
  EXPECT_EQ(item->failure(), status::kGood);
  EXPECT_EQ(item->valueCount(), 0U);
  EXPECT_TRUE(item->isFinal());
}

TEST_F(ArchiveReadsTest, LayerMinusOneAsksTheOthersWhenOneThrows) {
  start(2);
  const std::int64_t cacheId = makeItem(1);
  archive(1).add(kLoad, 0, realPin(20, 2));
  for (const bool handleThrows : {false, true}) {
    archive(0).setScript({When::throws});
    archive(0).setHandleThrows(handleThrows);
    TraceCapture traces;
    const SharedItem item = read(requestOfEveryArchive(cacheId));
    EXPECT_EQ(timesOf(item), Times({20}));
    EXPECT_EQ(item->failure(), status::kBadOutOfMemory);
  }
}

TEST_F(ArchiveReadsTest, ReadThatThrowsFailsItsItemAlone) {
  start();
  const std::int64_t cacheId = makeLoad();
  const SharedRequest request = requestFor(cacheId);
  request->addItem(cacheId);
  archive().scriptNext({When::throws});
  TraceCapture traces;
  manager().syncRead(request);
  EXPECT_EQ(request->status(), status::kGood);
  EXPECT_EQ(request->items()[0]->failure(), status::kBadOutOfMemory);
  EXPECT_EQ(timesOf(request->items()[1]), Times({10, 20, 30}));
  EXPECT_EQ(request->items()[1]->failure(), status::kGood);
  EXPECT_EQ(traces.countContaining("scripted read"), 1);
}

TEST_F(ArchiveReadsTest, HandleThatThrowsFailsItsItemAlone) {
  start(2);
  describeItem(2, "B", {{0, {1, 0}}});
  const SharedRequest request = requestFor(makeItem(1));
  request->addItem(manager().createPinCache({2, "B"}));
  archive(0).setHandleThrows(true);
  TraceCapture traces;
  manager().syncRead(request);
  EXPECT_EQ(request->items()[0]->failure(), status::kBadOutOfMemory);
  EXPECT_EQ(request->items()[1]->failure(), status::kGood);
  EXPECT_EQ(archive(1).readCount(), 1U);
}

TEST_F(ArchiveReadsTest, WhatIsThrownAfterTheAnswerTakesNothingFromIt) {
  start();
  const std::int64_t cacheId = makeLoad();
  archive().onRead([](const SharedInterval& interval) {
    interval->push(realPin(5, 5));
    interval->finalize();
  });
  archive().setScript({When::throws});
  TraceCapture traces;
  const SharedItem item = read(requestFor(cacheId));
  EXPECT_EQ(timesOf(item), Times({5}));
  EXPECT_EQ(item->failure(), status::kGood);
  EXPECT_EQ(traces.countContaining("after finalize"), 0);
}

TEST_F(ArchiveReadsTest, ReadThatItsArchiveDropsStaysOpen) {
  start();
  const std::int64_t cacheId = makeLoad();
  archive().setScript({When::dropped});
  const SharedRequest request = requestFor(cacheId);
  manager().addRequest(request, 1000);
  // The item keeps its open interval: a provider that lets go of it does not end it.
  EXPECT_EQ(request->status(), status::kBadWaiting);
}

// ---- asynchronous reads

TEST_F(ArchiveReadsTest, AddRequestReturnsAtOnceAndCompletesWhenTheArchiveAnswers) {
  start();
  const SharedRequest request = requestFor(makeLoad());
  archive().setScript({When::held});
  int completions = 0;
  request->setCompletion([&](const SharedRequest&) { ++completions; });
  manager().addRequest(request, 1000);
  EXPECT_EQ(request->status(), status::kBadWaiting);
  EXPECT_EQ(completions, 0);
  archive().releaseAll();
  EXPECT_EQ(request->status(), status::kGood);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(timesOf(request->items()[0]), Times({10, 20, 30}));
}

// Completed by the archive, or by the cache before any archive is asked.
TEST_F(ArchiveReadsTest, CompletionInsideTheCallMayDropTheLastReference) {
  start();
  describeLayer(0, true);
  const std::int64_t cacheId = makeLoad();
  for (const PinPtr& sample : realPins(100, 5)) *pin(cacheId) << sample;
  for (const std::int64_t from : {10, 101}) {
    for (const bool synchronous : {false, true}) {
      SharedRequest request = requestFor(cacheId, from, from + 2);
      const boost::weak_ptr<Request> watched = request;
      request->setCompletion([&](const SharedRequest&) { request.reset(); });
      if (synchronous) {
        manager().syncRead(request);
      } else {
        manager().addRequest(request, 1000);
      }
      EXPECT_TRUE(watched.expired());
    }
  }
  EXPECT_EQ(archive().readCount(), 2U);
}

TEST_F(ArchiveReadsTest, CompletionMayReadAgain) {
  start();
  const std::int64_t cacheId = makeLoad();
  const SharedRequest request = requestFor(cacheId);
  Times again;
  request->setCompletion([&](const SharedRequest&) {
    const SharedRequest second = requestFor(cacheId);
    manager().addRequest(second, 1000);
    again = timesOf(read(requestFor(cacheId)));
  });
  manager().addRequest(request, 1000);
  EXPECT_EQ(again, Times({10, 20, 30}));
}

class ArchiveQueueTest : public ArchiveReadsTest {
 protected:
  // A request that no archive answers, queued with that budget.
  SharedRequest addSilent(int timeoutMs) {
    if (factory.count() == 0) start();
    archive().setScript({When::never});
    const SharedRequest request = requestFor(makeItem(1));
    manager().addRequest(request, timeoutMs);
    return request;
  }

  // On which pass of the worker the request is timed out.
  int passOfTimeout(int timeoutMs) {
    const SharedRequest request = addSilent(timeoutMs);
    for (int pass = 1; pass <= 10; ++pass) {
      workerPass();
      if (request->status() == status::kBadTimeout) return pass;
      EXPECT_EQ(request->status(), status::kBadWaiting);
    }
    return 0;
  }
};

TEST_F(ArchiveQueueTest, TimeoutFiresOnPassAfterItsWholeHundredsOfMilliseconds) {
  holdWorker();
  TraceCapture traces;
  EXPECT_EQ(passOfTimeout(250), 3);
  EXPECT_EQ(passOfTimeout(200), 3);
  EXPECT_EQ(passOfTimeout(199), 2);
  EXPECT_EQ(passOfTimeout(100), 2);
  EXPECT_EQ(passOfTimeout(99), 1);
  EXPECT_EQ(passOfTimeout(0), 1);
  EXPECT_EQ(passOfTimeout(-5000), 1);
  EXPECT_EQ(traces.countContaining("Request::timeout \n"), 7);
}

TEST_F(ArchiveQueueTest, PassesAreAHundredMillisecondsApart) {
  holdWorker();
  const SharedRequest request = addSilent(0);
  TraceCapture traces;
  clock.advance(100 * kTicksPerMillisecond - 1);
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  EXPECT_EQ(request->status(), status::kBadWaiting);
  const long long begun = clock.waitsBegun();
  clock.advance(1);
  waitForWaits(begun + 1);
  EXPECT_EQ(request->status(), status::kBadTimeout);
}

// Counts what of it is not freed: a weak reference keeps the memory of a request.
template <class T>
struct CountingAllocator {
  using value_type = T;
  explicit CountingAllocator(int& live) : count(&live) {}
  template <class U>
  explicit CountingAllocator(const CountingAllocator<U>& other) : count(other.count) {}
  T* allocate(std::size_t n) {
    ++*count;
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T* memory, std::size_t n) {
    --*count;
    std::allocator<T>().deallocate(memory, n);
  }
  int* count;
};

TEST_F(ArchiveQueueTest, RequestThatNobodyHoldsDisappearsFromTheQueueAtTheNextPass) {
  holdWorker();
  start();
  int live = 0;
  auto request = boost::allocate_shared<Request>(CountingAllocator<Request>(live));
  request->addItem(makeItem(1));
  int timeouts = 0;
  request->setTimeoutListener([&](const SharedRequest&) { ++timeouts; });
  manager().addRequest(request, 60'000);
  EXPECT_EQ(live, 1);
  TraceCapture traces;
  request.reset();
  workerPass();
  EXPECT_EQ(live, 0);
  EXPECT_EQ(timeouts, 0);
  EXPECT_TRUE(traces.texts().empty());
}

TEST_F(ArchiveQueueTest, CompletedRequestIsTimedOutWhenItsTimeIsUp) {
  holdWorker();
  start();
  const SharedRequest request = requestFor(makeLoad());
  manager().addRequest(request, 100);
  TraceCapture traces;
  workerPass();
  EXPECT_EQ(request->status(), status::kGood);
  workerPass();
  EXPECT_EQ(request->status(), status::kBadTimeout);
  EXPECT_EQ(request->finalizedItems(), 1U);  // what tells that its data are there
}

TEST_F(ArchiveQueueTest, TimedOutRequestMayStillComplete) {
  holdWorker();
  start();
  const SharedRequest request = requestFor(makeLoad());
  archive().setScript({When::held});
  manager().addRequest(request, 0);
  TraceCapture traces;
  workerPass();
  EXPECT_EQ(request->status(), status::kBadTimeout);
  archive().releaseAll();
  EXPECT_EQ(request->status(), status::kGood);
  EXPECT_EQ(timesOf(request->items()[0]), Times({10, 20, 30}));
}

TEST_F(ArchiveQueueTest, TimeoutTellsItsListenerOnceAndNotTheCompletion) {
  holdWorker();
  const SharedRequest request = addSilent(0);
  std::atomic<int> timeouts{0};
  std::atomic<int> completions{0};
  request->setCompletion([&](const SharedRequest&) { ++completions; });
  request->setTimeoutListener([&](const SharedRequest& late) {
    ++timeouts;
    manager().addRequest(late, 0);  // under no lock of the manager's
  });
  TraceCapture traces;
  workerPass();
  EXPECT_EQ(timeouts, 1);
  workerPass();
  EXPECT_EQ(timeouts, 1);
  EXPECT_EQ(completions, 0);
}

TEST_F(ArchiveQueueTest, WorkerOutlivesAListenerThatThrows) {
  holdWorker();
  const SharedRequest first = addSilent(0);
  const SharedRequest second = addSilent(100);
  first->setTimeoutListener([](const SharedRequest&) { throw std::runtime_error("listener"); });
  TraceCapture traces;
  workerPass();
  workerPass();
  EXPECT_EQ(second->status(), status::kBadTimeout);
}

TEST_F(ArchiveQueueTest, LastReferenceMayDieInAPass) {
  holdWorker();
  SharedRequest request = addSilent(0);
  // Destroyed by the worker: its listener lets go of the test's reference and then asks for the
  // queue's lock.
  request->setTimeoutListener([&](const SharedRequest&) {
    request.reset();
    manager().addRequest(requestFor(12345), 0);
  });
  TraceCapture traces;
  workerPass();
  EXPECT_EQ(request, nullptr);
}

// ---- synchronous reads

TEST_F(ArchiveReadsTest, AnswerInsideReadCostsNoTime) {
  start();
  EXPECT_EQ(timesOf(read(requestFor(makeLoad()))), Times({10, 20, 30}));
  EXPECT_EQ(clock.now(), ManualClock::kStart);
  EXPECT_EQ(clock.waitsBegun(), 0);
}

TEST_F(ArchiveReadsTest, AnswerWhileWaitingEndsTheWaitAtOnce) {
  clock.setAutoAdvance(false);  // no time goes by: only the answer can end the wait
  start();
  const std::int64_t cacheId = makeLoad();
  archive().setScript({When::held});
  SilentRead reader(cacheId);
  ASSERT_TRUE(archive().waitForHeld(1));
  waitForWaits(1);
  archive().releaseAll();
  reader.end();
  EXPECT_EQ(reader.request->status(), status::kGood);
  EXPECT_EQ(timesOf(reader.request->items()[0]), Times({10, 20, 30}));
}

TEST_F(ArchiveReadsTest, AnswerOnTheProvidersThreadIsTaken) {
  clock.setAutoAdvance(false);
  start();
  const std::int64_t cacheId = makeLoad();
  archive().setScript({When::later});
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(timesOf(read(requestFor(cacheId))), Times({10, 20, 30}));
  }
}

TEST_F(ArchiveReadsTest, SilentArchiveCostsSixtySeconds) {
  start();
  const std::int64_t cacheId = makeLoad();
  archive().setScript({When::never});
  const SharedRequest request = requestFor(cacheId);
  TraceCapture traces;
  const SharedItem item = read(request);
  EXPECT_EQ(clock.now() - ManualClock::kStart, 60 * kSecond);
  EXPECT_EQ(request->status(), status::kBadTimeout);
  EXPECT_EQ(traces.countContaining("Request::timeout \n"), 1);
  EXPECT_FALSE(item->isFinal());
  EXPECT_TRUE(item->closed());
}

TEST_F(ArchiveReadsTest, ReaderThatGaveUpKeepsWhatArrivedAndTakesNoMore) {
  start();
  const std::int64_t cacheId = makeLoad();
  Script silent;
  silent.silent = true;
  silent.atMost = 2;
  archive().setScript(silent);
  SharedInterval open;
  archive().onRead([&open](const SharedInterval& interval) { open = interval; });
  const SharedRequest request = requestFor(cacheId);
  TraceCapture traces;
  const SharedItem item = read(request);
  EXPECT_EQ(timesOf(item), Times({10, 20}));
  open->push(realPin(25, 1));
  open->finalize();
  EXPECT_EQ(timesOf(item), Times({10, 20}));
  EXPECT_EQ(request->status(), status::kBadTimeout);
}

TEST_F(ArchiveReadsTest, OneSilentArchiveLeavesTheOtherItemsTheirValues) {
  start(2);
  const std::int64_t cacheId = makeLoad();
  describeItem(2, "B", {{0, {1, 0}}});
  const SharedRequest request = requestFor(manager().createPinCache({2, "B"}));
  request->addItem(cacheId);
  archive(1).setScript({When::never});
  TraceCapture traces;
  manager().syncRead(request);
  EXPECT_FALSE(request->items()[0]->isFinal());
  EXPECT_TRUE(request->items()[1]->isFinal());
  EXPECT_EQ(timesOf(request->items()[1]), Times({10, 20, 30}));
}

TEST_F(ArchiveReadsTest, ClockSetBackRestartsTheLimitButNotTheCountOfWaits) {
  clock.setAutoAdvance(false);
  start();
  const std::int64_t cacheId = makeLoad();
  archive().setScript({When::never});
  TraceCapture traces;
  long long waits = 0;
  {
    SilentRead reader(cacheId);
    while (reader.request->status() == status::kBadWaiting) {
      waitForWaits(++waits);
      if (waits == 300) clock.setTime(clock.now() - kTicksPerHour);
      const bool last = waits == 600;
      clock.advance(100 * kTicksPerMillisecond);
      if (last) break;
    }
  }
  EXPECT_EQ(waits, 600);
  EXPECT_EQ(clock.waitsBegun(), 600);
}

TEST_F(ArchiveReadsTest, ClockSetForwardEndsTheWait) {
  clock.setAutoAdvance(false);
  start();
  const std::int64_t cacheId = makeLoad();
  archive().setScript({When::never});
  TraceCapture traces;
  {
    SilentRead reader(cacheId);
    waitForWaits(1);
    clock.setTime(clock.now() + 60 * kSecond);
    clock.advance(100 * kTicksPerMillisecond);
  }
  EXPECT_EQ(clock.waitsBegun(), 1);
}

TEST_F(ArchiveReadsTest, ClearReleasesAReaderOfASilentArchive) {
  clock.setAutoAdvance(false);
  start();
  const std::int64_t cacheId = makeLoad();
  archive().setScript({When::never});
  TraceCapture traces;
  SilentRead reader(cacheId);
  waitForWaits(1);
  manager().clear();
  clock.advance(100 * kTicksPerMillisecond);
  reader.end();
  EXPECT_EQ(reader.request->status(), status::kBadTimeout);
  EXPECT_TRUE(reader.request->items()[0]->closed());
  EXPECT_EQ(clock.waitsBegun(), 1);
}

TEST_F(ArchiveReadsTest, ReadAfterAClearIsNotReleasedByIt) {
  start();
  manager().clear();
  start();
  const std::int64_t cacheId = makeItem(1);
  archive(1).setScript({When::never});
  TraceCapture traces;
  read(requestFor(cacheId));
  EXPECT_EQ(clock.now() - ManualClock::kStart, 60 * kSecond);
}

TEST_F(ArchiveReadsTest, WhatWasFetchedIsInTheCacheWhenTheReadReturns) {
  start();
  describeLayer(0, true);
  const std::int64_t cacheId = makeItem(1);
  archive().add(kLoad, 0, realPins(100, 50));
  const std::size_t before = timesOf(read(requestFor(cacheId, 100, 149))).size();
  EXPECT_EQ(before, 50U);
  std::size_t blocks = 0;
  pin(cacheId)->visitLayers([&blocks](std::int32_t, const cache::Layer& layer) {
    for (const auto& block : layer.describe()) blocks += block.samples.size() == 50 ? 1 : 0;
  });
  EXPECT_EQ(blocks, 1U);
  EXPECT_EQ(timesOf(read(requestFor(cacheId, 110, 120))).size(), 11U);
  EXPECT_EQ(archive().readCount(), 1U);
}

// ---- the newest sample

TEST_F(ArchiveReadsTest, LastTimeOfACachedItemIsThatOfItsNewestSample) {
  start();
  const std::int64_t cacheId = makeItem(1);
  *pin(cacheId) << realPin(77, 1);
  EXPECT_EQ(manager().lastTime(cacheId), 77);
  EXPECT_EQ(archive().readCount(), 0U);
}

TEST_F(ArchiveReadsTest, LastTimeAsksTheArchiveWhenNothingIsCached) {
  start();
  EXPECT_EQ(manager().lastTime(makeLoad()), 30);
}

TEST_F(ArchiveReadsTest, LastTimeIsZeroWithoutAnItemOrASample) {
  start();
  TraceCapture traces;
  EXPECT_EQ(manager().lastTime(4711), 0);
  EXPECT_EQ(manager().lastTime(makeItem(1)), 0);
  EXPECT_TRUE(traces.texts().empty());
}

TEST_F(ArchiveReadsTest, LastTimeIsTheLaterOfWhatIsReadAndWhatArrivesMeanwhile) {
  start();
  const std::int64_t cacheId = makeLoad();
  archive().setStoresWrites(false);
  archive().onRead([cacheId](const SharedInterval&) { *pin(cacheId) << realPin(500, 1); });
  EXPECT_EQ(manager().lastTime(cacheId), 500);
}

TEST_F(ArchiveReadsTest, LastTimeTakesTheAnswerAlsoWhenTheCacheHasNot) {
  start();
  const std::int64_t cacheId = makeItem(1);
  // Answered by hand and never announced to the cache, as by a read that it ignores.
  archive().onRead([](const SharedInterval& interval) {
    if (interval->isFinal() || interval->kind() != Interval::Kind::newest) return;
    interval->push(realPin(60, 1));
    interval->fail(status::kBadNoData);
  });
  EXPECT_EQ(manager().lastTime(cacheId), 60);
  EXPECT_EQ(pin(cacheId)->last(), nullptr);
}

// ---- everything at once

TEST_F(ArchiveReadsTest, ReadersWritersAndReconfigurationRunTogether) {
  clock.setAutoAdvance(false);
  describeLayer(0, true);
  start();
  archive().setScript({When::later});
  factory.onCreate = [](test::ScriptedProvider& provider) { provider.setScript({When::later}); };
  TraceCapture traces;
  std::atomic<bool> stop{false};
  std::atomic<int> completed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      for (std::int64_t i = 1; !stop; ++i) {
        const std::int64_t cacheId = makeItem(1 + i % 3);
        if (const auto item = pin(cacheId)) *item << realPin(i, 1);
        const SharedRequest request = requestFor(cacheId);
        request->addItem(makeItem(1 + (i + 1) % 3));
        request->setCompletion([&](const SharedRequest&) { ++completed; });
        if (i % 2 == 0) {
          manager().addRequest(request, 100);
        } else {
          manager().syncRead(request);
          manager().lastTime(cacheId);
        }
      }
    });
  }
  std::thread timekeeper([&] {
    while (!stop) {
      clock.advance(10 * kTicksPerMillisecond);
      std::this_thread::yield();
    }
  });
  for (int round = 0; round < 20; ++round) {
    const int before = completed;
    while (completed < before + 20) std::this_thread::yield();
    manager().clear();
    start();
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  timekeeper.join();
  EXPECT_GE(completed, 400);
}

}  // namespace
}  // namespace orva::archive::archive_reads_test
