#include <algorithm>
#include <limits>
#include <new>

#include "unit/orva_database/layer_fixture.h"

// What a layer does with samples: to the writer, into blocks, and what is fetched into the cache.

namespace orva::cache {
namespace {

using archive::SharedInterval;
using archive::SharedItem;
using test::realPin;
using test::realPins;
using test::timesOf;

constexpr std::int64_t kTenthOfASecond = 1'000'000;

}  // namespace

using LayerTest = LayerFixture;

// ---- set up

TEST_F(LayerTest, LayerThatWasNotInitialisedHoldsNothing) {
  const Layer bare;
  EXPECT_FALSE(bare.cached());
  EXPECT_EQ(bare.number(), 0U);
  EXPECT_TRUE(bare.describe().empty());
  EXPECT_FALSE(bare.oldest());
}

TEST_F(LayerTest, InitTakesNumberAndCacheFlagFromTheDescription) {
  EXPECT_EQ(layer->number(), 3U);
  EXPECT_TRUE(layer->cached());
  makeLayer(description(false));
  EXPECT_FALSE(layer->cached());
}

TEST_F(LayerTest, CachedLayerBeginsWithTheLowerEndAndAnEmptyBlockKeyedByTheClock) {
  clock.setTime(500);
  makeLayer();
  EXPECT_EQ(keys(), (Times{0, 500}));
  EXPECT_TRUE(layer->describe()[1].last);
  EXPECT_TRUE(blocks().empty());
}

TEST_F(LayerTest, ClockAtTheLowerEndStillKeysTheEmptyBlockAboveIt) {
  for (const long long now : {0LL, -5LL}) {
    clock.setTime(now);
    makeLayer();
    EXPECT_EQ(keys(), (Times{0, 1}));
  }
}

TEST_F(LayerTest, EachCachedLayerTakesABlockOfTheStorage) {
  Layer::storage = BlockStorage::make(40);
  makeLayer();
  EXPECT_EQ(Layer::storage->counts().firstIn, 1U);
  makeLayer(description(false));
  append({1, 2});
  EXPECT_EQ(Layer::storage->counts().firstIn, 1U);
}

TEST_F(LayerTest, InitialisedAgainItBeginsAnewWithTheNewWriter) {
  append({1, 2, 3});
  RecordingWriter other;
  layer->init(description(), other);
  EXPECT_TRUE(blocks().empty());
  append({4});
  EXPECT_EQ(timesOf(writer.written), (Times{1, 2, 3}));
  EXPECT_EQ(timesOf(other.written), (Times{4}));
}

// ---- entries of blocks that are gone

TEST_F(LayerTest, WhatIsKnownOfBlocksThatAreGoneLeavesThoughNobodyReads) {
  constexpr std::int64_t kBlocks = 2000;
  Layer::storage = BlockStorage::make(40);
  makeSmall(10);
  makeLayer();
  for (std::int64_t time = 1; time <= 10 * kBlocks; ++time) append({time});
  EXPECT_LE(blocks().size(), 41U);
  EXPECT_LE(keys().size(), 70U);
  const Times whole = readPages({1, 10 * kBlocks, 1000}, writer.written);
  EXPECT_EQ(whole, timesOf(writer.written));
}

TEST_F(LayerTest, WhatIsKnownOfBlocksThatReadsBroughtLeavesAfterThem) {
  constexpr std::int64_t kBlocks = 2000;
  Layer::storage = BlockStorage::make(40);
  makeSmall(10);
  makeLayer();
  std::vector<PinPtr> archive;
  for (std::int64_t time = 1; time <= 10 * kBlocks; ++time) archive.push_back(sample(time));
  append({10 * kBlocks + 1});
  const Times whole = readPages({1, 10 * kBlocks, 100}, archive);
  EXPECT_EQ(whole, timesOf(archive));
  EXPECT_LE(keys().size(), 150U);
}

// ---- new samples

TEST_F(LayerTest, SampleGoesToTheCacheAndToTheWriter) {
  const PinPtr pin = sample(10);
  *layer << pin;
  ASSERT_EQ(writer.written.size(), 1U);
  EXPECT_EQ(writer.written[0], pin);
  EXPECT_EQ(held(1)[0], pin);
}

TEST_F(LayerTest, UncachedLayerWritesAndNeverHoldsABlock) {
  makeLayer(description(false));
  append({1, 2, 3});
  EXPECT_EQ(timesOf(writer.written), (Times{1, 2, 3}));
  EXPECT_TRUE(layer->describe().empty());
}

TEST_F(LayerTest, FirstSampleGivesItsBlockItsKey) {
  clock.setTime(500);
  makeLayer();
  append({100});
  EXPECT_EQ(keys(), (Times{0, 100}));
  append({200});
  EXPECT_EQ(keys(), (Times{0, 100}));
}

TEST_F(LayerTest, SampleAfterAThousandOpensABlockUnderItsTime) {
  appendPins(realPins(10, 1000));
  EXPECT_EQ(keys(), (Times{0, 10}));
  append({5000});
  EXPECT_EQ(keys(), (Times{0, 10, 5000}));
  EXPECT_EQ(joined(), (std::vector<bool>{false, true})) << "no sample lies between";
  EXPECT_EQ(blocks()[0].size(), 1000U);
}

TEST_F(LayerTest, BlocksOfEqualTimesSayThatTheTimeGoesOn) {
  makeSmall(2);
  append({1, 5, 5, 6, 7});
  const auto all = layer->describe();
  EXPECT_TRUE(all[1].openRight);
  EXPECT_TRUE(all[2].openLeft);
  EXPECT_FALSE(all[2].openRight);
  EXPECT_FALSE(all[3].openLeft);
}

// The archive may hold more samples of the time at which a layer begins.
TEST_F(LayerTest, FirstBlockSaysThatItsTimeMayBeginBeforeIt) {
  append({10});
  EXPECT_TRUE(layer->describe()[1].openLeft);
}

TEST_F(LayerTest, SampleAtTimeZeroIsHeldByTheLowerEnd) {
  append({0, 1});
  EXPECT_EQ(keys(), (Times{0}));
  EXPECT_EQ(blocks(), (std::vector<Times>{{0, 1}}));
  EXPECT_FALSE(layer->describe()[0].openLeft) << "nothing is older";
  append({2});
  EXPECT_EQ(blocks(), (std::vector<Times>{{0, 1, 2}}));
}

// Samples of one time over several blocks: the first block keeps the key.
TEST_F(LayerTest, LiveBlockKeepsItsKeyAndTheNewOneStaysOutside) {
  appendPins(realPins(7, 2500, 0));
  const auto all = layer->describe();
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[1].key, 7);
  EXPECT_EQ(all[1].samples.size(), 1000U);
  EXPECT_TRUE(all[1].entered);
  EXPECT_TRUE(all[2].last);
  EXPECT_FALSE(all[2].entered);
  EXPECT_EQ(all[2].samples.size(), 500U) << "the thousand in the middle are lost to the cache";
  EXPECT_FALSE(all[2].joined) << "which is not joined over them";
}

TEST_F(LayerTest, BlockOutsideTheMapIsJoinedToTheFullOneBeforeIt) {
  makeSmall(2);
  append({7, 7, 7});
  const auto all = layer->describe();
  EXPECT_FALSE(all[2].entered);
  EXPECT_TRUE(all[2].joined);
}

TEST_F(LayerTest, ExpiredBlockOfTheSameKeyIsReplacedAndProvesNothing) {
  makeSmall(2);
  append({7, 7});
  append({7, 7});
  evictAll();
  append({7});  // takes the key of the evicted one
  const auto all = layer->describe();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_TRUE(all[1].entered);
  EXPECT_TRUE(all[1].last);
  EXPECT_FALSE(all[1].joined);
}

// The storage may drop the full block in the very moment in which the next one is made.
TEST_F(LayerTest, BlockThatReplacesItsOwnNeighbourIsNotJoinedToIt) {
  makeSmall(2);
  Layer::storage = BlockStorage::make(0);
  makeLayer();
  append({7, 7, 7});
  const auto all = layer->describe();
  ASSERT_EQ(blocks(), (std::vector<Times>{{7}}));
  EXPECT_TRUE(all[1].last);
  EXPECT_FALSE(all[1].joined);
}

// History is fetched, then the layer's first sample lies in the middle of it.
TEST_F(LayerTest, FirstSampleOlderThanWhatWasFetchedDropsWhatReachesPastIt) {
  makeSmall(2);
  const std::vector<PinPtr> archive = samples({10, 20, 30, 40, 50, 60});
  read({5, 0}, archive);
  ASSERT_EQ(blocks(), (std::vector<Times>{{10, 20}, {30, 40}, {50, 60}}));
  append({35});
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20}, {35}}));
  append({45});
  const Times got = read({5, 0}, archive);
  EXPECT_TRUE(std::is_sorted(got.begin(), got.end()));
  EXPECT_EQ(std::adjacent_find(got.begin(), got.end()), got.end()) << "no sample twice";
}

TEST_F(LayerTest, BlockThatEndsAtTheFirstSamplesTimeStaysAndSaysThatTheTimeGoesOn) {
  makeSmall(5);
  const std::vector<PinPtr> archive = samples({10, 20, 30});
  read({5, 0}, archive);
  append({30});
  const auto all = layer->describe();
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20, 30}, {30}}));
  EXPECT_TRUE(all[1].openRight);
}

TEST_F(LayerTest, OldestIsTheFirstSampleOfTheFirstLiveBlock) {
  makeSmall(2);
  EXPECT_FALSE(layer->oldest());
  append({10, 20, 30, 40, 50});
  EXPECT_EQ(layer->oldest()->time, 10);
  evictAll();
  EXPECT_EQ(layer->oldest()->time, 50);
}

// ---- resampled layers

TEST_F(LayerTest, IntervalsUpToATenthOfASecondAreNotResampled) {
  makeLayer(description(true, kTenthOfASecond));
  append({1, 2, 3});
  EXPECT_EQ(writer.written.size(), 3U);
  makeLayer(description(true, kTenthOfASecond + 1));
  append({1, 2, 3});
  EXPECT_EQ(writer.written.size(), 4U);
}

TEST_F(LayerTest, ResampledLayerCachesWhatItWrites) {
  makeLayer(description(true, 10 * kTenthOfASecond));
  append({1, 2, 3});  // first = minimum, a value between, maximum
  append({1 + 10 * kTenthOfASecond});
  EXPECT_EQ(timesOf(writer.written), (Times{1, 3, 1 + 10 * kTenthOfASecond}));
  EXPECT_EQ(blocks(), (std::vector<Times>{timesOf(writer.written)}));
}

TEST_F(LayerTest, BlockIsOpenedForSamplesThatAreReallyKept) {
  makeSmall(2);
  makeLayer(description(true, 10 * kTenthOfASecond));
  append({1, 2, 3, 4, 5});
  append({1 + 10 * kTenthOfASecond, 2 + 10 * kTenthOfASecond});
  EXPECT_EQ(keys(), (Times{0, 1, 1 + 10 * kTenthOfASecond}));
  EXPECT_EQ(blocks()[0], (Times{1, 5}));
}

TEST_F(LayerTest, FlushHandsOnWhatThePeriodHasSelected) {
  makeLayer(description(true, 10 * kTenthOfASecond));
  append({1, 2, 3});
  EXPECT_EQ(timesOf(writer.written), (Times{1}));
  layer->flush();
  EXPECT_EQ(timesOf(writer.written), (Times{1, 3}));
  layer->flush();
  EXPECT_EQ(writer.written.size(), 2U);
}

TEST_F(LayerTest, InitialisedAgainItHandsThePeakToTheOldWriterFirst) {
  makeLayer(description(true, 10 * kTenthOfASecond));
  append({1, 2, 3});
  RecordingWriter other;
  layer->init(description(), other);
  EXPECT_EQ(timesOf(writer.written), (Times{1, 3}));
  EXPECT_TRUE(other.written.empty());
}

TEST_F(LayerTest, SampleWhoseWriteThrowsIsCachedOnce) {
  struct FullWriter : RecordingWriter {
    void write(const PinPtr& pin) override {
      if (throws) throw std::bad_alloc();
      RecordingWriter::write(pin);
    }
    bool throws = false;
  } full;
  layer->init(description(true, 10 * kTenthOfASecond), full);
  append({1, 2, 3});
  full.throws = true;
  EXPECT_THROW(append({1 + 10 * kTenthOfASecond}), std::bad_alloc);
  full.throws = false;
  append({2 + 20 * kTenthOfASecond});
  EXPECT_EQ(blocks(),
            (std::vector<Times>{{1, 3, 1 + 10 * kTenthOfASecond, 2 + 20 * kTenthOfASecond}}));
  EXPECT_EQ(timesOf(full.written), (Times{1, 1 + 10 * kTenthOfASecond, 2 + 20 * kTenthOfASecond}));
  makeLayer();  // `full` goes first
}

// ---- taking in what was fetched

TEST_F(LayerTest, AnswerOfTenSamplesIsCachedOneOfNineIsNot) {
  read({5, 0}, realPins(10, 9));
  EXPECT_TRUE(blocks().empty());
  read({5, 0}, realPins(10, 10));
  ASSERT_EQ(blocks().size(), 1U);
  EXPECT_EQ(blocks()[0].size(), 10U);
}

TEST_F(LayerTest, LargeAnswerIsCutIntoJoinedBlocksOfAThousand) {
  const std::vector<PinPtr> archive = realPins(10, 2500);
  read({5, 0}, archive);
  ASSERT_EQ(blocks().size(), 3U);
  EXPECT_EQ(blocks()[0].size(), 1000U);
  EXPECT_EQ(blocks()[1].front(), 1010);
  EXPECT_EQ(blocks()[2].size(), 500U);
  EXPECT_EQ(joined(), (std::vector<bool>{false, true, true}));
  EXPECT_EQ(keys(), (Times{0, 10, 1010, 2010, test::ManualClock::kStart}));
}

TEST_F(LayerTest, AnswerWaitsUntilTheLayerIsReadAgain) {
  const SharedItem item = load({5, 0});
  answerAll(item, realPins(10, 10));
  EXPECT_TRUE(blocks().empty()) << "a provider's thread never changes a layer";
  load({5, 0});
  EXPECT_EQ(blocks().size(), 1U);
}

TEST_F(LayerTest, FirstAndLastQueriesTakeAnswersInToo) {
  answerAll(load({5, 0}), realPins(10, 10));
  firstLast({5, 0});
  EXPECT_EQ(blocks().size(), 1U);
}

TEST_F(LayerTest, AnswerForALayerThatIsGoneGoesNowhere) {
  const SharedItem item = load({5, 0});
  layer.reset();
  answerAll(item, realPins(10, 10));
  EXPECT_EQ(item->values().size(), 10U);
}

TEST_F(LayerTest, AnswerAskedForBeforeTheLayerBeganAnewIsNotCached) {
  const SharedItem item = load({5, 0});
  append({15});
  layer->init(description(), writer);
  answerAll(item, realPins(10, 10));
  layer->drain();
  EXPECT_TRUE(blocks().empty());
}

TEST_F(LayerTest, ClosedFailedAndDroppedAnswersAreNotCached) {
  const std::vector<PinPtr> archive = realPins(10, 20);
  const SharedItem closed = load({5, 0});
  closed->openIntervals()[0]->push(archive.data(), archive.size());
  closed->close();
  closed->openIntervals()[0]->finalize();

  const SharedItem failed = load({5, 0});
  failed->openIntervals()[0]->fail(0x80050000);
  answerAll(failed, archive);

  SharedItem gone = load({5, 0});
  const SharedInterval orphan = gone->openIntervals()[0];
  orphan->push(archive.data(), archive.size());
  gone.reset();
  requests.clear();
  orphan->finalize();

  layer->drain();
  EXPECT_TRUE(blocks().empty());
}

TEST_F(LayerTest, AnswersThatDoNotFitIntoTheInboxesAreNotCached) {
  Inbox::maxWaiting = 25;
  const SharedItem items[] = {load({5, 0}), load({5, 0}), load({5, 0})};
  answerAll(items[0], realPins(100, 10));
  answerAll(items[1], realPins(200, 20));
  answerAll(items[2], realPins(300, 15));
  layer->drain();
  ASSERT_EQ(blocks().size(), 2U);
  EXPECT_EQ(blocks()[0].front(), 100);
  EXPECT_EQ(blocks()[1].front(), 300);
  answerAll(load({5, 50}), realPins(10, 25));
  layer->drain();
  EXPECT_EQ(blocks().size(), 3U) << "room again once they were taken in";
}

TEST_F(LayerTest, InboxesOfAllLayersShareTheirRoom) {
  Layer other;
  other.init(description(), writer);
  Inbox::maxWaiting = 25;
  answerAll(load({5, 0}), realPins(100, 20));
  const SharedItem item = newItem({5, 0});
  other.load(item, requests.back()->options);
  answerAll(item, realPins(100, 20));
  other.drain();
  EXPECT_FALSE(other.oldest());
  layer->drain();
  EXPECT_EQ(blocks().size(), 1U);
}

TEST_F(LayerTest, ThousandLayersReadOnceEachFillTheInboxesAndNoMore) {
  std::vector<std::unique_ptr<Layer>> layers;
  for (int i = 0; i < 1000; ++i) {
    layers.push_back(std::make_unique<Layer>());
    layers.back()->init(description(), writer);
    const SharedItem item = newItem({5, 0});
    layers.back()->load(item, requests.back()->options);
    answerAll(item, realPins(10, 200));
  }
  int cached = 0;
  for (const auto& each : layers) {
    each->drain();
    cached += each->oldest() != nullptr;
  }
  EXPECT_EQ(cached, 500) << "100,000 samples wait at most";
}

TEST_F(LayerTest, LayerThatDiesGivesTheRoomOfItsInboxBack) {
  Inbox::maxWaiting = 25;
  answerAll(load({5, 0}), realPins(10, 25));
  makeLayer();
  answerAll(load({5, 0}), realPins(10, 25));
  layer->drain();
  EXPECT_EQ(blocks().size(), 1U);
}

TEST_F(LayerTest, SameAnswerTwiceChangesNothing) {
  makeSmall(4);
  const std::vector<PinPtr> archive = samples({10, 20, 20, 30, 40, 50, 50, 50, 60});
  const SharedItem first = load({5, 70});
  const SharedItem second = load({5, 70});
  answerAll(first, archive);
  layer->drain();
  const auto before = blocks();
  answerAll(second, archive);
  layer->drain();
  EXPECT_EQ(blocks(), before);
  EXPECT_EQ(before, (std::vector<Times>{{10, 20, 20, 30}, {40, 50, 50, 50}, {60}}));
}

TEST_F(LayerTest, OverlappingAnswerAddsTheRestOnly) {
  makeSmall(3);
  const std::vector<PinPtr> archive = samples({10, 20, 30, 40, 50, 60, 70, 80, 90});
  const SharedItem late = load({5, 95});
  read({35, 65}, archive);
  ASSERT_EQ(blocks(), (std::vector<Times>{{40, 50, 60}}));
  answerAll(late, archive);
  layer->drain();
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20, 30}, {40, 50, 60}, {70, 80, 90}}));
  EXPECT_EQ(joined(), (std::vector<bool>{false, true, true}));
}

TEST_F(LayerTest, AnswerFillsTheJoinedBlockBeforeIt) {
  makeSmall(4);
  const std::vector<PinPtr> archive = samples({10, 20, 30, 40, 50, 60});
  const SharedItem late = load({25, 65});
  read({5, 35}, archive);
  ASSERT_EQ(blocks(), (std::vector<Times>{{10, 20, 30}}));
  answerAll(late, archive);
  layer->drain();
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20, 30, 40}, {50, 60}}));
  EXPECT_EQ(joined(), (std::vector<bool>{false, true}));
}

TEST_F(LayerTest, BlockAppendedToIsNeverFilledByAnAnswer) {
  makeSmall(4);
  append({30});
  const std::vector<PinPtr> archive = samples({10, 20});
  read({5, 29}, archive);
  append({40});
  EXPECT_EQ(blocks().back(), (Times{30, 40}));
}

TEST_F(LayerTest, SmallAnswerMakesNoBlockButMayProveThatTwoAreJoined) {
  makeSmall(3, 3);
  const std::vector<PinPtr> archive = samples({10, 20, 30, 40, 50, 60});
  read({5, 30}, archive);
  read({40, 65}, archive);
  ASSERT_EQ(joined(), (std::vector<bool>{false, false}));
  const SharedItem item = load({15, 55});
  EXPECT_EQ(asked(item), (AllAsked{{30, 40}}));
  answerAll(item, archive);
  layer->drain();
  EXPECT_EQ(joined(), (std::vector<bool>{false, true})) << "both edges and nothing else";
  EXPECT_EQ(asked(load({15, 55})), AllAsked());
}

TEST_F(LayerTest, SmallAnswerWithMoreThanItsEdgesProvesNothing) {
  makeSmall(3, 4);
  const std::vector<PinPtr> archive = samples({10, 20, 25, 30, 35, 40, 50, 60, 70});
  read({5, 30}, archive);
  read({40, 75}, archive);
  ASSERT_EQ(blocks().size(), 4U);
  answerAll(load({15, 65}), archive);  // 30, 35, 40
  layer->drain();
  EXPECT_EQ(asked(load({15, 65})), (AllAsked{{30, 40}}));
}

TEST_F(LayerTest, ProofNeedsTheNeighboursOwnSample) {
  makeSmall(3, 3);
  const std::vector<PinPtr> archive = samples({10, 20, 30, 40, 50, 60});
  read({5, 30}, archive);
  read({40, 65}, archive);
  const SharedItem item = load({15, 55});
  answer(item->openIntervals()[0], {realPin(30, -1), realPin(40, -2)});  // other values
  layer->drain();
  EXPECT_EQ(joined(), (std::vector<bool>{false, false}));
}

TEST_F(LayerTest, AnswerCutAtItsLimitVouchesOnlyForWhatLiesBeforeItsLastTime) {
  makeSmall(10, 3);
  const std::vector<PinPtr> archive = samples({10, 20, 30, 40, 40, 50});
  read({5, 90, 3}, archive);  // four are pushed: 10, 20, 30, 40
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20, 30}}));
}

TEST_F(LayerTest, AnswerEndedBecauseItsReaderHadEnoughIsCutInTheSameWay) {
  makeSmall(10, 3);
  const std::int64_t period = 2'000'000;
  const std::vector<PinPtr> archive =
      samples({period, 2 * period, 3 * period, 4 * period, 4 * period});
  const SharedItem item = load({5, 90 * period, 3, false, {}, period});
  const SharedInterval interval = item->openIntervals()[0];
  for (const PinPtr& pin : archive) {
    if (interval->full()) break;
    interval->push(pin);
  }
  interval->finalize();
  layer->drain();
  EXPECT_EQ(blocks(), (std::vector<Times>{{period, 2 * period, 3 * period}}));
}

TEST_F(LayerTest, NothingAsNewAsTheNewestSampleOfTheAskingIsCached) {
  makeSmall(10, 3);
  append({50});
  const SharedItem item = load({5, 60});
  EXPECT_EQ(asked(item), (AllAsked{{5, 50}, {50, 60}}));
  const PinPtr fifty = held(1)[0];
  append({55});
  std::vector<PinPtr> archive = samples({10, 20, 30, 50});
  archive.back() = fifty;
  answer(item->openIntervals()[0], archive);
  layer->drain();
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20, 30}, {50, 55}}));
  EXPECT_EQ(joined(), (std::vector<bool>{false, true})) << "its own sample proves the join";
}

TEST_F(LayerTest, GrownTimeProvesNoJoin) {
  makeSmall(10, 3);
  append({50, 50});
  const SharedItem item = load({5, 60});
  std::vector<PinPtr> archive = samples({10, 20, 30});
  for (const PinPtr& pin : held(1)) archive.push_back(pin);
  answer(item->openIntervals()[0], archive);
  layer->drain();
  EXPECT_EQ(joined(), (std::vector<bool>{false, false}));
}

TEST_F(LayerTest, NewestSampleOfTheAskingProvesNoJoinOnceAnotherBlockIsAppendedTo) {
  makeSmall(2, 3);
  append({50});
  const SharedItem item = load({5, 60});
  std::vector<PinPtr> archive = samples({10, 20, 30});
  archive.push_back(held(1)[0]);
  append({60, 70});
  answer(item->openIntervals()[0], archive);
  layer->drain();
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20}, {30}, {50, 60}, {70}}));
  EXPECT_EQ(joined(), (std::vector<bool>{false, true, false, true}));
}

// It may be of a moment between the asking and now: nobody knows where it has holes.
TEST_F(LayerTest, WhatWasAppendedSinceTheAskingIsNotCachedFromAnAnswer) {
  makeSmall(2, 2);
  append({50});
  const SharedItem item = load({45, 70});
  ASSERT_EQ(asked(item), (AllAsked{{45, 50}, {50, 70}}));
  append({60, 70});
  evictAll();
  ASSERT_EQ(blocks(), (std::vector<Times>{{70}}));
  answer(item->openIntervals()[1], samples({50, 60}));
  layer->drain();
  EXPECT_EQ(blocks(), (std::vector<Times>{{70}}));
}

TEST_F(LayerTest, AnswerAskedForWhileNothingWasAppendedGoesOnceThatHasChanged) {
  makeSmall(10, 3);
  const SharedItem item = load({5, 0});
  append({50});
  answer(item->openIntervals()[0], samples({10, 20, 30}));
  layer->drain();
  EXPECT_EQ(blocks(), (std::vector<Times>{{50}}));
}

TEST_F(LayerTest, TimesAfterTheFirstSampleAppendedAreNotCached) {
  makeSmall(10, 3);
  append({50, 60});
  std::vector<PinPtr> archive = samples({10, 20, 30, 40, 55});
  layer->assign(1, 100, archive);
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20, 30, 40}, {50, 60}}));
}

TEST_F(LayerTest, InversionsAreSortedStably) {
  makeSmall(10, 3);
  const SharedItem item = load({5, 90});
  std::vector<PinPtr> pins = samples({20, 10, 30, 20});
  answer(item->openIntervals()[0], pins);
  layer->drain();
  ASSERT_EQ(blocks(), (std::vector<Times>{{10, 20, 20, 30}}));
  EXPECT_EQ(held(1)[1], pins[0]);
}

TEST_F(LayerTest, SamplesOutsideTheIntervalAreNotCached) {
  makeSmall(10, 3);
  answer(load({15, 45})->openIntervals()[0], samples({10, 20, 30, 40, 50}));
  layer->drain();
  EXPECT_EQ(blocks(), (std::vector<Times>{{20, 30, 40}}));
}

TEST_F(LayerTest, ExpiredEntryIsReplacedByAnAnswer) {
  makeSmall(10, 3);
  const std::vector<PinPtr> archive = samples({10, 20, 30});
  read({5, 40}, archive);
  evictAll();
  ASSERT_TRUE(blocks().empty());
  std::vector<PinPtr> again(archive);
  layer->assign(5, 40, again);
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20, 30}}));
  EXPECT_EQ(keys().size(), 3U) << "keys stay unique";
}

TEST_F(LayerTest, ExpiredEntriesBetweenTheNeighboursOfAnAnswerGo) {
  makeSmall(2, 3);
  const std::vector<PinPtr> archive = samples({10, 20, 30, 40, 50, 60});
  read({5, 65}, archive);
  EXPECT_EQ(keys(), (Times{0, 10, 30, 50, test::ManualClock::kStart}));
  evictAll();
  std::vector<PinPtr> other = samples({15, 25, 35});
  layer->assign(12, 38, other);
  EXPECT_EQ(keys(), (Times{0, 15, 35, test::ManualClock::kStart}));
}

TEST_F(LayerTest, LiveEntryUnderTheKeyOfAPieceLeavesItsTimeOutAndIsNotJoined) {
  makeSmall(2, 3);
  // A block of time 30 alone, which is not all there is of that time.
  std::vector<PinPtr> part = samples({30, 30, 31});
  layer->assign(30, 31, part);
  ASSERT_EQ(blocks(), (std::vector<Times>{{30, 30}, {31}}));
  std::vector<PinPtr> all = samples({10, 20, 30, 30});
  layer->assign(5, 30, all);
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20}, {30, 30}, {31}}));
  EXPECT_EQ(joined(), (std::vector<bool>{false, false, true})) << "other samples of that time";
}

TEST_F(LayerTest, AssignOfAReversedOrUncachedStretchDoesNothing) {
  std::vector<PinPtr> pins = realPins(10, 10);
  layer->assign(50, 5, pins);
  EXPECT_TRUE(blocks().empty());
  makeLayer(description(false));
  layer->assign(5, 50, pins);
  EXPECT_TRUE(layer->describe().empty());
}

TEST_F(LayerTest, AssignWithAnOpenEndTakesEverything) {
  std::vector<PinPtr> pins = realPins(10, 10);
  layer->assign(5, 0, pins);
  EXPECT_EQ(blocks().size(), 1U);
}

TEST_F(LayerTest, InsertTakesACompletedIntervalIn) {
  const SharedInterval ten = newItem({})->addInterval(3, 5, 0);
  answer(ten, realPins(10, 10));
  layer->insert(ten);
  EXPECT_EQ(blocks().size(), 1U);
  const SharedInterval nine = newItem({})->addInterval(3, 100, 0);
  answer(nine, realPins(100, 9));
  layer->insert(nine);
  EXPECT_EQ(blocks().size(), 1U);
}

TEST_F(LayerTest, SpaceIsWhatTheLimitLeaves) {
  const SharedItem item = newItem({0, 0, 2});
  EXPECT_TRUE(HasSpase(item));
  item->push_back(sample(1));
  EXPECT_TRUE(HasSpase(item));
  item->push_back(sample(2));
  EXPECT_FALSE(HasSpase(item));
  const SharedItem unlimited = newItem({});
  for (int i = 0; i < 100; ++i) unlimited->push_back(sample(1));
  EXPECT_TRUE(HasSpase(unlimited));
}

// A long read of old history passes by; blocks that are read again stay.
TEST_F(LayerTest, BlocksThatAreReadStayWhenOthersPassBy) {
  makeSmall(2);
  Layer::storage = BlockStorage::make(8);
  makeLayer();
  append({10, 20, 30, 40});
  for (int i = 0; i < 2; ++i) Layer::storage->make_new();  // both are on probation now
  load({10, 20});
  for (int i = 0; i < 10; ++i) Layer::storage->make_new();
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20}, {30, 40}})) << "the last one is held besides";
  append({50});
  EXPECT_EQ(blocks(), (std::vector<Times>{{10, 20}, {50}}));
}

}  // namespace orva::cache
