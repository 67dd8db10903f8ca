// What is left of the history when the host is killed while a program writes.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "share/ticks.h"
#include "support/plant.h"

namespace orva::test {
namespace {

constexpr int kRuns = 20;
constexpr int kWritePeriodMs = 100;  // as in PlantConfig
// How long before the kill a sample must have been accepted to be safe.
constexpr int kRiskMs = kWritePeriodMs + 500;
constexpr const char* kCounter = "Plant/Counter";

// Each run counts from a number of its own.
int baseOf(int run) { return (run + 1) * 1'000'000; }
int runOf(const Sample& sample) {
  return static_cast<int>(std::stod(sample.value)) / 1'000'000 - 1;
}

std::string counterProgram(int run) {
  return "local counter = ArchiveProc.new{Id = 1, Path = \"Plant/Counter\"}\n"
         "local n = " +
         std::to_string(baseOf(run)) +
         "\n"
         "function cycle()\n"
         "  n = n + 1\n"
         "  counter.Value = n\n"
         "  counter()\n"
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

 private:
  void follow() {
    while (!stop_) {
      const HistoryReply reply = client_.readNewRecords(kCounter, point_);
      if (reply.code == 0 && reply.item().continuationPoint) {
        const std::int64_t now = steadyMilliseconds();
        for (const Sample& sample : reply.item().values) entries_.push_back({sample, now});
        point_ = *reply.item().continuationPoint;
      }
      sleepMilliseconds(5);
    }
  }

  const HistoryClient client_;
  // Written by the thread, read after close().
  std::int64_t point_;
  std::vector<Entry> entries_;
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

Life judged(const std::vector<Ledger::Entry>& entries, std::int64_t killedAt) {
  Life run;
  for (const Ledger::Entry& entry : entries) {
    run.accepted.push_back(entry.sample);
    if (entry.knownAt < killedAt - kRiskMs) ++run.safe;
  }
  return run;
}

class KillTest : public ::testing::Test {
 protected:
  KillTest() : plant_(config()) {}

  static PlantConfig config() {
    PlantConfig config;
    config.variables = "[" + variable(1, kCounter, "Double") + "]";
    config.programs = "[" + program("counter", "counter.lua", 2) + "]";
    return config;
  }

  // Lets a host count for a while, kills it and says what it had written.
  Life killedRun(int run, int lifeMs) {
    plant_.folder().write("counter.lua", counterProgram(run));
    const std::int64_t from = ticksNow();
    if (!plant_.start()) return {};
    Ledger ledger(plant_.client(), from);
    sleepMilliseconds(lifeMs);
    const std::int64_t killedAt = steadyMilliseconds();
    plant_.host().killNow();
    return judged(ledger.close(), killedAt);
  }

  std::map<int, Samples> storedByRun() {
    PlantConfig silent = config();
    silent.programs.clear();
    plant_.configure(silent);
    std::map<int, Samples> stored;
    if (!plant_.start()) return stored;
    for (const Sample& sample : plant_.client().readAll(plant_.itemId(kCounter))) {
      stored[runOf(sample)].push_back(sample);
    }
    return stored;
  }

  Plant plant_;
};

// Values count up one by one, so what is missing, doubled or out of place in between shows.
void expectPrefix(const Samples& stored, int run) {
  for (std::size_t i = 0; i < stored.size(); ++i) {
    ASSERT_EQ(std::stod(stored[i].value), baseOf(run) + 1 + static_cast<int>(i)) << "run " << run;
  }
}

TEST_F(KillTest, SamplesOlderThanTheWritePeriodSurviveTwentyKillsAndNothingElseAppears) {
  std::mt19937 random(1);
  std::uniform_int_distribution<int> extraMs(100, 600);
  std::vector<Life> runs;
  for (int run = 0; run < kRuns; ++run) {
    runs.push_back(killedRun(run, kRiskMs + extraMs(random)));
    ASSERT_GT(runs.back().safe, 10U) << "run " << run << " proves nothing";
  }
  std::map<int, Samples> stored = storedByRun();
  EXPECT_LE(stored.size(), static_cast<std::size_t>(kRuns));
  for (int run = 0; run < kRuns; ++run) {
    const Life& known = runs[run];
    const Samples& kept = stored[run];
    EXPECT_GE(kept.size(), known.safe) << "run " << run;
    expectPrefix(kept, run);
    const std::size_t both = std::min(kept.size(), known.accepted.size());
    EXPECT_TRUE(std::equal(kept.begin(), kept.begin() + both, known.accepted.begin()))
        << "run " << run;
  }
}

}  // namespace
}  // namespace orva::test
