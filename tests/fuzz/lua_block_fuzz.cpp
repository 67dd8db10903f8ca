#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_targets.h"
#include "orva_database/write_data_fb.h"
#include "orva_host/live_values.h"
#include "orva_host/lua_state.h"
#include "orva_host/lua_value.h"
#include "orva_host/variables.h"
#include "share/archive_manager.h"
#include "share/status_codes.h"
#include "support/history_service.h"

// The first byte says what the others are. Even: values that one block gets, each of which must
// reach the archive as it is. Odd: what a wild program does with up to four blocks, any inputs,
// values of any type and arguments that are none.

namespace orva::fuzz {
namespace {

constexpr std::int64_t kVariable = 7;
constexpr StatusCode kShutdown = 0x00A80000;
constexpr int kBlocks = 4;
constexpr int kMostSteps = 40;

const char* const kNames[] = {
    "IsExternal",    "Id",       "Path",           "Name",           "Value",
    "SourceId",      "Deadband", "MinWritePeriod", "MaxWritePeriod", "UseArchiveParams",
    "WriteByChange", "NoSuch",   "SourcePath",     "SourceArchiveId"};

// ---- values

double realOf(FuzzInput& in) {
  if (in.flag()) return in.number<std::int16_t>();
  const auto bits = in.number<std::uint64_t>();
  double real = 0;
  std::memcpy(&real, &bits, sizeof real);
  return real;
}

OpcUa_VariantHlp scalarOf(FuzzInput& in) {
  OpcUa_VariantHlp value;
  switch (in.below(12)) {
    case 0:
      break;
    case 1:
      value.SetBool(in.flag());
      break;
    case 2:
    case 3:
      value.SetDouble(realOf(in));
      break;
    case 4:
      value.SetString(in.text());
      break;
    case 5:
      value.SetInt64(in.number<std::int64_t>());
      break;
    case 6:
      value.SetUInt64(in.number<std::uint64_t>());
      break;
    case 7:
      value.SetFloat(static_cast<float>(in.number<std::int32_t>()) / 8);
      break;
    case 8:
      value.SetInt16(in.number<std::int16_t>());
      break;
    case 9:
      value.SetDateTime(in.number<std::int64_t>());
      break;
    case 10:
      value.SetJson(in.text());
      break;
    default:
      value.SetUInt(in.number<std::uint32_t>());
  }
  return value;
}

OpcUa_VariantHlp valueOf(FuzzInput& in) {
  const std::size_t form = in.below(8);
  if (form == 0) {
    OpcUa_VariantHlp value;
    const auto status = in.flag() ? in.number<std::uint32_t>() : 0;
    const std::int64_t time =
        in.flag() ? in.number<std::int64_t>() : test::kT0 + in.byte() * test::kSecond;
    value.SetDataValue(scalarOf(in), status, time);
    return value;
  }
  if (form == 1) {
    const OpcUa_VariantHlp items[] = {scalarOf(in), scalarOf(in)};
    OpcUa_VariantHlp value;
    value.SetArray(OpcUaType_Double, items, 2);
    return value;
  }
  return scalarOf(in);
}

bool sameValue(const OpcUa_VariantHlp& a, const OpcUa_VariantHlp& b) {
  return a.GetType() == b.GetType() && a.IsArray() == b.IsArray() && a.ToText() == b.ToText();
}

bool isPositiveInfinity(const OpcUa_VariantHlp& value) {
  return value.GetType() == OpcUaType_Double && !value.IsArray() &&
         value.Get().Value.Double > std::numeric_limits<double>::max();
}

// ---- the program

class Program {
 public:
  explicit Program(OpcUa_Byte type) {
    service_.addVariable(kVariable, "Plant/Load");
    host::setVariable({kVariable, "Plant/Load", type}, {{0, {0, 0}}});
    RegisterExternalSTLib("ArchiveProc", archive::luaopen_WriteDataFB);
    std::string error;
    demand(lua_->open(error), "a state can be opened");
    run("b = {} function same(x, y) return x == y or x ~= x and y ~= y end");
  }
  ~Program() {
    lua_.reset();
    host::clearLiveValues();
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  bool tryRun(const std::string& text, std::string& error) {
    return lua_->run(text, "fuzz", error);
  }
  // What cannot fail.
  void run(const std::string& text) {
    std::string error;
    if (!tryRun(text, error)) throw std::logic_error("a program fails: " + error);
  }
  // Makes the value the global `name`, in the form in which programs have it.
  void setGlobal(const char* name, const OpcUa_VariantHlp& value) {
    lua_State* const L = lua_->get();
    switch (value.GetType()) {
      case OpcUaType_Null:
      case OpcUaType_Boolean:
      case OpcUaType_Double:
      case OpcUaType_String:
        if (!value.IsArray()) {
          host::pushVariant(L, value);
          break;
        }
        [[fallthrough]];
      default:
        *host::pushVariantBox(L) = value;
    }
    lua_setglobal(L, name);
  }
  std::vector<PinPtr> written() { return service_.archive().written({kVariable, ""}, 0); }
  void end() { lua_.reset(); }
  test::HistoryService& service() { return service_; }

 private:
  test::HistoryService service_;
  std::unique_ptr<host::LuaState> lua_ = std::make_unique<host::LuaState>();
};

// ---- one block that does what is expected

struct Expected {
  std::vector<PinPtr> samples;

  void take(std::int64_t time, const OpcUa_VariantHlp& value, OpcUa_StatusCode quality) {
    if (isPositiveInfinity(value)) return;
    if (!samples.empty() && time < samples.back()->time) return;
    samples.push_back(makePin(time, value, quality));
  }
};

void demandWritten(Program& program, const Expected& expected) {
  const std::vector<PinPtr> written = program.written();
  demand(written.size() == expected.samples.size(), "each value in order is a sample");
  if (written.empty()) return;
  const Pin& got = *written.back();
  const Pin& wanted = *expected.samples.back();
  demand(got.time == wanted.time && sameValue(got.value, wanted.value) &&
             OpcUa_StatusCode{got.quality} == OpcUa_StatusCode{wanted.quality},
         "a sample is what the block got");
}

void runPlain(FuzzInput& in) {
  const OpcUa_Byte types[] = {OpcUaType_Double, OpcUaType_Boolean, OpcUaType_Int32,
                              OpcUaType_String, OpcUaType_Null,    OpcUaType_Float};
  Program program(types[in.below(6)]);
  program.run("b[0] = ArchiveProc.new{Id = 7}");
  Expected expected;
  OpcUa_VariantHlp last;
  for (int steps = 0; steps < kMostSteps && !in.empty(); ++steps) {
    last = valueOf(in);
    program.setGlobal("v", last);
    program.run(
        "b[0].Value = v "
        "local x = b[0].Value "
        "if type(v) ~= 'userdata' then assert(same(x, v)) end "
        "b[0]()");
    const std::int64_t now = program.service().clock.now();
    if (const OpcUa_DataValue* const given = last.GetDataValue()) {
      const std::int64_t time = OpcUa_DateTime_ToInt64(&given->SourceTimestamp);
      OpcUa_VariantHlp copy = last;
      const OpcUa_StatusCode quality = given->StatusCode;
      expected.take(time == 0 ? now : time, copy.TakeInnerValue(), quality);
    } else {
      expected.take(now, last, 0);
    }
    demandWritten(program, expected);
    program.service().clock.advance(in.below(3) * test::kSecond);
  }
  program.end();
  if (last.GetType() != OpcUaType_Null) {
    if (last.GetType() == OpcUaType_DataValue) last = last.TakeInnerValue();
    expected.take(program.service().clock.now(), last, kShutdown);
  }
  demandWritten(program, expected);
}

// ---- any program

std::string nameOf(FuzzInput& in) { return kNames[in.below(std::size(kNames))]; }

// A Lua expression; values that programs cannot write down are in the globals v and w.
std::string expressionOf(FuzzInput& in, Program& program, const char* global) {
  static const char* const kOddities[] = {"{}",
                                          "print",
                                          "b",
                                          "b[0]",
                                          "ArchiveProc",
                                          "0/0",
                                          "1/0",
                                          "coroutine",
                                          "'7'",
                                          "7",
                                          "setmetatable({}, {})",
                                          "DataValue{Value = 1, SourceTime = 5}"};
  if (in.below(3) == 0) return kOddities[in.below(std::size(kOddities))];
  program.setGlobal(global, valueOf(in));
  return global;
}

std::string tableOf(FuzzInput& in, Program& program) {
  std::string table = "{" + std::string(in.flag() ? "Id = 7, " : "");
  table += nameOf(in) + " = " + expressionOf(in, program, "v") + ", ";
  table += nameOf(in) + " = " + expressionOf(in, program, "w");
  return table + "}";
}

std::string statementOf(FuzzInput& in, Program& program) {
  const std::string block = "b[" + std::to_string(in.below(kBlocks)) + "]";
  switch (in.below(10)) {
    case 0:
    case 1:
      return block + " = ArchiveProc.new" + tableOf(in, program);
    case 2:
    case 3: {
      const std::string input = block + "." + nameOf(in);
      return "local e = " + expressionOf(in, program, "v") + " " + input +
             " = e local x = " + input +
             " local t = type(e) if t == 'number' or t == 'string' or t == 'boolean' " +
             "then assert(same(e, x), 'promise: an input is kept') end";
    }
    case 4:
    case 5:
      return "local r = " + block + "() assert(r == " + block +
             ", 'promise: a call gives its block')";
    case 6:
      return block + " = nil collectgarbage()";
    case 7:
      return "ArchiveProc.set(" + expressionOf(in, program, "v") + ", '" + nameOf(in) + "', " +
             expressionOf(in, program, "w") + ")";
    case 8:
      return "local r = ArchiveProc." + std::string(in.flag() ? "get" : "call") + "(" +
             expressionOf(in, program, "v") + ", " + expressionOf(in, program, "w") + ")";
    default:
      return block + " = ArchiveProc.new(" + expressionOf(in, program, "v") + ")";
  }
}

void makeArchivesAnew() {
  auto& manager = archive::DataArchiveManager::instance();
  manager.clear();
  demand(manager.init() == 0, "archives can be made anew");
}

void demandInOrder(const std::vector<PinPtr>& samples) {
  for (std::size_t i = 0; i < samples.size(); ++i) {
    demand(i == 0 || samples[i - 1]->time <= samples[i]->time, "samples are in order of time");
    demand(!isPositiveInfinity(samples[i]->value), "no block writes plus infinity");
    demand(samples[i]->value.GetType() != OpcUaType_DataValue, "the value itself is archived");
  }
}

void runWild(FuzzInput& in) {
  Program program(OpcUaType_Double);
  std::string error;
  for (int steps = 0; steps < kMostSteps && !in.empty(); ++steps) {
    if (in.below(16) == 0) {
      makeArchivesAnew();
      continue;
    }
    const std::string statement = statementOf(in, program);
    error.clear();
    const bool good = program.tryRun(statement, error);
    demand(good || !error.empty(), "what fails says why");
    demand(error.find("promise: ") == std::string::npos, "a block keeps what it gets");
    demand(error.find("memory") == std::string::npos, "no value takes all memory");
    program.service().clock.advance(in.below(3) * test::kSecond);
    demandInOrder(program.written());
  }
  // The state is as good as before.
  program.run("b = {} collectgarbage() b[0] = ArchiveProc.new{Id = 7} b[0].Value = 1 b[0]()");
  program.end();
  demandInOrder(program.written());
}

}  // namespace

void luaBlock(const std::uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  if (in.flag()) return runWild(in);
  runPlain(in);
}

}  // namespace orva::fuzz
