#include "orva_database/proxy_old_archive_api.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/global_params.h"
#include "orva_database/database_addin.h"
#include "orva_database/database_arch_source_factory.h"
#include "orva_host/archive_adapter.h"
#include "orva_host/live_values.h"
#include "orva_host/variables.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

// Items, filters and writing through the older archive interface, and what an archive that is
// rebuilt does to it. Its reads: proxy_old_archive_reads_test.cpp.

namespace orva::archive {
namespace {

using test::timesOf;

constexpr int kNotFound = static_cast<int>(status::kBadNotFound);
constexpr int kCaught = static_cast<int>(status::kBadOutOfMemory);
constexpr long long kHigh = 1LL << 32;  // the lowest bit that a legacy id loses
const boost::none_t kNone = boost::none;

class ProxyOldArchiveApiTest : public test::ArchiveFixture {
 protected:
  ProxyOldArchiveApiTest() { EXPECT_EQ(source.Init(0, nullptr), 0); }
  ~ProxyOldArchiveApiTest() override { host::clearLiveValues(); }

  static void describe(long long id) {
    describeItem(id, "Plant/" + std::to_string(id), {{0, {0, 0}}});
  }
  // Archives, and a variable that is bound.
  int bindItem(long long id, const std::string& filter = R"({"allValues":true})") {
    if (factory.count() == 0) {
      EXPECT_EQ(start(1, filter), 0);
    }
    describe(id);
    return find(source, id);
  }
  static int find(ProxyOldArchiveApi& in, long long id) {
    int item = 0;
    EXPECT_EQ(in.FindArchiveItemId(id, "", item), 0);
    return item;
  }
  // Events 9 and 2.
  void rebuild(const std::string& filter = R"({"allValues":true})") {
    manager().clear();
    EXPECT_EQ(start(1, filter), 0);
  }

  static ArchiveRec record(std::int64_t time, double value, StatusCode code = 0) {
    OpcUa_VariantHlp variant;
    variant.SetDouble(value);
    return {time, variant, code};
  }
  // What the newest archive was given for a variable.
  std::vector<PinPtr> written(long long id) { return factory.last().written({id, ""}, 0); }
  static Filter filterOf(long long id) {
    return pin(manager().getCacheId(ItemKey(id, "")))->filter();
  }

  ProxyOldArchiveApi source;
};

// ---- life

TEST_F(ProxyOldArchiveApiTest, OperationsLeftWithoutWorkReturnZeroAndAskNobody) {
  const int item = bindItem(7);
  std::map<int, std::vector<ArchiveRec>> records{{item, {record(1, 1)}}};
  ArchiveRequest request;
  request.items = {item};
  int deleted = 5;
  source.LoadArchSettings(nullptr);
  EXPECT_EQ(source.InitSource(), 0);
  EXPECT_EQ(source.ExecuteWrite(records), 0);
  EXPECT_EQ(source.ExecuteRead(&request), 0);
  EXPECT_EQ(source.ReadItemList(&request), 0);
  EXPECT_EQ(source.ExecuteDelete(static_cast<unsigned>(item), &deleted), 0);
  EXPECT_EQ(source.DestroySource(), 0);
  EXPECT_EQ(deleted, 5);
  EXPECT_EQ(records.size(), 1U);
  EXPECT_TRUE(request.records.empty());
  EXPECT_FALSE(request.WaitFor(0));
  EXPECT_EQ(archive().readCount(), 0U);
  EXPECT_TRUE(written(7).empty());
}

TEST_F(ProxyOldArchiveApiTest, BeforeInitNothingIsKnown) {
  start();
  describe(7);
  ProxyOldArchiveApi fresh;
  int item = 55;
  EXPECT_EQ(fresh.FindArchiveItemId(7, "", item), kNotFound);
  EXPECT_EQ(fresh.GetArchiveItemId(7, "", "", item), kNotFound);
  EXPECT_EQ(item, 55);
  ArchiveRequest request;
  EXPECT_LT(fresh.AddRequest(&request), 0);
  EXPECT_FALSE(request.WaitFor(0));
}

TEST_F(ProxyOldArchiveApiTest, InitIgnoresItsArguments) {
  const json::Value settings(rapidjson::kArrayType);
  EXPECT_EQ(source.Init(-5, &settings), 0);
  EXPECT_EQ(bindItem(7), 7);
}

TEST_F(ProxyOldArchiveApiTest, EventZeroOffersSourcesToTheHost) {
  start();
  describe(7);
  DataBaseAddin& addin = DataBaseAddin::GetInstance();
  EXPECT_EQ(addin.OnConfigEvent(0, nullptr), 0);
  ArchiveSource* first = ArchiveAddin::GetArchiveSource("sqlite3", 901);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->Description(), "memory");
  EXPECT_EQ(first->statistics.reads.value, 0);
  EXPECT_EQ(first->limits.maxRecordsPerRequest, 0U);
  int item = 0;
  EXPECT_EQ(first->FindArchiveItemId(7, "", item), 0);
  EXPECT_EQ(first->AddValue(item, record(10, 1.5)), 0);
  EXPECT_EQ(written(7).size(), 1U);
  EXPECT_EQ(first->RemoveRequest(nullptr), kNotFound);  // the host's own

  EXPECT_EQ(addin.OnConfigEvent(0, nullptr), 0);
  EXPECT_EQ(ArchiveAddin::GetArchiveSource("sqlite3", 901), first);
  EXPECT_EQ(first->AddValue(item, record(11, 1.5)), 0);
  EXPECT_NE(ArchiveAddin::GetArchiveSource("sqlite3", 902), first);
}

// ---- ids

TEST_F(ProxyOldArchiveApiTest, GetArchiveItemIdGivesTheCacheIdAndBindsNothing) {
  start();
  const std::int64_t cacheId = makeItem(7, "Plant/Load");
  int out = 0;
  EXPECT_EQ(source.GetArchiveItemId(7, "Plant/Load", "second", out), 0);
  EXPECT_EQ(out, cacheId);
  EXPECT_EQ(source.AddValue(7, record(1, 1)), kNotFound);
  EXPECT_EQ(source.AddValue(out, record(1, 1)), kNotFound);
}

TEST_F(ProxyOldArchiveApiTest, GetArchiveItemIdOfWhatIsNotCachedIsMinusOne) {
  start();
  makeItem(7, "Plant/Load");
  int out = 0;
  EXPECT_EQ(source.GetArchiveItemId(7, "", "", out), 0);  // (7, "") is another item
  EXPECT_EQ(out, -1);
}

TEST_F(ProxyOldArchiveApiTest, GetArchiveItemIdLooksAtTheLowHalfOfTheIdZeroExtended) {
  start();
  int out = 0;
  const std::int64_t seven = makeItem(7, "Load");
  EXPECT_EQ(source.GetArchiveItemId(5 * kHigh + 7, "Load", "", out), 0);
  EXPECT_EQ(out, seven);
  makeItem(-1, "Load");
  EXPECT_EQ(source.GetArchiveItemId(-1, "Load", "", out), 0);
  EXPECT_EQ(out, -1);
  const std::int64_t highest = makeItem(kHigh - 1, "Load");
  EXPECT_EQ(source.GetArchiveItemId(-1, "Load", "", out), 0);
  EXPECT_EQ(out, highest);
}

TEST_F(ProxyOldArchiveApiTest, WhatTheHostDoesNotKnowOrArchiveIsNotFound) {
  start();
  int item = 55;
  EXPECT_EQ(source.FindArchiveItemId(7, "", item), kNotFound);
  describeItem(8, "Plant/NotArchived", {});
  EXPECT_EQ(source.FindArchiveItemId(8, "", item), kNotFound);
  EXPECT_EQ(item, 55);
}

TEST_F(ProxyOldArchiveApiTest, TheLegacyIdIsTheLowHalfOfTheVariablesId) {
  EXPECT_EQ(bindItem(7), 7);
  EXPECT_EQ(bindItem(5 * kHigh + 8), 8);
  EXPECT_EQ(bindItem(0x80000001LL), INT32_MIN + 1);
  EXPECT_EQ(bindItem(-3), -3);
  EXPECT_EQ(source.AddValue(INT32_MIN + 1, record(10, 1)), 0);
  EXPECT_EQ(source.AddValue(-3, record(10, 2)), 0);
  EXPECT_EQ(written(0x80000001LL).size(), 1U);
  EXPECT_EQ(written(-3).size(), 1U);
}

TEST_F(ProxyOldArchiveApiTest, FindArchiveItemIdDoesNotUseThePath) {
  start();
  describeItem(7, "Plant/Load", {{0, {0, 0}}});
  int item = 0;
  EXPECT_EQ(source.FindArchiveItemId(7, "Plant/Load", item), 0);
  EXPECT_NE(manager().getCacheId(ItemKey(7, "")), -1);
  EXPECT_EQ(manager().getCacheId(ItemKey(7, "Plant/Load")), -1);
}

TEST_F(ProxyOldArchiveApiTest, FindingAnItemAgainKeepsItsLayersSamplesAndFilter) {
  const int item = bindItem(7);
  EXPECT_EQ(source.SetFilter(item, false, true, kNone, kNone, 3.0, kNone), 0);
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(find(source, 7), item);
  EXPECT_EQ(archive().layerWriterCount(), 1U);
  EXPECT_EQ(filterOf(7).deadband, 3.0);
  EXPECT_EQ(source.AddValue(item, record(11, 3.5)), 0);
  EXPECT_EQ(written(7).size(), 1U);
}

TEST_F(ProxyOldArchiveApiTest, OfIdsAlikeInTheirLowHalvesTheFirstFoundIsMeant) {
  const int item = bindItem(kHigh + 7);
  EXPECT_EQ(bindItem(7), item);
  EXPECT_EQ(bindItem(2 * kHigh + 7), item);
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  EXPECT_EQ(written(kHigh + 7).size(), 1U);
  EXPECT_TRUE(written(7).empty());
  EXPECT_TRUE(written(2 * kHigh + 7).empty());
  // A source of its own has its own first one.
  ProxyOldArchiveApi other;
  other.Init(0, nullptr);
  EXPECT_EQ(find(other, 7), item);
  EXPECT_EQ(other.AddValue(item, record(10, 1)), 0);
  EXPECT_EQ(written(7).size(), 1U);
}

TEST_F(ProxyOldArchiveApiTest, EveryOperationOnAnUnknownIdIsNotFound) {
  bindItem(7);
  long long time = 55;
  EXPECT_EQ(source.AddValue(8, record(1, 1)), kNotFound);
  EXPECT_EQ(source.SetDisableWriteByChange(8, true), kNotFound);
  EXPECT_EQ(source.SetFilter(8, true, true, 1, 1, 1.0, true), kNotFound);
  EXPECT_EQ(source.GetLastTime(8, time), kNotFound);
  EXPECT_EQ(time, 55);
  EXPECT_FALSE(source.GetDisableWriteByChange(8));
}

// ---- filters

TEST_F(ProxyOldArchiveApiTest, WhatWasDisabledReadsBackFalse) {
  const int item = bindItem(7);
  EXPECT_EQ(source.SetDisableWriteByChange(item, true), 0);
  EXPECT_FALSE(source.GetDisableWriteByChange(item));
  EXPECT_FALSE(filterOf(7).writeByChange);
  EXPECT_EQ(source.SetDisableWriteByChange(item, false), 0);
  EXPECT_TRUE(source.GetDisableWriteByChange(item));
  EXPECT_TRUE(filterOf(7).writeByChange);
  EXPECT_TRUE(filterOf(7).blocksWrite);
}

bool operator==(const Filter& a, const Filter& b) {
  return a.deadband == b.deadband && a.writeByChange == b.writeByChange &&
         a.minWritePeriod == b.minWritePeriod && a.maxWritePeriod == b.maxWritePeriod &&
         a.allValues == b.allValues && a.blocksWrite == b.blocksWrite;
}

TEST_F(ProxyOldArchiveApiTest, SetFilterSetsTheFieldsThatAreGivenAndNoOther) {
  const int item = bindItem(7, R"({"deadband":1,"minWritePeriod":2,"maxWritePeriod":3})");
  Filter expected = filterOf(7);
  ASSERT_EQ(expected.maxWritePeriod, 3);
  EXPECT_EQ(source.SetFilter(item, kNone, kNone, kNone, kNone, kNone, kNone), 0);
  EXPECT_TRUE(filterOf(7) == expected);

  source.SetFilter(item, true, kNone, kNone, kNone, kNone, kNone);
  expected.allValues = true;
  EXPECT_TRUE(filterOf(7) == expected);
  source.SetFilter(item, kNone, true, kNone, kNone, kNone, kNone);
  expected.writeByChange = true;
  EXPECT_TRUE(filterOf(7) == expected);
  // The maximum comes before the minimum.
  source.SetFilter(item, kNone, kNone, 1LL << 40, kNone, kNone, kNone);
  expected.maxWritePeriod = 1LL << 40;
  EXPECT_TRUE(filterOf(7) == expected);
  source.SetFilter(item, kNone, kNone, kNone, 1LL << 33, kNone, kNone);
  expected.minWritePeriod = 1LL << 33;
  EXPECT_TRUE(filterOf(7) == expected);
  source.SetFilter(item, kNone, kNone, kNone, kNone, 0.25, kNone);
  expected.deadband = 0.25;
  EXPECT_TRUE(filterOf(7) == expected);
  source.SetFilter(item, kNone, kNone, kNone, kNone, kNone, false);
  expected.blocksWrite = false;
  EXPECT_TRUE(filterOf(7) == expected);
}

TEST_F(ProxyOldArchiveApiTest, WriteByChangeFalseSilencesTheBlocksUnlessTheyAreGivenToo) {
  const int item = bindItem(7);
  source.SetFilter(item, kNone, false, kNone, kNone, kNone, true);
  EXPECT_TRUE(filterOf(7).blocksWrite);
  source.SetFilter(item, kNone, false, kNone, kNone, kNone, kNone);
  EXPECT_FALSE(filterOf(7).blocksWrite);
  EXPECT_FALSE(filterOf(7).writeByChange);
  // Nothing but the last argument brings them back.
  source.SetFilter(item, true, true, 1, 1, 1.0, kNone);
  EXPECT_FALSE(filterOf(7).blocksWrite);
  source.SetFilter(item, kNone, kNone, kNone, kNone, kNone, true);
  EXPECT_TRUE(filterOf(7).blocksWrite);
}

TEST_F(ProxyOldArchiveApiTest, SourcesOnOneItemShareItsFilter) {
  const int item = bindItem(7);
  ProxyOldArchiveApi other;
  other.Init(0, nullptr);
  ASSERT_EQ(find(other, 7), item);
  source.SetFilter(item, kNone, true, kNone, kNone, 2.0, kNone);
  other.SetFilter(item, kNone, kNone, kNone, kNone, 3.0, kNone);
  EXPECT_EQ(filterOf(7).deadband, 3.0);
  EXPECT_TRUE(other.GetDisableWriteByChange(item));
}

// ---- writing

TEST_F(ProxyOldArchiveApiTest, ARecordBecomesASampleWithItsTimeValueAndStatus) {
  const int item = bindItem(7);
  ArchiveRec rec = record(133'485'408'000'000'001, 0, 0x40920000);
  rec.value.SetString("Pump on");
  EXPECT_EQ(source.AddValue(item, rec), 0);
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(written(7)[0]->time, 133'485'408'000'000'001);
  EXPECT_EQ(written(7)[0]->value.GetString(), "Pump on");
  EXPECT_EQ(written(7)[0]->quality, 0x40920000U);
}

TEST_F(ProxyOldArchiveApiTest, ARecordThatTheFilterRefusesIsTakenAllTheSame) {
  const int item = bindItem(7, R"({"writeByChange":true,"deadband":5})");
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  EXPECT_EQ(source.AddValue(item, record(11, 2)), 0);
  EXPECT_EQ(source.AddValue(item, record(12, 6)), 0);
  EXPECT_EQ(timesOf(written(7)), (std::vector<std::int64_t>{10, 12}));
}

TEST_F(ProxyOldArchiveApiTest, WhatIsThrownInsideIsTracedAndBecomesAStatus) {
  const int item = bindItem(7);
  test::TraceCapture traces;
  archive().onWrite(
      [](const ItemKey&, std::int32_t, const PinPtr&) { throw std::runtime_error("disk"); });
  EXPECT_EQ(source.AddValue(item, record(10, 1)), kCaught);
  EXPECT_GE(traces.countContaining("disk"), 1);

  const auto throwing = [](const ItemKey&) { throw std::runtime_error("no writer"); };
  factory.onCreate = [&](test::ScriptedProvider& made) { made.onLayerWriter(throwing); };
  rebuild();
  describe(8);
  int found = 55;
  long long time = 55;
  EXPECT_EQ(source.FindArchiveItemId(8, "", found), kCaught);
  EXPECT_EQ(found, 55);
  EXPECT_EQ(source.AddValue(item, record(11, 1)), kCaught);
  EXPECT_EQ(source.SetFilter(item, true, kNone, kNone, kNone, kNone, kNone), kCaught);
  EXPECT_EQ(source.SetDisableWriteByChange(item, false), kCaught);
  EXPECT_FALSE(source.GetDisableWriteByChange(item));
  EXPECT_EQ(source.GetLastTime(item, time), kCaught);
  EXPECT_EQ(time, 55);
}

// ---- the host's own archive

class HostArchiveTest : public ProxyOldArchiveApiTest {
 protected:
  static constexpr std::uint32_t kValues = 0;
  static constexpr std::uint32_t kVariables = 0x10000;

  HostArchiveTest() { source.SetHostArchive(&adapter, true); }

  static std::uint32_t indexOf(long long id, std::uint32_t qualifier) {
    const GlobalParamKey key{static_cast<std::uint32_t>(id), qualifier};
    std::uint32_t index = 0xFFFFFFFF;
    EXPECT_EQ(GetGlobalArrayIndexByID(&key, &index), 0);
    return index;
  }
  static void setLive(long long id, bool value) {
    OpcUa_VariantHlp variant;
    variant.SetBool(value);
    host::setLiveValue(id, variant);
  }

  ArchiveAdapter adapter;
};

TEST_F(HostArchiveTest, NothingIsForwardedUnlessItIsAskedFor) {
  ProxyOldArchiveApi plain;
  plain.Init(0, nullptr);
  const int item = bindItem(7);
  ASSERT_EQ(find(plain, 7), item);
  EXPECT_EQ(plain.AddValue(item, record(10, 1)), 0);
  source.SetHostArchive(&adapter, false);
  EXPECT_EQ(source.AddValue(item, record(11, 1)), 0);
  EXPECT_TRUE(adapter.values(indexOf(7, kVariables)).empty());
}

TEST_F(HostArchiveTest, EachRecordIsForwardedInTheFormOfItsParameter) {
  const int item = bindItem(7);
  const std::int64_t time = kUnixEpochTicks + 15 * kTicksPerSecond / 2;
  EXPECT_EQ(source.AddValue(item, record(time, 1.5)), 0);
  EXPECT_EQ(source.AddValue(item, record(time + kTicksPerSecond, 2.5, 0x40920000)), 0);
  EXPECT_EQ(source.AddValue(item, record(time + 2 * kTicksPerSecond, 3.5, 0x80320000)), 0);
  const auto values = adapter.values(indexOf(7, kVariables));
  ASSERT_EQ(values.size(), 3U);
  EXPECT_EQ(values[0].time, 7.5);
  EXPECT_EQ(values[0].value.kind, RPARAMValue::Kind::floating);
  EXPECT_EQ(values[0].value.floating, 1.5);
  EXPECT_EQ(values[0].quality, 0xC0);
  EXPECT_EQ(values[1].quality, 0x40);
  EXPECT_EQ(values[2].quality, 0);
  EXPECT_EQ(written(7).size(), 3U);
}

TEST_F(HostArchiveTest, TheParameterIsLookedForAmongAllValuesFirst) {
  setLive(7, true);  // before the host knows the variable: it stays a Boolean
  const int item = bindItem(7);
  ASSERT_NE(indexOf(7, kValues), indexOf(7, kVariables));
  EXPECT_EQ(source.AddValue(item, record(10, 2)), 0);
  const auto values = adapter.values(indexOf(7, kValues));
  ASSERT_EQ(values.size(), 1U);
  EXPECT_EQ(values[0].value.kind, RPARAMValue::Kind::boolean);
  EXPECT_EQ(values[0].value.integer, 1);
  EXPECT_TRUE(adapter.values(indexOf(7, kVariables)).empty());
}

TEST_F(HostArchiveTest, NegativeIdsHaveParametersToo) {
  const int item = bindItem(-3);
  EXPECT_EQ(source.AddValue(item, record(10, 2)), 0);
  EXPECT_EQ(adapter.values(indexOf(-3, kVariables)).size(), 1U);
}

TEST_F(HostArchiveTest, AnIndexOnceFoundIsRemembered) {
  const int item = bindItem(7);
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  const std::uint32_t index = indexOf(7, kVariables);
  host::removeVariable(7);
  EXPECT_EQ(source.AddValue(item, record(11, 2)), 0);
  EXPECT_EQ(adapter.values(index).size(), 2U);
}

TEST_F(HostArchiveTest, AParameterThatWasNotFoundIsNotLookedForAgain) {
  const int item = bindItem(7);
  host::removeVariable(7);
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  describe(7);
  setLive(7, true);
  EXPECT_EQ(source.AddValue(item, record(11, 2)), 0);
  EXPECT_TRUE(adapter.values(indexOf(7, kValues)).empty());
  EXPECT_TRUE(adapter.values(indexOf(7, kVariables)).empty());
  EXPECT_EQ(written(7).size(), 2U);
}

TEST_F(HostArchiveTest, AValueThatDoesNotFitTheParameterIsArchivedOnly) {
  const int item = bindItem(7);
  ArchiveRec rec = record(10, 0);
  rec.value.SetString("no number");
  EXPECT_EQ(source.AddValue(item, rec), 0);
  EXPECT_TRUE(adapter.values(indexOf(7, kVariables)).empty());
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(source.AddValue(item, record(11, 1)), 0);
  EXPECT_EQ(adapter.values(indexOf(7, kVariables)).size(), 1U);
}

TEST_F(HostArchiveTest, WhatTheFilterRefusesIsForwardedAllTheSame) {
  const int item = bindItem(7, R"({"writeByChange":true,"deadband":5})");
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  EXPECT_EQ(source.AddValue(item, record(11, 2)), 0);
  EXPECT_EQ(written(7).size(), 1U);
  EXPECT_EQ(adapter.values(indexOf(7, kVariables)).size(), 2U);
}

TEST_F(HostArchiveTest, ARecordForAnUnknownIdIsNotForwarded) {
  bindItem(7);
  describe(8);
  EXPECT_EQ(source.AddValue(8, record(10, 1)), kNotFound);
  EXPECT_TRUE(adapter.values(indexOf(8, kVariables)).empty());
}

TEST_F(HostArchiveTest, AHostArchiveThatRefusesIsTracedAndTheRecordArchived) {
  const int item = bindItem(7);
  source.SetHostArchive(nullptr, true);
  test::TraceCapture traces;
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  EXPECT_EQ(traces.countContaining("<--ReturnError: ArchiveAdapterWriteValues("), 1);
  EXPECT_EQ(written(7).size(), 1U);
}

TEST_F(HostArchiveTest, TheFactorySetsItOnSourcesToCome) {
  const int item = bindItem(7);
  DatabaseArchSourceFactory sources;
  const std::unique_ptr<ArchiveSource> before(sources.CreateArchiveSource());
  sources.SetHostArchive(&adapter, true);
  const std::unique_ptr<ArchiveSource> after(sources.CreateArchiveSource());
  for (ArchiveSource* one : {before.get(), after.get()}) {
    int found = 0;
    EXPECT_EQ(one->Description(), "memory");
    EXPECT_EQ(one->Init(0, nullptr), 0);
    EXPECT_EQ(one->FindArchiveItemId(7, "", found), 0);
    EXPECT_EQ(found, item);
  }
  EXPECT_EQ(before->AddValue(item, record(10, 1)), 0);
  EXPECT_TRUE(adapter.values(indexOf(7, kVariables)).empty());
  EXPECT_EQ(after->AddValue(item, record(11, 1)), 0);
  EXPECT_EQ(adapter.values(indexOf(7, kVariables)).size(), 1U);
}

// ---- archives that are rebuilt

TEST_F(ProxyOldArchiveApiTest, ABoundIdGoesOnArchivingAfterTheArchivesWereRebuilt) {
  const int item = bindItem(7);
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  DataBaseAddin::GetInstance().OnConfigEvent(9, nullptr);
  DataBaseAddin::GetInstance().OnConfigEvent(2, nullptr);
  ASSERT_EQ(factory.count(), 2U);
  EXPECT_EQ(source.AddValue(item, record(11, 2)), 0);
  EXPECT_EQ(timesOf(written(7)), (std::vector<std::int64_t>{11}));
}

TEST_F(ProxyOldArchiveApiTest, FieldsSetThroughTheSourceAreSetAgainOnTheNewFilter) {
  const int item = bindItem(7);
  source.SetFilter(item, false, true, kNone, 5, 2.0, kNone);
  source.SetFilter(item, kNone, kNone, kNone, kNone, 4.0, false);
  source.SetDisableWriteByChange(item, true);
  rebuild(R"({"allValues":true,"writeByChange":true,"maxWritePeriod":9})");
  EXPECT_FALSE(source.GetDisableWriteByChange(item));
  const Filter filter = filterOf(7);
  EXPECT_FALSE(filter.allValues);
  EXPECT_FALSE(filter.writeByChange);
  EXPECT_EQ(filter.minWritePeriod, 5);
  EXPECT_EQ(filter.deadband, 4.0);
  EXPECT_FALSE(filter.blocksWrite);
  EXPECT_EQ(filter.maxWritePeriod, 9);  // never set: the new archive's
}

TEST_F(ProxyOldArchiveApiTest, WithoutFieldsSetTheNewArchivesFilterCounts) {
  const int item = bindItem(7);
  rebuild(R"({"writeByChange":true,"deadband":0.5})");
  EXPECT_TRUE(source.GetDisableWriteByChange(item));
  EXPECT_EQ(filterOf(7).deadband, 0.5);
}

TEST_F(ProxyOldArchiveApiTest, AnIdBoundBeforeTheArchivesKeepsItsFieldsWhenTheyCome) {
  describe(7);
  const int item = find(source, 7);
  source.SetFilter(item, kNone, true, kNone, kNone, 2.0, kNone);
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);  // goes nowhere
  start(1, R"({"deadband":8,"maxWritePeriod":9})");
  EXPECT_EQ(source.AddValue(item, record(11, 1)), 0);
  EXPECT_EQ(source.AddValue(item, record(12, 3)), 0);
  EXPECT_EQ(timesOf(written(7)), (std::vector<std::int64_t>{11, 12}));
  EXPECT_EQ(filterOf(7).deadband, 2.0);
  EXPECT_EQ(filterOf(7).maxWritePeriod, 9);
}

TEST_F(ProxyOldArchiveApiTest, FieldsSetWhileThereAreNoArchivesCountForTheNextOnes) {
  const int item = bindItem(7);
  manager().clear();
  EXPECT_EQ(source.SetFilter(item, kNone, true, kNone, kNone, 2.0, kNone), 0);
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  start(1, "{}");
  EXPECT_TRUE(source.GetDisableWriteByChange(item));
  EXPECT_EQ(filterOf(7).deadband, 2.0);
}

TEST_F(ProxyOldArchiveApiTest, AnIdWhoseVariableIsGoneForAWhileIsNotFoundUntilItIsBack) {
  const int item = bindItem(7);
  source.SetFilter(item, kNone, true, kNone, kNone, 2.0, kNone);
  manager().clear();
  host::removeVariable(7);
  start();
  EXPECT_EQ(source.AddValue(item, record(10, 1)), kNotFound);
  describe(7);
  EXPECT_EQ(source.AddValue(item, record(11, 1)), 0);
  EXPECT_EQ(written(7).size(), 1U);
  EXPECT_EQ(filterOf(7).deadband, 2.0);
}

TEST_F(ProxyOldArchiveApiTest, AfterARebuildTheIdStillMeansTheVariableItWasFoundBy) {
  const int item = bindItem(kHigh + 7);
  ASSERT_EQ(bindItem(7), item);
  rebuild();
  EXPECT_EQ(find(source, 7), item);
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  EXPECT_EQ(written(kHigh + 7).size(), 1U);
  EXPECT_TRUE(written(7).empty());
}

TEST_F(ProxyOldArchiveApiTest, WhenThatVariableIsGoneTheIdIsFreeForAnotherWithoutItsFields) {
  const int item = bindItem(kHigh + 7);
  source.SetFilter(item, kNone, true, kNone, kNone, 2.0, kNone);
  describe(7);
  manager().clear();
  host::removeVariable(kHigh + 7);
  start();
  EXPECT_EQ(source.AddValue(item, record(10, 1)), kNotFound);
  EXPECT_EQ(find(source, 7), item);
  EXPECT_EQ(source.AddValue(item, record(10, 1)), 0);
  EXPECT_EQ(written(7).size(), 1U);
  EXPECT_EQ(filterOf(7).deadband, 0.0);
}

}  // namespace
}  // namespace orva::archive
