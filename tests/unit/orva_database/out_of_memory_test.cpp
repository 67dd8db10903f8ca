#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "orva_database/proxy_old_archive_api.h"
#include "support/archive_fixture.h"
#include "support/failing_allocations.h"
#include "support/history_service.h"
#include "support/trace_capture.h"

// Allocations that fail one after the other: what was begun is taken back or answered.

namespace orva {
namespace {

using test::withAllocations;

// ---- the older archive interface

class LegacyOutOfMemoryTest : public test::ArchiveFixture {
 protected:
  LegacyOutOfMemoryTest() {
    describeLayer(0, true);
    EXPECT_EQ(source.Init(0, nullptr), 0);
  }

  void bindItems(int count) {
    for (int id = 1; id <= count; ++id) {
      describeItem(id, "Plant/" + std::to_string(id), {{0, {0, 0}}});
      int item = 0;
      ASSERT_EQ(source.FindArchiveItemId(id, "", item), 0);
    }
  }

  archive::ProxyOldArchiveApi source;
};

TEST_F(LegacyOutOfMemoryTest, AReadThatRunsOutOfMemoryIsEitherRefusedOrAnswered) {
  test::TraceCapture traces;
  start();
  bindItems(2);
  for (const int id : {1, 2}) archive().add({id, ""}, 0, test::realPins(10, 20));
  int refused = 0;
  bool enough = false;
  for (long count = 0; !enough && count < 2000; ++count) {
    ArchiveRequest request;
    request.items = {1, 2};
    bool thrown = false;
    try {
      withAllocations(count, [&] { ASSERT_EQ(source.AddRequest(&request), 0); });
    } catch (const std::bad_alloc&) {
      thrown = true;
      ++refused;
    }
    if (!thrown && !request.WaitFor(0)) {
      manager().clear();  // a read that lost its way is answered at the latest now
      EXPECT_TRUE(request.WaitFor(0)) << "with " << count << " allocations";
      start();
      factory.last().addItem({1, ""});
      for (const int id : {1, 2}) factory.last().add({id, ""}, 0, test::realPins(10, 20));
    }
    EXPECT_FALSE(request.WaitFor(0)) << "with " << count << " allocations";
    enough = !thrown && request.status == 0 && request.records.size() == 40;
  }
  EXPECT_TRUE(enough);
  EXPECT_GT(refused, 0);
}

TEST_F(LegacyOutOfMemoryTest, OtherOperationsThatRunOutOfMemorySaySo) {
  constexpr int kCaught = static_cast<int>(status::kBadOutOfMemory);
  test::TraceCapture traces;
  start();
  int refused = 0;
  int id = 0;
  bool enough = false;
  for (long count = 0; !enough && count < 2000; ++count) {
    describeItem(++id, "Plant", {{0, {0, 0}}});
    int item = 0;
    int found = 0;
    int filtered = 0;
    int added = 0;
    const ArchiveRec rec(10, OpcUa_VariantHlp());
    withAllocations(count, [&] {
      found = source.FindArchiveItemId(id, "", item);
      filtered = source.SetDisableWriteByChange(id, true);
      added = source.AddValue(id, rec);
    });
    for (const int result : {found, filtered, added}) {
      refused += result == kCaught ? 1 : 0;
    }
    enough = found == 0 && filtered == 0 && added == 0;
  }
  EXPECT_TRUE(enough);
  EXPECT_GT(refused, 0);
}

// ---- the start

class StartOutOfMemoryTest : public test::ArchiveFixture {
 protected:
  // Whether the archive made last was asked for this.
  bool called(const std::string& what) {
    const std::vector<std::string> calls = factory.last().calls();
    return std::find(calls.begin(), calls.end(), what) != calls.end();
  }
};

// An archive that runs is in use: the start goes on, whatever an item lacks.
TEST_F(StartOutOfMemoryTest, AnItemThatGetsNoLayersDoesNotEndTheStart) {
  test::TraceCapture traces;
  describeItem(1, "Plant/Load", {{0, {0, 0}}});
  start();  // sets the section
  manager().clear();
  int without = 0;
  bool enough = false;
  for (long count = 0; !enough && count < 2000; ++count) {
    const std::size_t archives = factory.count();
    const std::int64_t cacheId = manager().createPinCache({1, "Plant/Load"});
    bool thrown = false;
    try {
      withAllocations(count, [&] { manager().init(); });
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
    const bool runs = factory.count() > archives && called("start");
    EXPECT_FALSE(thrown && runs) << "with " << count << " allocations";
    enough = pin(cacheId)->layerCount() == 1;
    if (runs && !enough) ++without;
    manager().clear();
    EXPECT_EQ(runs, factory.count() > archives && called("stop")) << "with " << count;
  }
  EXPECT_TRUE(enough);
  EXPECT_GT(without, 0);
}

// ---- asynchronous reads

TEST(AsyncOutOfMemoryTest, AReadThatCouldNotBeAskedForIsNotWaitedFor) {
  constexpr const char* kIds = "\"subscriptionId\":3,\"requestId\":1";
  const std::string publish = std::string("{\"parameters\":{") + kIds + "}}";
  test::HistoryService service;
  const std::int64_t id = service.addItem(7, "Plant/Load");
  service.archive().add({7, "Plant/Load"}, 0, test::steps(test::kT0, 5));
  service.archive().setScript({test::When::never});
  const std::string ask =
      "/Methods/HistoryReadRawAsync\ntest\n{\"data\":[{\"archiveItemId\":" + std::to_string(id) +
      "}],\"parameters\":{" + kIds + "}}";
  char reply[1000];
  int refused = 0;
  bool enough = false;
  for (long count = 0; !enough && count < 2000; ++count) {
    int length = 0;
    int result = 0;
    withAllocations(count, [&] {
      result = RequestProcessor::ProcessJSONRequest(&service.processor(), 0, ask.data(),
                                                    static_cast<int>(ask.size()), reply,
                                                    sizeof reply, &length);
    });
    enough = result == 0;
    if (enough) break;
    EXPECT_EQ(static_cast<StatusCode>(result), status::kBadOutOfMemory) << count;
    ++refused;
    EXPECT_EQ(service.call("PublishHistoryData", publish).status, 0x804A0000U) << count;
  }
  EXPECT_TRUE(enough);
  EXPECT_GT(refused, 0);
}

}  // namespace

}  // namespace orva
