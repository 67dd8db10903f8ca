#include <gtest/gtest.h>

#include <atomic>
#include <boost/smart_ptr/make_shared.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "model/flaky_archive.h"
#include "model/random.h"
#include "model/shared_ledger.h"
#include "model/silence.h"
#include "orva_database/database_addin.h"
#include "orva_database/layer.h"
#include "orva_database/pin.h"
#include "orva_database/request_processor.h"
#include "orva_host/config_sections.h"
#include "orva_host/variables.h"
#include "orva_sqlite/provider.h"
#include "share/archive_manager.h"
#include "share/ticks.h"
#include "support/temp_folder.h"

// The whole service at once, in real time: writers, readers of each kind, archives that fail and
// archives that end and begin again. Each answer is compared with what the writers had written when
// the read began. ORVA_CONCURRENCY_S says for how many seconds, ORVA_CONCURRENCY_SEED how.

namespace orva::model {

using archive::DataArchiveManager;
using archive::ItemKey;
using archive::Request;
using archive::SharedItem;
using archive::SharedRequest;
using cache::BlockStorage;
using cache::CachedItem;
using cache::Layer;

namespace {

constexpr std::int64_t kBegin = 133'604'064'000'000'000;
constexpr int kVariables = 6;  // the odd ones in a flaky archive, the even ones in an SQLite file
constexpr unsigned kBlocks = 40;

long long numberFrom(const char* variable, long long otherwise) {
  const char* text = std::getenv(variable);
  return text == nullptr ? otherwise : std::strtoll(text, nullptr, 10);
}

// How many objects there are of what must not be left behind.
struct Objects {
  long long requests = Request::alive();
  long long items = Request::Item::alive();
  long long intervals = archive::Interval::alive();
  long long pins = CachedItem::alive();
  long long samples = Pin::alive();
  long long blocks = cache::DataBlock::alive();
  long long providers = sqlite::Provider::alive() + FlakyArchive::alive();

  std::string text() const {
    std::ostringstream out;
    out << requests << " requests, " << items << " items, " << intervals << " intervals, " << pins
        << " cached items, " << samples << " samples, " << blocks << " blocks, " << providers
        << " providers";
    return out.str();
  }
};

// Fails the test when it leaves anything behind. Whoever ends last, on whatever thread, is waited
// for.
class Leftovers {
 public:
  ~Leftovers() {
    if (!Request::kCounts) return;
    // What earlier tests left in the cache has gone, too.
    const std::string nothing = Objects{0, 0, 0, 0, 0, 0, 0}.text();
    for (int tries = 0; tries < 500 && Objects().text() != nothing; ++tries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(Objects().text(), nothing);
    std::printf("  left: %s\n", Objects().text().c_str());
  }
};

}  // namespace

class ConcurrencyTest : public ::testing::Test {
 protected:
  struct Variable {
    ItemKey key;
    SharedLedger ledger;
  };

  ConcurrencyTest() {
    Layer::limits = {50, 4};
    Layer::storage = BlockStorage::make(kBlocks);
    host::clearInstallation();
    vm::Layer layer;
    layer.cache = true;
    host::setLayer(layer);
    for (int i = 0; i < kVariables; ++i) describe(i);
    configure();
    manager().regFactory("sqlite", &sqlite_);
    manager().regFactory("flaky", &flaky_);
    event(2);
  }
  ~ConcurrencyTest() override {
    manager().clear();
    manager().regFactory("sqlite", nullptr);
    manager().regFactory("flaky", nullptr);
    host::replaceConfigSections({});
    host::clearInstallation();
    Layer::limits = Layer::Limits();
    Layer::storage = BlockStorage::make(Layer::kStorageBlocks);
  }

  static DataArchiveManager& manager() { return DataArchiveManager::instance(); }
  static void event(int mode) { DataBaseAddin::GetInstance().OnConfigEvent(mode, nullptr); }

  void describe(int i);
  void configure() const;
  void differs(const std::string& what) {
    if (++differences_ <= 5) ADD_FAILURE() << what;
    stop_ = true;
  }

  void write(std::uint64_t seed);
  bool writeOne(Variable& variable);
  void configureAnew(std::uint64_t seed);

  Reading someRange(Random& random) const;
  void readDirectly(std::uint64_t seed);
  void readPages(Variable& variable, Reading reading, std::uint32_t limit);
  void readByMethod(std::uint64_t seed);
  void readLater(std::uint64_t seed);
  void readByMethods(const char* kind, std::uint64_t seed,
                     const std::function<bool(const std::string&, json::Document&)>& ask);
  bool askAtOnce(const std::string& body, json::Document& reply);
  bool askLater(std::int64_t subscription, const std::string& body, json::Document& reply);
  StatusCode call(const char* method, const std::string& body, json::Document& reply);
  void check(const char* kind, const Variable& variable, const Reading& reading,
             std::size_t before);
  void readAllAtTheEnd();

  Leftovers leftovers_;  // goes last
  test::TempFolder folder_;
  sqlite::Factory sqlite_;
  FlakyFactory flaky_;
  RequestProcessor processor_;
  Variable variables_[kVariables];
  std::atomic<std::int64_t> milliseconds_{0};
  std::atomic<std::int64_t> value_{0};
  std::atomic<bool> stop_{false};
  std::atomic<int> differences_{0};
  std::atomic<std::uint64_t> reads_{0}, whole_{0}, refused_{0}, published_{0}, events_{0};
};

void ConcurrencyTest::describe(int i) {
  vm::Item item;
  item.id = i + 1;
  item.path = "Plant/" + std::to_string(i);
  item.type = OpcUaType_Int64;
  host::setVariable(item, {{0, {i % 2, 0}}});
  variables_[i].key = {item.id, item.path};
}

void ConcurrencyTest::configure() const {
  const std::string limits =
      R"("limits":{"writeBufferSize":500000,"maxWriteValues":2000,"writePeriod":500000},)"
      R"("filter":{"allValues":true}})";
  host::setConfigSection("DataArchive",
                         R"({"archives":[{"connection":{"providerType":"sqlite","location":")" +
                             folder_.path() + R"(","parameters":"synchronous=OFF"},)" + limits +
                             R"(,{"connection":{"providerType":"flaky"},)" + limits + "]}");
}

// ---- writers

void ConcurrencyTest::write(std::uint64_t seed) {
  Random random(seed);
  while (!stop_) {
    writeOne(variables_[random.below(kVariables)]);
    std::this_thread::sleep_for(std::chrono::microseconds(random.below(12'000)));
  }
}

// To the item that stands, or to its successor. Two writers overtake each other now and then; the
// item refuses what comes too late. Without an archive nothing is kept. A sample's time is taken
// once the item is known: the first sample after a restart is accepted whatever the archive holds,
// so it must not be older than that.
bool ConcurrencyTest::writeOne(Variable& variable) {
  for (;;) {
    const auto item = manager().getPinCache(manager().createPinCache(variable.key));
    if (!item || !item->hasLayer(0)) return false;
    const Sample sample{kBegin + ++milliseconds_ * kTicksPerMillisecond, ++value_};
    variable.ledger.offer(sample);
    const CachedItem::Offer offer = item->offer(makeSample(sample, 0));
    if (offer == CachedItem::Offer::stopped) continue;
    if (offer == CachedItem::Offer::taken) variable.ledger.accepted(sample);
    return offer == CachedItem::Offer::taken;
  }
}

// ---- configuration

void ConcurrencyTest::configureAnew(std::uint64_t seed) {
  Random random(seed);
  const auto pause = [&](std::uint64_t ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random.below(ms)));
  };
  while (!stop_) {
    pause(400);
    if (random.chance(.3)) {
      for (const int mode : {8, 3, 7}) event(mode);
      ++events_;
      continue;
    }
    event(9);
    if (random.chance(.5)) pause(30);
    if (random.chance(.3)) event(random.pick({8, 9}));
    event(2);
    ++events_;
  }
  event(8);
}

// ---- readers

Reading ConcurrencyTest::someRange(Random& random) const {
  const std::int64_t span = random.pick<std::int64_t>({20, 200, 2000, 20'000});
  const std::int64_t newest = milliseconds_;
  const std::int64_t first = std::max<std::int64_t>(1, newest - random.between(0, span));
  Reading reading;
  reading.from = kBegin + first * kTicksPerMillisecond;
  if (random.chance(.6)) reading.to = reading.from + random.between(1, span) * kTicksPerMillisecond;
  return reading;
}

void ConcurrencyTest::check(const char* kind, const Variable& variable, const Reading& reading,
                            std::size_t before) {
  ++reads_;
  ++(reading.whole ? whole_ : refused_);
  const std::string wrong = variable.ledger.compare(reading, before);
  if (!wrong.empty()) differs(std::string(kind) + ", \"" + variable.key.second + "\": " + wrong);
}

void ConcurrencyTest::readDirectly(std::uint64_t seed) {
  Random random(seed);
  while (!stop_) {
    readPages(variables_[random.below(kVariables)], someRange(random),
              random.pick({0U, 0U, 7U, 100U}));
    std::this_thread::sleep_for(std::chrono::microseconds(random.below(3000)));
  }
}

// Page after page, until there is no more or something failed.
void ConcurrencyTest::readPages(Variable& variable, Reading range, std::uint32_t limit) {
  for (;;) {
    const std::size_t before = variable.ledger.acceptedCount();
    const auto request = boost::make_shared<Request>();
    request->options.startTime = range.from;
    request->options.endTime = range.to;
    const SharedItem item = request->addItem(manager().createPinCache(variable.key));
    item->numValuesPerNode = limit;
    manager().syncRead(request);
    Reading reading = range;
    reading.samples = samplesOf(item->values());
    reading.whole = item->isFinal() && item->failure() == status::kGood;
    reading.more = item->status() == status::kGoodMoreData || item->cut();
    check("read", variable, reading, before);
    if (!reading.whole || !reading.more || reading.samples.empty() || stop_) return;
    range.from = reading.samples.back().time + 1;
    if (range.to != 0 && range.from > range.to) return;
  }
}

StatusCode ConcurrencyTest::call(const char* method, const std::string& body,
                                 json::Document& reply) {
  const std::string request = std::string("/Methods/") + method + "\na test\n" + body;
  std::ostringstream out;
  std::ostream* const stream = &out;
  int length = 0;
  const int code = RequestProcessor::ProcessJSONRequestStream(
      &processor_, 0, request.data(), static_cast<int>(request.size()), stream, 0, &length);
  reply.Parse(out.str().c_str());
  return static_cast<StatusCode>(code);
}

bool ConcurrencyTest::askAtOnce(const std::string& body, json::Document& reply) {
  return call("HistoryReadRaw", "{" + body + "}}", reply) == status::kGood;
}

bool ConcurrencyTest::askLater(std::int64_t subscription, const std::string& body,
                               json::Document& reply) {
  const std::string ids = "\"requestId\":1,\"subscriptionId\":" + std::to_string(subscription);
  if (call("HistoryReadRawAsync", "{" + body + "," + ids + "}}", reply) != status::kGood) {
    return false;
  }
  for (;;) {
    const StatusCode code = call("PublishHistoryData", "{\"parameters\":{" + ids + "}}", reply);
    if (code == status::kGood) {
      ++published_;
      return true;
    }
    if (code == status::kBadTimeout) {
      ++refused_;  // the archive let go of it
      return false;
    }
    if (stop_) return false;
    if (code != status::kBadWaiting) {
      differs("a result that is not published: " + std::to_string(code));
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void ConcurrencyTest::readByMethod(std::uint64_t seed) {
  readByMethods("method", seed, [this](const std::string& body, json::Document& reply) {
    return askAtOnce(body, reply);
  });
}

void ConcurrencyTest::readLater(std::uint64_t seed) {
  readByMethods("asynchronous", seed, [this, seed](const std::string& body, json::Document& reply) {
    return askLater(static_cast<std::int64_t>(seed), body, reply);
  });
}

void ConcurrencyTest::readByMethods(
    const char* kind, std::uint64_t seed,
    const std::function<bool(const std::string&, json::Document&)>& ask) {
  Random random(seed);
  while (!stop_) {
    const Variable& variable = variables_[random.below(kVariables)];
    Reading reading = someRange(random);
    const auto ms = [](std::int64_t ticks) {
      return std::to_string(ticks == 0 ? 0 : ticks / kTicksPerMillisecond - kUnixEpochMilliseconds);
    };
    const std::size_t before = variable.ledger.acceptedCount();
    const std::string body =
        "\"data\":[{\"archiveItemId\":" + std::to_string(manager().createPinCache(variable.key)) +
        "}],\"parameters\":{\"startTime\":" + ms(reading.from) + ",\"endTime\":" + ms(reading.to);
    json::Document reply;
    if (!ask(body, reply)) continue;
    const json::Value& data = json::member(reply, "data");
    if (!data.IsArray() || data.Size() != 1) {
      differs("a reply without data");
      return;
    }
    for (const json::Value& value : json::member(data[0], "values").GetArray()) {
      const std::int64_t time = value[0].GetInt64() + kUnixEpochMilliseconds;
      reading.samples.push_back({time * kTicksPerMillisecond, value[1].GetInt64()});
    }
    reading.more = json::member(data[0], "areMoreValues").IsTrue();
    reading.whole = !data[0].HasMember("statusCode");
    check(kind, variable, reading, before);
    std::this_thread::sleep_for(std::chrono::microseconds(random.below(3000)));
  }
}

// A flaky archive gives the whole in the end.
void ConcurrencyTest::readAllAtTheEnd() {
  for (Variable& variable : variables_) {
    for (int tries = 0; tries < 200; ++tries) {
      const auto request = boost::make_shared<Request>();
      request->options.startTime = kBegin;
      const SharedItem item = request->addItem(manager().createPinCache(variable.key));
      const std::size_t accepted = variable.ledger.acceptedCount();
      manager().syncRead(request);
      Reading reading;
      reading.samples = samplesOf(item->values());
      reading.whole = item->isFinal() && item->failure() == status::kGood;
      if (!reading.whole) continue;
      check("last read", variable, reading, accepted);
      EXPECT_GE(reading.samples.size(), accepted);
      break;
    }
  }
}

TEST_F(ConcurrencyTest, NothingAcceptedIsMissingFromAReadThatSaysNothingOfIt) {
  const long long seconds = numberFrom("ORVA_CONCURRENCY_S", 5);
  const auto seed = static_cast<std::uint64_t>(numberFrom("ORVA_CONCURRENCY_SEED", 1)) * 1000;
  Silence silence;
  std::vector<std::thread> threads;
  for (std::uint64_t i = 0; i < 4; ++i) threads.emplace_back([=] { write(seed + 100 + i); });
  for (std::uint64_t i = 0; i < 4; ++i) threads.emplace_back([=] { readDirectly(seed + 200 + i); });
  for (std::uint64_t i = 0; i < 2; ++i) threads.emplace_back([=] { readByMethod(seed + 300 + i); });
  for (std::uint64_t i = 0; i < 2; ++i) threads.emplace_back([=] { readLater(seed + 400 + i); });
  threads.emplace_back([=] { configureAnew(seed + 500); });
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!stop_ && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  stop_ = true;
  for (std::thread& thread : threads) thread.join();
  readAllAtTheEnd();

  std::size_t offered = 0;
  std::size_t accepted = 0;
  for (const Variable& variable : variables_) {
    offered += variable.ledger.offeredCount();
    accepted += variable.ledger.acceptedCount();
  }
  std::printf(
      "  %zu samples offered, %zu accepted, %llu reads (%llu whole, %llu that say what fails, %llu "
      "published), %llu configuration events\n",
      offered, accepted, static_cast<unsigned long long>(reads_.load()),
      static_cast<unsigned long long>(whole_.load()),
      static_cast<unsigned long long>(refused_.load()),
      static_cast<unsigned long long>(published_.load()),
      static_cast<unsigned long long>(events_.load()));
  EXPECT_EQ(differences_.load(), 0);
  EXPECT_GT(accepted, offered / 10);
  EXPECT_GT(whole_.load(), reads_.load() / 10);
  EXPECT_GT(refused_.load(), 0U);
  EXPECT_GT(published_.load(), 0U);
  EXPECT_GT(events_.load(), 0U);
}

}  // namespace orva::model
