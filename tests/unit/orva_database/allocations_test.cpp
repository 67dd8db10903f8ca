#include <gtest/gtest.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include "host/host_events.h"
#include "host/trace.h"
#include "orva_database/layer.h"
#include "orva_database/pin.h"
#include "orva_database/request_processor.h"
#include "orva_host/config_sections.h"
#include "orva_host/trace_log.h"
#include "orva_sqlite/provider.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/failing_allocations.h"
#include "support/temp_folder.h"

// A write, a read and a restart of the whole service with an SQLite archive, in which each memory
// allocation fails once: of the service, the provider and SQLite itself. ORVA_ALLOCATION_STEP says
// that only every so many are made to fail; 1 is all.

namespace orva::archive {

using test::FailingAllocations;
using Unharmed = FailingAllocations::Unharmed;

namespace {

constexpr long kMostAllocations = 4500;
constexpr int kSamples = 6;
constexpr unsigned kBlocks = 16;
constexpr int kEventsKept = 256;

// What is traced, in a file: a hook would be given strings, whose memory could fail too.
class TraceFile {
 public:
  TraceFile() { host::setTraceFile(path_); }
  ~TraceFile() { host::setTraceFile(""); }
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  bool empty() const { return test::readFile(path_).empty(); }
  std::string text() const { return test::readFile(path_); }
  void clear() { std::filesystem::resize_file(path_, 0); }

 private:
  test::TempFolder folder_;
  const std::string path_ = folder_.path("trace.log");
};

// Remembers the archive that it made last, as long as that lives.
struct Factory final : IDataArchiveProcFactory {
  boost::shared_ptr<IDataArchiveProc> create(const ArchiveCfg& limits,
                                             const ConnectionCfg& connection) override {
    auto provider = boost::make_shared<sqlite::Provider>(limits, connection);
    const Unharmed unharmed;
    made = provider;
    return provider;
  }
  boost::weak_ptr<sqlite::Provider> made;
};

long stepFrom(const char* variable, long otherwise) {
  const char* text = std::getenv(variable);
  const long step = text == nullptr ? otherwise : std::strtol(text, nullptr, 10);
  return step > 0 ? step : otherwise;
}

}  // namespace

class AllocationsTest : public test::ArchiveFixture {
 protected:
  AllocationsTest() {
    clock.setAutoAdvance(false);
    describeLayer(0, true);
    describeItem(1, "Plant/A", {{0, {0, 0}}});
    describeItem(2, "Plant/B", {{0, {0, 0}}});
    manager().regFactory("sqlite", &factory_);
  }
  ~AllocationsTest() override {
    manager().clear();
    manager().regFactory("sqlite", nullptr);
    cache::Layer::storage = cache::BlockStorage::make(cache::Layer::kStorageBlocks);
  }

  // What a sample has come to.
  enum class Fate { accepted, refused, unknown };
  using Ledger = std::map<std::pair<std::int64_t, std::int64_t>, Fate>;  // by item and time

  void begin();
  void run();
  void writeSamples(int round);
  void write(std::int64_t id, std::int64_t time);
  void readByMethods(bool all);
  std::string call(const char* method, const std::string& body);
  void expectAll(const std::string& reply) const;
  std::int64_t cacheIdOf(std::int64_t id);
  template <class Call>
  void attempt(const Call& call);
  void compare();
  static void fillPlacesThatKeepThings();
  void endRun();
  static void expectBlocks(long long before);

  FailingAllocations allocations_;
  Factory factory_;
  std::unique_ptr<test::TempFolder> folder_;
  std::unique_ptr<RequestProcessor> processor_;
  Ledger ledger_;
  int refused_ = 0;  // statuses and exceptions that a caller got
  std::uint64_t dropped_ = 0;
};

// A new place, nothing open.
void AllocationsTest::begin() {
  folder_ = std::make_unique<test::TempFolder>();
  processor_ = std::make_unique<RequestProcessor>();
  ledger_.clear();
  refused_ = 0;
  dropped_ = 0;
  host::setConfigSection("DataArchive",
                         R"({"archives":[{"connection":{"providerType":"sqlite","location":")" +
                             folder_->path() + R"(","parameters":"synchronous=OFF"},"limits":{},)" +
                             R"("filter":{"allValues":true}}]})");
}

template <class Call>
void AllocationsTest::attempt(const Call& call) {
  try {
    call();
  } catch (const std::bad_alloc&) {
    ++refused_;
  }
}

std::int64_t AllocationsTest::cacheIdOf(std::int64_t id) {
  return manager().createPinCache({id, id == 1 ? "Plant/A" : "Plant/B"});
}

void AllocationsTest::write(std::int64_t id, std::int64_t time) {
  Fate fate = Fate::unknown;
  attempt([&] {
    const auto item = pin(cacheIdOf(id));
    if (!item || !item->hasLayer(0)) {
      ++refused_;
      fate = Fate::refused;
      return;
    }
    const PinPtr sample = test::realPin(time, static_cast<double>(time));
    fate = item->offer(sample) == cache::CachedItem::Offer::taken ? Fate::accepted : Fate::refused;
  });
  const Unharmed unharmed;
  ledger_[{id, time}] = fate;
}

void AllocationsTest::writeSamples(int round) {
  for (int i = 0; i < kSamples; ++i) write(1 + i % 2, 1000 * (round + 1) + i);
}

// A reply that says of nothing that it failed; else empty.
std::string AllocationsTest::call(const char* method, const std::string& body) {
  std::string text;
  attempt([&] {
    const std::string request = std::string("/Methods/") + method + "\na test\n" + body;
    char reply[4000];
    int length = 0;
    const int code = RequestProcessor::ProcessJSONRequest(processor_.get(), 0, request.data(),
                                                          static_cast<int>(request.size()), reply,
                                                          sizeof reply, &length);
    const Unharmed unharmed;
    text.assign(reply, static_cast<std::size_t>(length));
    if (code == 0 && text.find("statusCode") == std::string::npos) return;
    ++refused_;
    text.clear();
  });
  return text;
}

void AllocationsTest::expectAll(const std::string& reply) const {
  const Unharmed unharmed;
  if (reply.empty()) return;
  for (const auto& [key, fate] : ledger_) {
    if (fate != Fate::accepted) continue;
    EXPECT_NE(reply.find("," + std::to_string(key.second) + ".0,"), std::string::npos)
        << "a reply lacks a sample and does not say so: " << key.second << " in " << reply;
  }
}

void AllocationsTest::readByMethods(bool all) {
  attempt([this, all] {
    const std::string data = "{\"data\":[{\"archiveItemId\":" + std::to_string(cacheIdOf(1)) +
                             "},{\"archiveItemId\":" + std::to_string(cacheIdOf(2)) +
                             "}],\"parameters\":{\"requestId\":1,\"subscriptionId\":1";
    expectAll(call("HistoryReadRaw", data + "}}"));
    if (!all) return;
    call("HistoryReadRaw", data + ",\"returnFirstLastValue\":true}}");
    call("HistoryReadRawAsync", data + "}}");
    expectAll(
        call("PublishHistoryData", "{\"parameters\":{\"requestId\":1,\"subscriptionId\":1}}"));
  });
}

void AllocationsTest::run() {
  for (int round = 0; round < 2; ++round) {
    attempt([this] { refused_ += manager().init() < 0 ? 1 : 0; });
    if (round == 0) writeSamples(round);
    readByMethods(round == 0);
    if (const auto archive = factory_.made.lock()) {
      dropped_ += archive->sqliteArchive().counters().dropped;
    }
    attempt([] { manager().clear(); });
  }
}

// What the archive has after all, and whether that is what was said.
void AllocationsTest::compare() {
  manager().init();
  std::uint64_t missing = 0;
  for (const std::int64_t id : {1, 2}) {
    const SharedRequest request = test::requestFor(cacheIdOf(id));
    manager().syncRead(request);
    const SharedItem item = request->items().front();
    EXPECT_TRUE(item->isFinal());
    EXPECT_EQ(item->failure(), status::kGood);
    std::map<std::int64_t, int> times;
    for (const PinPtr& pin : item->values()) ++times[pin->time];
    for (const auto& [time, count] : times) {
      EXPECT_EQ(count, 1) << "doubled";
      const auto known = ledger_.find({id, time});
      EXPECT_TRUE(known != ledger_.end() && known->second != Fate::refused) << "invented";
    }
    for (const auto& [key, fate] : ledger_) {
      if (key.first == id && fate == Fate::accepted) missing += times.count(key.second) == 0;
    }
  }
  EXPECT_LE(missing, dropped_) << "accepted, not there, and not counted as dropped";
  manager().clear();
}

// The storage of blocks, and the host's events.
void AllocationsTest::fillPlacesThatKeepThings() {
  cache::Layer::storage = cache::BlockStorage::make(kBlocks);
  for (int i = 0; i < kEventsKept; ++i) {
    postHostEvent(HostEventKind::kProviderFailure, HostEventSeverity::kInformation,
                  "a source that has a long name", "a text that is not short either", 0);
  }
}

// And it works again, and leaves nothing behind.
void AllocationsTest::endRun() {
  compare();
  ledger_.clear();
  refused_ = 0;
  manager().init();
  writeSamples(5);
  EXPECT_EQ(refused_, 0) << "does not work again";
  manager().clear();
  processor_.reset();
  folder_.reset();
  ledger_.clear();
  fillPlacesThatKeepThings();
}

// Blocks that the manager's worker has for a moment are waited for.
void AllocationsTest::expectBlocks(long long before) {
  Signal never;
  for (int tries = 0; tries < 1000 && FailingAllocations::blocks() != before; ++tries) {
    never.waitReal(0, kTicksPerMillisecond);
  }
  EXPECT_EQ(FailingAllocations::blocks() - before, 0) << "blocks are left";
}

TEST_F(AllocationsTest, EachOneThatFailsIsToldAndLosesNothingElse) {
  const long step = stepFrom("ORVA_ALLOCATION_STEP", 29);
  TraceFile traces;
  long all = 0;
  for (int warmUps = 0; warmUps < 3; ++warmUps) {
    begin();
    allocations_.arm(0);
    run();
    allocations_.disarm();
    all = allocations_.counted();
    EXPECT_EQ(refused_, 0);
    for (const auto& sample : ledger_) EXPECT_EQ(sample.second, Fate::accepted);
    endRun();
  }
  EXPECT_EQ(traces.text(), "");
  EXPECT_LE(all, kMostAllocations);
  long failed = 0;
  long unnoticed = 0;  // SQLite can do without some
  ASSERT_FALSE(HasFailure());
  for (long n = 1; n <= all && !HasFailure(); n += step) {
    traces.clear();
    const long long blocks = FailingAllocations::blocks();
    begin();
    allocations_.arm(n);
    run();
    allocations_.disarm();
    if (allocations_.hasFailed()) {
      ++failed;
      if (refused_ == 0 && traces.empty()) ++unnoticed;
    }
    endRun();
    expectBlocks(blocks);
    if (HasFailure()) ADD_FAILURE() << "allocation " << n << " failed; traced:\n" << traces.text();
  }
  std::printf("  %ld allocations, %ld made to fail, %ld of them unnoticed\n", all, failed,
              unnoticed);
  EXPECT_GT(failed, 0);
  EXPECT_LT(unnoticed, failed / 2);
}

}  // namespace orva::archive
