#include "host/lua_fb.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "orva_host/lua_state.h"
#include "orva_host/lua_value.h"
#include "share/ticks.h"
#include "support/trace_capture.h"

namespace orva::host {
namespace {

// A block that records what happens to it.
class Probe final : public BaseFB<Probe> {
 public:
  static const LuaFBUtil util;
  static const FBInput* GetMetaTable() {
    static const FBInput kInputs[] = {{"Flag", ParamType::kBool}, {"Number", ParamType::kLReal},
                                      {"Long", ParamType::kLInt}, {"Text", ParamType::kString},
                                      {"Any", ParamType::kAny},   {nullptr, 0}};
    return kInputs;
  }
  static std::vector<std::string> events;
  static bool throwInConstructor;
  static bool throwInInited;
  static bool throwInExecute;
  static Probe* last;

  Probe(lua_State* state, const std::string& name) : BaseFB(state, name) {
    if (throwInConstructor) throw std::runtime_error("no room");
    LoadInputs(GetMetaTable());
    events.push_back("made");
    last = this;
  }
  ~Probe() override { events.push_back("destroyed"); }
  void Inited() override {
    events.push_back("inited");
    if (throwInInited) throw std::runtime_error("Inited fails");
  }
  void Execute() override {
    events.push_back("executed");
    if (throwInExecute) throw std::runtime_error("Execute fails");
  }
};

const LuaFBUtil Probe::util("Probe");
std::vector<std::string> Probe::events;
bool Probe::throwInConstructor = false;
bool Probe::throwInInited = false;
bool Probe::throwInExecute = false;
Probe* Probe::last = nullptr;

int openProbe(lua_State* L) {
  static const luaL_Reg kMetamethods[] = {{"__index", Probe::Get},
                                          {"__newindex", Probe::Set},
                                          {"__call", Probe::Call},
                                          {"__gc", Probe::GC},
                                          {nullptr, nullptr}};
  static const luaL_Reg kLibrary[] = {{"new", Probe::NewFB},  {"get", Probe::Get},
                                      {"set", Probe::Set},    {"call", Probe::Call},
                                      {"collect", Probe::GC}, {nullptr, nullptr}};
  luaL_newmetatable(L, "Probe");
  luaL_openlib(L, nullptr, kMetamethods, 0);
  luaL_openlib(L, "Probe", kLibrary, 0);
  return 1;
}

class LuaFbTest : public ::testing::Test {
 protected:
  LuaFbTest() {
    Probe::events.clear();
    Probe::throwInConstructor = Probe::throwInInited = Probe::throwInExecute = false;
    RegisterExternalSTLib("Probe", openProbe);
    std::string error;
    EXPECT_TRUE(lua_->open(error)) << error;
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
  std::vector<std::string> events() { return Probe::events; }

  std::unique_ptr<LuaState> lua_ = std::make_unique<LuaState>();
};

using Events = std::vector<std::string>;

TEST_F(LuaFbTest, ABlockIsMadeInitialisedExecutedAndDestroyed) {
  run("local fb = Probe.new{Flag = true} fb() Probe.call(fb)");
  lua_.reset();
  EXPECT_EQ(events(), (Events{"made", "inited", "executed", "executed", "destroyed"}));
}

TEST_F(LuaFbTest, InputsOfTheConstructorTableAndLaterOnesAreRead) {
  run("fb = Probe.new{Flag = true, Number = 1.5} fb.Long = '9007199254740993' "
      "Probe.set(fb, 'Text', 'a\\0b')");
  EXPECT_TRUE(Probe::last->GetBool("Flag"));
  EXPECT_EQ(Probe::last->GetDouble("Number"), 1.5);
  EXPECT_EQ(Probe::last->GetInt64("Long"), 9007199254740993);
  EXPECT_EQ(Probe::last->GetString("Text"), std::string("a\0b", 3));
}

TEST_F(LuaFbTest, TypedReadsFallBackWhenAnInputIsUnsetOrOfAnotherKind) {
  run("fb = Probe.new{Number = 'text', Flag = {} ~= nil}");
  EXPECT_EQ(Probe::last->GetDouble("Number", 7.0), 7.0);
  EXPECT_EQ(Probe::last->GetInt64("Long", 5), 5);
  EXPECT_EQ(Probe::last->GetInt64("NoSuchInput", 6), 6);
  EXPECT_EQ(Probe::last->GetTime("Long"), 0);
  EXPECT_EQ(Probe::last->GetString("Flag"), "");
  EXPECT_EQ(Probe::last->GetFBInput("NoSuchInput"), nullptr);
}

TEST_F(LuaFbTest, EachLuaTypeBecomesItsVariantAndComesBack) {
  run("fb = Probe.new{}\n"
      "local function roundTrip(v) fb.Any = v; assert(fb.Any == v) end\n"
      "roundTrip(nil) roundTrip(true) roundTrip(false) roundTrip(-2.25) roundTrip('x')");
  const struct {
    const char* text;
    OpcUa_Byte type;
  } kCases[] = {{"nil", OpcUaType_Null},
                {"true", OpcUaType_Boolean},
                {"3", OpcUaType_Double},
                {"'3'", OpcUaType_String},
                {"DataValue{Value = 3}", OpcUaType_DataValue}};
  for (const auto& oneCase : kCases) {
    run(std::string("fb.Any = ") + oneCase.text);
    EXPECT_EQ(Probe::last->GetFBInput("Any")->GetType(), oneCase.type) << oneCase.text;
  }
}

TEST_F(LuaFbTest, IntegersBeyondTheExactRangeOfANumberReachLuaAsDecimalText) {
  run("fb = Probe.new{}");
  OpcUa_VariantHlp* any = Probe::last->GetFBInput("Any");
  any->SetInt64(9007199254740993);
  run("assert(fb.Any == '9007199254740993')");
  any->SetInt64(-9007199254740992);
  run("assert(fb.Any == -9007199254740992)");
  any->SetInt64(std::numeric_limits<std::int64_t>::min());
  run("assert(fb.Any == '-9223372036854775808')");
  any->SetUInt64(std::numeric_limits<std::uint64_t>::max());
  run("assert(fb.Any == '18446744073709551615')");
  any->SetUInt(4294967295U);
  run("assert(fb.Any == 4294967295)");
  any->SetDateTime(kUnixEpochTicks + 15'000);
  run("assert(fb.Any == 1.5)");
}

TEST_F(LuaFbTest, OnlyTrueStringKeysOfTheConstructorTableCount) {
  run("fb = Probe.new{[1] = 'one', [2.5] = 2, [true] = 3, Flag = true, Text = 't', Long = 4, "
      "'x', 'y'}");
  EXPECT_TRUE(Probe::last->GetBool("Flag"));
  EXPECT_EQ(Probe::last->GetString("Text"), "t");
  EXPECT_EQ(Probe::last->GetInt64("Long"), 4);
}

TEST_F(LuaFbTest, TheConstructorReturnsTheBlockWhateverPrecedesTheTable) {
  run("assert(Probe.new{} ~= nil) assert(Probe.new() ~= nil) assert(Probe.new(nil) ~= nil)\n"
      "local fb = Probe:new{Long = 3} assert(fb.Long == 3) assert(fb() == fb)");
}

TEST_F(LuaFbTest, AnUnknownInputIsRefusedByNameAndReadsAsNil) {
  run("fb = Probe.new{}");
  EXPECT_EQ(failure("\nfb.Flg = true"), "test:2: no input \"Flg\"");
  EXPECT_EQ(failure("Probe.new{Flg = true}"), "test:1: no input \"Flg\"");
  run("assert(fb.Flg == nil and fb[1] == nil)");
  EXPECT_EQ(failure("fb[1] = 2"), "test:1: name of an input expected");
}

TEST_F(LuaFbTest, AValueOfAnotherKindIsRefusedAndTheInputKeepsItsOwn) {
  run("fb = Probe.new{Any = 5}");
  EXPECT_EQ(failure("fb.Any = {}"),
            "test:1: input \"Any\": nil, boolean, number, string or DataValue expected, got table");
  EXPECT_NE(failure("fb.Any = print or function() end").find("got function"), std::string::npos);
  EXPECT_NE(failure("fb.Any = fb").find("got userdata"), std::string::npos);
  run("assert(fb.Any == 5)");
}

TEST_F(LuaFbTest, ABlockWhoseTableIsRefusedIsDestroyedOnceAndNeverInitialised) {
  failure("Probe.new{Flg = true}");
  run("collectgarbage() collectgarbage()");
  EXPECT_EQ(events(), (Events{"made", "destroyed"}));
}

TEST_F(LuaFbTest, AnArgumentThatIsNoBlockRaisesTheErrorOfTheBlock) {
  for (const char* text : {"Probe.get(5, 'Any')", "Probe.set({}, 'Any', 1)", "Probe.call()",
                           "Probe.call(DataValue{})"}) {
    EXPECT_NE(failure(text).find("bad argument #1"), std::string::npos) << text;
    EXPECT_NE(failure(text).find("Probe function block expected"), std::string::npos) << text;
  }
  EXPECT_NE(failure("Probe.new(5)").find("table expected"), std::string::npos);
}

TEST_F(LuaFbTest, CollectingTwiceDestroysOnceAndADeadBlockIsNoBlock) {
  run("fb = Probe.new{} Probe.collect(fb) Probe.collect(fb) Probe.collect() Probe.collect(5)");
  EXPECT_EQ(events(), (Events{"made", "inited", "destroyed"}));
  EXPECT_NE(failure("fb.Any = 1").find("Probe function block expected"), std::string::npos);
  EXPECT_NE(failure("fb()").find("Probe function block expected"), std::string::npos);
  lua_.reset();
  EXPECT_EQ(events(), (Events{"made", "inited", "destroyed"}));
}

TEST_F(LuaFbTest, WhatABlockThrowsIsTracedAndDoesNotReachLua) {
  test::TraceCapture trace;
  Probe::throwInInited = true;
  run("fb = Probe.new{}");
  Probe::throwInExecute = true;
  run("assert(fb() == fb)");
  EXPECT_EQ(trace.count("Probe: Inited failed: Inited fails\n"), 1);
  EXPECT_EQ(trace.count("Probe: Execute failed: Execute fails\n"), 1);
  Probe::throwInConstructor = true;
  EXPECT_EQ(failure("Probe.new{}"), "test:1: Probe: out of memory");
  EXPECT_EQ(trace.count("Probe: construction failed: no room\n"), 1);
}

TEST_F(LuaFbTest, TypesHaveTheirLuaTexts) {
  for (const int code : {1, 5, 8, 14, 16, 21, 22}) {
    run(std::string("assert(") + ParamType::GetLuaType(code) + ".Code == " + std::to_string(code) +
        ")");
  }
  EXPECT_STREQ(ParamType::GetLuaType(2), "nil");
}

TEST_F(LuaFbTest, MetadataIsCheckedAndKeptUnderItsName) {
  run("TYPES.StandardFB.X = FBMetadata({Name = 'X', Hash = 7, Vars = {A = {Hash = 0, "
      "Type = TYPES.BOOL}}})\n"
      "assert(TYPES.StandardFB.X.Vars.A.Type == TYPES.BOOL)");
  const char* const kBad[] = {
      "5",
      "{Hash = 1, Vars = {}}",
      "{Name = 'X', Vars = {}}",
      "{Name = 'X', Hash = 'h', Vars = {}}",
      "{Name = 'X', Hash = 1}",
      "{Name = 'X', Hash = 1, Vars = {A = 1}}",
      "{Name = 'X', Hash = 1, Vars = {{Hash = 0, Type = TYPES.BOOL}}}",
      "{Name = 'X', Hash = 1, Vars = {A = {Type = TYPES.BOOL}}}",
      "{Name = 'X', Hash = 1, Vars = {A = {Hash = 0}}}",
      "{Name = 'X', Hash = 1, Vars = {A = {Hash = 0, Type = {}}}}",
      "{Name = 'X', Hash = 1, Vars = {A = {Hash = 0, Type = TYPES.NOSUCH}}}"};
  for (const char* text : kBad) {
    failure(std::string("FBMetadata(") + text + ")");
  }
}

TEST_F(LuaFbTest, ADataValueTellsItsParts) {
  run("local v = DataValue{Value = 'x', SourceTime = 1700000000000.5, Status = 2147483648}\n"
      "assert(v.Value == 'x' and v.SourceTime == 1700000000000.5 and v.Status == 0x80000000)\n"
      "local empty = DataValue{}\n"
      "assert(empty.Value == nil and empty.SourceTime == nil and empty.Status == 0)\n"
      "assert(v.Other == nil and v[1] == nil and type(tostring(v)) == 'string')\n"
      "assert(DataValue{SourceTime = 0}.SourceTime == 0)");
}

TEST_F(LuaFbTest, ADataValueOfAnInputCarriesTicksAndStatus) {
  run("fb = Probe.new{Any = DataValue{Value = 1.5, SourceTime = 1000, Status = 7}}");
  const OpcUa_DataValue* value = Probe::last->GetFBInput("Any")->GetDataValue();
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(value->StatusCode, 7U);
  EXPECT_EQ(OpcUa_DateTime_ToInt64(&value->SourceTimestamp), kUnixEpochTicks + kTicksPerSecond);
  run("local v = fb.Any assert(v.Value == 1.5 and v.SourceTime == 1000 and v.Status == 7)");
}

TEST_F(LuaFbTest, ADataValueWithBadFieldsIsRefused) {
  const char* const kBad[] = {"DataValue()",
                              "DataValue(5)",
                              "DataValue{Value = {}}",
                              "DataValue{Value = DataValue{}}",
                              "DataValue{Valu = 1}",
                              "DataValue{5}",
                              "DataValue{[DataValue{}] = 1}",
                              "DataValue{SourceTime = '5'}",
                              "DataValue{SourceTime = 0/0}",
                              "DataValue{SourceTime = 1/0}",
                              "DataValue{SourceTime = 1e15}",
                              "DataValue{Status = -1}",
                              "DataValue{Status = 4294967296}",
                              "DataValue{Status = 1.5}",
                              "DataValue{Status = 0/0}",
                              "DataValue{Status = 'Good'}"};
  for (const char* text : kBad) {
    EXPECT_NE(failure(text).find("test:1: "), std::string::npos) << text;
  }
}

TEST_F(LuaFbTest, ABoxPassesAValueOfItsVeryType) {
  run("fb = Probe.new{}");
  lua_State* L = lua_->get();
  OpcUa_VariantHlp* box = pushVariantBox(L);
  box->SetInt64(9007199254740993);
  lua_setglobal(L, "boxed");
  run("fb.Any = boxed assert(boxed.Value == '9007199254740993')");
  EXPECT_EQ(Probe::last->GetFBInput("Any")->GetType(), OpcUaType_Int64);
}

TEST_F(LuaFbTest, ATimeOfAnyTicksIsANumberOfMilliseconds) {
  OpcUa_VariantHlp* time = pushVariantBox(lua_->get());
  lua_setglobal(lua_->get(), "time");
  run("fb = Probe.new{}");
  const struct {
    std::int64_t ticks;
    const char* milliseconds;
  } kCases[] = {{kUnixEpochTicks + 15'000, "1.5"},
                {kUnixEpochTicks - 15'000, "-1.5"},
                {0, "-11644473600000"},
                {INT64_MAX, "910692730085477.5807"},
                {INT64_MIN, "-933981677285477.5808"}};
  for (const auto& oneCase : kCases) {
    time->SetDateTime(oneCase.ticks);
    run(std::string("fb.Any = time assert(fb.Any == ") + oneCase.milliseconds + ")");
  }
}

TEST_F(LuaFbTest, ALibraryRegisteredAgainIsOpenedByItsNewOpener) {
  const auto openNothing = [](lua_State* L) {
    lua_pushboolean(L, 1);
    lua_setglobal(L, "openedAnew");
    return 0;
  };
  EXPECT_EQ(RegisterExternalSTLib("Probe", openNothing), 0);
  LuaState other;
  std::string error;
  EXPECT_TRUE(other.open(error)) << error;
  EXPECT_TRUE(other.run("assert(openedAnew and Probe == nil)", "test", error)) << error;
}

TEST_F(LuaFbTest, AnOpenerThatFailsIsNamed) {
  EXPECT_EQ(RegisterExternalSTLib("Broken", [](lua_State*) { return -1; }), 0);
  LuaState other;
  std::string error;
  EXPECT_FALSE(other.open(error));
  EXPECT_EQ(error, "library \"Broken\" cannot be opened");
  RegisterExternalSTLib("Broken", [](lua_State*) { return 0; });
}

}  // namespace
}  // namespace orva::host
