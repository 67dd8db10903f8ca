#include <gtest/gtest.h>

#include <atomic>
#include <boost/smart_ptr/make_shared.hpp>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "orva_database/pin.h"
#include "orva_database/remote_archive_source.h"
#include "orva_database/request_processor.h"
#include "orva_host/config_sections.h"
#include "orva_sqlite/provider.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/history_service.h"
#include "support/temp_folder.h"
#include "unit/orva_database/remote_fake.h"

// What the controller's clock may do, and what must hold all the same: nothing waits for ever,
// nothing is lost but what the write filter refuses as old, samples reach the file in time, and
// other controllers are asked. Time that waits go by passes as ever.

namespace orva::archive {

using test::ManualClock;

namespace {

constexpr std::int64_t kHour = kTicksPerHour;
constexpr std::int64_t kYear = 365 * 24 * kHour;
constexpr long long kStart = ManualClock::kStart;
constexpr int kSteps = 120;
constexpr std::int64_t kStepTicks = 600 * kTicksPerMillisecond;
constexpr std::int64_t kAnswerTicks = 60 * kTicksPerSecond;
constexpr StatusCode kNothingToPublish = 0x804A0000;

// Seconds since 1970.
constexpr long long unixTime(long long seconds) {
  return kUnixEpochTicks + seconds * kTicksPerSecond;
}

struct ClockCase {
  const char* name;
  long long start;
  void (*move)(ManualClock&, int step);  // before each step
};

void setBy(ManualClock& clock, long long ticks) { clock.setTime(clock.now() + ticks); }

// A jump at one step, and back at a later one.
template <std::int64_t ticks>
void jump(ManualClock& clock, int step) {
  if (step == 20) setBy(clock, ticks);
  if (step == 80) setBy(clock, -ticks);
}

template <std::int64_t ticks>
void strobe(ManualClock& clock, int step) {
  setBy(clock, step % 2 == 0 ? ticks : -ticks);
}

const ClockCase kCases[] = {
    {"Undisturbed", kStart, [](ManualClock&, int) {}},
    {"ASecondForwardAndBack", kStart, jump<kTicksPerSecond>},
    {"ASecondBackAndForward", kStart, jump<-kTicksPerSecond>},
    {"AnHourForwardAndBack", kStart, jump<kHour>},
    {"AnHourBackAndForward", kStart, jump<-kHour>},
    {"AYearForwardAndBack", kStart, jump<kYear>},
    {"AYearBackAndForward", kStart, jump<-kYear>},
    {"BackTo1970", kStart,
     [](ManualClock& clock, int step) {
       if (step == 20) clock.setTime(unixTime(0));
     }},
    {"From1970ToNow", unixTime(0),
     [](ManualClock& clock, int step) {
       if (step == 20) clock.setTime(kStart);
     }},
    // 2038-01-19 03:14:08 and 2106-02-07 06:28:16: 31 and 32 bits of seconds are full.
    {"Across2038", unixTime(2'147'483'648 - 36), [](ManualClock&, int) {}},
    {"Across2106", unixTime(4'294'967'296 - 36), [](ManualClock&, int) {}},
    {"To2038AndBack", kStart, jump<unixTime(2'147'483'648) - kStart>},
    {"To2106AndBack", kStart, jump<unixTime(4'294'967'296) - kStart>},
    {"StrobingByASecond", kStart, strobe<kTicksPerSecond>},
    {"StrobingByAnHour", kStart, strobe<kHour>},
    {"StrobingByAYear", kStart, strobe<kYear>},
    {"Frozen", kStart, [](ManualClock& clock, int) { clock.setFrozen(true); }},
    {"FrozenForAWhile", kStart,
     [](ManualClock& clock, int step) { clock.setFrozen(step >= 20 && step < 80); }},
};

std::string caseName(const ::testing::TestParamInfo<ClockCase>& info) { return info.param.name; }
void PrintTo(const ClockCase& one, std::ostream* out) { *out << one.name; }

// Remembers the archive that it made last.
struct SqliteFactory final : IDataArchiveProcFactory {
  boost::shared_ptr<IDataArchiveProc> create(const ArchiveCfg& limits,
                                             const ConnectionCfg& connection) override {
    made = boost::make_shared<sqlite::Provider>(limits, connection);
    return made;
  }
  boost::shared_ptr<sqlite::Provider> made;
};

// What the filter accepted, as time and value.
using Ledger = std::vector<std::pair<std::int64_t, double>>;

Ledger samplesOf(const SharedItem& item) {
  Ledger all;
  for (const PinPtr& pin : item->values()) {
    double value = 0;
    pin->value.GetDouble(value);
    all.emplace_back(pin->time, value);
  }
  return all;
}

}  // namespace

class ClockTableTest : public test::ArchiveFixture,
                       public ::testing::WithParamInterface<ClockCase> {
 protected:
  ClockTableTest() {
    clock.setAutoAdvance(false);
    clock.setTime(GetParam().start);
    manager().regFactory("sqlite", &sqlite);
    describeLayer(0, true);
    describeItem(1, "Plant/Written", {{0, {0, 0}}});
    describeItem(2, "Plant/Pulled", {{0, {0, 0}}});
    describeItem(3, "Plant/Silent", {{0, {1, 0}}});
    startArchives();
    network.peer(1);
    host::setConfigSection("RemoteData",
                           R"({"items":[{"controllerIndex":1,"localId":2,"remoteId":1,)"
                           R"("localPath":"Plant/Pulled","remotePath":"P"}]})");
    source.Init();
  }
  ~ClockTableTest() override {
    manager().clear();
    manager().regFactory("sqlite", nullptr);
  }

  void startArchives();
  void move(int step) { GetParam().move(clock, step); }
  void write(int step);
  void waitForTheFile();
  void pull(int step);
  SharedItem readAll(const ItemKey& key);
  StatusCode call(const char* method, const std::string& body);
  StatusCode ask(int subscription, const ItemKey& key);
  StatusCode publish(int subscription);

  const ItemKey written{1, "Plant/Written"};
  const ItemKey pulled{2, "Plant/Pulled"};
  const ItemKey silent{3, "Plant/Silent"};
  test::TempFolder folder;
  SqliteFactory sqlite;
  test::FakeNetwork network;
  RemoteArchiveSource source{std::make_unique<test::FakeLink>(network)};
  RequestProcessor processor;
  Ledger ledger;
  std::uint64_t refused = 0;
};

// An SQLite archive, and one that never answers.
void ClockTableTest::startArchives() {
  const std::string end = R"("filter":{"allValues":true}})";
  host::setConfigSection(
      "DataArchive",
      R"({"archives":[{"connection":{"providerType":"sqlite","location":")" + folder.path() +
          R"(","parameters":"synchronous=OFF"},"limits":{"cleanupPeriod":50000000},)" + end +
          R"(,{"connection":{"providerType":"scripted"},"limits":{},)" + end + "]}");
  ASSERT_EQ(manager().init(), 0);
  factory.last().addItem(silent);
  factory.last().setScript({test::When::never});
}

// Refused is what is older than the last one accepted, and nothing else.
void ClockTableTest::write(int step) {
  const auto item = pin(manager().createPinCache(written));
  const long long now = clock.now();
  const bool old = !ledger.empty() && now < ledger.back().first;
  const auto offer = item->offer(test::realPin(now, step));
  EXPECT_EQ(offer, old ? cache::CachedItem::Offer::refused : cache::CachedItem::Offer::taken);
  if (old) {
    ++refused;
  } else {
    ledger.emplace_back(now, step);
  }
  EXPECT_EQ(item->ruleCounts()[static_cast<std::size_t>(Filter::Rule::oldTime)], refused);
}

// The writer's thread is waited for in real time, while time goes by for it as for all.
void ClockTableTest::waitForTheFile() {
  const sqlite::Counters& counters = sqlite.made->sqliteArchive().counters();
  Signal& progress = sqlite.made->sqliteArchive().progress();
  for (int tries = 0; tries < 10'000; ++tries) {
    const std::uint64_t seen = progress.count();
    if (counters.written == counters.accepted) return;
    clock.advance(10 * kTicksPerMillisecond);
    progress.waitReal(seen, kTicksPerMillisecond);
  }
  ADD_FAILURE() << "samples are not written to the file";
}

// The other controller's clock is right.
void ClockTableTest::pull(int step) {
  network.peer(1).add("P", kStart + step * kStepTicks, 1);
  source.Execute();
}

SharedItem ClockTableTest::readAll(const ItemKey& key) {
  const SharedRequest request = test::requestFor(manager().createPinCache(key));
  manager().syncRead(request);
  const SharedItem item = request->items().front();
  EXPECT_TRUE(item->isFinal());
  EXPECT_EQ(item->failure(), status::kGood);
  return item;
}

StatusCode ClockTableTest::call(const char* method, const std::string& body) {
  const std::string request = std::string("/Methods/") + method + "\na test\n" + body;
  std::ostringstream out;
  std::ostream* const stream = &out;
  int length = 0;
  return static_cast<StatusCode>(RequestProcessor::ProcessJSONRequestStream(
      &processor, 0, request.data(), static_cast<int>(request.size()), stream, 0, &length));
}

StatusCode ClockTableTest::ask(int subscription, const ItemKey& key) {
  return call("HistoryReadRawAsync",
              "{\"data\":[{\"archiveItemId\":" + std::to_string(manager().createPinCache(key)) +
                  "}],\"parameters\":{\"requestId\":1,\"subscriptionId\":" +
                  std::to_string(subscription) + "}}");
}

StatusCode ClockTableTest::publish(int subscription) {
  return call("PublishHistoryData", "{\"parameters\":{\"requestId\":1,\"subscriptionId\":" +
                                        std::to_string(subscription) + "}}");
}

TEST_P(ClockTableTest, NothingIsLostAndEverythingGoesOn) {
  for (int step = 0; step < kSteps; ++step) {
    move(step);
    write(step);
    pull(step);
    clock.advance(kStepTicks);
    waitForTheFile();
    ASSERT_FALSE(HasFailure()) << "step " << step;
  }
  clock.setFrozen(false);
  for (int i = 0; i < 2; ++i) {
    clock.advance(2 * kTicksPerSecond);
    source.Execute();
  }
  // From the cache, and after a restart from the file.
  for (int restarts = 0; restarts < 2; ++restarts) {
    EXPECT_EQ(samplesOf(readAll(written)), ledger);
    EXPECT_EQ(readAll(pulled)->valueCount(), static_cast<std::size_t>(kSteps));
    manager().clear();
    startArchives();
  }
  // A second each, as many as went by.
  EXPECT_GT(network.exchanges, kSteps / 2);
}

TEST_P(ClockTableTest, AsynchronousReadsEndAndExpireInTheirTime) {
  write(0);
  const long long since = Signal::elapsed();
  ASSERT_EQ(ask(1, silent), status::kGood);
  ASSERT_EQ(ask(2, written), status::kGood);
  ASSERT_EQ(ask(3, written), status::kGood);
  for (int step = 0; step < kSteps; ++step) {
    move(step);
    clock.advance(kStepTicks);
    if (Signal::elapsed() - since < kAnswerTicks) {
      ASSERT_EQ(publish(1), status::kBadWaiting) << "step " << step;
    } else {
      ASSERT_EQ(publish(1), status::kBadTimeout) << "step " << step;
      break;
    }
  }
  EXPECT_EQ(publish(1), kNothingToPublish);
  EXPECT_EQ(publish(2), status::kGood);
  clock.advance(10 * kTicksPerMinute);
  ASSERT_EQ(ask(4, written), status::kGood);
  EXPECT_EQ(publish(3), kNothingToPublish);
  EXPECT_EQ(publish(4), status::kGood);
}

TEST_P(ClockTableTest, ASynchronousReadOfASilentArchiveEnds) {
  const SharedRequest request = test::requestFor(manager().createPinCache(silent));
  std::atomic<bool> ended{false};
  std::thread reader([&] {
    manager().syncRead(request);
    ended = true;
  });
  Signal never;
  for (int step = 0; !ended && step < 100'000; ++step) {
    move(step % (kSteps + 1));
    clock.advance(20 * kTicksPerSecond);
    never.waitReal(0, kTicksPerMillisecond);
  }
  EXPECT_TRUE(ended);
  manager().clear();  // ends it in any case
  reader.join();
  EXPECT_EQ(request->status(), status::kBadTimeout);
  EXPECT_FALSE(request->items().front()->isFinal());
}

INSTANTIATE_TEST_SUITE_P(ClockTable, ClockTableTest, ::testing::ValuesIn(kCases), caseName);

}  // namespace orva::archive
