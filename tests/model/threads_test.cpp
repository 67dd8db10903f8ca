#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/smart_ptr/make_shared.hpp>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "model/random.h"
#include "model/silence.h"
#include "model/truth.h"
#include "orva_database/layer.h"
#include "orva_database/pin.h"
#include "orva_host/variables.h"
#include "share/mutex.h"
#include "share/ticks.h"

// Writers, readers, archives and evictions of one item, all at once and in real time.

namespace orva::model {

using archive::Interval;
using archive::Request;
using archive::SharedInterval;
using archive::SharedItem;
using cache::BlockStorage;
using cache::CachedItem;
using cache::Layer;

namespace {

constexpr std::chrono::seconds kDuration(8);
constexpr long long kPatience = 60 * kTicksPerSecond;
constexpr unsigned kBlocks = 24;
constexpr std::int64_t kHistory = 400;  // samples that were archived before
constexpr std::int64_t kMostSamples = 40'000;

// The plain list: everything that the item accepted, in order.
class Archive final : public archive::ILayerWriter {
 public:
  void write(const PinPtr& pin) override {
    MutexLock lock(mutex_);
    truth_.add(sampleOf(*pin));
  }
  std::size_t size() const {
    MutexLock lock(mutex_);
    return truth_.size();
  }
  std::vector<Sample> first(std::size_t n) const {
    MutexLock lock(mutex_);
    return {truth_.samples().begin(), truth_.samples().begin() + static_cast<std::ptrdiff_t>(n)};
  }
  std::int64_t newest() const {
    MutexLock lock(mutex_);
    return truth_.samples().back().time;
  }
  // The answer to an interval.
  std::vector<Sample> look(const Interval& interval) const {
    const std::uint64_t wanted = interval.wanted();
    MutexLock lock(mutex_);
    auto [begin, end] = truth_.range(interval.start(), interval.end(), truth_.size());
    if (interval.kind() == Interval::Kind::newest && end > begin) begin = end - 1;
    if (wanted != 0) end = std::min(end, begin + static_cast<std::size_t>(wanted));
    const auto from = truth_.samples().begin();
    return {from + static_cast<std::ptrdiff_t>(begin), from + static_cast<std::ptrdiff_t>(end)};
  }

 private:
  mutable Mutex mutex_;  // leaf
  Truth truth_ GUARDED_BY(mutex_);
};

// Intervals on their way to the threads that answer them.
class Queue {
 public:
  void put(const SharedInterval& interval) {
    {
      MutexLock lock(mutex_);
      waiting_.push_back(interval);
    }
    changed_.notify();
  }
  // Any one of them; null when the queue is closed.
  SharedInterval take(Random& random) {
    for (;;) {
      const std::uint64_t seen = changed_.count();
      {
        MutexLock lock(mutex_);
        if (!waiting_.empty()) {
          std::swap(waiting_[random.below(waiting_.size())], waiting_.back());
          SharedInterval interval = waiting_.back();
          waiting_.pop_back();
          return interval;
        }
        if (closed_) return {};
      }
      changed_.waitReal(seen, kTicksPerSecond);
    }
  }
  void close() {
    {
      MutexLock lock(mutex_);
      closed_ = true;
    }
    changed_.notify();
  }

 private:
  Mutex mutex_;
  Signal changed_;
  std::vector<SharedInterval> waiting_ GUARDED_BY(mutex_);
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace

class ThreadsTest : public ::testing::Test {
 protected:
  ThreadsTest() {
    Layer::limits = {8, 4};
    Layer::storage = BlockStorage::make(kBlocks);
    host::clearInstallation();
    vm::Layer layer;
    layer.cache = true;
    host::setLayer(layer);
    for (std::int64_t i = 0; i < kHistory; ++i) {
      archive_.write(makeSample({time_ += i % 3 == 0 ? 2 : 0, ++value_}, 0));
    }
    item_ = CachedItem::make();
    item_->addLayer(archive_, 0);
    item_->updateFilter([](archive::Filter& filter) { filter.allValues = true; });
  }
  ~ThreadsTest() override {
    item_.reset();
    Layer::limits = Layer::Limits();
    Layer::storage = BlockStorage::make(Layer::kStorageBlocks);
    host::clearInstallation();
  }

  void write(std::uint64_t seed);
  void evict(std::uint64_t seed);
  void answer(std::uint64_t seed);
  void readSome(std::uint64_t seed);
  void readPages(Query query, Random& random);
  SharedItem readPage(const Query& query);
  void checkPage(const Query& query, const SharedItem& item, std::size_t before);
  void checkJoined(const Query& query, const std::vector<Sample>& joined,
                   const std::set<std::int64_t>& cuts, std::size_t before);
  void differs(const std::string& what) {
    if (++differences_ <= 5) ADD_FAILURE() << what;
    stop_ = true;
  }

  boost::shared_ptr<CachedItem> item_;
  Archive archive_;
  Queue queue_;
  std::atomic<std::int64_t> time_{100};
  std::atomic<std::int64_t> value_{0};
  std::atomic<bool> stop_{false};
  std::atomic<int> differences_{0};
  std::atomic<std::uint64_t> pages_{0};
  std::atomic<std::uint64_t> asked_{0};
  std::atomic<std::uint64_t> joinedReads_{0};
  std::atomic<std::uint64_t> offered_{0};
};

// Two of these overtake each other: the item refuses what comes too late.
void ThreadsTest::write(std::uint64_t seed) {
  Random random(seed);
  while (!stop_ && value_ < kMostSamples) {
    const std::int64_t time = time_ += random.chance(.4) ? 0 : random.between(1, 3);
    *item_ << makeSample({time, ++value_}, static_cast<OpcUa_StatusCode>(random.below(2)));
    ++offered_;
    std::this_thread::sleep_for(std::chrono::microseconds(random.below(300)));
  }
}

// Other items use the storage.
void ThreadsTest::evict(std::uint64_t seed) {
  Random random(seed);
  while (!stop_) {
    Layer::storage->make_new();
    std::this_thread::sleep_for(std::chrono::microseconds(random.below(3000)));
  }
}

void ThreadsTest::answer(std::uint64_t seed) {
  Random random(seed);
  while (const SharedInterval interval = queue_.take(random)) {
    const std::vector<Sample> samples = archive_.look(*interval);
    const std::size_t chunk = random.pick<std::size_t>({1, 7, 1000});
    for (std::size_t i = 0; i < samples.size(); i += chunk) {
      std::vector<PinPtr> pins;
      for (std::size_t k = i; k < std::min(samples.size(), i + chunk); ++k) {
        pins.push_back(makeSample(samples[k], 0));
      }
      interval->push(pins.data(), pins.size());
      if (random.chance(.01)) std::this_thread::yield();
    }
    interval->finalize();
  }
}

void ThreadsTest::readSome(std::uint64_t seed) {
  Random random(seed);
  while (!stop_) {
    Query query;
    const std::int64_t newest = archive_.newest();
    const std::int64_t span = random.pick<std::int64_t>({10, 60, 300, 2000});
    query.start = std::max<std::int64_t>(2, newest - random.between(0, span));
    query.end = random.chance(.3) ? 0 : query.start + random.between(1, span);
    query.limit = random.pick({0U, 0U, 3U, 10U, 50U});
    query.bounds = random.chance(.3);
    readPages(query, random);
  }
}

SharedItem ThreadsTest::readPage(const Query& query) {
  const auto request = boost::make_shared<Request>();
  request->options.startTime = query.start;
  request->options.endTime = query.end;
  request->options.returnBounds = query.bounds;
  SharedItem item = request->addItem(1);
  item->numValuesPerNode = query.limit;
  item->setContinuationPoint(query.point);
  item_->load(item, request->options);
  const auto open = item->openIntervals();
  if (open.empty()) item->finalize();
  asked_ += open.size();
  for (const SharedInterval& interval : open) queue_.put(interval);
  for (;;) {
    const std::uint64_t seen = request->completed().count();
    if (request->status() == status::kGood) break;
    if (!request->completed().waitReal(seen, kPatience)) {
      differs("a read without an answer");
      break;
    }
  }
  ++pages_;
  return item;
}

void ThreadsTest::readPages(Query query, Random& random) {
  std::vector<Sample> joined;
  std::set<std::int64_t> cuts;
  const std::size_t beforeAll = archive_.size();
  for (int page = 0; page < 2000 && differences_ == 0; ++page) {
    const std::size_t before = archive_.size();
    const SharedItem item = readPage(query);
    checkPage(query, item, before);
    const std::vector<Sample> got = samplesOf(item->values());
    joined.insert(joined.end(), got.begin(), got.end());
    query.point = item->continuationPoint();
    if (!query.point && item->cut()) query.point = got.back().time + 1;
    if (!query.point) return checkJoined(query, joined, cuts, beforeAll);
    cuts.insert(got.back().time);
    if (random.chance(.02)) return;  // the reader has seen enough
  }
}

// Ascending, nothing twice, nothing unknown, and everything that was there before the read began.
void ThreadsTest::checkPage(const Query& query, const SharedItem& item, std::size_t before) {
  const std::vector<Sample> got = samplesOf(item->values());
  const std::vector<Sample> known = archive_.first(archive_.size());
  std::set<std::int64_t> values;
  for (std::size_t i = 0; i < got.size(); ++i) {
    if (i > 0 && got[i].time < got[i - 1].time) return differs("not in time order: " + text(got));
    if (!values.insert(got[i].value).second) return differs("twice: " + text(got[i]));
    const auto place =
        std::lower_bound(known.begin(), known.end(), got[i].time,
                         [](const Sample& s, std::int64_t time) { return s.time < time; });
    const auto end =
        std::upper_bound(place, known.end(), got[i].time,
                         [](std::int64_t time, const Sample& s) { return time < s.time; });
    if (std::find(place, end, got[i]) == end) return differs("unknown: " + text(got[i]));
  }
  const bool more = item->status() == status::kGoodMoreData || item->cut();
  for (std::size_t i = 0; i < before; ++i) {
    const Sample& sample = known[i];
    if (sample.time < query.from() || (query.end != 0 && sample.time > query.end)) continue;
    if (query.end != 0 && query.start == query.end) continue;
    if (more && sample.time >= got.back().time) break;
    if (values.count(sample.value) == 0) return differs("missing: " + text(sample));
  }
}

// (But for samples of the very times at which a limit cut.)
void ThreadsTest::checkJoined(const Query& query, const std::vector<Sample>& joined,
                              const std::set<std::int64_t>& cuts, std::size_t before) {
  std::set<std::int64_t> values;
  for (std::size_t i = 0; i < joined.size(); ++i) {
    if (i > 0 && joined[i].time < joined[i - 1].time) return differs("joined pages not in order");
    if (!values.insert(joined[i].value).second) return differs("on two pages: " + text(joined[i]));
  }
  for (const Sample& sample : archive_.first(before)) {
    if (sample.time < query.start || (query.end != 0 && sample.time > query.end)) continue;
    if (query.end != 0 && query.start == query.end) continue;
    if (cuts.count(sample.time) == 0 && values.count(sample.value) == 0) {
      return differs("on no page: " + text(sample));
    }
  }
  ++joinedReads_;
}

TEST_F(ThreadsTest, ReadersWritersArchivesAndEvictionsAgreeWithThePlainList) {
  Silence silence;
  std::vector<std::thread> archives;
  std::vector<std::thread> others;
  for (std::uint64_t i = 0; i < 2; ++i) {
    archives.emplace_back([this, i] { answer(100 + i); });
    others.emplace_back([this, i] { write(200 + i); });
  }
  for (std::uint64_t i = 0; i < 3; ++i) others.emplace_back([this, i] { readSome(300 + i); });
  others.emplace_back([this] { evict(400); });
  const auto end = std::chrono::steady_clock::now() + kDuration;
  while (!stop_ && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  stop_ = true;
  for (std::thread& thread : others) thread.join();

  const SharedItem all = readPage(Query());
  EXPECT_EQ(samplesOf(all->values()), archive_.first(archive_.size()));
  queue_.close();
  for (std::thread& thread : archives) thread.join();
  std::printf("  %llu samples offered, %zu kept, %llu pages, %llu intervals, %llu joined reads\n",
              static_cast<unsigned long long>(offered_.load()), archive_.size(),
              static_cast<unsigned long long>(pages_.load()),
              static_cast<unsigned long long>(asked_.load()),
              static_cast<unsigned long long>(joinedReads_.load()));
  EXPECT_EQ(differences_.load(), 0);
  EXPECT_GT(archive_.size(), static_cast<std::size_t>(kHistory));
  EXPECT_GT(pages_.load(), 100U);
  EXPECT_GT(asked_.load(), 50U);
  EXPECT_GT(joinedReads_.load(), 20U);
}

}  // namespace orva::model
