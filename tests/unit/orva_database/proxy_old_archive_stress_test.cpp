#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "orva_database/proxy_old_archive_api.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

// The older archive interface with much data and many threads.

namespace orva::archive {
namespace {

using test::When;

constexpr int kPatienceMs = 60'000;

class ProxyOldArchiveStressTest : public test::ArchiveFixture {
 protected:
  ProxyOldArchiveStressTest() {
    describeLayer(0, true);
    EXPECT_EQ(source.Init(0, nullptr), 0);
  }

  void bindItems(int count) {
    for (int id = 1; id <= count; ++id) {
      describeItem(id, "Plant/" + std::to_string(id), {{0, {0, 0}}});
      int item = 0;
      ASSERT_EQ(source.FindArchiveItemId(id, "", item), 0);
      ASSERT_EQ(item, id);
    }
  }

  static ArchiveRec record(std::int64_t time, std::int64_t value) {
    OpcUa_VariantHlp variant;
    variant.SetInt64(value);
    return {time, variant, static_cast<StatusCode>(value % 3) << 30};
  }

  ProxyOldArchiveApi source;
};

bool isSame(const ArchiveRec& a, const ArchiveRec& b) {
  return a.time == b.time && a.status == b.status && a.value.IsEqual(b.value);
}

TEST_F(ProxyOldArchiveStressTest, AHundredThousandRecordsComeBackPageByPage) {
  constexpr int kItems = 50;
  constexpr int kRecords = 2000;  // of each item
  constexpr std::int64_t kStep = 1000;
  constexpr std::int64_t kPage = 300 * kStep;
  start();
  bindItems(kItems);
  std::map<int, std::vector<ArchiveRec>> given;
  for (int i = 0; i < kRecords; ++i) {
    for (int item = 1; item <= kItems; ++item) {
      const ArchiveRec rec = record((i + 1) * kStep + item, i * std::int64_t{1000} + item);
      ASSERT_EQ(source.AddValue(item, rec), 0);
      given[item].push_back(rec);
    }
  }

  std::map<int, std::vector<ArchiveRec>> read;
  for (std::int64_t from = 1; from < (kRecords + 2) * kStep; from += kPage) {
    ArchiveRequest page;
    for (int item = kItems; item >= 1; --item) page.items.push_back(item);
    page.startTime = from;
    page.endTime = from + kPage - 1;
    ASSERT_EQ(source.AddRequest(&page), 0);
    ASSERT_TRUE(page.WaitFor(kPatienceMs));
    ASSERT_EQ(page.status, 0U);
    for (const ArchiveRec& rec : page.records) read[rec.item].push_back(rec);
  }

  ASSERT_EQ(read.size(), std::size_t{kItems});
  for (const auto& [item, records] : given) {
    ASSERT_EQ(read[item].size(), records.size()) << item;
    EXPECT_TRUE(std::equal(records.begin(), records.end(), read[item].begin(), isSame)) << item;
  }
}

// What one thread does, as many times as it is let.
class LegacyClient {
 public:
  LegacyClient(ProxyOldArchiveApi& source, int seed) : source_(source), seed_(seed) {}

  void run(int rounds, int items) {
    for (int i = 0; i < rounds; ++i) {
      const int id = 1 + (i * 7 + seed_) % items;
      int item = 0;
      const int result = source_.FindArchiveItemId(id, "", item);
      if (result == static_cast<int>(status::kBadNotFound)) continue;  // the archives just ended
      good_ &= result == 0 && item == id;
      ++found_;
      OpcUa_VariantHlp value;
      value.SetInt(i);
      static_cast<void>(source_.AddValue(item, ArchiveRec(1000 + i * 10 + seed_, value)));
      if (i % 5 == 0) source_.SetFilter(item, true, false, i, i, 0.5, true);
      if (i % 7 == 0) static_cast<void>(source_.GetDisableWriteByChange(item));
      readSome(item, 1 + i % items);
    }
  }
  // Whether ids came as they should, and each read was answered with records of its own items in
  // order of time.
  bool good() const { return good_; }
  int found() const { return found_; }

 private:
  void readSome(int first, int second) {
    auto request = std::make_unique<ArchiveRequest>();
    request->items = {first, second};
    good_ &= source_.AddRequest(request.get()) == 0 && request->WaitFor(kPatienceMs);
    for (std::size_t i = 0; i < request->records.size(); ++i) {
      const ArchiveRec& rec = request->records[i];
      good_ &= rec.item == first || rec.item == second;
      if (i == 0 || first == second || request->records[i - 1].item != rec.item) continue;
      good_ &= request->records[i - 1].time <= rec.time;
    }
  }

  ProxyOldArchiveApi& source_;
  const int seed_;
  bool good_ = true;
  int found_ = 0;
};

TEST_F(ProxyOldArchiveStressTest, ThreadsShareASourceWhileArchivesAreRebuilt) {
  constexpr int kItems = 6;
  constexpr int kThreads = 4;
  constexpr int kRounds = 1000;
  test::TraceCapture traces;
  const auto answersLater = [](test::ScriptedProvider& made) { made.setScript({When::later}); };
  factory.onCreate = answersLater;
  start();
  bindItems(kItems);
  std::vector<std::unique_ptr<LegacyClient>> clients;
  std::vector<std::thread> threads;
  std::atomic<int> running{kThreads};
  for (int seed = 0; seed < kThreads; ++seed) {
    clients.push_back(std::make_unique<LegacyClient>(source, seed));
    threads.emplace_back([&running, &client = *clients.back()] {
      client.run(kRounds, kItems);
      --running;
    });
  }
  int rebuilds = 0;
  while (running > 0 && rebuilds < 200) {
    manager().clear();
    EXPECT_EQ(start(), 0);
    ++rebuilds;
    std::this_thread::yield();
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& client : clients) {
    EXPECT_TRUE(client->good());
    EXPECT_GT(client->found(), 0);
  }
  EXPECT_GE(rebuilds, 1);
  EXPECT_EQ(source.AddValue(1, ArchiveRec(1'000'000, OpcUa_VariantHlp())), 0);
  EXPECT_EQ(factory.last().written({1, ""}, 0).back()->time, 1'000'000);
}

}  // namespace
}  // namespace orva::archive
