// What is left of the history when the host is killed: while a program writes, while segments are
// joined and old ones deleted, while it starts. ORVA_KILL_ROUNDS says how often.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "share/ticks.h"
#include "support/plant.h"

namespace orva::test {
namespace {

constexpr int kUsualRounds = 25;
// Each fifth round kills a host that has not come up yet.
constexpr int kStartEvery = 5;
constexpr int kWritePeriodMs = 100;  // as in PlantConfig
// How long before the kill a sample must have been accepted to be safe, on a disk that confirms at
// once. (See DiskProbe.)
constexpr int kRiskMs = kWritePeriodMs + 500;
// A transaction waits for the disk up to twice: for the write-ahead log and when that begins anew.
constexpr int kSyncsPerTransaction = 2;
constexpr std::size_t kLeastSafe = 20;  // in a run that is to prove something
constexpr const char* kCounter = "Plant/Counter";
// The same numbers in an archive that keeps them for two seconds: many small transactions, and
// between them joins and clean-ups.
constexpr const char* kShortLived = "Plant/ShortLived";
constexpr const char* kArchives = R"({"archives": [{
    "connection": {"providerType": "sqlite", "location": "store"},
    "limits": {"writePeriod": 1000000, "writeBufferSize": 100000},
    "filter": {"allValues": true}}, {
    "connection": {"providerType": "sqlite", "location": "short"},
    "limits": {"writePeriod": 200000, "writeBufferSize": 100000, "maxWriteValues": 10,
               "maxTime": 20000000, "cleanupPeriod": 3000000, "maxDelValues": 50},
    "filter": {"allValues": true}}]})";
// Only a start that hangs is a failure; how long they take is printed.
constexpr std::int64_t kLongestStartMs = 30'000;

int rounds() {
  const char* const text = std::getenv("ORVA_KILL_ROUNDS");
  return text == nullptr ? kUsualRounds : std::max(kStartEvery, std::atoi(text));
}
bool killsTheStart(int run) { return run % kStartEvery == kStartEvery - 1; }

// Each run counts from a number of its own.
int baseOf(int run) { return (run + 1) * 1'000'000; }
int valueOf(const Sample& sample) { return static_cast<int>(std::stod(sample.value)); }
int runOf(const Sample& sample) { return valueOf(sample) / 1'000'000 - 1; }

std::string counterProgram(int run) {
  return "local counter = ArchiveProc.new{Id = 1, Path = \"Plant/Counter\"}\n"
         "local short = ArchiveProc.new{Id = 2, Path = \"Plant/ShortLived\"}\n"
         "local n = " +
         std::to_string(baseOf(run)) +
         "\n"
         "function cycle()\n"
         "  n = n + 1\n"
         "  counter.Value = n\n"
         "  counter()\n"
         "  short.Value = n\n"
         "  short()\n"
         "end\n";
}

// Notes, in a process other than the host's, which samples the host has accepted and when it was
// known: asks for new records all the time.
class Ledger {
 public:
  struct Entry {
    Sample sample;
    std::int64_t knownAt;  // steadyMilliseconds()
  };

  Ledger(const HistoryClient& client, std::int64_t from)
      : client_(client), point_(from), thread_([this] { follow(); }) {}
  ~Ledger() { close(); }

  // Returns what was noted. No request is under way any more.
  const std::vector<Entry>& close() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    return entries_;
  }
  std::size_t size() const { return size_; }

 private:
  void follow() {
    while (!stop_) {
      const HistoryReply reply = client_.readNewRecords(kCounter, point_);
      if (reply.code == 0 && reply.item().continuationPoint) {
        const std::int64_t now = steadyMilliseconds();
        for (const Sample& sample : reply.item().values) entries_.push_back({sample, now});
        point_ = *reply.item().continuationPoint;
        size_ = entries_.size();
      }
      sleepMilliseconds(5);
    }
  }

  const HistoryClient client_;
  // Written by the thread, read after close().
  std::int64_t point_;
  std::vector<Entry> entries_;
  std::atomic<std::size_t> size_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// What the disk itself takes to confirm a write: a sample is safe one transaction after its write
// period, and while others keep the disk busy that alone may take longer than half a second.
class DiskProbe {
 public:
  explicit DiskProbe(const std::string& folder)
      : file_(::open((folder + "/probe").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600)),
        thread_([this] { follow(); }) {}
  ~DiskProbe() {
    stop_ = true;
    thread_.join();
    ::close(file_);
  }

  std::int64_t slowestMs() const {
    // A write that is still under way counts with what it has taken so far.
    const std::int64_t begun = begunAt_;
    const std::int64_t current = begun == 0 ? 0 : steadyMilliseconds() - begun;
    return std::max(slowest_.load(), current);
  }

 private:
  void follow() {
    while (!stop_) {
      begunAt_ = steadyMilliseconds();
      EXPECT_EQ(::pwrite(file_, "x", 1, 0), 1);
      EXPECT_EQ(::fdatasync(file_), 0);
      slowest_ = std::max(slowest_.load(), steadyMilliseconds() - begunAt_);
      begunAt_ = 0;
      sleepMilliseconds(10);
    }
  }

  const int file_;
  std::atomic<std::int64_t> begunAt_{0};
  std::atomic<std::int64_t> slowest_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::int64_t ticksNow() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return kUnixEpochTicks +
         std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count() / 100;
}

// What one run wrote, as the ledger knows it.
struct Life {
  Samples accepted;      // all that is known of
  std::size_t safe = 0;  // how many of them must survive
};

Life judged(const std::vector<Ledger::Entry>& entries, std::int64_t safeBefore) {
  Life run;
  for (const Ledger::Entry& entry : entries) {
    run.accepted.push_back(entry.sample);
    if (entry.knownAt < safeBefore) ++run.safe;
  }
  return run;
}

class KillTest : public ::testing::Test {
 protected:
  KillTest() : plant_(config()) {}

  static PlantConfig config() {
    PlantConfig config;
    config.dataArchive = kArchives;
    config.variables = "[" + variable(1, kCounter, "Double") + ", " +
                       variable(2, kShortLived, "Double", R"({"0": {"archive": 1}})") + "]";
    config.programs = "[" + program("counter", "counter.lua", 2) + "]";
    return config;
  }

  // False, with a test failure, when the host does not come up.
  bool start() {
    const std::int64_t begun = steadyMilliseconds();
    if (!plant_.start()) return false;
    startMs_.push_back(steadyMilliseconds() - begun);
    return true;
  }

  // Lets a host count until some samples are known, and so much longer; kills it and says what it
  // had written.
  Life killedRun(int run, int longerMs) {
    plant_.folder().write("counter.lua", counterProgram(run));
    const std::int64_t from = ticksNow();
    if (!start()) return {};
    const DiskProbe disk(plant_.folder().path());
    Ledger ledger(plant_.client(), from);
    expectRunsWithoutHoles(plant_.client().readAll(plant_.itemId(kShortLived)), run);
    EXPECT_TRUE(waitUntil([&] { return ledger.size() > kLeastSafe; }, 20'000)) << "run " << run;
    sleepMilliseconds(longerMs);
    sleepMilliseconds(static_cast<int>(kSyncsPerTransaction * disk.slowestMs()));
    const std::int64_t killedAt = steadyMilliseconds();
    const std::int64_t diskMs = kSyncsPerTransaction * disk.slowestMs();
    plant_.host().killNow();
    if (diskMs > 200) std::cout << "run " << run << ": the disk took " << diskMs << " ms\n";
    return judged(ledger.close(), killedAt - kRiskMs - diskMs);
  }

  // Kills a host so long after its process began, whatever it is at.
  void killedStart(int run, int afterMs) {
    plant_.folder().write("counter.lua", counterProgram(run));
    HostProcess host(plant_.configFile());
    sleepMilliseconds(afterMs);
    EXPECT_TRUE(host.running()) << "run " << run << "; its log:\n" << host.log();
    host.killNow();
  }

  // What is deleted for its age goes from the oldest on, so each run's numbers are without holes,
  // and none comes twice.
  static void expectRunsWithoutHoles(const Samples& stored, int current) {
    for (std::size_t i = 0; i < stored.size(); ++i) {
      const int value = valueOf(stored[i]);
      ASSERT_LE(runOf(stored[i]), current) << value;
      if (i == 0) continue;
      const int before = valueOf(stored[i - 1]);
      const bool begins = value == baseOf(runOf(stored[i])) + 1 && value > before;
      ASSERT_TRUE(begins || value == before + 1) << value << " after " << before;
    }
  }

  void printStarts() const {
    ASSERT_FALSE(startMs_.empty());
    std::int64_t sum = 0;
    for (const std::int64_t ms : startMs_) sum += ms;
    const std::int64_t slowest = *std::max_element(startMs_.begin(), startMs_.end());
    std::cout << startMs_.size() << " starts after a kill took "
              << sum / static_cast<std::int64_t>(startMs_.size()) << " ms on average, " << slowest
              << " ms at most\n";
    EXPECT_LT(slowest, kLongestStartMs);
  }

  std::map<int, Samples> storedByRun() {
    PlantConfig silent = config();
    silent.programs.clear();
    plant_.configure(silent);
    std::map<int, Samples> stored;
    if (!start()) return stored;
    for (const Sample& sample : plant_.client().readAll(plant_.itemId(kCounter))) {
      stored[runOf(sample)].push_back(sample);
    }
    expectRunsWithoutHoles(plant_.client().readAll(plant_.itemId(kShortLived)), rounds());
    return stored;
  }

  Plant plant_;
  std::vector<std::int64_t> startMs_;
};

// Values count up one by one, so what is missing, doubled or out of place in between shows.
void expectPrefix(const Samples& stored, int run) {
  for (std::size_t i = 0; i < stored.size(); ++i) {
    ASSERT_EQ(std::stod(stored[i].value), baseOf(run) + 1 + static_cast<int>(i)) << "run " << run;
  }
}

TEST_F(KillTest, SamplesOlderThanTheWritePeriodSurviveEveryKillAndNothingElseAppears) {
  const int count = rounds();
  std::mt19937 random(1);
  std::uniform_int_distribution<int> extraMs(10, 500);
  std::uniform_int_distribution<int> startMs(0, 300);
  std::vector<Life> runs;
  for (int run = 0; run < count && !HasFatalFailure(); ++run) {
    if (killsTheStart(run)) {
      killedStart(run, startMs(random));
      runs.emplace_back();
    } else {
      runs.push_back(killedRun(run, kRiskMs + extraMs(random)));
    }
  }
  ASSERT_EQ(runs.size(), static_cast<std::size_t>(count));
  // Runs in which enough was written before the kill to prove something.
  const auto telling =
      std::count_if(runs.begin(), runs.end(), [](const Life& life) { return life.safe > 10; });
  ASSERT_GE(telling, (count - count / kStartEvery) * 3 / 4);
  std::map<int, Samples> stored = storedByRun();
  EXPECT_LE(stored.size(), static_cast<std::size_t>(count));
  std::size_t safe = 0;
  std::size_t all = 0;
  for (int run = 0; run < count; ++run) {
    const Life& known = runs[run];
    const Samples& kept = stored[run];
    safe += known.safe;
    all += kept.size();
    EXPECT_GE(kept.size(), known.safe) << "run " << run;
    expectPrefix(kept, run);
    const std::size_t both = std::min(kept.size(), known.accepted.size());
    EXPECT_TRUE(std::equal(kept.begin(), kept.begin() + both, known.accepted.begin()))
        << "run " << run;
  }
  std::cout << count << " kills, " << count / kStartEvery << " of them while starting: " << all
            << " samples stored, " << safe << " had to be\n";
  printStarts();
}

}  // namespace
}  // namespace orva::test
