#include <gtest/gtest.h>
#include <semaphore.h>

#include <atomic>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "orva_database/proxy_old_archive_api.h"
#include "orva_host/variables.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

// Reads through the older archive interface.

namespace orva::archive {
namespace {

using test::Script;
using test::When;
using Times = std::vector<std::int64_t>;

constexpr int kNotFound = static_cast<int>(status::kBadNotFound);
constexpr long long kHigh = 1LL << 32;
// Real time; nothing takes so long that works.
constexpr int kPatienceMs = 30'000;

class ProxyOldArchiveReadsTest : public test::ArchiveFixture {
 protected:
  ProxyOldArchiveReadsTest() : source(std::make_unique<ProxyOldArchiveApi>()) {
    EXPECT_EQ(source->Init(0, nullptr), 0);
  }

  static void describe(long long id) {
    describeItem(id, "Plant/" + std::to_string(id), {{0, {0, 0}}, {1, {0, 0}}, {2, {0, 0}}});
  }
  int bindItem(long long id) {
    if (factory.count() == 0) start();
    describe(id);
    int item = 0;
    EXPECT_EQ(source->FindArchiveItemId(id, "", item), 0);
    return item;
  }
  // A bound item of which the archive, not the cache, holds these samples.
  int bindItem(long long id, const std::vector<PinPtr>& samples) {
    const int item = bindItem(id);
    archive().add({id, ""}, 0, samples);
    return item;
  }

  // Reads and waits.
  void read(ArchiveRequest& request) {
    ASSERT_EQ(source->AddRequest(&request), 0);
    ASSERT_TRUE(request.WaitFor(kPatienceMs));
    EXPECT_FALSE(request.WaitFor(0)) << "posted more than once";
  }
  static Times times(const ArchiveRequest& request) {
    Times result;
    for (const ArchiveRec& rec : request.records) result.push_back(rec.time);
    return result;
  }
  static std::vector<int> items(const ArchiveRequest& request) {
    std::vector<int> result;
    for (const ArchiveRec& rec : request.records) result.push_back(rec.item);
    return result;
  }
  void passes(int count) {
    for (int i = 0; i < count; ++i) workerPass();
  }
  // What the read's interval says of its item: resample interval, limit, layer.
  struct Asked {
    std::int64_t resampleInterval = -1;
    std::uint32_t limit = 0;
    std::int32_t layer = -1;
  };
  Asked ask(double microseconds, std::uint32_t maxValues = 0) {
    const int item = bindItem(7);
    archive().addItem({7, ""});
    Asked asked;
    archive().onRead([&asked](const SharedInterval& interval) {
      asked = {interval->item()->resampleInterval, interval->item()->numValuesPerNode,
               interval->layer()};
    });
    ArchiveRequest request;
    request.items = {item};
    request.interval = microseconds;
    request.maxValues = maxValues;
    read(request);
    return asked;
  }

  std::unique_ptr<ProxyOldArchiveApi> source;
};

// ---- what comes back

TEST_F(ProxyOldArchiveReadsTest, RecordsComeItemByItemOldestFirst) {
  const int second = bindItem(8, test::realPins(15, 2));
  const int first = bindItem(7, test::realPins(10, 3));
  ArchiveRequest request;
  request.id = 42;
  request.items = {second, first};
  read(request);
  EXPECT_EQ(times(request), Times({15, 16, 10, 11, 12}));
  EXPECT_EQ(items(request), std::vector<int>({8, 8, 7, 7, 7}));
  EXPECT_EQ(request.status, 0U);
}

TEST_F(ProxyOldArchiveReadsTest, TheReadIsMarkedWithAllBitsOfTheCallersId) {
  const int item = bindItem(7, test::realPins(10, 1));
  std::int64_t tag = 0;
  archive().onRead(
      [&tag](const SharedInterval& interval) { tag = interval->item()->request.lock()->tag(); });
  ArchiveRequest request;
  request.id = -5 * kHigh - 3;
  request.items = {item};
  read(request);
  EXPECT_EQ(tag, request.id);
}

TEST_F(ProxyOldArchiveReadsTest, ARecordHasTheSamplesValueAndQuality) {
  OpcUa_VariantHlp text;
  text.SetString("Pump on");
  const int item = bindItem(7, {makePin(10, text, 0x40920000)});
  ArchiveRequest request;
  request.items = {item};
  read(request);
  ASSERT_EQ(request.records.size(), 1U);
  EXPECT_EQ(request.records[0].value.GetString(), "Pump on");
  EXPECT_EQ(request.records[0].status, 0x40920000U);
}

TEST_F(ProxyOldArchiveReadsTest, RecordsAreAppendedToWhatTheRequestHolds) {
  const int item = bindItem(7, test::realPins(10, 2));
  ArchiveRequest request;
  request.items = {item};
  read(request);
  read(request);
  EXPECT_EQ(times(request), Times({10, 11, 10, 11}));
}

TEST_F(ProxyOldArchiveReadsTest, TheRangeGoesOverInTicksAndBothEndsBelongToIt) {
  const int item = bindItem(7, test::realPins(10, 10));
  ArchiveRequest request;
  request.items = {item};
  request.startTime = 12;
  request.endTime = 15;
  read(request);
  EXPECT_EQ(times(request), Times({12, 13, 14, 15}));
  ASSERT_EQ(archive().readCount(), 1U);
  EXPECT_EQ(archive().reads()[0].start, 12);
  EXPECT_EQ(archive().reads()[0].end, 15);
  EXPECT_EQ(archive().reads()[0].layer, 0);
}

TEST_F(ProxyOldArchiveReadsTest, WrittenRecordsAreReadBackByAnotherSource) {
  describeLayer(0, true);
  const int item = bindItem(7);
  for (int i = 1; i <= 3; ++i) {
    OpcUa_VariantHlp value;
    value.SetInt(i);
    EXPECT_EQ(source->AddValue(item, ArchiveRec(i * 10, value)), 0);
  }
  ProxyOldArchiveApi other;
  other.Init(1, nullptr);
  int same = 0;
  EXPECT_EQ(other.FindArchiveItemId(7, "", same), 0);
  ArchiveRequest request;
  request.items = {same};
  EXPECT_EQ(other.AddRequest(&request), 0);
  ASSERT_TRUE(request.WaitFor(kPatienceMs));
  EXPECT_EQ(times(request), Times({10, 20, 30}));
}

TEST_F(ProxyOldArchiveReadsTest, TheLimitIsOfEachItem) {
  const int first = bindItem(7, test::realPins(10, 5));
  const int second = bindItem(8, test::realPins(10, 5));
  ArchiveRequest request;
  request.items = {first, second};
  request.maxValues = 2;
  read(request);
  EXPECT_EQ(times(request), Times({10, 11, 10, 11}));
  EXPECT_EQ(request.status, 0U);
  EXPECT_EQ(ask(0, 7).limit, 7U);
  EXPECT_EQ(ask(0, 0).limit, 0U);
}

TEST_F(ProxyOldArchiveReadsTest, AnItemMayBeAskedForTwice) {
  const int item = bindItem(7, test::realPins(10, 2));
  ArchiveRequest request;
  request.items = {item, item};
  read(request);
  EXPECT_EQ(times(request), Times({10, 11, 10, 11}));
}

TEST_F(ProxyOldArchiveReadsTest, ARequestWithoutItemsIsAnsweredAtOnce) {
  start();
  ArchiveRequest request;
  EXPECT_EQ(source->AddRequest(&request), 0);
  EXPECT_TRUE(request.WaitFor(0));
  EXPECT_TRUE(request.records.empty());
  EXPECT_EQ(request.status, 0U);
}

TEST_F(ProxyOldArchiveReadsTest, NoRequestIsRefused) { EXPECT_LT(source->AddRequest(nullptr), 0); }

// ---- the time between values

TEST_F(ProxyOldArchiveReadsTest, MicrosecondsBecomeTicksCutToWholeOnes) {
  EXPECT_EQ(ask(0).resampleInterval, 0);
  EXPECT_EQ(ask(100).resampleInterval, 1000);
  EXPECT_EQ(ask(1.29).resampleInterval, 12);
  EXPECT_EQ(ask(0.09).resampleInterval, 0);
  EXPECT_EQ(ask(1e300).resampleInterval, INT64_MAX);
  EXPECT_EQ(ask(-2.5).resampleInterval, -25);
  EXPECT_EQ(ask(std::numeric_limits<double>::infinity()).resampleInterval, INT64_MAX);
  EXPECT_EQ(ask(std::numeric_limits<double>::quiet_NaN()).resampleInterval, 0);
}

TEST_F(ProxyOldArchiveReadsTest, TheTimeBetweenValuesChoosesTheLayer) {
  EXPECT_EQ(ask(59'999'999.9).layer, 0);
  EXPECT_EQ(ask(60'000'000).layer, 1);
  EXPECT_EQ(ask(3'599'999'999.9).layer, 1);
  EXPECT_EQ(ask(3'600'000'000).layer, 2);
  EXPECT_EQ(ask(-60'000'000).layer, 0);
}

// ---- items that are not known, archives that fail

TEST_F(ProxyOldArchiveReadsTest, AnUnknownItemHasNoRecordsAndTheOthersCome) {
  const int item = bindItem(7, test::realPins(10, 2));
  test::TraceCapture traces;
  ArchiveRequest request;
  request.items = {55, item, -3};
  read(request);
  EXPECT_EQ(times(request), Times({10, 11}));
  EXPECT_EQ(items(request), std::vector<int>({7, 7}));
  EXPECT_EQ(request.status, status::kBadNotFound);
}

TEST_F(ProxyOldArchiveReadsTest, AnItemThatOthersHaveFoundIsReadWithoutFindingIt) {
  start();
  describe(7);
  manager().createPinCache({7, ""});
  archive().add({7, ""}, 0, test::realPins(10, 2));
  ArchiveRequest request;
  request.items = {7};
  read(request);
  EXPECT_EQ(times(request), Times({10, 11}));
  EXPECT_EQ(request.status, 0U);
}

TEST_F(ProxyOldArchiveReadsTest, IdsBelowZeroAndCutIdsAreReadAsTheyWereFound) {
  const int below = bindItem(-3, test::realPins(10, 1));
  const int cut = bindItem(kHigh + 7, test::realPins(20, 1));
  bindItem(8, test::realPins(30, 1));
  ArchiveRequest request;
  request.items = {below, cut, 8};
  read(request);
  EXPECT_EQ(times(request), Times({10, 20, 30}));
  EXPECT_EQ(items(request), std::vector<int>({-3, 7, 8}));
}

TEST_F(ProxyOldArchiveReadsTest, OfSeveralFailuresTheFirstItemsIsTheStatus) {
  const int first = bindItem(7, test::realPins(10, 2));
  const int second = bindItem(8, test::realPins(20, 2));
  const int third = bindItem(9, test::realPins(30, 2));
  Script failing;
  failing.fail = 0x80050000;
  Script failingElse;
  failingElse.fail = 0x80060000;
  archive().scriptNext({});
  archive().scriptNext(failing);
  archive().scriptNext(failingElse);
  ArchiveRequest request;
  request.items = {first, second, third};
  read(request);
  EXPECT_EQ(times(request), Times({10, 11, 20, 21, 30, 31}));  // what came is kept
  EXPECT_EQ(request.status, 0x80050000U);
}

TEST_F(ProxyOldArchiveReadsTest, AnArchiveThatThrowsFailsItsItem) {
  const int item = bindItem(7, test::realPins(10, 2));
  archive().setScript({When::throws});
  test::TraceCapture traces;
  ArchiveRequest request;
  request.items = {item};
  read(request);
  EXPECT_TRUE(request.records.empty());
  EXPECT_EQ(request.status, status::kBadOutOfMemory);
}

// What the caller may rely on after an exception: its request was not taken.
TEST_F(ProxyOldArchiveReadsTest, ARequestThatThrowsIsNotTakenAndNotPosted) {
  const int item = bindItem(7, test::realPins(10, 2));
  factory.onCreate = [](test::ScriptedProvider& made) {
    made.onLayerWriter([](const ItemKey&) { throw std::runtime_error("no writer"); });
  };
  manager().clear();
  start();
  ArchiveRequest request;
  request.items = {item};
  EXPECT_THROW(source->AddRequest(&request), std::runtime_error);
  source.reset();
  EXPECT_FALSE(request.WaitFor(0));
  EXPECT_EQ(request.status, 0U);
}

// ---- time-outs

class LegacyTimeoutTest : public ProxyOldArchiveReadsTest {
 protected:
  // The manager's budget of 60 s ends on the pass after 600.
  static constexpr int kPasses = 601;
  test::TraceCapture traces;
};

TEST_F(LegacyTimeoutTest, AReaderOfASilentArchiveIsWokenAfterSixtySeconds) {
  holdWorker();
  const int item = bindItem(7, test::realPins(10, 2));
  archive().setScript({When::never});
  ArchiveRequest request;
  request.items = {item};
  ASSERT_EQ(source->AddRequest(&request), 0);
  passes(kPasses - 1);
  EXPECT_FALSE(request.WaitFor(0));
  passes(1);
  ASSERT_TRUE(request.WaitFor(kPatienceMs));
  EXPECT_EQ(request.status, status::kBadTimeout);
  EXPECT_TRUE(request.records.empty());
  EXPECT_EQ(clock.now() - test::ManualClock::kStart, kPasses * 100 * kTicksPerMillisecond);
  passes(2);
  EXPECT_FALSE(request.WaitFor(0));
}

TEST_F(LegacyTimeoutTest, WhatArrivedByThenIsKept) {
  holdWorker();
  const int complete = bindItem(7, test::realPins(10, 2));
  const int open = bindItem(8, test::realPins(20, 2));
  const int silent = bindItem(9, test::realPins(30, 2));
  Script unfinished;
  unfinished.silent = true;
  archive().scriptNext({});
  archive().scriptNext(unfinished);
  archive().scriptNext({When::never});
  ArchiveRequest request;
  request.items = {complete, open, silent};
  ASSERT_EQ(source->AddRequest(&request), 0);
  passes(kPasses);
  ASSERT_TRUE(request.WaitFor(kPatienceMs));
  EXPECT_EQ(times(request), Times({10, 11, 20, 21}));
  EXPECT_EQ(items(request), std::vector<int>({7, 7, 8, 8}));
  EXPECT_EQ(request.status, status::kBadTimeout);
}

TEST_F(LegacyTimeoutTest, AnAnswerThatComesTooLateFindsNothing) {
  holdWorker();
  const int item = bindItem(7, test::realPins(10, 2));
  archive().setScript({When::held});
  auto request = std::make_unique<ArchiveRequest>();
  request->items = {item};
  ASSERT_EQ(source->AddRequest(request.get()), 0);
  passes(kPasses);
  ASSERT_TRUE(request->WaitFor(kPatienceMs));
  request.reset();  // as its caller may
  EXPECT_TRUE(archive().release());
}

TEST_F(LegacyTimeoutTest, ACompletedReadIsNotTimedOutLater) {
  holdWorker();
  const int item = bindItem(7, test::realPins(10, 2));
  ArchiveRequest request;
  request.items = {item};
  read(request);
  passes(kPasses + 1);
  EXPECT_FALSE(request.WaitFor(0));
  EXPECT_EQ(request.status, 0U);
  EXPECT_EQ(times(request), Times({10, 11}));
  EXPECT_EQ(traces.countContaining("Request::timeout"), 0);
}

TEST_F(LegacyTimeoutTest, AReaderThatWaitsWhileTheArchivesEndIsWoken) {
  holdWorker();
  const int item = bindItem(7, test::realPins(10, 2));
  archive().setScript({When::never});
  ArchiveRequest request;
  request.items = {item};
  ASSERT_EQ(source->AddRequest(&request), 0);
  manager().clear();
  ASSERT_TRUE(request.WaitFor(kPatienceMs));
  EXPECT_EQ(request.status, status::kBadTimeout);
  // The id is good for the archives that come.
  start();
  archive(1).add({7, ""}, 0, test::realPins(30, 2));
  ArchiveRequest next;
  next.items = {item};
  read(next);
  EXPECT_EQ(times(next), Times({30, 31}));
  EXPECT_EQ(next.status, 0U);
}

TEST_F(LegacyTimeoutTest, ASourceThatEndsWakesItsReadersWithWhatArrived) {
  holdWorker();
  const int first = bindItem(7, test::realPins(10, 2));
  const int second = bindItem(8, test::realPins(20, 2));
  archive().scriptNext({});
  archive().scriptNext({When::held});
  archive().scriptNext({When::never});
  ArchiveRequest both;
  both.items = {first, second};
  ArchiveRequest one;
  one.items = {first};
  ASSERT_EQ(source->AddRequest(&both), 0);
  ASSERT_EQ(source->AddRequest(&one), 0);
  source.reset();
  ASSERT_TRUE(both.WaitFor(kPatienceMs));
  ASSERT_TRUE(one.WaitFor(kPatienceMs));
  EXPECT_EQ(times(both), Times({10, 11}));
  EXPECT_EQ(both.status, status::kBadTimeout);
  EXPECT_EQ(one.status, status::kBadTimeout);
  EXPECT_TRUE(archive().release());  // nobody is there any more
  EXPECT_FALSE(both.WaitFor(0));
  EXPECT_EQ(times(both), Times({10, 11}));
}

TEST_F(ProxyOldArchiveReadsTest, ASourceMayEndWhileItsReadIsBeingAnswered) {
  const int item = bindItem(7, test::realPins(10, 20));
  archive().setScript({When::later});
  for (int i = 0; i < 500; ++i) {
    auto ending = std::make_unique<ProxyOldArchiveApi>();
    ending->Init(0, nullptr);
    auto request = std::make_unique<ArchiveRequest>();
    request->items = {item};
    ASSERT_EQ(ending->AddRequest(request.get()), 0);
    for (int yields = i % 20; yields > 0; --yields) std::this_thread::yield();
    ending.reset();
    ASSERT_TRUE(request->WaitFor(kPatienceMs));
    if (request->status == 0) {
      ASSERT_EQ(request->records.size(), 20U);
    } else {
      ASSERT_EQ(request->status, status::kBadTimeout);
    }
  }
}

TEST_F(ProxyOldArchiveReadsTest, ARequestThatIsNotUnderWayIsNotFinished) {
  source->RequestFinished(test::requestFor(7));
  source->RequestFinished(nullptr);
  const int item = bindItem(7, test::realPins(10, 2));
  SharedRequest asked;
  archive().onRead(
      [&asked](const SharedInterval& interval) { asked = interval->item()->request.lock(); });
  ArchiveRequest request;
  request.items = {item};
  read(request);
  ASSERT_NE(asked, nullptr);
  source->RequestFinished(asked);
  EXPECT_FALSE(request.WaitFor(0));
  EXPECT_EQ(times(request), Times({10, 11}));
}

// The semaphore is the last thing that is touched.
TEST_F(ProxyOldArchiveReadsTest, ACallerMayDestroyItsRequestAsSoonAsItIsWoken) {
  const int item = bindItem(7, test::realPins(10, 20));
  archive().setScript({When::later});
  for (int i = 0; i < 500; ++i) {
    auto request = std::make_unique<ArchiveRequest>();
    request->items = {item};
    ASSERT_EQ(source->AddRequest(request.get()), 0);
    ASSERT_TRUE(request->WaitFor(kPatienceMs));
    ASSERT_EQ(request->records.size(), 20U);
  }
}

// ---- the last time

TEST_F(ProxyOldArchiveReadsTest, TheLastTimeIsTheCachesWhereItHasOne) {
  const int item = bindItem(7, test::realPins(100, 2));
  EXPECT_EQ(source->AddValue(item, ArchiveRec(50, OpcUa_VariantHlp())), 0);
  long long time = 0;
  EXPECT_EQ(source->GetLastTime(item, time), 0);
  EXPECT_EQ(time, 50);
  EXPECT_EQ(archive().readCount(), 0U);
}

TEST_F(ProxyOldArchiveReadsTest, ElseTheArchiveIsAskedForItsNewestRecord) {
  const int item = bindItem(kHigh + 7, test::realPins(100, 5));
  long long time = 0;
  EXPECT_EQ(source->GetLastTime(item, time), 0);
  EXPECT_EQ(time, 104);
  EXPECT_GE(archive().readCount(), 1U);
}

TEST_F(ProxyOldArchiveReadsTest, TheLastTimeOfAnEmptyItemIsZero) {
  const int item = bindItem(7);
  long long time = 55;
  EXPECT_EQ(source->GetLastTime(item, time), 0);
  EXPECT_EQ(time, 0);
}

TEST_F(ProxyOldArchiveReadsTest, ASilentArchiveCostsTheLastTimeSixtySeconds) {
  const int item = bindItem(7, test::realPins(100, 5));
  archive().setScript({When::never});
  test::TraceCapture traces;
  long long time = 55;
  EXPECT_EQ(source->GetLastTime(item, time), 0);
  EXPECT_EQ(time, 0);
  EXPECT_GE(clock.now() - test::ManualClock::kStart, 60 * kTicksPerSecond);
}

TEST_F(ProxyOldArchiveReadsTest, TheLastTimeIsAskedOfTheArchivesThatWereRebuilt) {
  const int item = bindItem(7);
  EXPECT_EQ(source->AddValue(item, ArchiveRec(50, OpcUa_VariantHlp())), 0);
  manager().clear();
  start();
  archive(1).add({7, ""}, 0, test::realPins(200, 1));
  long long time = 0;
  EXPECT_EQ(source->GetLastTime(item, time), 0);
  EXPECT_EQ(time, 200);
  host::removeVariable(7);
  manager().clear();
  EXPECT_EQ(source->GetLastTime(item, time), kNotFound);
}

}  // namespace
}  // namespace orva::archive
