#include "orva_sqlite/provider.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/smart_ptr/make_shared.hpp>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <thread>

#include "share/ticks.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

namespace fs = std::filesystem;

// Real threads on the real clock; nothing waits longer than it must.
class ProviderTest : public ::testing::Test {
 protected:
  ProviderTest() {
    connection_.location = folder_.path();
    limits_.writePeriod = kTicksPerMillisecond;
    limits_.writeBufferSize = 1'000'000;
  }

  boost::shared_ptr<Provider> make() {
    return boost::static_pointer_cast<Provider>(Factory().create(limits_, connection_));
  }
  boost::shared_ptr<Provider> start() {
    auto provider = make();
    provider->start();
    return provider;
  }

  // Until the provider's thread has made it true; false after ten seconds.
  static bool waitFor(Provider& provider, const std::function<bool()>& done) {
    Signal& progress = provider.sqliteArchive().progress();
    for (int i = 0; i < 1000; ++i) {
      const std::uint64_t seen = progress.count();
      if (done()) return true;
      progress.waitReal(seen, 10 * kTicksPerMillisecond);
    }
    return false;
  }

  TemporaryFolder folder_;
  orva::test::TraceCapture trace_;
  archive::ArchiveCfg limits_;
  archive::ConnectionCfg connection_;
};

PinPtr sample(std::int64_t n) { return makePin(second(n), realValue(static_cast<double>(n))); }

std::int64_t numberOf(const PinPtr& pin) {
  return static_cast<std::int64_t>(pin->value.Get().Value.Double);
}

TEST_F(ProviderTest, ItsThreadWritesWhatIsAccepted) {
  const auto provider = start();
  archive::ILayerWriter& writer = provider->archive()->layerWriter({1, "a"}, 0, 0);
  for (int i = 0; i < 100; ++i) writer.write(sample(i));
  const Counters& counters = provider->sqliteArchive().counters();
  EXPECT_TRUE(waitFor(*provider, [&] { return counters.written == 100; }));
  provider->stop();
}

TEST_F(ProviderTest, ItStartsOnceAndNotAfterAStop) {
  const auto provider = start();
  provider->start();
  provider->archive()->layerWriter({1, "a"}, 0, 0).write(sample(1));
  const Counters& counters = provider->sqliteArchive().counters();
  EXPECT_TRUE(waitFor(*provider, [&] { return counters.written == 1; }));
  provider->stop();
  provider->start();
  EXPECT_EQ(provider->archive()->itemHandle({1, "a"}), 0U);
  const auto never = make();
  never->stop();
  never->start();
  EXPECT_FALSE(never->sqliteArchive().worker().ready());
}

TEST_F(ProviderTest, AStopWritesWhatIsBufferedAndEndsAllService) {
  limits_.writePeriod = kTicksPerHour;
  auto provider = start();
  archive::ILayerWriter& writer = provider->archive()->layerWriter({1, "a"}, 0, 0);
  for (int i = 0; i < 100; ++i) writer.write(sample(i));
  provider->stop();
  EXPECT_EQ(provider->sqliteArchive().counters().written, 100U);
  EXPECT_EQ(provider->archive()->itemHandle({1, "a"}), 0U);
  writer.write(sample(101));
  EXPECT_EQ(provider->sqliteArchive().counters().accepted, 100U);
  const Answer answer = ask(*provider->archive(), {});
  EXPECT_TRUE(answer.final);
  EXPECT_TRUE(answer.pushed.empty());
  provider->stop();
  provider.reset();

  const auto again = start();
  EXPECT_EQ(ask(*again->archive(), {}).pushed.size(), 100U);
}

TEST_F(ProviderTest, TheLastReferenceMayDieOnAnyThreadWithoutAStop) {
  auto provider = start();
  provider->archive()->layerWriter({1, "a"}, 0, 0).write(sample(1));
  std::thread([&] { provider.reset(); }).join();
  EXPECT_EQ(ask(*start()->archive(), {}).pushed.size(), 1U);
}

TEST_F(ProviderTest, AProviderThatIsNeverStartedLeavesNoFile) {
  make().reset();
  make()->stop();
  EXPECT_TRUE(fs::is_empty(folder_.path()));
}

TEST_F(ProviderTest, TheFilterIsThatOfTheConfiguration) {
  const auto provider = make();
  json::Document filter;
  filter.Parse("{\"allValues\":true,\"deadband\":0.5}");
  provider->archive()->loadFilter(filter);
  EXPECT_TRUE(provider->archive()->filter().allValues);
  EXPECT_EQ(provider->archive()->filter().deadband, 0.5);
}

TEST_F(ProviderTest, ACompletionMayReadAgainAndStopTheProvider) {
  const auto provider = start();
  archive::IDataArchive& archive = *provider->archive();
  for (int i = 0; i < 10; ++i) archive.layerWriter({1, "a"}, 0, 0).write(sample(i));
  const auto request = boost::make_shared<archive::Request>();
  const archive::SharedItem item = request->addItem(1);
  const archive::SharedInterval interval = item->addInterval(0, 0, 0);
  interval->setHandle(archive.itemHandle({1, "a"}));
  std::size_t inside = 0;
  interval->addListner([&](const archive::SharedInterval&) {
    inside = ask(archive, {}).pushed.size();
    provider->stop();
  });
  archive.read(interval);
  EXPECT_EQ(inside, 10U);
  EXPECT_EQ(provider->sqliteArchive().counters().written, 10U);
}

// Each read sees every sample written before it, none twice, none missing between, while
// transactions, joins and other reads go on.
TEST_F(ProviderTest, ReadsSeeBufferAndFileAsOfOneMoment) {
  constexpr int kStreams = 3;
  constexpr std::int64_t kSamples = 6000;
  connection_.parameters = "synchronous=OFF;checkpointPages=20";
  limits_.writePeriod = 0;
  limits_.maxWriteValues = 40;
  const auto provider = start();
  archive::IDataArchive& archive = *provider->archive();
  std::atomic<std::int64_t> written[kStreams] = {};
  std::atomic<bool> failed{false};
  std::vector<std::thread> threads;
  for (int stream = 0; stream < kStreams; ++stream) {
    archive::ILayerWriter& writer = archive.layerWriter({stream, "a"}, 0, 0);
    threads.emplace_back([&writer, &count = written[stream]] {
      for (std::int64_t n = 0; n < kSamples; ++n) {
        writer.write(sample(n));
        count = n + 1;
        if (n % 10 == 0) std::this_thread::yield();
      }
    });
  }
  for (int reader = 0; reader < 2; ++reader) {
    threads.emplace_back([&, reader] {
      for (int round = 0; !failed; ++round) {
        const int stream = (round + reader) % kStreams;
        const std::int64_t before = written[stream];
        Question question{{stream, "a"}};
        if (round % 2 == 0) question.start = second(std::max<std::int64_t>(before - 50, 1));
        const std::int64_t first = round % 2 == 0 ? std::max<std::int64_t>(before - 50, 1) : 0;
        const Answer answer = ask(archive, question);
        bool right = answer.failure == 0 &&
                     static_cast<std::int64_t>(answer.pushed.size()) >= before - first;
        for (std::size_t i = 0; right && i < answer.pushed.size(); ++i) {
          right = numberOf(answer.pushed[i]) == first + static_cast<std::int64_t>(i);
        }
        if (!right) failed = true;
        if (before == kSamples && round > 30) break;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(failed);
  EXPECT_EQ(provider->sqliteArchive().counters().dropped, 0U);
  EXPECT_TRUE(waitFor(*provider, [&] {
    return provider->sqliteArchive().counters().written == kStreams * kSamples;
  }));
  for (int stream = 0; stream < kStreams; ++stream) {
    EXPECT_EQ(ask(archive, {{stream, "a"}}).pushed.size(), static_cast<std::size_t>(kSamples));
  }
}

// Each read has the newest sample written before it and an unbroken stretch up to that, while a
// clean-up takes the oldest away.
TEST_F(ProviderTest, ReadsSeeAnUnbrokenEndWhileOldSamplesAreDeleted) {
  constexpr std::int64_t kSamples = 2000;
  connection_.parameters = "synchronous=OFF";
  limits_.writePeriod = 0;
  limits_.maxTime = kTicksPerSecond;  // the samples are years old
  limits_.cleanupPeriod = kTicksPerMillisecond;
  const auto provider = start();
  archive::IDataArchive& archive = *provider->archive();
  const Counters& counters = provider->sqliteArchive().counters();
  archive::ILayerWriter& writer = archive.layerWriter({1, "a"}, 0, 0);
  writer.write(sample(0));
  std::atomic<std::int64_t> written{1};
  std::atomic<bool> failed{false};
  std::thread reader([&] {
    for (bool last = false; !failed && !last;) {
      const std::int64_t before = written;
      last = before == kSamples;
      const Answer answer = ask(archive, {});
      bool right = answer.failure == 0 && !answer.pushed.empty() &&
                   numberOf(answer.pushed.back()) >= before - 1;
      for (std::size_t i = 1; right && i < answer.pushed.size(); ++i) {
        right = numberOf(answer.pushed[i]) == numberOf(answer.pushed[i - 1]) + 1;
      }
      if (!right) failed = true;
    }
  });
  for (std::int64_t n = 1; n < kSamples; ++n) {
    writer.write(sample(n));
    written = n + 1;
    // The next ones come when a clean-up has taken nearly all of these.
    if (n % 200 != 199) continue;
    EXPECT_TRUE(waitFor(*provider,
                        [&] { return counters.deleted >= static_cast<std::uint64_t>(n - 100); }));
  }
  reader.join();
  EXPECT_FALSE(failed);
  EXPECT_TRUE(waitFor(*provider, [&] { return counters.deleted == kSamples - 1; }));
  const Answer answer = ask(archive, {});
  ASSERT_EQ(answer.pushed.size(), 1U);
  EXPECT_EQ(numberOf(answer.pushed.front()), kSamples - 1);
}

// Runs `body` in another process, which gets the writing end of a pipe, and returns its id.
pid_t inAnotherProcess(int (&ends)[2], const std::function<void(int)>& body) {
  EXPECT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[0]);
    body(ends[1]);
    ::_exit(0);
  }
  ::close(ends[1]);
  return child;
}

void waitForEnd(pid_t child) {
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
}

TEST_F(ProviderTest, AfterAKillTheArchiveHoldsAPrefixWithAllThatWasCommitted) {
  constexpr int kItems = 5;
  // A process that dies leaves what it wrote to the system; only a loss of power needs more.
  connection_.parameters = "synchronous=OFF";
  limits_.writePeriod = 0;
  limits_.maxWriteValues = 37;
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    const std::string place = folder_ / ("kill" + std::to_string(round));
    connection_.location = place;
    int ends[2];
    const pid_t child = inAnotherProcess(ends, [this](int out) {
      Archive archive(limits_, connection_);
      archive.open();
      for (std::int64_t n = 0;; ++n) {
        archive.layerWriter({n % kItems, "a"}, 0, 0).write(sample(n));
        if (n % 50 == 49) archive.worker().pass();
        if (n % 11 == 0) archive.worker().pass();
        const std::int64_t committed = static_cast<std::int64_t>(archive.counters().written);
        if (n % 50 == 0 && ::write(out, &committed, sizeof committed) < 0) ::_exit(1);
      }
    });
    std::int64_t committed = 0;
    for (int i = 0; i < 10 + 7 * round; ++i) {
      ASSERT_EQ(::read(ends[0], &committed, sizeof committed),
                static_cast<ssize_t>(sizeof committed));
    }
    ASSERT_GT(committed, 0);
    ::kill(child, SIGKILL);
    waitForEnd(child);
    ::close(ends[0]);

    Archive archive(limits_, connection_);
    archive.open();
    EXPECT_EQ(trace_.countContaining("was moved to"), 0);
    std::vector<std::int64_t> numbers;
    for (int item = 0; item < kItems; ++item) {
      for (const PinPtr& pin : ask(archive, {{item, "a"}}).pushed) {
        numbers.push_back(numberOf(pin));
      }
    }
    std::sort(numbers.begin(), numbers.end());
    EXPECT_GE(static_cast<std::int64_t>(numbers.size()), committed);
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      ASSERT_EQ(numbers[i], static_cast<std::int64_t>(i));
    }
  }
}

TEST_F(ProviderTest, AnArchiveOfAnotherProcessIsNotOpenedASecondTime) {
  int ends[2];
  int release[2];
  ASSERT_EQ(::pipe(release), 0);
  const pid_t child = inAnotherProcess(ends, [&](int out) {
    ::close(release[1]);
    Archive archive(limits_, connection_);
    archive.open();
    char byte = archive.worker().ready() ? 'y' : 'n';
    if (::write(out, &byte, 1) != 1) ::_exit(1);
    if (::read(release[0], &byte, 1) < 0) ::_exit(1);
  });
  ::close(release[0]);
  char byte = 0;
  ASSERT_EQ(::read(ends[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'y');
  const auto provider = start();
  EXPECT_TRUE(provider->sqliteArchive().worker().refused());
  provider->archive()->layerWriter({1, "a"}, 0, 0).write(sample(1));
  EXPECT_EQ(provider->sqliteArchive().counters().dropped, 1U);
  EXPECT_EQ(provider->archive()->itemHandle({1, "a"}), 0U);
  provider->stop();
  ::close(release[1]);
  ::close(ends[0]);
  waitForEnd(child);
  EXPECT_FALSE(start()->sqliteArchive().worker().refused());
}

// A file system of 300 KiB that goes with the test.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& folder) : folder_(folder) {
    fs::create_directory(folder_);
    mounted_ = ::mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=300k") == 0;
  }
  ~SmallDisk() {
    if (mounted_) ::umount2(folder_.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }

 private:
  const std::string folder_;
  bool mounted_ = false;
};

TEST_F(ProviderTest, SpaceOnAFullDiskLetsItGoOnWithNothingLost) {
  SmallDisk disk(folder_ / "small");
  if (!disk.mounted()) GTEST_SKIP() << "no right to mount a file system";
  connection_.location = folder_ / "small";
  orva::test::ManualClock clock;
  Archive archive(limits_, connection_);
  archive.open();
  ASSERT_TRUE(archive.worker().ready());
  std::ofstream ballast(folder_ / "small/ballast", std::ios::binary);
  ballast << std::string(150'000, 'b') << std::flush;
  std::mt19937_64 random(1);
  std::vector<PinPtr> all;
  for (int i = 0; i < 8000; ++i) {
    const double value = static_cast<double>(random()) * 1e-3;
    all.push_back(makePin(second(i), realValue(value)));
    archive.layerWriter({1, "a"}, 0, 0).write(all.back());
    if (i % 400 == 399 && archive.counters().failures == 0) archive.worker().writeAll();
  }
  archive.worker().writeAll();
  EXPECT_GT(archive.counters().failures, 0U);
  EXPECT_GE(trace_.countContaining("archive \"" + connection_.location), 1);
  const auto complete = [&] {
    const Answer answer = ask(archive, {});
    if (answer.pushed.size() != all.size()) return false;
    return std::equal(all.begin(), all.end(), answer.pushed.begin(),
                      [](const PinPtr& a, const PinPtr& b) { return sameSample(*a, *b); });
  };
  EXPECT_TRUE(complete());
  ballast.close();
  fs::remove(folder_ / "small/ballast");
  clock.advance(connection_.reconnectTimeout);
  EXPECT_TRUE(archive.worker().writeAll());
  EXPECT_EQ(archive.counters().written, all.size());
  EXPECT_EQ(archive.counters().dropped, 0U);
  EXPECT_TRUE(complete());
  archive.shutDown();
  archive.close();
}

}  // namespace
}  // namespace orva::sqlite::test
