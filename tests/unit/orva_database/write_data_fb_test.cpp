#include "orva_database/write_data_fb.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "orva_host/config_sections.h"
#include "orva_host/live_values.h"
#include "orva_host/lua_state.h"
#include "orva_host/lua_value.h"
#include "orva_host/variables.h"
#include "share/archive_manager.h"
#include "share/ticks.h"
#include "support/manual_clock.h"
#include "support/scripted_provider.h"
#include "support/trace_capture.h"

namespace orva::archive {
namespace {

constexpr StatusCode kShutdown = 0x00A80000;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

const char kLibraryMetadata[] =
    "TYPES.StandardFB.ArchiveProc= FBMetadata({ Name = 'ArchiveProc', Hash = 1001, \n"
    "Vars = \n"
    "\t{\n"
    "\t\tIsExternal = { Hash = 0, Type = TYPES.BOOL, Retain = true },\n"
    "\t\tId = { Hash = 1, Type = TYPES.LINT, Retain = true },\n"
    "\t\tPath = { Hash = 2, Type = TYPES.STRING, Retain = true },\n"
    "\t\tName = { Hash = 3, Type = TYPES.STRING, Retain = true },\n"
    "\t\tSourceId = { Hash = 5, Type = TYPES.LINT, Retain = true },\n"
    "\t\tSourceControllerIndex = { Hash = 6, Type = TYPES.UDINT, Retain = true },\n"
    "\t\tSourceArchiveId = { Hash = 7, Type = TYPES.UDINT, Retain = true },\n"
    "\t\tSourcePath = { Hash = 8, Type = TYPES.STRING, Retain = true },\n"
    "\t\tUseArchiveParams = { Hash = 9, Type = TYPES.BOOL, Retain = true },\n"
    "\t\tWriteByChange = { Hash = 10, Type = TYPES.BOOL, Retain = true },\n"
    "\t\tDeadband = { Hash = 11, Type = TYPES.LREAL, Retain = true },\n"
    "\t\tMinWritePeriod = { Hash = 12, Type = TYPES.TIME, Retain = true },\n"
    "\t\tMaxWritePeriod = { Hash = 13, Type = TYPES.TIME, Retain = true }\n"
    "\t}\n"
    "})\n";

// One archive that takes every sample, and a Lua state whose programs write into it.
class WriteDataFbTest : public ::testing::Test {
 protected:
  static constexpr std::int64_t kBig = (std::int64_t{1} << 53) + 1;

  WriteDataFbTest() {
    Filter all;
    all.allValues = true;
    start(all);
    RegisterExternalSTLib("ArchiveProc", luaopen_WriteDataFB);
    std::string error;
    EXPECT_TRUE(lua_->open(error)) << error;
  }
  ~WriteDataFbTest() override {
    lua_.reset();
    manager().clear();
    manager().regFactory("blocktest", nullptr);
    host::clearInstallation();
    host::clearLiveValues();
    host::setConfigSection("DataArchive", "");
  }

  static DataArchiveManager& manager() { return DataArchiveManager::instance(); }

  void start(const Filter& filter) {
    manager().clear();
    using vm::ArchivedLayers;
    const ArchivedLayers raw{{0, {0, 0}}};
    host::replaceInstallation({{{7, "Plant/Load", OpcUaType_Double}, raw},
                               {{8, "Plant/Mode", OpcUaType_Int32}, raw},
                               {{9, "Plant/On", OpcUaType_Boolean}, raw},
                               {{kBig, "Plant/Big", OpcUaType_Double}, raw},
                               {{10, "Plant/Loose", OpcUaType_Double}, {}}},
                              {{0, true, 0}});
    archiveFilter_ = filter;
    factory_.onCreate = [this](test::ScriptedProvider& made) {
      made.mutableFilter() = archiveFilter_;
    };
    manager().regFactory("blocktest", &factory_);
    host::setConfigSection(
        "DataArchive",
        R"({"archives":[{"connection":{"providerType":"blocktest"},"limits":{},"filter":{}}]})");
    ASSERT_EQ(manager().init(), 0);
  }
  // The configuration is taken down and read again, as events 9 and 2 do.
  void restartArchives() {
    manager().clear();
    ASSERT_EQ(manager().init(), 0);
  }

  void run(const std::string& text) {
    std::string error;
    EXPECT_TRUE(lua_->run(text, "test", error)) << error;
  }
  std::string failure(const std::string& text) {
    std::string error;
    EXPECT_FALSE(lua_->run(text, "test", error));
    return error;
  }
  void closeState() { lua_ = std::make_unique<host::LuaState>(); }
  // What the present archive got.
  std::vector<PinPtr> written(std::int64_t id, const std::string& path = "") {
    return factory_.last().written({id, path}, 0);
  }
  Filter filterOf(std::int64_t id, const std::string& path = "") {
    return manager().getPinCache(manager().getCacheId(ItemKey(id, path)))->filter();
  }
  // Puts a value of a type that Lua does not know into a global.
  void setGlobal(const char* name, const OpcUa_VariantHlp& value) {
    *host::pushVariantBox(lua_->get()) = value;
    lua_setglobal(lua_->get(), name);
  }

  test::ManualClock clock_;
  test::ScriptedFactory factory_;
  Filter archiveFilter_;
  std::unique_ptr<host::LuaState> lua_ = std::make_unique<host::LuaState>();
};

double number(const PinPtr& sample) {
  double value = std::nan("");
  EXPECT_TRUE(sample->value.GetDouble(value));
  return value;
}

// ---- metadata and registration

TEST_F(WriteDataFbTest, TheMetadataListsThirteenRetainedVariablesAndLeavesAGapAtValue) {
  EXPECT_EQ(writeDataMetadata(), kLibraryMetadata);
  run("local n = 0\n"
      "for name, var in pairs(TYPES.StandardFB.ArchiveProc.Vars) do\n"
      "  n = n + 1 assert(var.Retain == true and var.Hash ~= 4 and name ~= 'Value')\n"
      "end\n"
      "assert(n == 13 and TYPES.StandardFB.ArchiveProc.Hash == 1001)");
}

TEST_F(WriteDataFbTest, InputsHaveTheirPositionsAndTypes) {
  const std::vector<std::pair<std::string, int>> kExpected = {{"IsExternal", 1},
                                                              {"Id", 16},
                                                              {"Path", 21},
                                                              {"Name", 21},
                                                              {"Value", 22},
                                                              {"SourceId", 16},
                                                              {"SourceControllerIndex", 14},
                                                              {"SourceArchiveId", 14},
                                                              {"SourcePath", 21},
                                                              {"UseArchiveParams", 1},
                                                              {"WriteByChange", 1},
                                                              {"Deadband", 5},
                                                              {"MinWritePeriod", 8},
                                                              {"MaxWritePeriod", 8}};
  const FBInput* input = WriteDataFB::GetMetaTable();
  for (const auto& [name, type] : kExpected) {
    ASSERT_NE(input->name, nullptr);
    EXPECT_EQ(input->name, name);
    EXPECT_EQ(input->type, type) << name;
    ++input;
  }
  EXPECT_EQ(input->name, nullptr);
}

TEST_F(WriteDataFbTest, TheLibraryMayBeOpenedTwiceInOneState) {
  lua_pushcfunction(lua_->get(), [](lua_State* L) {
    luaL_argcheck(L, luaopen_WriteDataFB(L) == 1, 1, "first");
    luaL_argcheck(L, luaopen_WriteDataFB(L) == 1, 1, "second");
    return 0;
  });
  EXPECT_EQ(lua_pcall(lua_->get(), 0, 0, 0), LUA_OK);
  run("local fb = ArchiveProc.new{Id = 7, Value = 1} fb()");
  EXPECT_EQ(written(7).size(), 1U);
}

TEST_F(WriteDataFbTest, MetadataThatCannotBeRunIsLoggedAndFailsTheOpening) {
  test::TraceCapture trace;
  run("FBMetadata = function() error('refused', 0) end");
  EXPECT_EQ(luaopen_WriteDataFB(lua_->get()), -1);
  EXPECT_EQ(trace.count("refused\n"), 1);
  run("FBMetadata = function() error({}) end");
  EXPECT_EQ(luaopen_WriteDataFB(lua_->get()), -1);
  EXPECT_EQ(trace.count("no error text\n"), 1);
}

TEST_F(WriteDataFbTest, RegisteringAgainReturnsZeroAndRegistersNothing) {
  EXPECT_EQ(RegisterSTLibsWriteDataFB(), 0);
  RegisterExternalSTLib("ArchiveProc", [](lua_State*) { return 0; });
  EXPECT_EQ(RegisterSTLibsWriteDataFB(), 0);
  host::LuaState other;
  std::string error;
  ASSERT_TRUE(other.open(error)) << error;
  EXPECT_TRUE(other.run("assert(ArchiveProc == nil)", "test", error)) << error;
}

TEST_F(WriteDataFbTest, AnArgumentThatIsNoBlockIsRefused) {
  for (const char* function : {"get", "set", "call"}) {
    const std::string error = failure(std::string("ArchiveProc.") + function + "(5)");
    EXPECT_NE(error.find("bad argument #1"), std::string::npos);
    EXPECT_NE(error.find("ArchiveProc " + std::string(LuaFBUtil::CheckErrStrPostfix)),
              std::string::npos);
  }
}

// ---- binding

TEST_F(WriteDataFbTest, ACallWritesTheValueWithTheCurrentTimeAndGoodQuality) {
  run("fb = ArchiveProc.new{Id = 7} fb.Value = 21.5 assert(fb() == fb)");
  const std::vector<PinPtr> samples = written(7);
  ASSERT_EQ(samples.size(), 1U);
  EXPECT_EQ(samples[0]->value.GetType(), OpcUaType_Double);
  EXPECT_EQ(number(samples[0]), 21.5);
  EXPECT_EQ(samples[0]->time, clock_.now());
  EXPECT_EQ(samples[0]->quality, 0U);
}

TEST_F(WriteDataFbTest, TheItemIsKnownByIdAndPathAsGiven) {
  run("a = ArchiveProc.new{Id = 7, Path = 'Plant/Load', Value = 1} a()\n"
      "b = ArchiveProc.new{Id = '9007199254740993', Value = 2} b()");
  EXPECT_EQ(written(7, "Plant/Load").size(), 1U);
  EXPECT_EQ(written(7).size(), 0U);
  EXPECT_EQ(written(kBig).size(), 1U);
}

TEST_F(WriteDataFbTest, ABlockWithoutAnItemIsInert) {
  test::TraceCapture trace;
  run("a = ArchiveProc.new{Id = 99, Value = 1} a()\n"
      "b = ArchiveProc.new{Id = 10, Value = 1} b()\n"
      "c = ArchiveProc.new() c.Value = 1 c()");
  closeState();
  EXPECT_EQ(factory_.last().layerWriterCount(), 0U);
  EXPECT_EQ(trace.count("Not found VMItem : 99"), 1);
  EXPECT_EQ(trace.count("Layers info emty for VMItem : 10"), 1);
}

TEST_F(WriteDataFbTest, InputsChangedLaterMoveNeitherTheBindingNorTheFilter) {
  run("fb = ArchiveProc.new{Id = 7, UseArchiveParams = true, WriteByChange = true, Deadband = 2}\n"
      "fb.Id = 8 fb.Path = 'x' fb.Deadband = 5 fb.UseArchiveParams = false fb.Value = 1 fb()");
  EXPECT_EQ(written(7).size(), 1U);
  EXPECT_EQ(written(8).size(), 0U);
  EXPECT_EQ(filterOf(7).deadband, 2.0);
}

TEST_F(WriteDataFbTest, InputsThatTheBlockDoesNotReadAreKept) {
  run("fb = ArchiveProc.new{Id = 7, Name = 'n', SourceId = '9007199254740993',\n"
      "  SourceControllerIndex = 2, SourceArchiveId = 3, SourcePath = 'p'}\n"
      "assert(fb.Name == 'n' and fb.SourceId == '9007199254740993' and fb.SourceArchiveId == 3)\n"
      "assert(fb.SourceControllerIndex == 2 and fb.SourcePath == 'p' and fb.Value == nil)");
}

TEST_F(WriteDataFbTest, ConstructorTablesWithOtherKeysAreRead) {
  run("fb = ArchiveProc.new{5, [1.5] = 'x', Id = 7, [true] = 1, Value = 3, 'y'} fb()");
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(number(written(7)[0]), 3.0);
}

// ---- the filter

TEST_F(WriteDataFbTest, WithoutUseArchiveParamsTheArchivesFilterStays) {
  Filter filter;
  filter.writeByChange = true;
  filter.deadband = 0.5;
  filter.minWritePeriod = 3;
  filter.maxWritePeriod = 4;
  start(filter);
  run("fb = ArchiveProc.new{Id = 7, WriteByChange = false, Deadband = 9, MinWritePeriod = 8,\n"
      "  MaxWritePeriod = 7}");
  EXPECT_TRUE(filterOf(7).writeByChange);
  EXPECT_EQ(filterOf(7).deadband, 0.5);
  EXPECT_EQ(filterOf(7).minWritePeriod, 3);
  EXPECT_EQ(filterOf(7).maxWritePeriod, 4);
}

TEST_F(WriteDataFbTest, UseArchiveParamsMeansTheBlocksOwnInputs) {
  Filter filter;
  filter.allValues = true;
  filter.deadband = 0.5;
  start(filter);
  run("fb = ArchiveProc.new{Id = 7, UseArchiveParams = true, WriteByChange = 1, Deadband = 9,\n"
      "  MinWritePeriod = 8, MaxWritePeriod = 7}");
  const Filter own = filterOf(7);
  EXPECT_TRUE(own.writeByChange);
  EXPECT_EQ(own.deadband, 9.0);
  EXPECT_EQ(own.minWritePeriod, 8);
  EXPECT_EQ(own.maxWritePeriod, 7);
  EXPECT_TRUE(own.allValues);  // no input says anything about it
}

TEST_F(WriteDataFbTest, WithoutWriteByChangeTheDeadbandStaysAndUnsetInputsAreZero) {
  Filter filter;
  filter.writeByChange = true;
  filter.deadband = 0.5;
  filter.minWritePeriod = 3;
  filter.maxWritePeriod = 4;
  start(filter);
  run("fb = ArchiveProc.new{Id = 7, UseArchiveParams = true, WriteByChange = 0, Deadband = 9}");
  const Filter own = filterOf(7);
  EXPECT_FALSE(own.writeByChange);
  EXPECT_EQ(own.deadband, 0.5);
  EXPECT_EQ(own.minWritePeriod, 0);
  EXPECT_EQ(own.maxWritePeriod, 0);
}

TEST_F(WriteDataFbTest, FilterInputsOfOtherTypesAreReadAsNumbersOrLeftAtTheirDefaults) {
  run("a = ArchiveProc.new{Id = 7, UseArchiveParams = true, WriteByChange = true,\n"
      "  Deadband = '1.5', MinWritePeriod = '250', MaxWritePeriod = 1e300}");
  EXPECT_TRUE(filterOf(7).writeByChange);
  EXPECT_EQ(filterOf(7).deadband, 1.5);
  EXPECT_EQ(filterOf(7).minWritePeriod, 250);
  EXPECT_EQ(filterOf(7).maxWritePeriod, std::numeric_limits<std::int64_t>::max());
  run("b = ArchiveProc.new{Id = 8, UseArchiveParams = 1, WriteByChange = -0.5, Deadband = 'x',\n"
      "  MinWritePeriod = 'x', MaxWritePeriod = 0/0}");
  EXPECT_TRUE(filterOf(8).writeByChange);
  EXPECT_EQ(filterOf(8).deadband, 0.0);
  EXPECT_EQ(filterOf(8).minWritePeriod, 0);
  EXPECT_EQ(filterOf(8).maxWritePeriod, 0);
}

TEST_F(WriteDataFbTest, TheItemsFilterDecidesWhatIsKept) {
  run("fb = ArchiveProc.new{Id = 7, UseArchiveParams = false}");
  Filter byChange;
  byChange.writeByChange = true;
  byChange.deadband = 0.5;
  start(byChange);
  run("fb = ArchiveProc.new{Id = 7}\n"
      "for _, v in ipairs{10, 10.4, 10.5, 10.5} do fb.Value = v fb() end");
  ASSERT_EQ(written(7).size(), 2U);
  EXPECT_EQ(number(written(7)[1]), 10.5);
}

TEST_F(WriteDataFbTest, BlocksOnOneItemShareItsFilterAndTheLastOneMadeWins) {
  run("a = ArchiveProc.new{Id = 7, UseArchiveParams = true, WriteByChange = true, Deadband = 1}\n"
      "b = ArchiveProc.new{Id = 7, UseArchiveParams = true, WriteByChange = true, Deadband = 2}");
  EXPECT_EQ(filterOf(7).deadband, 2.0);
  run("c = ArchiveProc.new{Id = 7}");
  EXPECT_EQ(filterOf(7).deadband, 2.0);
}

TEST_F(WriteDataFbTest, ASilencedItemTakesNothingFromBlocksUntilItIsGivenVoiceAgain) {
  run("fb = ArchiveProc.new{Id = 7, Value = 1} fb()");
  const auto pin = manager().getPinCache(manager().getCacheId(ItemKey(7, "")));
  pin->updateFilter([](Filter& filter) { filter.blocksWrite = false; });
  run("fb()");
  EXPECT_EQ(written(7).size(), 1U);
  pin->updateFilter([](Filter& filter) { filter.blocksWrite = true; });
  run("fb()");
  EXPECT_EQ(written(7).size(), 2U);
  pin->updateFilter([](Filter& filter) { filter.blocksWrite = false; });
  closeState();
  EXPECT_EQ(written(7).size(), 2U);
}

// ---- values

TEST_F(WriteDataFbTest, ADataValueKeepsItsOwnTimeAndStatus) {
  run("fb = ArchiveProc.new{Id = 7}\n"
      "fb.Value = DataValue{Value = 4, SourceTime = 1000, Status = 0x40000000} fb()");
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(number(written(7)[0]), 4.0);
  EXPECT_EQ(written(7)[0]->time, kUnixEpochTicks + kTicksPerSecond);
  EXPECT_EQ(written(7)[0]->quality, 0x40000000U);
}

TEST_F(WriteDataFbTest, ATimeBeyond32BitsComesThroughWhole) {
  OpcUa_VariantHlp inner;
  inner.SetDouble(1);
  OpcUa_VariantHlp value;
  value.SetDataValue(inner, 0, 0x0123456789ABCDEF);
  setGlobal("v", value);
  run("fb = ArchiveProc.new{Id = 7} fb.Value = v fb()");
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(written(7)[0]->time, 0x0123456789ABCDEF);
}

TEST_F(WriteDataFbTest, ADataValueWithoutATimeGetsTheCurrentOne) {
  run("fb = ArchiveProc.new{Id = 7} fb.Value = DataValue{Value = 4, Status = 5} fb()");
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(written(7)[0]->time, clock_.now());
  EXPECT_EQ(written(7)[0]->quality, 5U);
}

TEST_F(WriteDataFbTest, OfTheDoublesOnlyPositiveInfinityIsDropped) {
  run("fb = ArchiveProc.new{Id = 7}\n"
      "for _, v in ipairs{1/0, -1/0, 0/0, DataValue{Value = 1/0}, 1.7976931348623157e308} do\n"
      "  fb.Value = v fb() end");
  const std::vector<PinPtr> samples = written(7);
  ASSERT_EQ(samples.size(), 3U);
  EXPECT_EQ(number(samples[0]), -kInfinity);
  EXPECT_TRUE(std::isnan(number(samples[1])));
  EXPECT_EQ(number(samples[2]), std::numeric_limits<double>::max());
}

TEST_F(WriteDataFbTest, AFloatOfPositiveInfinityIsWritten) {
  OpcUa_VariantHlp value;
  value.SetFloat(std::numeric_limits<float>::infinity());
  setGlobal("v", value);
  run("fb = ArchiveProc.new{Id = 7, Path = 'p'} fb.Value = v fb()");
  ASSERT_EQ(written(7, "p").size(), 1U);
  EXPECT_EQ(written(7, "p")[0]->value.GetType(), OpcUaType_Float);
}

TEST_F(WriteDataFbTest, AnUnsetValueIsWrittenAsNull) {
  run("fb = ArchiveProc.new{Id = 7} fb()");
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(written(7)[0]->value.GetType(), OpcUaType_Null);
}

TEST_F(WriteDataFbTest, WithoutAPathTheValueInputTakesTheItemsType) {
  run("a = ArchiveProc.new{Id = 8, Value = 5.9} a()\n"
      "b = ArchiveProc.new{Id = 8, Path = 'Plant/Mode', Value = 5.9} b()\n"
      "c = ArchiveProc.new{Id = 9, Value = 1} c()");
  ASSERT_EQ(written(8).size(), 1U);
  EXPECT_EQ(written(8)[0]->value.GetType(), OpcUaType_Int32);
  ASSERT_EQ(written(8, "Plant/Mode").size(), 1U);
  EXPECT_EQ(written(8, "Plant/Mode")[0]->value.GetType(), OpcUaType_Double);
  ASSERT_EQ(written(9).size(), 1U);
  EXPECT_EQ(written(9)[0]->value.GetType(), OpcUaType_Boolean);
}

TEST_F(WriteDataFbTest, AValueThatCannotTakeTheItemsTypeStaysAndIsTraced) {
  test::TraceCapture trace;
  run("fb = ArchiveProc.new{Id = 8, Value = 'text'} fb()");
  ASSERT_EQ(written(8).size(), 1U);
  EXPECT_EQ(written(8)[0]->value.GetString(), "text");
  EXPECT_EQ(trace.count("<--ReturnError: ChangeType(6) returns 0x80740000\n"), 1);
}

TEST_F(WriteDataFbTest, EachSampleIsASampleOfItsOwn) {
  run("fb = ArchiveProc.new{Id = 7, Value = 1} fb()");
  clock_.advance(kTicksPerSecond);
  run("fb.Value = 2 fb()");
  ASSERT_EQ(written(7).size(), 2U);
  EXPECT_EQ(number(written(7)[0]), 1.0);
  EXPECT_EQ(number(written(7)[1]), 2.0);
  EXPECT_EQ(written(7)[1]->time - written(7)[0]->time, kTicksPerSecond);
}

// ---- external values

void setLive(std::int64_t id, double value) {
  OpcUa_VariantHlp live;
  live.SetDouble(value);
  host::setLiveValue(id, live);
}

TEST_F(WriteDataFbTest, AnExternalBlockWritesTheGlobalParameterOfItsKind) {
  setLive(7, 2.5);
  setLive(8, 6);
  setLive(9, 1);
  run("for id = 7, 9 do local fb = ArchiveProc.new{Id = id, IsExternal = true, Value = 77} fb() "
      "end");
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(written(7)[0]->value.GetType(), OpcUaType_Double);
  EXPECT_EQ(number(written(7)[0]), 2.5);
  EXPECT_EQ(written(7)[0]->time, clock_.now());
  ASSERT_EQ(written(8).size(), 1U);
  EXPECT_EQ(written(8)[0]->value.GetType(), OpcUaType_Int32);
  EXPECT_EQ(number(written(8)[0]), 6.0);
  ASSERT_EQ(written(9).size(), 1U);
  EXPECT_EQ(written(9)[0]->value.GetType(), OpcUaType_Boolean);
}

TEST_F(WriteDataFbTest, AnExternalBlockWritesNothingWhileItsParameterHasNoValue) {
  run("fb = ArchiveProc.new{Id = 7, IsExternal = true} fb()");
  EXPECT_EQ(written(7).size(), 0U);
  setLive(7, kInfinity);
  run("fb()");
  EXPECT_EQ(written(7).size(), 0U);
  setLive(7, 1);
  run("fb()");
  EXPECT_EQ(written(7).size(), 1U);
}

TEST_F(WriteDataFbTest, AnExternalBlockWritesNoShutdownSample) {
  setLive(7, 1);
  run("fb = ArchiveProc.new{Id = 7, IsExternal = true, Value = 5} fb()");
  closeState();
  EXPECT_EQ(written(7).size(), 1U);
}

TEST_F(WriteDataFbTest, GlobalParametersAreFoundByTheLowHalfOfTheId) {
  OpcUa_VariantHlp out;
  setLive(7, 3);
  EXPECT_EQ(GetGlobalParamValue(7 + (5LL << 32), out), 0);
  double value = 0;
  EXPECT_TRUE(out.GetDouble(value));
  EXPECT_EQ(value, 3.0);
}

TEST_F(WriteDataFbTest, AParameterThatIsNoVariableIsFoundAmongTheOtherValues) {
  OpcUa_VariantHlp out;
  EXPECT_EQ(GetGlobalParamValue(4711, out), 1);
  setLive(4711, 8);
  EXPECT_EQ(GetGlobalParamValue(4711, out), 0);
  double value = 0;
  EXPECT_TRUE(out.GetDouble(value));
  EXPECT_EQ(value, 8.0);
}

TEST_F(WriteDataFbTest, TheResultOfAFailedReadIsGivenBack) {
  OpcUa_VariantHlp text;
  text.SetString("no number");
  host::setLiveValue(4712, text);
  OpcUa_VariantHlp out;
  EXPECT_NE(GetGlobalParamValue(4712, out), 0);
  EXPECT_EQ(out.GetType(), OpcUaType_Null);
}

// ---- the end of a block

TEST_F(WriteDataFbTest, ADestroyedBlockWritesItsLastValueOnceMoreAsAShutdownEvent) {
  run("a = ArchiveProc.new{Id = 7, Value = 3} a()\n"
      "b = ArchiveProc.new{Id = 9} b.Value = DataValue{Value = true, SourceTime = 1000, Status = "
      "5}\n"
      "b()");
  clock_.advance(kTicksPerSecond);
  closeState();
  const std::vector<PinPtr> plain = written(7);
  ASSERT_EQ(plain.size(), 2U);
  EXPECT_EQ(number(plain[1]), 3.0);
  EXPECT_EQ(plain[1]->quality, kShutdown);
  EXPECT_EQ(plain[1]->time, clock_.now());
  const std::vector<PinPtr> given = written(9);
  ASSERT_EQ(given.size(), 2U);
  EXPECT_EQ(given[1]->value.GetType(), OpcUaType_Boolean);
  EXPECT_EQ(given[1]->quality, kShutdown);
  EXPECT_EQ(given[1]->time, clock_.now());
}

TEST_F(WriteDataFbTest, ABlockThatNeverExecutedWritesNothingWhenItIsDestroyed) {
  run("fb = ArchiveProc.new{Id = 7, Value = 3}");
  closeState();
  EXPECT_EQ(written(7).size(), 0U);
}

TEST_F(WriteDataFbTest, TheValueTakenLastIsWrittenAtTheEndNotTheOneSetLast) {
  run("fb = ArchiveProc.new{Id = 7, Value = 3} fb() fb.Value = 4");
  closeState();
  ASSERT_EQ(written(7).size(), 2U);
  EXPECT_EQ(number(written(7)[1]), 3.0);
}

TEST_F(WriteDataFbTest, PositiveInfinityIsNotWrittenAtTheEndEither) {
  run("a = ArchiveProc.new{Id = 7, Value = 1/0} a()\n"
      "b = ArchiveProc.new{Id = 9} b.Value = DataValue{Value = 1/0} b()");
  closeState();
  EXPECT_EQ(written(7).size(), 0U);
  EXPECT_EQ(written(9).size(), 0U);
}

TEST_F(WriteDataFbTest, TheFilterMayRefuseTheShutdownSample) {
  Filter byChange;
  byChange.writeByChange = true;
  start(byChange);
  run("fb = ArchiveProc.new{Id = 7, Value = 3} fb()");
  closeState();
  EXPECT_EQ(written(7).size(), 1U);
}

TEST_F(WriteDataFbTest, ABlockThatIsGarbageIsEndedByTheCollector) {
  run("local fb = ArchiveProc.new{Id = 7, Value = 3} fb() fb = nil\n"
      "collectgarbage() collectgarbage()");
  ASSERT_EQ(written(7).size(), 2U);
  EXPECT_EQ(written(7)[1]->quality, kShutdown);
}

// ---- archives that are rebuilt

TEST_F(WriteDataFbTest, ABlockGoesOnArchivingAfterTheArchivesWereRebuilt) {
  run("fb = ArchiveProc.new{Id = 7, UseArchiveParams = true, WriteByChange = true, Deadband = 2,\n"
      "  MinWritePeriod = 1, MaxWritePeriod = 5} fb.Value = 1 fb()");
  run("fb.Id = 8 fb.Deadband = 50 fb.UseArchiveParams = false fb.MaxWritePeriod = 0");
  archiveFilter_ = Filter();
  restartArchives();
  run("fb.Value = 10 fb()");
  EXPECT_EQ(factory_.count(), 2U);
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(number(written(7)[0]), 10.0);
  const Filter own = filterOf(7);
  EXPECT_TRUE(own.writeByChange);
  EXPECT_EQ(own.deadband, 2.0);
  EXPECT_EQ(own.minWritePeriod, 1);
  EXPECT_EQ(own.maxWritePeriod, 5);
}

TEST_F(WriteDataFbTest, ABlockWithoutFilterInputsTakesTheNewArchivesFilter) {
  run("fb = ArchiveProc.new{Id = 7, Value = 1} fb()");
  archiveFilter_ = Filter();
  archiveFilter_.writeByChange = true;
  archiveFilter_.deadband = 0.25;
  restartArchives();
  run("fb()");
  EXPECT_EQ(filterOf(7).deadband, 0.25);
}

TEST_F(WriteDataFbTest, ABlockEndedAfterARebuildWritesItsShutdownSampleIntoTheNewArchive) {
  run("fb = ArchiveProc.new{Id = 7, Value = 1} fb()");
  restartArchives();
  closeState();
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(written(7)[0]->quality, kShutdown);
}

TEST_F(WriteDataFbTest, ABlockMadeBeforeTheArchivesWritesAfterThemByItsOwnFilter) {
  manager().clear();
  run("fb = ArchiveProc.new{Id = 7, UseArchiveParams = true, WriteByChange = true, Deadband = 2}\n"
      "fb.Value = 1 fb()");
  archiveFilter_ = Filter();
  archiveFilter_.writeByChange = true;
  ASSERT_EQ(manager().init(), 0);
  run("fb.Value = 1.5 fb() fb.Value = 3 fb() fb.Value = 3.25 fb()");
  EXPECT_EQ(filterOf(7).deadband, 2.0);
  ASSERT_EQ(written(7).size(), 1U);
  EXPECT_EQ(number(written(7)[0]), 1.5);
}

TEST_F(WriteDataFbTest, ABlockCalledWhileThereAreNoArchivesKeepsItsFilterForTheNextOnes) {
  run("fb = ArchiveProc.new{Id = 7, UseArchiveParams = true, MaxWritePeriod = 5} fb.Value = 1 "
      "fb()");
  manager().clear();
  run("fb() fb()");
  ASSERT_EQ(manager().init(), 0);
  clock_.advance(kTicksPerSecond);
  run("fb()");
  EXPECT_EQ(written(7).size(), 1U);
  EXPECT_EQ(filterOf(7).maxWritePeriod, 5);
}

TEST_F(WriteDataFbTest, ABlockWhoseItemIsGoneForAWhileBindsItselfWhenItIsBack) {
  run("fb = ArchiveProc.new{Id = 7, Value = 1} fb()");
  manager().clear();
  host::removeVariable(7);
  ASSERT_EQ(manager().init(), 0);
  run("fb()");
  EXPECT_EQ(factory_.last().layerWriterCount(), 0U);
  host::setVariable({7, "Plant/Load", OpcUaType_Double}, {{0, {0, 0}}});
  run("fb()");
  EXPECT_EQ(written(7).size(), 1U);
}

TEST_F(WriteDataFbTest, AProgramSeesThatAnArchiveAsksToWait) {
  run("fb = ArchiveProc.new{Id = 7} assert(fb.Crowded == false)");
  factory_.last().onCrowded([] { return true; });
  run("assert(fb.Crowded == true)");
  run("assert(ArchiveProc.new{Id = 10}.Crowded == false, 'not archived')");
  EXPECT_NE(failure("fb.Crowded = false"), "");
  manager().clear();
  run("assert(fb.Crowded == false, 'no archives')");
}

TEST_F(WriteDataFbTest, AnArchiveThatThrowsWhenItIsAskedForRoomIsNotCrowded) {
  run("fb = ArchiveProc.new{Id = 7}");
  factory_.last().onCrowded([]() -> bool { throw std::runtime_error("no idea"); });
  test::TraceCapture trace;
  run("assert(fb.Crowded == false)");
  EXPECT_EQ(trace.count("ArchiveProc: Crowded failed: no idea\n"), 1);
}

TEST_F(WriteDataFbTest, WhatAnArchiveThrowsIsTracedAndDoesNotReachTheProgram) {
  run("fb = ArchiveProc.new{Id = 7, Value = 1} fb()");
  factory_.last().onWrite([](const ItemKey&, std::int32_t, const PinPtr&) {
    throw std::runtime_error("disk on fire");
  });
  test::TraceCapture trace;
  run("fb()");
  EXPECT_EQ(trace.count("ArchiveProc: Execute failed: disk on fire\n"), 1);
  closeState();
  EXPECT_EQ(trace.count("ArchiveProc: destruction failed: disk on fire\n"), 1);
  factory_.last().onWrite(nullptr);
}

}  // namespace
}  // namespace orva::archive
