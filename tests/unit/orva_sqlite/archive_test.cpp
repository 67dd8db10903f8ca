#include <gtest/gtest.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>

#include "orva_sqlite/archive_status.h"
#include "share/ticks.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

namespace fs = std::filesystem;

std::string randomText(std::mt19937_64& random, std::size_t size) {
  std::string text(size, ' ');
  for (char& c : text) c = static_cast<char>(random());
  return text;
}

// ---- reads

TEST_F(ArchiveTest, AReadSeesWhatIsBufferedAndWhatIsInTheFile) {
  open();
  write(second(1), 1);
  write(second(2), 2);
  EXPECT_EQ(values({}), (std::vector<double>{1, 2}));
  EXPECT_EQ(counters().diskReads, 0U);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(inFile("SELECT sum(count) FROM segment"), 2);
  write(second(3), 3);
  EXPECT_EQ(values({}), (std::vector<double>{1, 2, 3}));
  EXPECT_EQ(counters().diskReads, 1U);
}

TEST_F(ArchiveTest, ARestartKeepsEverythingAndTheHandles) {
  open();
  write({7, "x"}, 0, makePin(second(1), realValue(1)));
  write({7, ""}, 0, makePin(second(2), realValue(2)));
  write({-5'000'000'000, "y"}, 3, makePin(second(3), textValue("three"), 0x80000000U));
  const std::uint32_t handle = archive_->itemHandle({7, ""});
  open();
  EXPECT_EQ(archive_->itemHandle({7, ""}), handle);
  EXPECT_NE(archive_->itemHandle({7, "x"}), handle);
  EXPECT_EQ(archive_->itemHandle({7, "z"}), 0U);
  for (const auto& entry : list_.all()) {
    EXPECT_TRUE(answers({entry.first.first, entry.first.second}));
  }
}

TEST_F(ArchiveTest, APathMayHoldAnyBytes) {
  const std::string path("a\0b\xFF\xC3", 5);
  open();
  write({1, path}, 0, makePin(second(1), realValue(1)));
  open();
  EXPECT_NE(archive_->itemHandle({1, path}), 0U);
  EXPECT_TRUE(answers({{1, path}}));
}

TEST_F(ArchiveTest, AnItemIsHeldOnceItHasAWriterOrSamples) {
  open();
  EXPECT_EQ(archive_->itemHandle({1, "a"}), 0U);
  archive_->layerWriter({1, "a"}, 0, 0);
  EXPECT_NE(archive_->itemHandle({1, "a"}), 0U);
}

TEST_F(ArchiveTest, UnknownHandlesAndLayersAreFinalisedEmptyAndGood) {
  open();
  write(second(1), 1);
  for (const Question& question : {Question{{2, "b"}}, Question{{1, "a"}, 5}}) {
    const Answer answer = ask(question);
    EXPECT_TRUE(answer.final);
    EXPECT_EQ(answer.failure, 0U);
    EXPECT_TRUE(answer.pushed.empty());
  }
}

TEST_F(ArchiveTest, AReversedRangeIsFinalisedEmptyBoundsToo) {
  open();
  for (int i = 1; i < 10; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  const Answer answer = ask({{1, "a"}, 0, second(5), second(4), Kind::range, true, true});
  EXPECT_TRUE(answer.final);
  EXPECT_TRUE(answer.pushed.empty());
}

TEST_F(ArchiveTest, NothingNewerIsAnsweredWithoutTheFile) {
  open();
  for (int i = 1; i <= 10; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  open();
  EXPECT_TRUE(answers({{1, "a"}, 0, second(11), 0}));
  EXPECT_TRUE(answers({{1, "a"}, 0, second(11), 0, Kind::oldest}));
  EXPECT_TRUE(answers({{1, "a"}, 0, second(-5), second(0), Kind::newest}));
  EXPECT_EQ(counters().diskReads, 0U);
  EXPECT_TRUE(answers({{1, "a"}, 0, second(10), 0}));
  EXPECT_EQ(counters().diskReads, 1U);
}

TEST_F(ArchiveTest, ALimitedReadPushesOneMoreThanTheLimitButNotEverything) {
  open();
  for (int i = 1; i <= 5000; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  Question question;
  question.limit = 100;
  const Answer answer = ask(question);
  EXPECT_GE(answer.pushed.size(), 101U);
  EXPECT_LE(answer.pushed.size(), 1101U);
  EXPECT_TRUE(answers(question));
}

TEST_F(ArchiveTest, AClosedReaderStopsTheRead) {
  open();
  for (int i = 1; i <= 5000; ++i) write(second(i), i);
  const auto request = boost::make_shared<archive::Request>();
  const archive::SharedItem item = request->addItem(1);
  const archive::SharedInterval interval = item->addInterval(0, 0, 0);
  interval->setHandle(archive_->itemHandle({1, "a"}));
  item->close();
  archive_->read(interval);
  EXPECT_TRUE(interval->isFinal());
  EXPECT_EQ(counters().pushed, 0U);
}

TEST_F(ArchiveTest, BoundsAreTheNewestBeforeAndTheOldestBehind) {
  open();
  for (int i = 1; i <= 9; ++i) write(second(10 * i), i);
  for (const bool inFile : {false, true}) {
    if (inFile) {
      ASSERT_TRUE(worker().writeAll());
    }
    EXPECT_EQ(values({{1, "a"}, 0, second(25), second(45), Kind::range, true, true}),
              (std::vector<double>{2, 3, 4, 5}));
    EXPECT_EQ(values({{1, "a"}, 0, second(30), second(40), Kind::range, true, true}),
              (std::vector<double>{2, 3, 4, 5}));
    EXPECT_EQ(values({{1, "a"}, 0, second(1), second(5), Kind::range, true, true}),
              (std::vector<double>{1}));
    EXPECT_EQ(values({{1, "a"}, 0, second(95), second(99), Kind::range, true, true}),
              (std::vector<double>{9}));
    EXPECT_EQ(values({{1, "a"}, 0, second(85), 0, Kind::range, true, true}),
              (std::vector<double>{8, 9}));
  }
}

TEST_F(ArchiveTest, OldestAndNewestAreOneSample) {
  open();
  for (int i = 1; i <= 3000; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  write(second(3001), 3001);
  EXPECT_EQ(values({{1, "a"}, 0, 0, 0, Kind::oldest}), (std::vector<double>{1}));
  EXPECT_EQ(values({{1, "a"}, 0, 0, 0, Kind::newest}), (std::vector<double>{3001}));
  EXPECT_EQ(values({{1, "a"}, 0, second(1500), second(1600), Kind::oldest}),
            (std::vector<double>{1500}));
  EXPECT_EQ(values({{1, "a"}, 0, second(1500), second(1600), Kind::newest}),
            (std::vector<double>{1600}));
}

TEST_F(ArchiveTest, OfEqualTimesTheNewestKindTakesTheLaterAndTheOldestKindTheFirst) {
  open();
  write(second(1), 1);
  write(second(1), 2);
  ASSERT_TRUE(worker().writeAll());
  write(second(1), 3);
  EXPECT_EQ(values({{1, "a"}, 0, 0, 0, Kind::oldest}), (std::vector<double>{1}));
  EXPECT_EQ(values({{1, "a"}, 0, 0, 0, Kind::newest}), (std::vector<double>{3}));
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(values({{1, "a"}, 0, 0, 0, Kind::newest}), (std::vector<double>{3}));
  EXPECT_EQ(values({}), (std::vector<double>{1, 2, 3}));
}

TEST_F(ArchiveTest, AnIntervalOfEveryLayerIsInTimeOrder) {
  open();
  for (int i = 1; i <= 1200; ++i) {
    write({1, "a"}, i % 3, makePin(second(i), realValue(i)));
    if (i == 700) {
      ASSERT_TRUE(worker().writeAll());
    }
  }
  std::vector<double> all(1200);
  for (int i = 1; i <= 1200; ++i) all[static_cast<std::size_t>(i - 1)] = i;
  EXPECT_EQ(values({{1, "a"}, -1}), all);
  EXPECT_EQ(values({{1, "a"}, -1, second(600), second(601), Kind::range, true, true}),
            (std::vector<double>{599, 600, 601, 602}));
  EXPECT_EQ(values({{1, "a"}, -1, 0, second(800), Kind::newest}), (std::vector<double>{800}));
  EXPECT_EQ(values({{1, "a"}, -1, second(5), 0, Kind::oldest}), (std::vector<double>{5}));
}

// ---- what is kept

TEST_F(ArchiveTest, EveryKeptTypeComesBackBitForBit) {
  open();
  std::int64_t time = second(0);
  for (const OpcUa_VariantHlp& value : extremeValues()) {
    ++time;
    write({1, "a"}, 0, makePin(time, value, static_cast<std::uint32_t>(time)));
  }
  EXPECT_TRUE(answers({}));
  open();
  EXPECT_TRUE(answers({}));
  EXPECT_EQ(counters().refused, 0U);
}

TEST_F(ArchiveTest, ADataValueIsKeptAsItsInnerValue) {
  open();
  OpcUa_VariantHlp inner;
  inner.SetDataValue(realValue(42), 0x80000000U, second(7), second(8));
  OpcUa_VariantHlp outer;
  outer.SetDataValue(inner, 0, second(9));
  archive_->layerWriter({1, "a"}, 0, 0).write(makePin(second(1), outer, 5));
  for (int round = 0; round < 2; ++round) {
    const Answer answer = ask({});
    ASSERT_EQ(answer.pushed.size(), 1U);
    EXPECT_TRUE(sameSample(*answer.pushed[0], *makePin(second(1), realValue(42), 5)));
    ASSERT_TRUE(worker().writeAll());
  }
}

TEST_F(ArchiveTest, ArraysAndOtherTypesAreRefusedCountedAndTracedOnceASecond) {
  open();
  OpcUa_VariantHlp array;
  const OpcUa_VariantHlp element = realValue(1);
  array.SetArray(OpcUaType_Double, &element, 1);
  OpcUa_VariantHlp wrapped;
  wrapped.SetDataValue(array, 0, 0);
  OpcUa_VariantHlp bytes;
  bytes.SetBytes(OpcUaType_ByteString, "x", 1);
  archive::ILayerWriter& writer = archive_->layerWriter({1, "a"}, 0, 0);
  for (const OpcUa_VariantHlp& value : {array, wrapped, bytes, bytes}) {
    writer.write(makePin(second(1), value));
  }
  EXPECT_EQ(counters().refused, 4U);
  EXPECT_EQ(counters().accepted, 0U);
  EXPECT_EQ(trace_.countContaining("refused"), 1);
  clock_.advance(kTicksPerSecond);
  writer.write(makePin(second(2), bytes));
  EXPECT_EQ(trace_.countContaining("refused"), 2);
  EXPECT_TRUE(ask({}).pushed.empty());
}

// ---- the write buffer

TEST_F(ArchiveTest, AFullBufferDropsTheNewestAndSaysSoOnceASecond) {
  limits_.writeBufferSize = 10;
  open();
  for (int i = 1; i <= 15; ++i) write(second(i), i);
  EXPECT_EQ(counters().accepted, 10U);
  EXPECT_EQ(counters().dropped, 5U);
  EXPECT_EQ(trace_.countContaining("write buffer full"), 1);
  EXPECT_EQ(values({}), (std::vector<double>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  clock_.advance(kTicksPerSecond);
  write(second(16), 16);
  EXPECT_EQ(trace_.countContaining("write buffer full"), 2);
  ASSERT_TRUE(worker().writeAll());
  write(second(17), 17);
  EXPECT_EQ(counters().accepted, 11U);
  EXPECT_TRUE(answers({}));
}

TEST_F(ArchiveTest, ATransactionBeginsWhenTheWritePeriodHasPassed) {
  limits_.writePeriod = kTicksPerSecond;
  open();
  write(second(1), 1);
  EXPECT_EQ(worker().pass(), kTicksPerSecond);
  EXPECT_EQ(counters().commits, 0U);
  clock_.advance(kTicksPerSecond - 1);
  EXPECT_EQ(worker().pass(), 1);
  EXPECT_EQ(counters().commits, 0U);
  clock_.advance(1);
  worker().pass();
  EXPECT_EQ(counters().commits, 1U);
  EXPECT_EQ(inFile("SELECT sum(count) FROM segment"), 1);
}

TEST_F(ArchiveTest, ATransactionBeginsWhenEnoughSamplesWaitAndHoldsNoMore) {
  limits_.maxWriteValues = 100;
  open();
  for (int i = 1; i <= 99; ++i) write({i % 7, "a"}, 0, makePin(second(i), realValue(i)));
  worker().pass();
  EXPECT_EQ(counters().commits, 0U);
  for (int i = 100; i <= 250; ++i) write({i % 7, "a"}, 0, makePin(second(i), realValue(i)));
  worker().pass();
  EXPECT_EQ(counters().commits, 1U);
  EXPECT_EQ(counters().written, 100U);
  // The oldest ones, of all items: what is written is a prefix.
  EXPECT_EQ(inFile("SELECT max(last) FROM segment"), second(100));
  worker().pass();
  EXPECT_EQ(counters().written, 200U);
  worker().pass();
  EXPECT_EQ(counters().written, 200U);
}

TEST_F(ArchiveTest, AClockThatIsSetOrStandsStillDoesNotKeepSamplesFromTheFile) {
  limits_.writePeriod = kTicksPerSecond;
  open();
  for (const long long hours : {-1, 2, 0}) {
    const std::uint64_t before = counters().commits;
    clock_.setFrozen(hours == 0);
    write(clock_.now(), 1);
    clock_.setTime(clock_.now() + hours * kTicksPerHour);
    clock_.advance(kTicksPerSecond - 1);
    worker().pass();
    EXPECT_EQ(counters().commits, before);
    clock_.advance(1);
    worker().pass();
    EXPECT_EQ(counters().commits, before + 1);
  }
}

TEST_F(ArchiveTest, OneTransactionMakesOneRowForEachItemAndLayer) {
  open();
  for (int i = 0; i < 300; ++i) {
    write({i % 3, "a"}, i % 2, makePin(second(i), realValue(i)));
  }
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(inFile("SELECT count(*) FROM segment"), 6);
}

// ---- order

TEST_F(ArchiveTest, OlderSamplesAfterARestartFindTheirPlace) {
  open();
  for (int i = 100; i < 200; ++i) write(second(i), i);
  open();
  for (int i = 50; i < 300; i += 3) write(second(i), 1000 + i);
  EXPECT_TRUE(answers({}));
  ASSERT_TRUE(worker().writeAll());
  EXPECT_TRUE(answers({}));
  EXPECT_TRUE(answers({{1, "a"}, 0, second(120), second(130), Kind::range, true, true}));
  open();
  EXPECT_TRUE(answers({}));
}

TEST_F(ArchiveTest, AYearOfSamplesBeforeOneFromTheFutureStaysCheap) {
  open();
  write(second(0), 0);
  write(second(100'000'000), -1);
  open();
  for (int i = 1; i <= 2000; ++i) {
    write(second(i), i);
    if (i % 10 == 0) {
      ASSERT_TRUE(worker().writeAll());
    }
    worker().pass();
  }
  EXPECT_TRUE(answers({}));
  EXPECT_LE(inFile("SELECT count(*) FROM segment"), 40);
}

TEST_F(ArchiveTest, ThousandsOfSamplesOfOneTimeKeepTheirOrder) {
  open();
  for (int i = 0; i < 2500; ++i) {
    write(second(1), i);
    if (i % 600 == 599) {
      ASSERT_TRUE(worker().writeAll());
    }
  }
  write(second(2), 1e6);
  ASSERT_TRUE(worker().writeAll());
  for (int i = 0; i < 1200; ++i) write(second(1), 10000 + i);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_TRUE(answers({}));
  ASSERT_TRUE(worker().mergeAll());
  EXPECT_TRUE(answers({}));
  for (const Kind kind : {Kind::oldest, Kind::newest}) {
    EXPECT_TRUE(answers({{1, "a"}, 0, second(1), second(1), kind}));
  }
}

// ---- joining

TEST_F(ArchiveTest, SmallSegmentsAreJoinedInTheBackground) {
  limits_.writePeriod = 0;
  open();
  for (int i = 0; i < 5000; ++i) {
    write(second(i), i % 50);
    while (worker().pass() == 0) {
    }
  }
  EXPECT_EQ(counters().commits, 5000U);
  EXPECT_GT(counters().merged, 0U);
  EXPECT_LE(inFile("SELECT count(*) FROM segment"), 40);
  EXPECT_EQ(inFile("SELECT max(count) FROM segment"), 1000);
  EXPECT_TRUE(answers({}));
  ASSERT_TRUE(worker().mergeAll());
  EXPECT_EQ(inFile("SELECT count(*) FROM segment"), 5);
  EXPECT_TRUE(answers({}));
}

TEST_F(ArchiveTest, JoiningGoesOnAfterARestart) {
  limits_.writePeriod = 0;
  for (int i = 0; i < 200; ++i) {
    if (i % 5 == 0) open();
    write(second(i), i);
    ASSERT_TRUE(worker().writeAll());
    while (worker().pass() == 0) {
    }
  }
  EXPECT_LE(inFile("SELECT count(*) FROM segment"), 40);
  EXPECT_TRUE(answers({}));
}

// ---- limits

TEST_F(ArchiveTest, SamplesOlderThanMaxTimeAreDeletedButNeverTheNewest) {
  limits_.maxTime = 100 * kTicksPerSecond;
  open();
  for (int i = 0; i < 1500; ++i) write(second(i), i);
  write({2, "b"}, 0, makePin(second(3), realValue(3)));
  write({2, "b"}, 0, makePin(second(4), realValue(4)));
  ASSERT_TRUE(worker().writeAll());
  clock_.setTime(second(1200));
  ASSERT_TRUE(worker().cleanUp());
  std::vector<PinPtr>& kept = list_.samples({1, "a"}, 0);
  kept.erase(kept.begin(), kept.begin() + 1100);
  list_.samples({2, "b"}, 0).erase(list_.samples({2, "b"}, 0).begin());
  EXPECT_TRUE(answers({}));
  EXPECT_TRUE(answers({{2, "b"}}));
  EXPECT_EQ(counters().deleted, 1101U);
  clock_.setTime(second(100000));
  ASSERT_TRUE(worker().cleanUp());
  EXPECT_EQ(values({}), (std::vector<double>{1499}));
  EXPECT_EQ(values({{2, "b"}}), (std::vector<double>{4}));
  open();
  EXPECT_EQ(values({}), (std::vector<double>{1499}));
}

TEST_F(ArchiveTest, NoMoreThanMaxDelValuesGoInOneTransaction) {
  limits_.maxTime = kTicksPerSecond;
  limits_.maxDelValues = 700;
  limits_.cleanupPeriod = kTicksPerSecond;
  open();
  for (int i = 0; i < 3000; ++i) write({i % 2, "a"}, 0, makePin(second(i), realValue(i)));
  ASSERT_TRUE(worker().writeAll());
  worker().pass();
  clock_.advance(second(10000) - clock_.now());
  std::uint64_t before = 0;
  while (worker().pass() == 0) {
    EXPECT_LE(counters().deleted - before, 700U);
    before = counters().deleted;
  }
  EXPECT_EQ(counters().deleted, 2998U);
}

TEST_F(ArchiveTest, CleaningUpHappensEveryCleanupPeriodAndNeverForZero) {
  limits_.maxTime = kTicksPerSecond;
  for (const std::int64_t period : {std::int64_t{0}, std::int64_t{kTicksPerMinute}}) {
    limits_.cleanupPeriod = period;
    open();
    write(clock_.now(), 1);
    write(clock_.now() + 1, 2);
    ASSERT_TRUE(worker().writeAll());
    while (worker().pass() == 0) {
    }
    clock_.advance(kTicksPerMinute - 1);
    while (worker().pass() == 0) {
    }
    EXPECT_EQ(counters().deleted, 0U);
    clock_.advance(1);
    while (worker().pass() == 0) {
    }
    EXPECT_EQ(counters().deleted > 0, period != 0);
  }
}

// Somebody sets the clock a year forward, and right again before the next clean-up but one.
TEST_F(ArchiveTest, AClockSetForwardIsBelievedAtTheSecondCleanUpOnly) {
  constexpr std::int64_t kYear = 365 * 24 * kTicksPerHour;
  limits_.maxTime = 24 * kTicksPerHour;
  limits_.cleanupPeriod = kTicksPerHour;
  const auto cleanUpIsDue = [this] {
    clock_.advance(kTicksPerHour);
    while (worker().pass() == 0) {
    }
  };
  open();
  for (int i = 0; i < 100; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  worker().pass();
  clock_.setTime(clock_.now() + kYear);
  cleanUpIsDue();
  EXPECT_EQ(counters().deleted, 0U);
  clock_.setTime(clock_.now() - kYear);
  cleanUpIsDue();
  cleanUpIsDue();
  EXPECT_EQ(counters().deleted, 0U);
  EXPECT_TRUE(answers({}));
  clock_.setTime(clock_.now() + kYear);
  cleanUpIsDue();
  cleanUpIsDue();
  EXPECT_EQ(counters().deleted, 99U);
}

TEST_F(ArchiveTest, MaxSizeBoundsTheFileAndKeepsTheNewestSamples) {
  limits_.maxSize = 1;
  limits_.writeBufferSize = 1'000'000;
  open();
  std::mt19937_64 random(1);
  for (int round = 0; round < 40; ++round) {
    for (int i = 0; i < 10000; ++i) {
      // Random bits: what cannot be made smaller.
      const std::uint64_t bits = random() & 0xFFEFFFFFFFFFFFFFULL;
      double value = 0;
      std::memcpy(&value, &bits, sizeof value);
      archive_->layerWriter({i % 10, "a"}, 0, 0)
          .write(makePin(second(round * 10000 + i), realValue(value)));
    }
    ASSERT_TRUE(worker().writeAll());
    ASSERT_TRUE(worker().cleanUp());
    std::uintmax_t size = 0;
    for (const auto& file : fs::directory_iterator(folder_.path())) {
      if (file.path().filename() != "archive.db-shm") size += file.file_size();
    }
    EXPECT_LE(size, 1'000'000U);
  }
  EXPECT_GE(inFile("SELECT sum(count) FROM segment"), 50'000);
  for (int item = 0; item < 10; ++item) {
    const Answer answer = ask({{item, "a"}, 0, 0, 0, Kind::newest});
    ASSERT_EQ(answer.pushed.size(), 1U);
    EXPECT_EQ(answer.pushed[0]->time, second(39 * 10000 + 9990 + item));
    EXPECT_TRUE(ask({{item, "a"}, 0, 0, second(280'000)}).pushed.empty());
  }
}

// ---- places

TEST_F(ArchiveTest, AMissingFolderIsMade) {
  connection_.location = folder_ / "deep/er";
  open();
  write(second(1), 1);
  close();
  EXPECT_TRUE(fs::exists(folder_ / "deep/er/archive.db"));
}

TEST_F(ArchiveTest, ANameWithAnExtensionIsAFile) {
  connection_.location = folder_ / "history.db";
  open();
  write(second(1), 1);
  close();
  EXPECT_TRUE(fs::is_regular_file(folder_ / "history.db"));
}

TEST_F(ArchiveTest, ASecondArchiveAtOnePlaceIsRefusedUntilTheFirstHasGone) {
  open();
  write(second(1), 1);
  ASSERT_TRUE(worker().writeAll());
  Archive second_(limits_, connection_);
  second_.open();
  EXPECT_EQ(trace_.countContaining("another archive is open at this place"), 1);
  archive::ILayerWriter& writer = second_.layerWriter({1, "a"}, 0, 0);
  writer.write(makePin(second(2), realValue(2)));
  writer.write(makePin(second(3), realValue(3)));
  EXPECT_EQ(second_.counters().accepted, 0U);
  EXPECT_EQ(second_.counters().dropped, 2U);
  EXPECT_EQ(trace_.countContaining("is another's"), 1);
  EXPECT_EQ(second_.itemHandle({1, "a"}), 0U);
  const Answer answer = test::ask(second_, {});
  EXPECT_TRUE(answer.final);
  EXPECT_TRUE(answer.pushed.empty());
  EXPECT_EQ(values({}), (std::vector<double>{1}));

  close();
  clock_.advance(connection_.reconnectTimeout);
  second_.worker().pass();
  EXPECT_NE(second_.itemHandle({1, "a"}), 0U);
  writer.write(makePin(second(4), realValue(4)));
  EXPECT_EQ(test::ask(second_, {}).pushed.size(), 2U);
}

TEST_F(ArchiveTest, AFileThatIsNoDatabaseIsMovedAsideAndANewOneBegun) {
  const std::string rubbish(10000, 'r');
  std::ofstream(folder_ / "archive.db") << rubbish;
  open();
  EXPECT_EQ(trace_.countContaining("was moved to"), 1);
  write(second(1), 1);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_TRUE(answers({}));
  std::string kept;
  for (const auto& file : fs::directory_iterator(folder_.path())) {
    const std::string name = file.path().filename().string();
    if (name.find("unreadable") != std::string::npos) kept = file.path().string();
  }
  ASSERT_FALSE(kept.empty());
  EXPECT_EQ(fs::file_size(kept), rubbish.size());
}

TEST_F(ArchiveTest, AForeignOrLaterSchemaIsMovedAside) {
  const std::vector<std::string> changes = {"PRAGMA application_id=1", "PRAGMA user_version=2",
                                            "ALTER TABLE segment RENAME TO other",
                                            "ALTER TABLE item RENAME COLUMN path TO name"};
  for (const std::string& change : changes) {
    SCOPED_TRACE(change);
    open();
    write(second(1), 1);
    close();
    changeFile(change);
    trace_.clear();
    open();
    EXPECT_EQ(trace_.countContaining("was moved to"), 1);
    EXPECT_EQ(archive_->itemHandle({1, "a"}), 0U);
    write(second(2), 2);
    EXPECT_EQ(values({}), (std::vector<double>{2}));
    close();
  }
}

TEST_F(ArchiveTest, AFileCutAtAnyPageIsReadOrMovedAside) {
  std::mt19937_64 random(1);
  open();
  for (int i = 0; i < 200; ++i) {
    write({i % 20, "a"}, 0, makePin(second(i), textValue(randomText(random, 400))));
  }
  close();
  const std::string file = folder_ / "archive.db";
  const std::string copy = folder_ / "copy";
  fs::copy_file(file, copy);
  const std::uintmax_t pages = fs::file_size(copy) / 4096;
  ASSERT_GT(pages, 8U);
  for (std::uintmax_t page = 0; page < pages; ++page) {
    fs::copy_file(copy, file, fs::copy_options::overwrite_existing);
    fs::resize_file(file, page * 4096 + (page % 3) * 100);
    open();
    ASSERT_TRUE(worker().ready()) << "cut at page " << page;
    EXPECT_TRUE(ask({}).final);
    close();
  }
}

TEST_F(ArchiveTest, ALocationThatCannotBeMadeIsTriedAgain) {
  std::ofstream(folder_ / "file") << "x";
  connection_.location = folder_ / "file/under";
  open();
  EXPECT_FALSE(worker().ready());
  EXPECT_EQ(trace_.countContaining("cannot be"), 1);
  write(second(1), 1);
  EXPECT_EQ(counters().accepted, 1U);
  const Answer waiting = ask({});
  EXPECT_EQ(waiting.pushed.size(), 1U);
  EXPECT_EQ(waiting.failure, status::kBadDataUnavailable);

  fs::remove(folder_ / "file");
  EXPECT_EQ(worker().pass(), connection_.reconnectTimeout);
  EXPECT_FALSE(worker().ready());
  clock_.advance(connection_.reconnectTimeout);
  worker().pass();
  EXPECT_TRUE(worker().ready());
  EXPECT_EQ(trace_.countContaining("works again"), 1);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_TRUE(answers({}));
}

TEST_F(ArchiveTest, NoLocationIsAnErrorLineAndNoFile) {
  connection_.location.clear();
  open();
  EXPECT_FALSE(worker().ready());
  EXPECT_EQ(trace_.countContaining("no location is configured"), 1);
}

// ---- failures

TEST_F(ArchiveTest, AFullDiskKeepsTheBatchAndTheBufferTakesNewSamples) {
  std::mt19937_64 random(1);
  limits_.writeBufferSize = 5000;
  limits_.maxWriteValues = 5000;
  open();
  write(second(0), 0);
  ASSERT_TRUE(worker().writeAll());
  ASSERT_TRUE(worker().store().db().exec("PRAGMA max_page_count=12"));
  for (int i = 1; i <= 5000; ++i) {
    write({1, "a"}, 0, makePin(second(i), textValue(randomText(random, 50))));
  }
  worker().pass();
  EXPECT_EQ(counters().failures, 1U);
  EXPECT_EQ(trace_.countContaining("disk is full"), 1);
  EXPECT_EQ(counters().written, 1U);
  EXPECT_TRUE(answers({}));
  for (int i = 5001; i <= 10500; ++i) write(second(i), i);
  EXPECT_EQ(counters().dropped, 500U);
  EXPECT_TRUE(answers({}));
  // Not before the time is up.
  worker().pass();
  EXPECT_EQ(counters().failures, 1U);
  clock_.advance(connection_.reconnectTimeout);
  worker().pass();
  EXPECT_EQ(counters().failures, 2U);
  EXPECT_EQ(trace_.countContaining("disk is full"), 1);

  ASSERT_TRUE(worker().store().db().exec("PRAGMA max_page_count=100000"));
  clock_.advance(connection_.reconnectTimeout);
  worker().pass();
  EXPECT_EQ(counters().written, 5001U);
  EXPECT_EQ(trace_.countContaining("works again"), 1);
  EXPECT_TRUE(answers({}));
  open();
  EXPECT_TRUE(answers({}));
}

TEST_F(ArchiveTest, WhatAStopCannotWriteIsCountedAndSaid) {
  std::ofstream(folder_ / "file") << "x";
  connection_.location = folder_ / "file/under";
  open();
  for (int i = 0; i < 25; ++i) write(second(i), i);
  archive_->shutDown();
  archive_->close();
  EXPECT_EQ(counters().dropped, 25U);
  EXPECT_EQ(trace_.countContaining("25 samples that could not be written"), 1);
}

TEST_F(ArchiveTest, ADamagedSegmentIsSetApartAndTheRestGoesOn) {
  limits_.maxWriteValues = 100;
  open();
  for (int i = 0; i < 300; ++i) write(second(i), i * 0.37);
  ASSERT_TRUE(worker().writeAll());
  close();
  changeFile(
      "UPDATE segment SET data = substr(data, 1, 10) || x'5AA5' || substr(data, 13) "
      "WHERE first = " +
      std::to_string(second(100)));
  open();
  Answer answer = ask({});
  EXPECT_EQ(answer.failure, status::kBadDataLost);
  EXPECT_EQ(answer.pushed.size(), 200U);
  EXPECT_EQ(counters().damaged, 1U);
  EXPECT_EQ(trace_.countContaining("is damaged"), 1);
  worker().pass();
  EXPECT_EQ(inFile("SELECT count(*) FROM damaged"), 1);
  EXPECT_EQ(inFile("SELECT count(*) FROM segment WHERE first = " + std::to_string(second(100))), 0);

  // Later reads of the stretch say so too, those beside it do not; and after a restart.
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(ask({{1, "a"}, 0, second(150), second(160)}).failure, status::kBadDataLost);
    EXPECT_EQ(ask({{1, "a"}, 0, second(150), second(160)}).pushed.size(), 0U);
    EXPECT_EQ(ask({{1, "a"}, 0, second(0), second(99)}).failure, 0U);
    EXPECT_EQ(ask({{1, "a"}, 0, second(0), second(99)}).pushed.size(), 100U);
    EXPECT_EQ(ask({{1, "a"}, 0, 0, second(150), Kind::newest}).failure, status::kBadDataLost);
    EXPECT_EQ(ask({{1, "a"}, 0, 0, second(250), Kind::newest}).failure, 0U);
    EXPECT_EQ(ask({{1, "a"}, 0, second(120), 0, Kind::oldest}).failure, status::kBadDataLost);
    EXPECT_EQ(trace_.countContaining("is damaged"), 1);
    open();
  }
}

TEST_F(ArchiveTest, DamageThatJoiningMeetsIsSetApartToo) {
  limits_.maxWriteValues = 3;
  open();
  for (int i = 0; i < 60; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  close();
  changeFile("UPDATE segment SET data = x'0102' WHERE id = 4");
  changeFile("UPDATE segment SET count = count + 1 WHERE id = 9");
  changeFile("UPDATE segment SET last = last - 1 WHERE id = 12");
  open();
  ASSERT_TRUE(worker().mergeAll());
  ASSERT_TRUE(worker().mergeAll());
  ASSERT_TRUE(worker().mergeAll());
  ASSERT_TRUE(worker().mergeAll());
  EXPECT_EQ(inFile("SELECT count(*) FROM damaged"), 3);
  EXPECT_EQ(inFile("SELECT sum(count) FROM segment"), 51);
  EXPECT_EQ(ask({}).failure, status::kBadDataLost);
  EXPECT_EQ(ask({}).pushed.size(), 51U);
}

TEST_F(ArchiveTest, WhatLostItsNameIsNotGivenToAnotherItem) {
  open();
  write(second(1), 1);
  write({2, "b"}, 0, makePin(second(1), realValue(2)));
  ASSERT_TRUE(worker().writeAll());
  close();
  changeFile("DELETE FROM item WHERE path = 'b'");
  open();
  EXPECT_GE(trace_.countContaining("which has no name"), 1);
  write({3, "c"}, 0, makePin(second(2), realValue(3)));
  ASSERT_TRUE(worker().writeAll());
  EXPECT_TRUE(answers({{3, "c"}}));
  EXPECT_TRUE(answers({{1, "a"}}));
  EXPECT_EQ(inFile("SELECT count(DISTINCT handle) FROM segment"), 3);
}

TEST_F(ArchiveTest, UnreadablePagesInUseEndInANewFileThatTakesSamples) {
  limits_.maxWriteValues = 50;
  open();
  for (int i = 0; i < 4000; ++i) {
    write({i % 40, "a"}, 0, makePin(second(i), textValue(std::string(200, static_cast<char>(i)))));
  }
  ASSERT_TRUE(worker().writeAll());
  close();
  {
    // Every page but the first few is overwritten.
    std::fstream file(folder_ / "archive.db", std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096 * 6);
    const auto size = static_cast<std::size_t>(fs::file_size(folder_ / "archive.db"));
    file << std::string(size - 4096 * 6, '\x5A');
  }
  open();
  list_ = PlainList();
  for (int i = 5000; i < 5400; ++i) {
    write({i % 40, "a"}, 0, makePin(second(i), realValue(i)));
    clock_.advance(kTicksPerSecond);
    worker().pass();
  }
  for (int i = 0; i < 20 && !worker().writeAll(); ++i) clock_.advance(kTicksPerSecond);
  EXPECT_GE(trace_.countContaining("was moved to"), 1);
  for (int item = 0; item < 40; ++item) {
    EXPECT_TRUE(answers({{item, "a"}, 0, second(5000), 0}));
  }
}

// ---- parameters

TEST_F(ArchiveTest, ParametersSayHowSafelyATransactionIsWritten) {
  connection_.parameters.clear();
  open();
  EXPECT_EQ(worker().store().db().number("PRAGMA synchronous"), 2);
  EXPECT_EQ(textInFile("PRAGMA journal_mode"), "wal");
  connection_.parameters = " Synchronous = normal ; cacheKiB=100;";
  open();
  EXPECT_EQ(worker().store().db().number("PRAGMA synchronous"), 1);
  EXPECT_EQ(trace_.countContaining("parameters of"), 0);
  connection_.parameters = "synchronous=ALWAYS;colour=red;cacheKiB=0;checkpointPages";
  open();
  EXPECT_EQ(worker().store().db().number("PRAGMA synchronous"), 2);
  EXPECT_EQ(trace_.countContaining("parameters of"), 4);
  EXPECT_EQ(trace_.countContaining("unknown key \"colour\""), 1);
}

TEST_F(ArchiveTest, NewSamplesWaitForTheDiskAndJoiningDoesNot) {
  connection_.parameters.clear();
  open();
  write(second(1), 1);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(worker().store().db().number("PRAGMA synchronous"), 2);
  ASSERT_TRUE(worker().mergeAll());
  EXPECT_EQ(worker().store().db().number("PRAGMA synchronous"), 1);
  write(second(2), 2);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(worker().store().db().number("PRAGMA synchronous"), 2);
}

}  // namespace
}  // namespace orva::sqlite::test
