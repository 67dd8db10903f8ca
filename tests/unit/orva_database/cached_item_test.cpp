#include <gtest/gtest.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <string>
#include <thread>
#include <vector>

#include "orva_database/pin.h"
#include "orva_host/variables.h"
#include "support/archive_fixture.h"
#include "support/manual_clock.h"
#include "support/trace_capture.h"

namespace orva::cache {
namespace {

using archive::Filter;
using archive::Interval;
using archive::Request;
using archive::SharedInterval;
using archive::SharedItem;
using test::realPin;
using test::realPins;
using test::timesOf;
using Times = std::vector<std::int64_t>;

constexpr std::int64_t kSecondTicks = 10'000'000;

// Says in a common list who was given what.
struct NamedWriter : archive::ILayerWriter {
  NamedWriter(std::string n, std::vector<std::string>& l) : name(std::move(n)), log(l) {}
  void write(const PinPtr& pin) override { log.push_back(name + std::to_string(pin->time)); }
  const std::string name;
  std::vector<std::string>& log;
};

class CachedItemTest : public ::testing::Test {
 protected:
  CachedItemTest() {
    host::clearInstallation();
    describe(0, true);
    describe(1, true);
    describe(2, false);
    item->setFilter(everything());
  }
  ~CachedItemTest() override { host::clearInstallation(); }

  static void describe(std::int32_t number, bool cached, std::int64_t resampleInterval = 0) {
    vm::Layer layer;
    layer.number = number;
    layer.cache = cached;
    layer.resampleInterval = resampleInterval;
    host::setLayer(layer);
  }
  static Filter everything() {
    Filter filter;
    filter.allValues = true;
    return filter;
  }
  void append(const Times& times) {
    for (const std::int64_t time : times) *item << realPin(time, static_cast<double>(time));
  }

  SharedItem query(bool firstLast, std::int64_t start, std::int64_t end, std::int32_t layer) {
    const auto request = boost::make_shared<Request>();
    request->options.startTime = start;
    request->options.endTime = end;
    request->options.layerId = layer;
    const SharedItem asked = request->addItem(1);
    if (firstLast) {
      item->getFirtsLast(asked, request->options);
    } else {
      item->load(asked, request->options);
    }
    requests.push_back(request);
    return asked;
  }
  SharedItem load(std::int64_t start, std::int64_t end, std::int32_t layer = 0) {
    return query(false, start, end, layer);
  }
  SharedItem firstLast(std::int64_t start, std::int64_t end, std::int32_t layer = 0) {
    return query(true, start, end, layer);
  }
  static void answerAll(const SharedItem& asked, const std::vector<PinPtr>& archive) {
    for (const SharedInterval& interval : asked->openIntervals()) {
      const std::vector<PinPtr> pins = test::rightAnswer(*interval, archive);
      interval->push(pins.data(), pins.size());
      interval->finalize();
    }
  }
  bool isCached(int layer) {
    bool cached = false;
    item->visitLayers([&](int number, const Layer& held) {
      if (number == layer) cached = held.cached();
    });
    return cached;
  }

  test::ManualClock clock;
  std::vector<std::string> log;
  NamedWriter raw{"raw", log};
  NamedWriter hours{"hours", log};
  boost::shared_ptr<CachedItem> item = CachedItem::make();
  std::vector<archive::SharedRequest> requests;
};

}  // namespace

TEST_F(CachedItemTest, OfferTellsWhetherTheFilterTookTheSample) {
  EXPECT_EQ(item->offer(realPin(5, 1)), CachedItem::Offer::taken);
  EXPECT_EQ(item->offer(realPin(4, 1)), CachedItem::Offer::refused);
  item->stop();
  EXPECT_EQ(item->offer(realPin(6, 1)), CachedItem::Offer::stopped);
}

TEST_F(CachedItemTest, IsCrowdedWhileTheWriterOfAnyLayerIs) {
  struct : archive::ILayerWriter {
    void write(const PinPtr&) override {}
    bool crowded() const override { return full; }
    bool full = false;
  } calm, busy;
  item->addLayer(calm, 0);
  item->addLayer(busy, 2);
  EXPECT_FALSE(item->crowded());
  busy.full = true;
  EXPECT_TRUE(item->crowded());
}

TEST_F(CachedItemTest, NewItemKnowsNothing) {
  const auto fresh = CachedItem::make();
  EXPECT_FALSE(fresh->first());
  EXPECT_FALSE(fresh->last());
  EXPECT_EQ(fresh->layerCount(), 0U);
  EXPECT_FALSE(fresh->hasLayer(0));
  EXPECT_FALSE(fresh->stopped());
  EXPECT_FALSE(fresh->filter().allValues);
  EXPECT_TRUE(fresh->filter().blocksWrite);
}

// ---- layers

TEST_F(CachedItemTest, LayerFollowsTheHostsDescriptionOfItsNumber) {
  item->addLayer(raw, 0);
  item->addLayer(hours, 2);
  EXPECT_TRUE(item->hasLayer(0));
  EXPECT_FALSE(item->hasLayer(1));
  EXPECT_EQ(item->layerCount(), 2U);
  EXPECT_TRUE(isCached(0));
  EXPECT_FALSE(isCached(2));
  EXPECT_EQ(load(5, 10, 2)->openIntervals()[0]->layer(), 2);
}

TEST_F(CachedItemTest, LayerThatTheHostDoesNotDescribeIsTracedAndNeitherCachedNorResampled) {
  test::TraceCapture traces;
  item->addLayer(raw, 77);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].level, 0x20U);
  EXPECT_NE(traces.lines()[0].text.find("77"), std::string::npos);
  append({1, 2, 3});
  EXPECT_EQ(log, (std::vector<std::string>{"raw1", "raw2", "raw3"}));
  EXPECT_FALSE(isCached(77));
}

TEST_F(CachedItemTest, LayerAddedAgainBeginsAnew) {
  item->addLayer(raw, 0);
  append({1, 2});
  ASSERT_TRUE(item->first());
  item->addLayer(hours, 0);
  EXPECT_EQ(item->layerCount(), 1U);
  EXPECT_FALSE(item->first());
  append({3});
  EXPECT_EQ(log, (std::vector<std::string>{"raw1", "raw2", "hours3"}));
}

TEST_F(CachedItemTest, LayerAddedAgainHandsThePeakOfItsPeriodToTheOldWriter) {
  describe(1, true, kSecondTicks);
  item->addLayer(hours, 1);
  append({1, 2, 3});
  item->addLayer(raw, 1);
  EXPECT_EQ(log, (std::vector<std::string>{"hours1", "hours3"}));
}

// ---- new samples

TEST_F(CachedItemTest, AcceptedSampleGoesToEveryLayerByAscendingNumber) {
  item->addLayer(hours, 2);
  item->addLayer(raw, 0);
  append({1, 2});
  EXPECT_EQ(log, (std::vector<std::string>{"raw1", "hours1", "raw2", "hours2"}));
  EXPECT_EQ(item->last()->time, 2);
}

TEST_F(CachedItemTest, RefusedSampleGoesNowhere) {
  item->addLayer(raw, 0);
  item->setFilter(Filter());
  append({1, 2});
  EXPECT_EQ(log, (std::vector<std::string>{"raw1"}));
  EXPECT_EQ(item->last()->time, 1) << "it is no reason to refuse the next one";
  EXPECT_EQ(timesOf(load(1, 0)), (Times{1}));
}

TEST_F(CachedItemTest, FilterIsAskedWithTheSampleAcceptedLast) {
  Filter filter;
  filter.maxWritePeriod = 10;
  item->setFilter(filter);
  item->addLayer(raw, 0);
  append({100, 108, 112, 123});
  EXPECT_EQ(log, (std::vector<std::string>{"raw100", "raw112", "raw123"}));
}

TEST_F(CachedItemTest, FilterIsHandedOutAsACopyAndChangedFieldByField) {
  Filter copy = item->filter();
  EXPECT_TRUE(copy.allValues);
  copy.allValues = false;
  EXPECT_TRUE(item->filter().allValues);
  item->updateFilter([](Filter& filter) { filter.minWritePeriod = 7; });
  EXPECT_TRUE(item->filter().allValues);
  EXPECT_EQ(item->filter().minWritePeriod, 7);
}

// Whoever finds none sets the fields again later, on the filter that comes with the layer.
TEST_F(CachedItemTest, AChangeOfTheFilterTellsWhetherLayerZeroWasThere) {
  const auto change = [](Filter& filter) { filter.deadband = 1; };
  EXPECT_FALSE(item->updateFilter(change));
  item->addLayer(hours, 1);
  EXPECT_FALSE(item->updateFilter(change));
  item->addLayer(raw, 0);
  EXPECT_TRUE(item->updateFilter(change));
  item->stop();
  EXPECT_FALSE(item->updateFilter(change));
}

TEST_F(CachedItemTest, ALayerThatComesDuringAChangeOfTheFilterIsNotSeenByIt) {
  for (int round = 0; round < 200; ++round) {
    item = CachedItem::make();
    std::thread other;
    EXPECT_FALSE(item->updateFilter([&](Filter&) {
      other = std::thread([this] { item->addLayer(raw, 0); });
      for (int i = 0; i < 50; ++i) std::this_thread::yield();
    }));
    other.join();
    EXPECT_TRUE(item->hasLayer(0));
  }
}

TEST_F(CachedItemTest, ForgottenLastSampleLetsTheNextOnePass) {
  append({5});
  item->setFilter(Filter());
  item->forgetLast();
  EXPECT_FALSE(item->last());
  item->addLayer(raw, 0);
  append({3});
  EXPECT_EQ(log, (std::vector<std::string>{"raw3"}));
}

// ---- reads

TEST_F(CachedItemTest, ReadGoesToTheLayerThatTheOptionsName) {
  item->addLayer(raw, 0);
  item->addLayer(hours, 1);
  append({10, 20, 30});
  EXPECT_EQ(timesOf(load(15, 0, 0)), (Times{20, 30}));
  EXPECT_EQ(timesOf(load(15, 0, 1)), (Times{20, 30}));
  EXPECT_EQ(load(40, 50, 1)->openIntervals()[0]->layer(), 1);
  EXPECT_EQ(firstLast(40, 50, 1)->openIntervals()[0]->layer(), 1);
}

TEST_F(CachedItemTest, ReadOfALayerTheItemDoesNotHaveLeavesTheRequestUntouched) {
  item->addLayer(raw, 0);
  append({10, 20});
  for (const SharedItem& asked : {load(5, 0, 1), firstLast(5, 0, 1), load(5, 0, -1)}) {
    EXPECT_TRUE(asked->values().empty());
    EXPECT_TRUE(asked->openIntervals().empty());
    EXPECT_FALSE(asked->isFinal());
  }
  const auto request = boost::make_shared<Request>();
  request->options.layerId = 1;
  EXPECT_FALSE(item->getFirtsLast(request->addItem(1), request->options));
}

TEST_F(CachedItemTest, DrainTakesFetchedSamplesIntoEveryLayer) {
  item->addLayer(raw, 0);
  item->addLayer(hours, 1);
  answerAll(load(5, 0, 0), realPins(10, 20));
  answerAll(load(5, 0, 1), realPins(10, 20));
  item->drain();
  int blocks = 0;
  item->visitLayers([&](int, const Layer& layer) { blocks += layer.oldest() != nullptr; });
  EXPECT_EQ(blocks, 2);
}

// ---- first and last

TEST_F(CachedItemTest, FirstIsTheOldestSampleOfTheLowestLayer) {
  describe(1, true, kSecondTicks);
  item->addLayer(hours, 1);
  append({1});
  item->addLayer(raw, 0);
  append({2});
  EXPECT_EQ(item->first()->time, 2);
}

TEST_F(CachedItemTest, FirstAndLastReadTeachTheItemWithoutAnotherRead) {
  item->addLayer(raw, 0);
  answerAll(firstLast(0, 0), realPins(10, 20));
  EXPECT_EQ(item->last()->time, 29);
  EXPECT_EQ(item->first()->time, 10);
}

TEST_F(CachedItemTest, LastIsTheLaterOfTheAcceptedAndTheLearntSample) {
  item->addLayer(raw, 0);
  answerAll(firstLast(0, 0), realPins(10, 20));
  append({20});
  EXPECT_EQ(item->last()->time, 29);
  append({40});
  EXPECT_EQ(item->last()->time, 40);
}

TEST_F(CachedItemTest, FirstIsTheOlderOfTheHeldAndTheLearntSample) {
  item->addLayer(raw, 0);
  append({50});
  EXPECT_EQ(item->first()->time, 50);
  answerAll(firstLast(0, 45), realPins(10, 20));
  EXPECT_EQ(item->first()->time, 10);
  answerAll(firstLast(5, 45), realPins(20, 5));
  EXPECT_EQ(item->first()->time, 10);
}

// What an archive teaches goes outward only: the filter relies on the sample accepted last.
TEST_F(CachedItemTest, SampleIsAcceptedAfterALastValueWasLearnt) {
  item->addLayer(raw, 0);
  item->setFilter(Filter());
  answerAll(firstLast(0, 0), realPins(10, 20));
  ASSERT_EQ(item->last()->time, 29);
  append({15});
  EXPECT_EQ(log, (std::vector<std::string>{"raw15"}));
}

TEST_F(CachedItemTest, FailedAndClosedAnswersTeachNothing) {
  item->addLayer(raw, 0);
  const SharedItem failed = firstLast(0, 0);
  for (const SharedInterval& interval : failed->openIntervals()) interval->fail(0x80050000);
  answerAll(failed, realPins(10, 20));
  const SharedItem closed = firstLast(0, 0);
  const auto open = closed->openIntervals();
  for (const SharedInterval& interval : open) interval->push(realPin(10, 0));
  closed->close();
  for (const SharedInterval& interval : open) interval->finalize();
  answerAll(firstLast(0, 0), {});
  EXPECT_FALSE(item->last());
  EXPECT_FALSE(item->first());
}

TEST_F(CachedItemTest, AnswerForAnItemThatIsGoneGoesNowhere) {
  item->addLayer(raw, 0);
  const SharedItem asked = firstLast(0, 0);
  item.reset();
  answerAll(asked, realPins(10, 20));
  EXPECT_EQ(timesOf(asked), (Times{10, 29}));
}

TEST_F(CachedItemTest, CompletedIntervalsMayBringFirstAndLastUpToDate) {
  const auto completed = [this](const std::vector<PinPtr>& pins) {
    requests.push_back(boost::make_shared<Request>());
    const SharedInterval interval = requests.back()->addItem(1)->addInterval(0, 0, 0);
    interval->push(pins.data(), pins.size());
    interval->finalize();
    return interval;
  };
  item->updateFirst(completed(realPins(10, 3)));
  item->updateLast(completed(realPins(10, 3)));
  EXPECT_EQ(item->first()->time, 10);
  EXPECT_EQ(item->last()->time, 12);
  for (const SharedInterval& other :
       {completed(realPins(11, 1)), completed({}), SharedInterval()}) {
    item->updateFirst(other);
    item->updateLast(other);
    EXPECT_EQ(item->first()->time, 10);
    EXPECT_EQ(item->last()->time, 12);
  }
}

// ---- its end

TEST_F(CachedItemTest, StopResetsTheFilterAndRemovesTheLayersButKeepsTheLastSample) {
  item->addLayer(raw, 0);
  append({1, 2});
  item->stop();
  EXPECT_TRUE(item->stopped());
  EXPECT_EQ(item->layerCount(), 0U);
  EXPECT_FALSE(item->filter().allValues);
  EXPECT_EQ(item->last()->time, 2);
  log.clear();
  append({3});
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(item->last()->time, 2) << "the default filter refuses all but a first sample";
  item->setFilter(everything());
  append({4});
  EXPECT_EQ(item->last()->time, 4);
}

TEST_F(CachedItemTest, WriteTellsThatTheItemIsStoppedAndLeavesItAlone) {
  item->addLayer(raw, 0);
  EXPECT_TRUE(item->write(realPin(1, 1)));
  EXPECT_EQ(log.size(), 1U);
  item->stop();
  item->setFilter(everything());
  EXPECT_FALSE(item->write(realPin(2, 2)));
  EXPECT_EQ(item->last()->time, 1);
}

TEST_F(CachedItemTest, StoppedItemWithoutALastSampleAcceptsOne) {
  item->stop();
  append({3, 4});
  EXPECT_EQ(item->last()->time, 3);
}

TEST_F(CachedItemTest, StopHandsThePeakOfThePeriodToTheWriter) {
  describe(1, true, kSecondTicks);
  item->addLayer(hours, 1);
  append({1, 2, 3});
  EXPECT_EQ(log, (std::vector<std::string>{"hours1"}));
  item->stop();
  EXPECT_EQ(log, (std::vector<std::string>{"hours1", "hours3"}));
}

TEST_F(CachedItemTest, StopEmptiesWhatWasLearntButNotTakenIn) {
  item->addLayer(raw, 0);
  answerAll(firstLast(0, 0), realPins(10, 20));
  item->stop();
  EXPECT_FALSE(item->last());
}

// ---- threads

TEST_F(CachedItemTest, WritersReadersAndChangesOfTheFilterRunTogether) {
  struct Nowhere : archive::ILayerWriter {
    void write(const PinPtr&) override { ++count; }
    int count = 0;  // never twice at once for one writer
  } nowhere;
  constexpr int kRounds = 300;
  item->addLayer(nowhere, 0);
  std::atomic<std::int64_t> time{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < kRounds; ++k) *item << realPin(++time, k);
    });
  }
  threads.emplace_back([&] {
    for (int k = 0; k < kRounds; ++k) {
      const auto request = boost::make_shared<Request>();
      request->options.startTime = 1;
      const SharedItem asked = request->addItem(1);
      item->load(asked, request->options);
      const Times times = timesOf(asked);
      EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
      answerAll(asked, {});
    }
  });
  threads.emplace_back([&] {
    for (int k = 0; k < kRounds; ++k) {
      item->updateFilter([](Filter& filter) { filter.allValues = true; });
      item->first();
      item->last();
      item->filter();
      item->drain();
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(nowhere.count, 0);
  EXPECT_LE(nowhere.count, 2 * kRounds) << "a writer overtaken by the other is refused";
}

}  // namespace orva::cache
