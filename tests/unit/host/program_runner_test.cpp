#include "orva_host/program_runner.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>

#include "host/host_time.h"
#include "host/lua_fb.h"
#include "orva_host/cycle_schedule.h"
#include "orva_host/live_values.h"
#include "orva_host/log_limit.h"
#include "orva_host/variables.h"
#include "share/ticks.h"
#include "support/temp_folder.h"
#include "support/trace_capture.h"

namespace orva::host {
namespace {

using Clock = std::chrono::steady_clock;

// What the test observes comes from another thread; this waits for it and says whether it came.
template <class Condition>
bool eventually(Condition condition) {
  const auto until = Clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (Clock::now() > until) return false;
    std::this_thread::yield();
  }
  return true;
}

double live(std::int64_t id) {
  OpcUa_VariantHlp value;
  double number = -1;
  if (getLiveValue(id, value)) value.GetDouble(number);
  return number;
}

class ProgramRunnerTest : public ::testing::Test {
 protected:
  ProgramRunnerTest() {
    replaceInstallation({{{1, "Plant/Count", OpcUaType_Double}, {}},
                         {{2, "Plant/Total", OpcUaType_Int32}, {}},
                         {{3, "77", OpcUaType_Double}, {}},
                         {{(std::int64_t{1} << 53) + 1, "Plant/Big", OpcUaType_Int64}, {}}},
                        {});
  }
  ~ProgramRunnerTest() override {
    runner_.stop();
    clearInstallation();
    clearLiveValues();
  }

  ProgramCfg program(const std::string& name, const std::string& text, int cycleMs = 1) {
    return {name, folder_.write(name + ".lua", text), cycleMs};
  }
  // Runs a text as a program's first cycle, and says what it logged.
  std::vector<std::string> logOf(const std::string& text) {
    const std::string cycle = "local function body()\n" + text +
                              "\nend\n"
                              "function cycle()\n"
                              "  local good, error = pcall(body)\n"
                              "  if not good then Log(error) end\n"
                              "  Write(900, 1)\n"
                              "end";
    EXPECT_TRUE(runner_.start({program("p", cycle, 3'600'000)}));
    EXPECT_TRUE(eventually([] { return live(900) == 1; }));
    runner_.stop();
    return trace_.texts();
  }

  test::TempFolder folder_;
  test::TraceCapture trace_;
  ProgramRunner runner_;
};

TEST_F(ProgramRunnerTest, TheFileRunsOnceAndItsCycleAgainAndAgain) {
  ASSERT_TRUE(runner_.start({program("p",
                                     "Write(10, (Read(10) or 0) + 1)\n"
                                     "local n = 0 function cycle() n = n + 1 Write(1, n) end")}));
  EXPECT_TRUE(eventually([] { return live(1) >= 5; }));
  EXPECT_EQ(live(10), 1);
}

TEST_F(ProgramRunnerTest, EachProgramHasAStateOfItsOwn) {
  const std::string text = "n = 0 function cycle() n = n + 1 if n == 3 then Write(ID, n) end end";
  ASSERT_TRUE(runner_.start(
      {program("a", "ID = 10 " + text), program("b", "ID = 11 assert(n == nil) " + text)}));
  EXPECT_TRUE(eventually([] { return live(10) == 3 && live(11) == 3; }));
}

TEST_F(ProgramRunnerTest, AnErrorIsLoggedWithFileAndLineAndTheNextCycleComes) {
  ASSERT_TRUE(runner_.start({program("p",
                                     "local n = 0\nfunction cycle()\n  n = n + 1\n"
                                     "  Write(1, n)\n  local x = nil + n\nend")}));
  EXPECT_TRUE(eventually([] { return live(1) >= 20; }));
  runner_.stop();
  EXPECT_GE(trace_.countContaining("program p: p.lua:5: attempt to perform arithmetic"), 1);
}

TEST_F(ProgramRunnerTest, ErrorsFillNoMoreThanALineASecond) {
  const auto start = Clock::now();
  ASSERT_TRUE(runner_.start({program("p",
                                     "local n = 0\nfunction cycle() n = n + 1 Write(1, n)\n"
                                     "error('again') end")}));
  EXPECT_TRUE(eventually([] { return live(1) >= 100; }));
  runner_.stop();
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
  EXPECT_LE(trace_.countContaining("again"), seconds + 1);
}

TEST_F(ProgramRunnerTest, ProgramsThatCannotBeLoadedAreLoggedAndTheOthersRun) {
  EXPECT_FALSE(runner_.start({program("syntax", "function cycle( end"),
                              program("runtime", "\nerror('at once')"),
                              program("nothing", "local x = 1"),
                              program("binary", "\x1bLua"),
                              {"missing", folder_.path("missing.lua"), 1},
                              program("good", "function cycle() Write(1, 5) end")}));
  EXPECT_TRUE(eventually([] { return live(1) == 5; }));
  EXPECT_EQ(trace_.countContaining("program syntax: syntax.lua:1: "), 1);
  EXPECT_EQ(trace_.count("program runtime: runtime.lua:2: at once\n"), 1);
  EXPECT_EQ(trace_.count("program nothing: nothing.lua: no function cycle()\n"), 1);
  EXPECT_EQ(trace_.countContaining("program binary: "), 1);
  EXPECT_EQ(trace_.countContaining("missing.lua: No such file or directory\n"), 1);
}

TEST_F(ProgramRunnerTest, AnEndlessCycleIsInterruptedWhenTheProgramsStop) {
  ASSERT_TRUE(runner_.start(
      {program("p",
               "function cycle() Write(1, 1) while true do pcall(function() while true do "
               "end end) end end")}));
  ASSERT_TRUE(eventually([] { return live(1) == 1; }));
  const auto start = Clock::now();
  runner_.stop();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(trace_.countContaining("interrupted"), 1);
}

TEST_F(ProgramRunnerTest, AFileThatNeverEndsIsInterruptedAndHasFailed) {
  EXPECT_FALSE(runner_.start({program("p", "while true do end")}));
  EXPECT_EQ(trace_.count("program p: p.lua:1: interrupted\n"), 1);
}

TEST_F(ProgramRunnerTest, StoppingDoesNotWaitForTheNextCycle) {
  ASSERT_TRUE(runner_.start({program("p", "function cycle() Write(1, 1) end", 3'600'000)}));
  ASSERT_TRUE(eventually([] { return live(1) == 1; }));
  const auto start = Clock::now();
  runner_.stop();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(60));
}

TEST_F(ProgramRunnerTest, StoppingClosesTheStatesAndStartingBeginsAnew) {
  const ProgramCfg cfg =
      program("p",
              "Write(10, (Read(10) or 0) + 1)\n"
              "guard = setmetatable({}, {__gc = function() Write(11, (Read(11) or 0) + 1) end})\n"
              "function cycle() end");
  ASSERT_TRUE(runner_.start({cfg}));
  runner_.stop();
  EXPECT_EQ(live(10), 1);
  EXPECT_EQ(live(11), 1);
  ASSERT_TRUE(runner_.start({cfg}));
  runner_.stop();
  runner_.stop();
  EXPECT_EQ(live(10), 2);
  EXPECT_EQ(live(11), 2);
}

TEST_F(ProgramRunnerTest, VariablesAreNamedByPathOrId) {
  ASSERT_TRUE(runner_.start({program(
      "p",
      "Write('Plant/Count', 2.5) Write(2, 7.9) Write('9007199254740993', '9007199254740995')\n"
      "Write('77', 5) Write('78', 6) Write(79, 'text')\n"
      "assert(Read(1) == 2.5 and Read('Plant/Total') == 7)\n"
      "assert(Read('Plant/Big') == '9007199254740995' and Read(3) == 5 and Read(78) == 6)\n"
      "assert(Read('1') == 2.5 and Read(80) == nil and Read(79) == 'text')\n"
      "Write(79, nil) assert(Read(79) == nil)\n"
      "Write(1, DataValue{Value = 4, Status = 5}) assert(Read(1) == 4)\n"
      "function cycle() end")}));
  EXPECT_EQ(live(2), 7);
  EXPECT_EQ(live(3), 5);
}

TEST_F(ProgramRunnerTest, WrongArgumentsAreErrorsOfTheProgram) {
  const struct {
    const char* call;
    const char* part;
  } kCases[] = {{"Read()", "path or id of a variable expected"},
                {"Read({})", "path or id of a variable expected"},
                {"Read(1.5)", "an id is an integer"},
                {"Read(0/0)", "an id is an integer"},
                {"Read(1e300)", "an id is an integer"},
                {"Read('Plant/Cuont')", "no variable \"Plant/Cuont\""},
                {"Write('12x', 1)", "no variable \"12x\""},
                {"Write('', 1)", "no variable \"\""},
                {"Write(1, {})", "nil, boolean, number, string or DataValue expected"}};
  for (const auto& oneCase : kCases) {
    clearLiveValues();
    trace_.clear();
    logOf(oneCase.call);
    EXPECT_EQ(trace_.countContaining(oneCase.part), 1) << oneCase.call;
  }
}

TEST_F(ProgramRunnerTest, LogWritesItsArgumentsAsOneLineNamedForTheProgram) {
  const std::vector<std::string> lines = logOf("Log('a', 1, nil, true) print('b')");
  EXPECT_EQ(lines, (std::vector<std::string>{"program p: a 1 nil true\n", "program p: b\n"}));
}

TEST_F(ProgramRunnerTest, NowIsTheControllersTimeInMilliseconds) {
  const double before =
      static_cast<double>((getInt64FileTime() - kUnixEpochTicks) / kTicksPerMillisecond);
  logOf("Write(901, Now())");
  EXPECT_GE(live(901), before);
  EXPECT_LE(live(901), before + 60'000);
  EXPECT_EQ(live(901), std::floor(live(901)));
}

TEST_F(ProgramRunnerTest, LibrariesOfAddInsAreThere) {
  RegisterExternalSTLib("Counter", [](lua_State* L) {
    lua_pushnumber(L, 42);
    lua_setglobal(L, "Counter");
    return 1;
  });
  logOf("Write(902, Counter)");
  EXPECT_EQ(live(902), 42);
}

TEST(CycleScheduleTest, CyclesKeepTheirPeriodWhateverTheyTake) {
  const Clock::time_point start{};
  using std::chrono::milliseconds;
  CycleSchedule schedule(start, milliseconds(100));
  EXPECT_EQ(schedule.due(), start);
  EXPECT_EQ(schedule.finished(start + milliseconds(30)), 0);
  EXPECT_EQ(schedule.due(), start + milliseconds(100));
  EXPECT_EQ(schedule.finished(start + milliseconds(199)), 0);
  EXPECT_EQ(schedule.due(), start + milliseconds(200));
}

TEST(CycleScheduleTest, CyclesThatWereMissedFallOut) {
  const Clock::time_point start{};
  using std::chrono::milliseconds;
  CycleSchedule schedule(start, milliseconds(100));
  EXPECT_EQ(schedule.finished(start + milliseconds(100)), 1);
  EXPECT_EQ(schedule.due(), start + milliseconds(200));
  EXPECT_EQ(schedule.finished(start + milliseconds(1250)), 10);
  EXPECT_EQ(schedule.due(), start + milliseconds(1300));
}

TEST(LogLimitTest, OneLineASecondAndTheOthersAreCounted) {
  const Clock::time_point start{};
  using std::chrono::milliseconds;
  LogLimit limit;
  long long suppressed = -1;
  EXPECT_TRUE(limit.allow(start, suppressed));
  EXPECT_EQ(suppressed, 0);
  EXPECT_FALSE(limit.allow(start + milliseconds(1), suppressed));
  EXPECT_FALSE(limit.allow(start + milliseconds(999), suppressed));
  EXPECT_TRUE(limit.allow(start + milliseconds(1000), suppressed));
  EXPECT_EQ(suppressed, 2);
  EXPECT_TRUE(limit.allow(start + milliseconds(2000), suppressed));
  EXPECT_EQ(suppressed, 0);
}

}  // namespace
}  // namespace orva::host
