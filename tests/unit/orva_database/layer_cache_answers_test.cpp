#include <algorithm>
#include <limits>

#include "orva_database/sampling.h"
#include "unit/orva_database/layer_fixture.h"

// What a layer gives from its blocks, and what exactly it asks the archive for.

namespace orva::cache {
namespace {

using archive::SharedItem;
using test::realPin;
using test::realPins;
using test::timesOf;

constexpr std::int64_t kEarliest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLatest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kTenth = 1'000'000;  // of a second

}  // namespace

class LayerReadTest : public LayerFixture {
 protected:
  // Appended: 10, 20, ... 50 in blocks of two: [10 20] [30 40] [50]. The archive begins at 10.
  void appendFive() {
    makeSmall(2);
    appendPins(archive = samples({10, 20, 30, 40, 50}));
  }
  // Fetched and not appended: 10, 20, ... 60 in one block.
  void fetchSix() {
    makeSmall(10);
    archive = samples({10, 20, 30, 40, 50, 60});
    read({5, 65}, archive);
    ASSERT_EQ(blocks().size(), 1U);
  }
  // Drops the blocks of these times, which are in the oldest queue; the others were used since.
  void evictBlocksBut(const Times& kept) {
    for (std::size_t i = 0; i < kFirstIn; ++i) Layer::storage->make_new();
    for (const std::int64_t time : kept) load({time, time + 1, 1});
    for (std::size_t i = 0; i < kFirstIn + kProbation; ++i) Layer::storage->make_new();
  }
  static constexpr unsigned kTotal = 80;
  static constexpr std::size_t kFirstIn = kTotal / 4;
  static constexpr std::size_t kProbation = kTotal / 2;

  std::vector<PinPtr> archive;
};

// ---- uncached layers

TEST_F(LayerReadTest, UncachedLayerAsksForTheWholeRangeInOneInterval) {
  makeLayer(description(false));
  append({10, 20});
  const SharedItem item = load({5, 50});
  EXPECT_EQ(asked(item), (AllAsked{{5, 50}}));
  EXPECT_EQ(item->openIntervals()[0]->layer(), 3);
  EXPECT_EQ(asked(load({0, 0})), (AllAsked{{0, 0}}));
  EXPECT_EQ(asked(load({7, 7})), (AllAsked{{7, 7}})) << "equal ends are passed on";
}

TEST_F(LayerReadTest, UncachedLayerAsksForTheBoundsWithTheRange) {
  makeLayer(description(false));
  const SharedItem item = load({5, 50, 0, true});
  ASSERT_EQ(asked(item), (AllAsked{{5, 50}}));
  EXPECT_TRUE(item->openIntervals()[0]->bounds().left);
  EXPECT_TRUE(item->openIntervals()[0]->bounds().right);
  answerAll(item, samples({3, 4, 10, 50, 60, 70}));
  EXPECT_EQ(timesOf(item), (Times{4, 10, 50, 60}));
}

TEST_F(LayerReadTest, UncachedLayerAsksForNoBoundThatCannotBe) {
  makeLayer(description(false));
  const auto boundsOf = [this](const Range& range) {
    return load(range)->openIntervals()[0]->bounds();
  };
  EXPECT_FALSE(boundsOf({5, 50}).left);
  EXPECT_FALSE(boundsOf({5, 50}).right);
  EXPECT_FALSE(boundsOf({1, 50, 0, true}).left)
      << "nothing lies before tick 1 but time 0, which is open";
  EXPECT_FALSE(boundsOf({0, 50, 0, true}).left);
  EXPECT_FALSE(boundsOf({5, 0, 0, true}).right);
  EXPECT_FALSE(boundsOf({5, kLatest, 0, true}).right);
  EXPECT_FALSE(boundsOf({5, 50, 0, true, 20}).left) << "on the first page only";
  EXPECT_TRUE(boundsOf({5, 50, 0, true, 20}).right);
}

TEST_F(LayerReadTest, UncachedLayerReadsOnFromAContinuationPoint) {
  makeLayer(description(false));
  EXPECT_EQ(asked(load({5, 50, 0, false, 20})), (AllAsked{{20, 50}}));
  EXPECT_EQ(asked(load({5, 50, 0, false, 3})), (AllAsked{{5, 50}}));
  EXPECT_EQ(asked(load({5, 50, 0, false, 51})), AllAsked());
  EXPECT_EQ(asked(load({5, 50, 0, true, 51})), (AllAsked{{51, 0, Kind::oldest}}));
}

TEST_F(LayerReadTest, JoinedPagesWithBoundsOfAnUncachedLayerAreTheOneRead) {
  makeLayer(description(false));
  archive = samples({3, 4, 10, 20, 30, 50, 60, 70});
  for (const std::uint32_t limit : {1U, 2U, 3U, 4U}) {
    EXPECT_EQ(readPages({5, 50, limit, true}, archive), (Times{4, 10, 20, 30, 50, 60})) << limit;
  }
}

// ---- what needs no archive

TEST_F(LayerReadTest, ReadOverJoinedBlocksNeedsNoArchive) {
  appendFive();
  const SharedItem item = load({15, 45});
  EXPECT_EQ(timesOf(item), (Times{20, 30, 40}));
  EXPECT_EQ(asked(item), AllAsked());
}

TEST_F(LayerReadTest, LoadSaysWhetherTheCacheGaveAnything) {
  appendFive();
  const SharedItem some = newItem({15, 45});
  EXPECT_TRUE(layer->load(some, requests.back()->options));
  const SharedItem none = newItem({60, 70});
  EXPECT_FALSE(layer->load(none, requests.back()->options));
}

TEST_F(LayerReadTest, ReadUpToTheNewestSampleIsOpen) {
  appendFive();
  const SharedItem item = load({15, 0});
  EXPECT_EQ(timesOf(item), (Times{20, 30, 40, 50}));
  EXPECT_EQ(asked(item), AllAsked());
}

TEST_F(LayerReadTest, EndBetweenTwoJoinedBlocksIsReached) {
  appendFive();
  EXPECT_EQ(asked(load({15, 25})), AllAsked());
  EXPECT_EQ(asked(load({22, 28})), AllAsked()) << "nothing lies there";
}

TEST_F(LayerReadTest, WhatLiesBeyondTheNewestSampleIsAskedFor) {
  appendFive();
  const SharedItem item = load({45, 60});
  EXPECT_EQ(timesOf(item), (Times{50}));
  EXPECT_EQ(asked(item), (AllAsked{{50, 60}}));
  EXPECT_EQ(asked(load({55, 60})), (AllAsked{{55, 60}}));
  EXPECT_EQ(asked(load({45, 50})), AllAsked());
}

TEST_F(LayerReadTest, WhatLiesBeforeTheFirstSampleIsAskedFor) {
  appendFive();
  EXPECT_EQ(asked(load({5, 15})), (AllAsked{{5, 10}}));
  EXPECT_EQ(asked(load({0, 15})), (AllAsked{{0, 10}}));
  EXPECT_EQ(asked(load({10, 15})), (AllAsked{{10, 10}})) << "more of the first time may be there";
}

TEST_F(LayerReadTest, EmptyLayerAsksForEverything) {
  EXPECT_EQ(asked(load({5, 60})), (AllAsked{{5, 60}}));
  EXPECT_EQ(asked(load({5, 0})), (AllAsked{{5, 0}})) << "it has no newest sample";
  EXPECT_EQ(asked(load({0, 0})), (AllAsked{{0, 0}}));
}

// The clock, which keys an empty block, lies before what was fetched.
TEST_F(LayerReadTest, OpenReadWithAClockBehindTheArchiveGivesItAll) {
  clock.setTime(25);
  makeLayer();
  makeSmall(10);
  archive = samples({10, 20, 30, 40});
  EXPECT_EQ(read({5, 0}, archive), (Times{10, 20, 30, 40}));
  const SharedItem item = load({5, 0});
  EXPECT_EQ(timesOf(item), (Times{10, 20, 30, 40})) << "the empty block's key is no boundary";
  EXPECT_EQ(asked(item), (AllAsked{{5, 10}, {40, 0}}));
  EXPECT_EQ(asked(load({12, 38})), AllAsked());
}

TEST_F(LayerReadTest, EmptyBlockAppendedToIsNoBoundaryBetweenJoinedBlocks) {
  clock.setTime(25);
  makeLayer();
  makeSmall(2, 3);
  archive = samples({10, 20, 30, 40});
  read({5, 0}, archive);
  ASSERT_EQ(keys(), (Times{0, 10, 25, 30}));
  EXPECT_EQ(asked(load({15, 35})), AllAsked());
  EXPECT_EQ(timesOf(load({15, 35})), (Times{20, 30}));
  EXPECT_EQ(asked(load({22, 28, 0, true})), AllAsked());
  EXPECT_EQ(timesOf(firstLast({22, 38})), (Times{30}));
}

TEST_F(LayerReadTest, FetchedStretchIsReadFromTheCacheFromThenOn) {
  fetchSix();
  const SharedItem item = load({15, 55});
  EXPECT_EQ(timesOf(item), (Times{20, 30, 40, 50}));
  EXPECT_EQ(asked(item), AllAsked());
}

TEST_F(LayerReadTest, BlockOutsideTheRangeGivesNothing) {
  fetchSix();
  EXPECT_EQ(timesOf(load({70, 80})), Times());
  EXPECT_EQ(timesOf(load({1, 9})), Times());
  EXPECT_EQ(timesOf(load({21, 29})), Times()) << "between two samples of the block";
  EXPECT_EQ(asked(load({21, 29})), AllAsked());
  EXPECT_EQ(asked(load({1, 9})), (AllAsked{{1, 9}}));
}

// Whoever loads finalises, once it has seen that nothing is open: never the layer.
TEST_F(LayerReadTest, LoadingFinalisesNoItem) {
  appendFive();
  EXPECT_FALSE(load({15, 45})->isFinal());
  EXPECT_FALSE(firstLast({15, 45})->isFinal());
  EXPECT_FALSE(load({40, 20})->isFinal());
}

TEST_F(LayerReadTest, NegativeLayerNumberIsAskedForAsItIs) {
  vm::Layer every = description();
  every.number = -1;
  makeLayer(every);
  EXPECT_EQ(load({5, 50})->openIntervals()[0]->layer(), -1);
  EXPECT_EQ(firstLast({5, 50})->openIntervals()[0]->layer(), -1);
}

// Stays as it is: from its first sample on the block appended to rules.
TEST_F(LayerReadTest, SpanOfABlockThatBeganOlderMissesWhatTheArchiveHasThere) {
  archive = samples({10, 20, 30, 40, 50});
  append({25, 45});
  const SharedItem item = load({26, 44});
  EXPECT_EQ(timesOf(item), Times());
  EXPECT_EQ(asked(item), AllAsked()) << "30 and 40 lie in its span";
  EXPECT_EQ(asked(load({5, 44})), (AllAsked{{5, 25}}));
}

// ---- ranges that are none

TEST_F(LayerReadTest, ReversedRangeGivesNothingAndAsksForNothing) {
  appendFive();
  for (const bool cached : {true, false}) {
    if (!cached) makeLayer(description(false));
    const SharedItem item = load({40, 20, 0, true});
    EXPECT_EQ(timesOf(item), Times());
    EXPECT_EQ(asked(item), AllAsked());
  }
}

TEST_F(LayerReadTest, RangeOfEqualEndsIsEmptyOnACachedLayer) {
  appendFive();
  const SharedItem item = load({30, 30});
  EXPECT_EQ(timesOf(item), Times());
  EXPECT_EQ(asked(item), AllAsked());
  EXPECT_EQ(timesOf(load({30, 30, 0, true})), (Times{20, 40})) << "bounds apart";
  EXPECT_EQ(timesOf(load({30, 30, 0, true, 30})), (Times{40})) << "on each page";
}

TEST_F(LayerReadTest, StartBelowZeroIsTheBeginning) {
  appendFive();
  EXPECT_EQ(asked(load({-50, 15})), (AllAsked{{0, 10}}));
  EXPECT_EQ(asked(load({kEarliest, 15, 0, true})), (AllAsked{{0, 10}}));
}

// ---- gaps

TEST_F(LayerReadTest, EvictedBlockIsAskedForExactly) {
  Layer::storage = BlockStorage::make(kTotal);
  makeLayer();
  makeSmall(2);
  appendPins(archive = samples({10, 20, 30, 40, 50, 60, 70, 80, 90}));
  evictBlocksBut({10, 30, 70, 90});
  ASSERT_EQ(blocks(), (std::vector<Times>{{10, 20}, {30, 40}, {70, 80}, {90}}));
  const SharedItem item = load({15, 90});
  EXPECT_EQ(asked(item), (AllAsked{{40, 70}}));
  answerAll(item, archive);
  EXPECT_EQ(timesOf(item), (Times{20, 30, 40, 50, 60, 70, 80, 90}));
}

TEST_F(LayerReadTest, EvictedEndOfTheRangeIsAskedForExactly) {
  Layer::storage = BlockStorage::make(kTotal);
  makeLayer();
  makeSmall(2);
  appendPins(archive = samples({10, 20, 30, 40, 50, 60, 70}));
  evictBlocksBut({10, 50});
  EXPECT_EQ(asked(load({15, 35})), (AllAsked{{20, 35}}));
  EXPECT_EQ(asked(load({35, 65})), (AllAsked{{35, 50}}));
  EXPECT_EQ(asked(load({32, 38})), (AllAsked{{32, 38}}));
}

// Half of the evicted block comes back under its key: what it gave before is not proven joined.
TEST_F(LayerReadTest, RestOfAnEvictedBlockIsAskedForWhenHalfOfItWasEnteredUnderItsKey) {
  Layer::storage = BlockStorage::make(kTotal);
  makeLayer();
  makeSmall(4);
  appendPins(archive = samples({10, 20, 30, 40, 50, 60, 70, 80, 90}));
  evictBlocksBut({10});
  ASSERT_EQ(blocks(), (std::vector<Times>{{10, 20, 30, 40}, {90}}));
  read({50, 75, 2}, archive);  // 50, 60, 70 are pushed, the last time is not cached
  makeSmall(4, 2);
  read({50, 65}, archive);
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20, 30, 40}, {50, 60}, {90}}));
  const SharedItem item = load({15, 90});
  EXPECT_EQ(asked(item), (AllAsked{{40, 50}, {60, 90}}));
  answerAll(item, archive);
  EXPECT_EQ(timesOf(item), (Times{20, 30, 40, 50, 60, 70, 80, 90}));
}

TEST_F(LayerReadTest, WalkRemovesExpiredEntriesAndTheMarkOfTheNext) {
  Layer::storage = BlockStorage::make(kTotal);
  makeLayer();
  makeSmall(2);
  appendPins(archive = samples({10, 20, 30, 40, 50, 60, 70}));
  evictBlocksBut({10, 50});
  EXPECT_EQ(keys(), (Times{0, 10, 30, 50, 70}));
  load({5, 0});
  EXPECT_EQ(keys(), (Times{0, 10, 50, 70}));
  EXPECT_EQ(joined(), (std::vector<bool>{false, false, true}));
}

TEST_F(LayerReadTest, LowerEndAndTheBlockAppendedToStayAfterAnyWalk) {
  evictAll();
  load({0, 0});
  load({1, kLatest});
  ASSERT_EQ(layer->describe().size(), 2U);
  EXPECT_EQ(keys(), (Times{0, test::ManualClock::kStart}));
  EXPECT_TRUE(layer->describe()[1].last);
  append({5});
  evictAll();
  load({0, 0});
  EXPECT_EQ(keys(), (Times{0, 5}));
  EXPECT_EQ(timesOf(load({5, 0})), (Times{5}));
}

TEST_F(LayerReadTest, GapBetweenTwoFetchedStretchesIsAskedForWithItsEdges) {
  makeSmall(10);
  archive = samples({10, 20, 30, 40, 50, 60, 70, 80});
  read({5, 32}, archive);
  read({58, 85}, archive);
  const SharedItem item = load({15, 75});
  EXPECT_EQ(timesOf(item), (Times{20, 30, 60, 70}));
  EXPECT_EQ(asked(item), (AllAsked{{30, 60}}));
  answerAll(item, archive);
  EXPECT_EQ(timesOf(item), (Times{20, 30, 40, 50, 60, 70})) << "edges are not given twice";
}

// ---- limits and pages

TEST_F(LayerReadTest, NoMoreThanOneValueBeyondTheLimitIsHandedOver) {
  appendPins(archive = realPins(10, 500));
  const SharedItem item = load({11, 400, 20});
  EXPECT_EQ(item->valueCount(), 21U);
  EXPECT_EQ(asked(item), AllAsked());
  item->finalize();
  EXPECT_EQ(item->status(), 0x00A60000U);
  EXPECT_EQ(item->continuationPoint().value_or(0), 31);
}

// The limit is met at the newest sample: whether more follows is not known, and is not asked.
TEST_F(LayerReadTest, WalkStoppedAtItsLimitMarksTheAnswerCutInsteadOfAsking) {
  appendFive();
  const SharedItem item = load({45, 90, 1});
  EXPECT_EQ(timesOf(item), (Times{50}));
  EXPECT_EQ(asked(item), AllAsked());
  EXPECT_TRUE(item->cut());
  item->finalize();
  EXPECT_EQ(item->status(), 0U);
  EXPECT_FALSE(load({45, 50, 1})->cut()) << "the end is reached there";
  EXPECT_EQ(asked(load({45, 90, 1, false, 51})), (AllAsked{{51, 90}}))
      << "the next page may be empty";
}

TEST_F(LayerReadTest, WalkStoppedAtItsLimitAddsOneSampleThatLiveBlocksVouchFor) {
  appendFive();
  const SharedItem item = load({15, 90, 3});
  EXPECT_EQ(timesOf(item), (Times{20, 30, 40, 50})) << "over a block's end";
  EXPECT_FALSE(item->cut());
}

TEST_F(LayerReadTest, CutBeforeAGapDoesNotAskForTheGap) {
  makeSmall(10);
  archive = samples({10, 20, 30, 40, 50, 60, 70, 80});
  read({5, 32}, archive);
  read({58, 85}, archive);
  const SharedItem item = load({15, 75, 2});
  EXPECT_EQ(timesOf(item), (Times{20, 30}));
  EXPECT_EQ(asked(item), AllAsked());
  EXPECT_TRUE(item->cut());
}

// Samples one tick apart, one to a page: 10, 11, limit 1.
TEST_F(LayerReadTest, EndReachedExactlyIsStillAskedForUnlessABlockVouches) {
  makeSmall(10, 2);
  archive = samples({10, 11});
  EXPECT_EQ(readPages({10, 11, 1}, archive), (Times{10, 11}));
  EXPECT_EQ(readPages({10, 11, 1}, archive), (Times{10, 11})) << "from what was cached meanwhile";
  EXPECT_EQ(asked(load({10, 12, 0, false, 12})), (AllAsked{{12, 12}}));
}

TEST_F(LayerReadTest, OpenReadFromTheNewestSampleGivesIt) {
  append({10, 20});
  const SharedItem item = load({20, 0});
  EXPECT_EQ(timesOf(item), (Times{20}));
  EXPECT_EQ(asked(item), AllAsked());
}

TEST_F(LayerReadTest, JoinedPagesAreTheOneRead) {
  archive = realPins(10, 2500);
  for (const std::uint32_t limit : {1000U, 500U, 250U, 1U}) {
    makeLayer();
    appendPins(archive);
    EXPECT_EQ(readPages({1, 0, limit}, archive), timesOf(archive)) << "appended, " << limit;
    makeLayer();
    if (limit != 1) {
      EXPECT_EQ(readPages({1, 0, limit}, archive), timesOf(archive)) << "fetched, " << limit;
    }
    evictAll();
  }
}

TEST_F(LayerReadTest, PagesWhileSamplesAreAppendedSkipNothing) {
  appendFive();
  Range range{15, 0, 2};
  SharedItem item = load(range);
  item->finalize();
  EXPECT_EQ(timesOf(item), (Times{20, 30}));
  append({60, 70});
  range.point = item->continuationPoint();
  item = load(range);
  item->finalize();
  EXPECT_EQ(timesOf(item), (Times{40, 50}));
  range.point = item->continuationPoint();
  item = load(range);
  item->finalize();
  EXPECT_EQ(timesOf(item), (Times{60, 70}));
}

// Any 64-bit number is a continuation point.
TEST_F(LayerReadTest, EveryContinuationPointGetsAnOrdinaryAnswer) {
  appendFive();
  EXPECT_EQ(timesOf(load({15, 45, 0, false, kEarliest})), (Times{20, 30, 40}));
  EXPECT_EQ(timesOf(load({15, 45, 0, false, -1})), (Times{20, 30, 40}));
  EXPECT_EQ(timesOf(load({15, 45, 0, false, 30})), (Times{30, 40}));
  const SharedItem item = load({15, 45, 0, false, kLatest});
  EXPECT_EQ(timesOf(item), Times());
  EXPECT_EQ(asked(item), AllAsked());
  item->finalize();
  EXPECT_FALSE(item->continuationPoint());
  EXPECT_EQ(asked(load({15, 0, 0, false, kLatest})), AllAsked());
}

TEST_F(LayerReadTest, PageThatCutsThroughEqualTimesGoesOnAfterThem) {
  makeSmall(10);
  appendPins(samples({10, 20, 20, 20, 30}));
  EXPECT_EQ(readPages({15, 0, 2}, {}), (Times{20, 20, 30}));
}

// ---- equal times at block boundaries

TEST_F(LayerReadTest, EqualTimesOverABlocksEndAreReadFromAndTo) {
  makeSmall(2);
  archive = samples({10, 20, 20, 20, 30});
  appendPins(archive);  // [10 20] [20 20] [30]
  EXPECT_EQ(timesOf(load({20, 25})), (Times{20, 20, 20})) << "begins one entry earlier";
  EXPECT_EQ(timesOf(load({15, 20})), (Times{20, 20, 20})) << "goes on after it";
  EXPECT_EQ(asked(load({20, 25})), AllAsked());
  EXPECT_EQ(asked(load({15, 20})), AllAsked());
}

TEST_F(LayerReadTest, TimeWhoseFirstSamplesAreGoneIsAskedFor) {
  Layer::storage = BlockStorage::make(kTotal);
  makeLayer();
  makeSmall(2);
  archive = samples({10, 20, 20, 20, 30});
  appendPins(archive);
  for (std::size_t i = 0; i < kFirstIn; ++i) Layer::storage->make_new();
  load({25, 26, 0, true});  // its left bound is all that is used
  for (std::size_t i = 0; i < kFirstIn + kProbation; ++i) Layer::storage->make_new();
  ASSERT_EQ(blocks(), (std::vector<Times>{{20, 20}, {30}}));
  const SharedItem item = load({20, 30});
  EXPECT_EQ(asked(item), (AllAsked{{20, 20}}));
  answerAll(item, archive);
  EXPECT_EQ(timesOf(item), (Times{20, 20, 20, 30}));
}

TEST_F(LayerReadTest, MoreThanTwoBlocksOfOneTimeAreReadWithTheLostOnesAskedFor) {
  const std::vector<PinPtr> all = samples(Times(2500, 7));
  appendPins(all);
  const SharedItem item = load({5, 0});
  EXPECT_EQ(asked(item), (AllAsked{{5, 7}, {7, 7}}));
  answerAll(item, all);
  ASSERT_EQ(item->valueCount(), 2500U);
  std::size_t i = 0;
  for (const PinPtr& pin : item->values()) ASSERT_EQ(pin, all[i++]) << "in order of arrival";
}

TEST_F(LayerReadTest, FirstSampleAtTimeZeroIsReadAndNothingBeforeItIsAskedFor) {
  append({0, 10});
  const SharedItem item = load({0, 10});
  EXPECT_EQ(timesOf(item), (Times{0, 10}));
  EXPECT_EQ(asked(item), AllAsked());
}

// ---- bounds

TEST_F(LayerReadTest, BoundsComeFromTheCacheWhereLiveBlocksSpanThem) {
  appendFive();
  const SharedItem item = load({25, 35, 0, true});
  EXPECT_EQ(timesOf(item), (Times{20, 30, 40}));
  EXPECT_EQ(asked(item), AllAsked());
}

TEST_F(LayerReadTest, BoundsLieBeyondSamplesRightAtTheEdges) {
  appendFive();
  const SharedItem item = load({20, 40, 0, true});
  EXPECT_EQ(timesOf(item), (Times{10, 20, 30, 40, 50}));
  EXPECT_EQ(asked(item), AllAsked());
}

TEST_F(LayerReadTest, BoundOverAJoinedBoundaryComesFromTheNeighbour) {
  appendFive();  // [10 20] [30 40] [50]
  EXPECT_EQ(timesOf(load({30, 42, 0, true})), (Times{20, 30, 40, 50}));
  EXPECT_EQ(asked(load({30, 42, 0, true})), AllAsked());
  EXPECT_EQ(timesOf(load({22, 28, 0, true})), (Times{20, 30}));
}

TEST_F(LayerReadTest, BoundsTheCacheCannotVouchForAreAskedFor) {
  appendFive();
  EXPECT_EQ(asked(load({10, 15, 0, true})), (AllAsked{{0, 9, Kind::newest}, {10, 10}}));
  EXPECT_EQ(asked(load({45, 50, 0, true})), (AllAsked{{51, 0, Kind::oldest}}));
  EXPECT_EQ(asked(load({60, 70, 0, true})),
            (AllAsked{{0, 59, Kind::newest}, {60, 70}, {71, 0, Kind::oldest}}));
}

TEST_F(LayerReadTest, BoundBesideAnUnjoinedBlockIsAskedFor) {
  makeSmall(10);
  archive = samples({10, 20, 30, 40, 50, 60, 70, 80});
  read({5, 32}, archive);
  read({58, 85}, archive);
  EXPECT_EQ(asked(load({60, 75, 0, true})), (AllAsked{{0, 59, Kind::newest}}));
  EXPECT_EQ(asked(load({15, 30, 0, true})), (AllAsked{{31, 0, Kind::oldest}}));
}

TEST_F(LayerReadTest, MissingBoundsAreLeftOut) {
  archive = samples({10, 20});
  EXPECT_EQ(read({5, 25, 0, true}, archive), (Times{10, 20}));
}

TEST_F(LayerReadTest, OpenAndExtremeEndsHaveNoBound) {
  appendFive();
  EXPECT_EQ(asked(load({0, 0, 0, true})), (AllAsked{{0, 10}}));
  EXPECT_EQ(asked(load({1, 0, 0, true})), (AllAsked{{1, 10}}))
      << "no interval may end at 0 by accident";
  EXPECT_EQ(asked(load({2, 0, 0, true})), (AllAsked{{0, 1, Kind::newest}, {2, 10}}));
  EXPECT_EQ(asked(load({45, kLatest, 0, true})), (AllAsked{{50, kLatest}}));
}

TEST_F(LayerReadTest, LeftBoundComesOnTheFirstPageRightBoundOnTheLast) {
  appendFive();
  const SharedItem first = load({15, 45, 2, true});
  first->finalize();
  EXPECT_EQ(timesOf(first), (Times{10, 20}));
  const SharedItem second = load({15, 45, 2, true, first->continuationPoint()});
  second->finalize();
  EXPECT_EQ(timesOf(second), (Times{30, 40}));
  EXPECT_EQ(second->status(), 0x00A60000U) << "the bound was looked up and trimmed";
  const SharedItem third = load({15, 45, 2, true, second->continuationPoint()});
  third->finalize();
  EXPECT_EQ(timesOf(third), (Times{50}));
  EXPECT_EQ(third->status(), 0U);
}

TEST_F(LayerReadTest, PageBehindTheEndBringsTheRightBound) {
  appendFive();
  const SharedItem item = load({15, 40, 2, true, 41});
  EXPECT_EQ(timesOf(item), (Times{50}));
  EXPECT_EQ(asked(item), AllAsked());
}

TEST_F(LayerReadTest, JoinedPagesWithBoundsAreTheOneRead) {
  archive = samples({10, 20, 30, 40, 50, 60});
  for (const std::uint32_t limit : {1U, 2U, 3U, 4U, 5U, 6U}) {
    makeSmall(2, 3);
    makeLayer();
    EXPECT_EQ(readPages({15, 55, limit, true}, archive), timesOf(archive)) << "fetched, " << limit;
    makeLayer();
    appendPins(archive);
    EXPECT_EQ(readPages({15, 55, limit, true}, archive), timesOf(archive)) << "held, " << limit;
  }
}

TEST_F(LayerReadTest, BoundsOfAnEmptyBlockAppendedToAreAskedForPastIt) {
  clock.setTime(35);
  makeLayer();
  makeSmall(10);
  archive = samples({10, 20, 30, 40, 50, 60});
  read({5, 65}, archive);
  const SharedItem item = load({36, 38, 0, true});
  EXPECT_EQ(timesOf(item), (Times{30, 40})) << "its key lies inside the fetched block";
  EXPECT_EQ(asked(item), AllAsked());
}

// ---- first and last value

TEST_F(LayerReadTest, UncachedLayerAsksForFirstAndLastValue) {
  makeLayer(description(false));
  const SharedItem item = firstLast({5, 50});
  EXPECT_EQ(asked(item), (AllAsked{{5, 50, Kind::oldest}, {5, 50, Kind::newest}}));
  answerAll(item, samples({10, 20, 30}));
  EXPECT_EQ(timesOf(item), (Times{10, 30}));
}

TEST_F(LayerReadTest, FirstAndLastValueInsideOneLiveBlockNeedNoArchive) {
  fetchSix();
  const SharedItem item = firstLast({15, 45});
  EXPECT_EQ(timesOf(item), (Times{20, 40}));
  EXPECT_EQ(asked(item), AllAsked());
}

TEST_F(LayerReadTest, FirstValueOverAJoinedBoundaryNeedsNoArchive) {
  appendFive();
  EXPECT_EQ(timesOf(firstLast({25, 45})), (Times{30, 40}));
  EXPECT_EQ(asked(firstLast({25, 45})), AllAsked());
}

TEST_F(LayerReadTest, OpenStartAlwaysAsksForTheFirstValue) {
  appendFive();
  const SharedItem item = firstLast({0, 0});
  EXPECT_EQ(asked(item), (AllAsked{{0, 0, Kind::oldest}})) << "older history lies at the archive";
  EXPECT_EQ(timesOf(item), (Times{50}));
  answerAll(item, samples({3, 10, 50}));
  EXPECT_EQ(timesOf(item), (Times{3, 50}));
}

TEST_F(LayerReadTest, FirstValueIsAskedForWhereItsTimeMayBeginEarlier) {
  appendFive();
  EXPECT_EQ(asked(firstLast({10, 45})), (AllAsked{{10, 45, Kind::oldest}}));
  EXPECT_EQ(asked(firstLast({5, 45})), (AllAsked{{5, 45, Kind::oldest}}));
}

TEST_F(LayerReadTest, FirstValueAfterTheEndMeansThatNothingIsThere) {
  appendFive();
  const SharedItem item = firstLast({22, 28});
  EXPECT_EQ(timesOf(item), Times());
  EXPECT_EQ(asked(item), AllAsked());
}

TEST_F(LayerReadTest, LastValueComesFromTheBlockAppendedToWhenTheEndIsNotBeforeIt) {
  appendFive();
  EXPECT_EQ(timesOf(firstLast({45, 0})), (Times{50}));
  EXPECT_EQ(timesOf(firstLast({45, 50})), (Times{50}));
  EXPECT_EQ(timesOf(firstLast({45, 500})), (Times{50}));
  EXPECT_EQ(asked(firstLast({45, 500})), AllAsked());
}

TEST_F(LayerReadTest, LastValueBeforeTheStartIsNone) {
  appendFive();
  const SharedItem item = firstLast({60, 0});
  EXPECT_EQ(asked(item), (AllAsked{{60, 0, Kind::oldest}}));
  EXPECT_EQ(timesOf(item), Times());
}

TEST_F(LayerReadTest, LastValueIsAskedForWhereTheBlockMayNotHoldIt) {
  makeSmall(10);
  archive = samples({10, 20, 30, 40, 50, 60, 70, 80});
  read({5, 32}, archive);
  read({58, 85}, archive);
  EXPECT_EQ(asked(firstLast({15, 45})), (AllAsked{{15, 45, Kind::newest}}));
  EXPECT_EQ(asked(firstLast({15, 30})), AllAsked()) << "its newest time is the end";
  EXPECT_EQ(asked(firstLast({15, 0})), (AllAsked{{15, 0, Kind::newest}}));
}

TEST_F(LayerReadTest, LastValueOfATimeThatGoesOnIsAskedForUnlessTheNextBlockIsThere) {
  Layer::storage = BlockStorage::make(kTotal);
  makeLayer();
  makeSmall(2);
  appendPins(archive = samples({10, 20, 20, 30, 40}));  // [10 20] [20 30] [40]
  EXPECT_EQ(timesOf(firstLast({15, 20})).back(), 20);
  evictBlocksBut({10});
  ASSERT_EQ(blocks(), (std::vector<Times>{{10, 20}, {40}}));
  EXPECT_EQ(asked(firstLast({15, 20})), (AllAsked{{15, 20, Kind::newest}}));
  load({5, 0});
  ASSERT_EQ(keys(), (Times{0, 10, 40})) << "the entry of what is gone is removed";
  EXPECT_EQ(asked(firstLast({15, 20})), (AllAsked{{15, 20, Kind::newest}}));
  EXPECT_EQ(asked(load({15, 20})), (AllAsked{{20, 20}})) << "the range is not reached there either";
}

TEST_F(LayerReadTest, FirstAndLastThatAreTheSameSampleAreGivenOnce) {
  appendFive();
  EXPECT_EQ(timesOf(firstLast({45, 0})), (Times{50}));
  EXPECT_EQ(timesOf(firstLast({15, 25})), (Times{20}));
  makeLayer();
  const SharedItem item = firstLast({5, 50});
  answerAll(item, samples({10}));
  EXPECT_EQ(timesOf(item), (Times{10}));
}

TEST_F(LayerReadTest, FirstAndLastOfEqualEndsIsAClosedRange) {
  appendFive();
  EXPECT_EQ(timesOf(firstLast({20, 20})), (Times{20}));
  EXPECT_EQ(asked(firstLast({20, 20})), AllAsked());
}

TEST_F(LayerReadTest, ContinuationPointGivesTheLastValueAlone) {
  appendFive();
  const SharedItem item = firstLast({15, 45, 1, false, 21});
  EXPECT_EQ(timesOf(item), (Times{40}));
  EXPECT_EQ(timesOf(firstLast({15, 45, 0, false, 41})), Times()) << "from max(start, point)";
  EXPECT_EQ(timesOf(firstLast({15, 45, 0, false, 46})), Times());
  EXPECT_EQ(timesOf(firstLast({15, 45, 0, false, kEarliest})), (Times{40}));
}

TEST_F(LayerReadTest, LimitOfOneGivesFirstThenLast) {
  appendFive();
  const SharedItem first = firstLast({15, 45, 1});
  first->finalize();
  EXPECT_EQ(timesOf(first), (Times{20}));
  EXPECT_EQ(first->status(), 0x00A60000U);
  const SharedItem last = firstLast({15, 45, 1, false, first->continuationPoint()});
  last->finalize();
  EXPECT_EQ(timesOf(last), (Times{40}));
  EXPECT_EQ(last->status(), 0U);
}

TEST_F(LayerReadTest, ReversedFirstLastQueryGivesNothing) {
  appendFive();
  for (const bool cached : {true, false}) {
    if (!cached) makeLayer(description(false));
    EXPECT_EQ(asked(firstLast({40, 20})), AllAsked());
    EXPECT_EQ(asked(firstLast({15, 40, 0, false, 41})), AllAsked());
  }
}

TEST_F(LayerReadTest, FirstLastSaysWhetherTheCacheGaveAnything) {
  appendFive();
  const SharedItem some = newItem({15, 45});
  EXPECT_TRUE(layer->getFirtsLast(some, requests.back()->options));
  makeLayer();
  const SharedItem none = newItem({15, 45});
  EXPECT_FALSE(layer->getFirtsLast(none, requests.back()->options));
}

TEST_F(LayerReadTest, SearchForTheFirstValueRemovesExpiredEntries) {
  fetchSix();
  evictAll();
  EXPECT_EQ(keys(), (Times{0, 10, test::ManualClock::kStart}));
  firstLast({20, 45});
  EXPECT_EQ(keys(), (Times{0, test::ManualClock::kStart}));
}

TEST_F(LayerReadTest, OneValueAnswersAreNotCached) {
  makeSmall(10, 1);
  answerAll(firstLast({5, 50}), samples({10, 20, 30}));
  answerAll(load({5, 6, 0, true}), samples({1, 2, 60}));
  layer->drain();
  EXPECT_TRUE(blocks().empty());
}

// ---- uses

TEST_F(LayerReadTest, BlocksThatGiveSamplesAreMarkedUsed) {
  const auto mainCount = [] { return Layer::storage->counts().main; };
  const std::vector<std::function<void()>> uses{[this] {
                                                  load({12, 18});
                                                  load({15, 25});
                                                },
                                                [this] {
                                                  load({25, 29, 0, true});
                                                },
                                                [this] {
                                                  firstLast({15, 25});
                                                }};
  for (const auto& use : uses) {
    Layer::storage = BlockStorage::make(kTotal);
    makeLayer();
    makeSmall(2);
    appendPins(samples({10, 20, 30, 40, 50}));
    for (std::size_t i = 0; i < kFirstIn; ++i) Layer::storage->make_new();
    ASSERT_EQ(mainCount(), 0U);
    use();
    EXPECT_GT(mainCount(), 0U);
  }
}

TEST_F(LayerReadTest, BlockThatGivesNothingIsNotMarkedUsed) {
  Layer::storage = BlockStorage::make(kTotal);
  makeLayer();
  makeSmall(2);
  appendPins(samples({10, 20, 30, 40, 50}));
  for (std::size_t i = 0; i < kFirstIn; ++i) Layer::storage->make_new();
  load({12, 18});
  EXPECT_EQ(Layer::storage->counts().main, 0U);
}

// ---- resampled reads

TEST_F(LayerReadTest, ReadsUpToATenthOfASecondAreNotResampled) {
  appendPins(realPins(kTenth, 20, kTenth / 10));
  EXPECT_EQ(load({kTenth + 1, 0, 0, false, {}, kTenth})->valueCount(), 19U);
  EXPECT_LT(load({kTenth + 1, 0, 0, false, {}, kTenth + 1})->valueCount(), 19U);
}

TEST_F(LayerReadTest, ResampledReadOfHeldBlocksIsTheResampledListOfTheirSamples) {
  makeSmall(4);
  for (int i = 0; i < 38; ++i) archive.push_back(realPin(kTenth + i * kTenth / 5, i * 37 % 11));
  appendPins(archive);
  const SharedItem item = load({kTenth + 1, 0, 0, false, {}, 2 * kTenth});
  PinList points;
  archive::Sampling sampling(2 * kTenth, points, points.end());
  for (std::size_t i = 1; i < archive.size(); ++i) sampling.push(archive[i]);
  sampling.flush();
  EXPECT_EQ(timesOf(item), timesOf(points)) << "over ten block boundaries";
}

TEST_F(LayerReadTest, ResampledReadAsksForItsGapsByTheRawSamples) {
  makeSmall(10);
  std::vector<PinPtr> flat;
  for (int i = 0; i < 40; ++i) flat.push_back(realPin(kTenth + i * kTenth / 5, 1));
  read({kTenth, kTenth + 9 * kTenth / 5}, flat);
  const SharedItem item = load({kTenth + 1, 10 * kTenth, 0, false, {}, 2 * kTenth});
  EXPECT_EQ(asked(item), (AllAsked{{flat[9]->time, 10 * kTenth}}))
      << "from the newest sample taken, not from the newest point given";
  answerAll(item, flat);
  const Times got = timesOf(item);
  EXPECT_TRUE(std::is_sorted(got.begin(), got.end()));
}

TEST_F(LayerReadTest, AnswerToAResampledReadIsCachedRaw) {
  makeSmall(10);
  archive = realPins(kTenth, 20, kTenth / 10);
  read({1, 0, 0, false, {}, 10 * kTenth}, archive);
  EXPECT_EQ(layer->describe()[1].samples.size() + layer->describe()[2].samples.size(), 20U);
  EXPECT_EQ(timesOf(load({kTenth + 1, 2 * kTenth})).size(), 10U);
}

}  // namespace orva::cache
