#include <gtest/gtest.h>

#include <array>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "model/random.h"
#include "share/archive_request.h"
#include "share/mutex.h"
#include "share/signal.h"
#include "share/ticks.h"
#include "support/history_service.h"
#include "support/host_process.h"

// A thousand asynchronous reads of many clients at an archive that takes its time. The delays are
// real; the service's own clock stands still, so that nothing is given up before the test says so.

namespace orva::model {
namespace {

using archive::Request;
using archive::SharedInterval;
using test::HistoryService;
using test::kMs0;
using test::kSecond;
using test::kT0;
using test::Reply;
using test::steadyMilliseconds;

constexpr int kClients = 8;
constexpr int kArchiveThreads = 4;
constexpr int kItems = 120;
constexpr int kSamples = 300;  // of each item, a second apart
constexpr std::int64_t kPatienceMs = 120'000;

// What becomes of the 125 reads of a client. All that are open at one time are less than the
// service keeps, so that none is forgotten. Each superseded one is followed by one that is
// published.
constexpr int kPublished = 80;
constexpr int kSuperseded = 34;
constexpr int kAbandoned = 8;
constexpr int kUnanswered = 3;
constexpr int kSubscriptions = 20;  // for the first two kinds; the others have one each

constexpr StatusCode kNotYet = 0x80320000;
constexpr StatusCode kNothingToPublish = 0x804A0000;
constexpr StatusCode kOtherRequest = 0x80840000;
constexpr StatusCode kTimedOut = 0x800A0000;

// The longest delay: ORVA_ASYNC_MS, else a second.
std::int64_t longestDelayMs() {
  const char* const text = std::getenv("ORVA_ASYNC_MS");
  const long long given = text != nullptr ? std::strtoll(text, nullptr, 10) : 0;
  return given > 0 ? given : 1000;
}

// Answers reads after a delay, on threads of its own.
class SlowArchive {
 public:
  explicit SlowArchive(std::int64_t longestMs) : longestMs_(longestMs) {}

  void put(const SharedInterval& interval) {
    {
      MutexLock lock(mutex_);
      waiting_.emplace(steadyMilliseconds() + random_.between(0, longestMs_), interval);
    }
    changed_.notify();
  }
  // Thread body: answers until close(), and then what is left.
  void work(test::ScriptedProvider& store, const std::map<std::int64_t, archive::ItemKey>& keys) {
    while (const SharedInterval interval = take()) {
      test::answer(interval, store.samples(keys.at(interval->cacheId()), interval->layer()));
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
  // The next one that is due; null once closed and empty.
  SharedInterval take() {
    for (;;) {
      const std::uint64_t seen = changed_.count();
      std::int64_t restMs = kPatienceMs;
      {
        MutexLock lock(mutex_);
        if (waiting_.empty() && closed_) return {};
        if (!waiting_.empty()) {
          const auto first = waiting_.begin();
          restMs = first->first - steadyMilliseconds();
          if (restMs <= 0) {
            SharedInterval interval = first->second;
            waiting_.erase(first);
            return interval;
          }
        }
      }
      changed_.waitReal(seen, restMs * kTicksPerMillisecond);
    }
  }

  const std::int64_t longestMs_;
  Signal changed_;
  Mutex mutex_;
  Random random_ GUARDED_BY(mutex_){7};
  std::multimap<std::int64_t, SharedInterval> waiting_ GUARDED_BY(mutex_);  // by when it is due
  bool closed_ GUARDED_BY(mutex_) = false;
};

// Every request, item and interval that reached the archive.
class Census {
 public:
  void count(const SharedInterval& interval) {
    MutexLock lock(mutex_);
    intervals_.emplace_back(interval);
    const auto item = interval->item();
    items_.emplace_back(item);
    requests_.push_back(item->request);
  }
  std::size_t seen() const {
    MutexLock lock(mutex_);
    return intervals_.size();
  }
  std::size_t alive() const {
    MutexLock lock(mutex_);
    return alive(intervals_) + alive(items_) + alive(requests_);
  }

 private:
  template <class T>
  static std::size_t alive(const std::vector<boost::weak_ptr<T>>& objects) {
    std::size_t count = 0;
    for (const auto& object : objects) count += object.expired() ? 0 : 1;
    return count;
  }

  mutable Mutex mutex_;
  std::vector<boost::weak_ptr<archive::Interval>> intervals_ GUARDED_BY(mutex_);
  std::vector<boost::weak_ptr<archive::Request::Item>> items_ GUARDED_BY(mutex_);
  std::vector<boost::weak_ptr<Request>> requests_ GUARDED_BY(mutex_);
};

// What is read: the members of a body that both ways to read share.
struct Query {
  std::string data;
  std::string parameters;
};

struct Published {
  Query query;
  std::string data;
};

std::string idsOf(std::int64_t subscription, std::int64_t request) {
  return "\"subscriptionId\":" + std::to_string(subscription) +
         ",\"requestId\":" + std::to_string(request);
}

std::string dataPart(const std::string& text) {
  const std::size_t data = text.find("\"data\":");
  return data == std::string::npos ? text : text.substr(data);
}

// A random range of a few items. The limit never meets the number of samples exactly: only then
// what the cache holds decides whether the reply announces more.
Query makeQuery(const std::vector<std::int64_t>& ids, Random& random) {
  Query query;
  const int elements = random.pick({1, 1, 1, 2, 3});
  for (int i = 0; i < elements; ++i) {
    const std::int64_t id = random.chance(.05) ? 5 : ids[random.below(ids.size())];
    query.data += (i == 0 ? "[{\"archiveItemId\":" : ",{\"archiveItemId\":") + std::to_string(id);
    query.data += "}";
  }
  query.data += "]";
  const std::int64_t count = random.between(20, 200);
  const std::int64_t first = random.between(0, kSamples - count);
  const bool openEnd = random.chance(.1);
  query.parameters = "\"startTime\":" + std::to_string(kMs0 + first * 1000) + ",\"endTime\":" +
                     (openEnd ? "0" : std::to_string(kMs0 + (first + count - 1) * 1000));
  const std::int64_t found = openEnd ? kSamples - first : count;
  query.parameters += random.pick<std::string>(
      {"", "", "", ",\"returnBounds\":true", ",\"returnFirstLastValue\":true",
       ",\"numValuesPerNode\":" + std::to_string(found / 2),
       ",\"numValuesPerNode\":" + std::to_string(found / 2) + ",\"returnBounds\":true",
       ",\"numValuesPerNode\":" + std::to_string(found + 10)});
  return query;
}

// One client: keeps a read open in each of its subscriptions until all are done, and looks at each
// now and then.
class Client {
 public:
  Client(HistoryService& service, std::int64_t number, const std::vector<std::int64_t>& ids,
         std::int64_t longestMs)
      : service_(service),
        ids_(ids),
        firstSubscription_(1000 * number),
        longestMs_(longestMs),
        random_(static_cast<std::uint64_t>(number)) {
    plan_.assign(kPublished - kSuperseded, Kind::published);
    plan_.insert(plan_.end(), kSuperseded, Kind::superseded);
    plan_.insert(plan_.end(), kAbandoned, Kind::abandoned);
    plan_.insert(plan_.end(), kUnanswered, Kind::unanswered);
    random_.shuffle(plan_);
  }

  void run(std::int64_t deadId) {
    const std::int64_t giveUpMs = steadyMilliseconds() + kPatienceMs;
    for (bool busy = true; busy;) {
      if (steadyMilliseconds() > giveUpMs) return failed("reads that never ended");
      busy = false;
      for (std::size_t i = 0; i < slots_.size(); ++i) {
        Slot& slot = slots_[i];
        if (!slot.busy) begin(slot, firstSubscription_ + static_cast<std::int64_t>(i), deadId);
        if (slot.busy) look(slot);
        busy = busy || slot.busy;
      }
      test::sleepMilliseconds(5);
    }
  }

  const std::vector<Published>& published() const { return published_; }
  // Ids of subscriptions, each with request 1.
  const std::vector<std::int64_t>& abandoned() const { return abandoned_; }
  const std::vector<std::int64_t>& unanswered() const { return unanswered_; }
  std::map<StatusCode, int> ends;  // how many reads ended in which code

 private:
  enum class Kind { published, superseded, abandoned, unanswered };
  struct Slot {
    bool busy = false;
    bool toSupersede = false;
    std::int64_t subscription = 0;
    std::int64_t request = 0;
    std::int64_t supersedeMs = 0;
    Query query;
  };

  void failed(const std::string& what) { ADD_FAILURE() << what; }

  void ask(std::int64_t subscription, std::int64_t request, const Query& query) {
    const std::string ids = idsOf(subscription, request);
    const Reply reply =
        service_.call("HistoryReadRawAsync", "{\"data\":" + query.data + ",\"parameters\":{" + ids +
                                                 "," + query.parameters + "}}");
    if (reply.text != "{" + ids + ",\"code\":0}") failed(reply.text);
  }
  Reply publish(std::int64_t subscription, std::int64_t request) {
    return service_.call("PublishHistoryData",
                         "{\"parameters\":{" + idsOf(subscription, request) + "}}");
  }

  // The next read of the plan. Those that are never published have subscriptions of their own, and
  // the one after them comes at once.
  void begin(Slot& slot, std::int64_t subscription, std::int64_t deadId) {
    while (!plan_.empty() && !slot.busy) {
      const Kind kind = plan_.back();
      plan_.pop_back();
      const Query query = makeQuery(ids_, random_);
      if (kind == Kind::abandoned) {
        abandoned_.push_back(firstSubscription_ + 100 + plannedCount(abandoned_));
        ask(abandoned_.back(), 1, query);
      } else if (kind == Kind::unanswered) {
        unanswered_.push_back(firstSubscription_ + 200 + plannedCount(unanswered_));
        ask(unanswered_.back(), 1,
            {"[{\"archiveItemId\":" + std::to_string(deadId) + "}]", "\"startTime\":0"});
      } else {
        slot.busy = true;
        slot.toSupersede = kind == Kind::superseded;
        slot.subscription = subscription;
        slot.supersedeMs = steadyMilliseconds() + random_.between(0, longestMs_ / 8);
        use(slot, query);
      }
    }
  }
  static std::int64_t plannedCount(const std::vector<std::int64_t>& ids) {
    return static_cast<std::int64_t>(ids.size());
  }

  void use(Slot& slot, const Query& query) {
    slot.query = query;
    ask(slot.subscription, ++slot.request, query);
  }

  // What was superseded stays so, whether it has completed meanwhile or not.
  void supersede(Slot& slot) {
    slot.toSupersede = false;
    use(slot, makeQuery(ids_, random_));
    const Reply reply = publish(slot.subscription, slot.request - 1);
    if (reply.status != kOtherRequest) failed("superseded: " + reply.text);
    ++ends[reply.status];
  }

  void look(Slot& slot) {
    if (slot.toSupersede) {
      if (steadyMilliseconds() >= slot.supersedeMs) supersede(slot);
      return;
    }
    const Reply reply = publish(slot.subscription, slot.request);
    if (reply.status == kNotYet) return;
    if (reply.status != status::kGood) failed("published: " + reply.text);
    ++ends[reply.status];
    published_.push_back({slot.query, dataPart(reply.text)});
    slot.busy = false;
    if (!random_.chance(.3)) return;
    const Reply again = publish(slot.subscription, slot.request);
    if (again.status != kNothingToPublish) failed("published twice: " + again.text);
  }

  HistoryService& service_;
  const std::vector<std::int64_t>& ids_;
  const std::int64_t firstSubscription_;
  const std::int64_t longestMs_;
  Random random_;
  std::vector<Kind> plan_;
  std::array<Slot, kSubscriptions> slots_;
  std::vector<Published> published_;
  std::vector<std::int64_t> abandoned_;
  std::vector<std::int64_t> unanswered_;
};

class AsyncReadsTest : public ::testing::Test {
 protected:
  AsyncReadsTest() {
    for (int i = 1; i <= kItems; ++i) {
      const archive::ItemKey key(i, "Plant/Item" + std::to_string(i));
      ids_.push_back(service_.addItem(key.first, key.second));
      keys_[ids_.back()] = key;
      service_.archive().add(key, 0, test::steps(kT0, kSamples));
    }
    deadId_ = service_.addItem(kItems + 1, "Plant/Dead");
    service_.archive().add({kItems + 1, "Plant/Dead"}, 0, test::steps(kT0, kSamples));
    // The provider only passes reads on.
    test::Script passOn;
    passOn.when = test::When::dropped;
    service_.archive().setScript(passOn);
    service_.archive().onRead([this](const SharedInterval& interval) {
      census_.count(interval);
      if (interval->cacheId() != deadId_) return slow_.put(interval);
      MutexLock lock(deadMutex_);
      dead_.push_back(interval);
    });
  }
  ~AsyncReadsTest() override { service_.archive().onRead(nullptr); }

  void runClients() {
    std::vector<std::thread> archives;
    std::vector<std::thread> threads;
    for (int i = 1; i <= kClients; ++i) clients_.emplace_back(service_, i, ids_, longestMs_);
    for (int i = 0; i < kArchiveThreads; ++i) {
      archives.emplace_back([this] { slow_.work(service_.archive(), keys_); });
    }
    for (Client& client : clients_) threads.emplace_back([this, &client] { client.run(deadId_); });
    for (std::thread& thread : threads) thread.join();
    for (const Client& client : clients_) {
      for (const auto& [code, count] : client.ends) ends_[code] += count;
    }
    slow_.close();
    for (std::thread& thread : archives) thread.join();
  }

  StatusCode publish(std::int64_t subscription) {
    return service_.call("PublishHistoryData", "{\"parameters\":{" + idsOf(subscription, 1) + "}}")
        .status;
  }

  void endUnanswered() {
    for (const Client& client : clients_) {
      for (const std::int64_t subscription : client.unanswered()) {
        EXPECT_EQ(publish(subscription), kNotYet);
      }
    }
    service_.clock.advance(60 * kSecond);
    for (const Client& client : clients_) {
      for (const std::int64_t subscription : client.unanswered()) {
        const StatusCode code = publish(subscription);
        EXPECT_EQ(code, kTimedOut);
        ++ends_[code];
        EXPECT_EQ(publish(subscription), kNothingToPublish);
      }
    }
    std::vector<SharedInterval> dead;
    {
      MutexLock lock(deadMutex_);
      dead.swap(dead_);
    }
    for (const SharedInterval& interval : dead) test::answer(interval, test::steps(kT0, 20));
  }

  void endAbandoned() {
    service_.clock.advance(10 * 60 * kSecond);
    service_.call("HistoryReadRawAsync", "{\"data\":[]}");  // whoever comes next
    for (const Client& client : clients_) {
      for (const std::int64_t subscription : client.abandoned()) {
        const StatusCode code = publish(subscription);
        EXPECT_EQ(code, kNothingToPublish);
        ++ends_[code];
      }
    }
  }

  void expectWhatASynchronousReadGives() {
    service_.archive().onRead(nullptr);
    service_.archive().setScript({});
    for (const Client& client : clients_) {
      EXPECT_EQ(client.published().size(), static_cast<std::size_t>(kPublished));
      for (const Published& published : client.published()) {
        const Reply read = service_.call("HistoryReadRaw", "{\"data\":" + published.query.data +
                                                               ",\"parameters\":{" +
                                                               published.query.parameters + "}}");
        ASSERT_EQ(published.data, dataPart(read.text))
            << published.query.data << published.query.parameters;
      }
    }
  }

  // Answers of reads that nobody fetched wait for the next read of their item to be cached.
  void readEachItem() {
    for (const std::int64_t id : ids_) {
      service_.call("HistoryReadRaw",
                    "{\"data\":[{\"archiveItemId\":" + std::to_string(id) + "}]}");
    }
  }

  const std::int64_t longestMs_ = longestDelayMs();
  SlowArchive slow_{longestMs_};
  Census census_;
  Mutex deadMutex_;
  std::vector<SharedInterval> dead_ GUARDED_BY(deadMutex_);  // reads that nobody answers
  std::vector<std::int64_t> ids_;
  std::map<std::int64_t, archive::ItemKey> keys_;  // by cache id
  std::int64_t deadId_ = -1;
  std::vector<Client> clients_;
  std::map<StatusCode, int> ends_;
  HistoryService service_;
};

TEST_F(AsyncReadsTest, AThousandReadsEndInOneCodeEachWithTheDataOfASynchronousRead) {
  const std::int64_t beginMs = steadyMilliseconds();
  runClients();
  endUnanswered();
  endAbandoned();
  std::printf("  %zu intervals at an archive that takes up to %lld ms, in %lld ms\n",
              census_.seen(), static_cast<long long>(longestMs_),
              static_cast<long long>(steadyMilliseconds() - beginMs));
  EXPECT_EQ(ends_[status::kGood], kClients * kPublished);
  EXPECT_EQ(ends_[kOtherRequest], kClients * kSuperseded);
  EXPECT_EQ(ends_[kTimedOut], kClients * kUnanswered);
  EXPECT_EQ(ends_[kNothingToPublish], kClients * kAbandoned);
  EXPECT_EQ(ends_.size(), 4U);
  EXPECT_GT(census_.seen(), 600U);
  expectWhatASynchronousReadGives();
  readEachItem();
  // But for the moment in which the manager's worker looks at a request.
  EXPECT_TRUE(test::waitUntil([this] { return census_.alive() == 0; }, 30'000))
      << census_.alive() << " objects of " << census_.seen() << " intervals are still there";
}

}  // namespace
}  // namespace orva::model
