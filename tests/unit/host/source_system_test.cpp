#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "orva_host/live_values.h"
#include "orva_host/source.h"
#include "orva_host/source_runner.h"
#include "orva_host/system_signals.h"
#include "support/temp_folder.h"
#include "support/trace_capture.h"

namespace orva::host {
namespace {

using Reading = SystemSignals::Reading;

double number(const SystemSignals& signals, const std::string& name) {
  OpcUa_VariantHlp value;
  double result = -1;
  EXPECT_EQ(signals.read(name, value), Reading::value) << name;
  value.GetDouble(result);
  return result;
}

Reading reading(const SystemSignals& signals, const std::string& name) {
  OpcUa_VariantHlp value;
  return signals.read(name, value);
}

class SystemSignalsTest : public ::testing::Test {
 protected:
  test::TempFolder machine_;
};

TEST_F(SystemSignalsTest, ProcessorLoadIsTheBusyShareSinceTheLastLook) {
  machine_.write("proc/stat", "cpu  100 0 50 800 50 0 0 0 0 0\ncpu0 1 1 1 1\ncpu1 1 1 1 1\n");
  SystemSignals signals(machine_.path());
  signals.refresh();
  EXPECT_EQ(reading(signals, "cpu.load"), Reading::notYet);
  EXPECT_EQ(number(signals, "cpu.cores"), 2);
  machine_.write("proc/stat", "cpu  125 0 50 865 60 0 0 0 0 0\n");
  signals.refresh();
  EXPECT_EQ(number(signals, "cpu.load"), 25.0);
}

TEST_F(SystemSignalsTest, AProcessorCounterThatStepsBackCostsOneReading) {
  machine_.write("proc/stat", "cpu  100 0 0 100 0 0 0 0\n");
  SystemSignals signals(machine_.path());
  signals.refresh();
  machine_.write("proc/stat", "cpu  50 0 0 50 0 0 0 0\n");
  signals.refresh();
  EXPECT_EQ(reading(signals, "cpu.load"), Reading::notYet);
  machine_.write("proc/stat", "cpu  60 0 0 60 0 0 0 0\n");
  signals.refresh();
  EXPECT_EQ(number(signals, "cpu.load"), 50.0);
}

TEST_F(SystemSignalsTest, MemoryIsToldInBytes) {
  machine_.write("proc/meminfo",
                 "MemTotal:       1000 kB\nMemFree:  1 kB\nMemAvailable:  250 kB\n"
                 "SwapTotal: 30 kB\nSwapFree: 10 kB\nHugePages_Total: 0\n");
  SystemSignals signals(machine_.path());
  signals.refresh();
  EXPECT_EQ(number(signals, "memory.total"), 1024000);
  EXPECT_EQ(number(signals, "memory.free"), 256000);
  EXPECT_EQ(number(signals, "memory.used"), 768000);
  EXPECT_EQ(number(signals, "memory.usedPercent"), 75.0);
  EXPECT_EQ(number(signals, "swap.used"), 20480);
}

TEST_F(SystemSignalsTest, AnOldKernelsFreeMemoryIsTakenWhereItTellsNoBetter) {
  machine_.write("proc/meminfo", "MemTotal: 1000 kB\nMemFree: 100 kB\n");
  SystemSignals signals(machine_.path());
  signals.refresh();
  EXPECT_EQ(number(signals, "memory.used"), 900 * 1024);
  EXPECT_EQ(reading(signals, "swap.used"), Reading::absent);
}

TEST_F(SystemSignalsTest, NetworkCountersLeaveTheLoopbackOut) {
  machine_.write("proc/net/dev",
                 "Inter-|   Receive  |  Transmit\n face |bytes    packets\n"
                 "    lo: 99 0 0 0 0 0 0 0 99 0 0 0 0 0 0 0\n"
                 "  eth0:4294967296 1 0 0 0 0 0 0 20 1 0 0 0 0 0 0\n"
                 " wlan0: 5 1 0 0 0 0 0 0 6 1 0 0 0 0 0 0\n");
  machine_.write("sys/class/net/eth0/operstate", "down\n");
  SystemSignals signals(machine_.path());
  signals.refresh();
  EXPECT_EQ(number(signals, "network.rx"), 4294967301);
  EXPECT_EQ(number(signals, "network.tx"), 26);
  OpcUa_VariantHlp up;
  bool isUp = true;
  EXPECT_EQ(signals.read("network.up", up), Reading::value);
  EXPECT_EQ(up.GetType(), OpcUaType_Boolean);
  EXPECT_TRUE(up.GetBool(isUp));
  EXPECT_FALSE(isUp);
  machine_.write("sys/class/net/wlan0/operstate", "up\n");
  signals.refresh();
  EXPECT_EQ(number(signals, "network.up"), 1);
}

TEST_F(SystemSignalsTest, TheTemperatureIsTheHighestOfAllSensors) {
  machine_.write("sys/class/hwmon/hwmon0/temp1_input", "41500\n");
  machine_.write("sys/class/hwmon/hwmon0/temp1_max", "99000\n");
  machine_.write("sys/class/hwmon/hwmon1/temp2_input", "not a number\n");
  machine_.write("sys/class/thermal/thermal_zone0/temp", "-3000\n");
  machine_.write("sys/class/thermal/cooling_device0/temp", "88000\n");
  SystemSignals signals(machine_.path());
  signals.refresh();
  EXPECT_EQ(number(signals, "temperature"), 41.5);
}

TEST_F(SystemSignalsTest, TheOtherSignalsComeFromTheirFiles) {
  machine_.write("proc/loadavg", "0.25 1.50 2.75 1/200 999\n");
  machine_.write("proc/uptime", "1234.5 99.0\n");
  machine_.write("proc/1/stat", "");
  machine_.write("proc/27/stat", "");
  machine_.write("proc/sys/kernel/ostype", "Linux\n");
  machine_.write("proc/sys/kernel/osrelease", "6.1.0\n");
  machine_.write("proc/sys/kernel/hostname", "plc-7\n");
  SystemSignals signals(machine_.path());
  signals.refresh();
  EXPECT_EQ(number(signals, "load.1"), 0.25);
  EXPECT_EQ(number(signals, "load.5"), 1.5);
  EXPECT_EQ(number(signals, "load.15"), 2.75);
  EXPECT_EQ(number(signals, "uptime"), 1234.5);
  EXPECT_EQ(number(signals, "processes"), 2);
  OpcUa_VariantHlp text;
  EXPECT_EQ(signals.read("kernel.name", text), Reading::value);
  EXPECT_EQ(text.GetString(), "Linux 6.1.0");
  EXPECT_EQ(signals.read("host.name", text), Reading::value);
  EXPECT_EQ(text.GetString(), "plc-7");
  EXPECT_GT(number(signals, "disk.total"), 0);
  EXPECT_EQ(number(signals, "disk.total"),
            number(signals, "disk.used") + number(signals, "disk.free"));
}

TEST_F(SystemSignalsTest, WhatAMachineLacksIsAbsentWhateverItsFilesHold) {
  SystemSignals empty(machine_.path());
  empty.refresh();
  empty.refresh();
  const std::set<std::string> kDisk = {"disk.total", "disk.used", "disk.free", "disk.usedPercent"};
  for (const std::string& name : SystemSignals::names()) {
    EXPECT_EQ(reading(empty, name), kDisk.count(name) != 0 ? Reading::value : Reading::absent)
        << name;
  }
  for (const char* file :
       {"proc/stat", "proc/meminfo", "proc/loadavg", "proc/uptime", "proc/net/dev"}) {
    machine_.write(file, std::string("cpu : : x\n\0\xff -5 :\ncpu\n:::", 24));
  }
  SystemSignals odd(machine_.path());
  odd.refresh();
  odd.refresh();
  for (const char* name : {"cpu.load", "load.1", "memory.total", "uptime", "temperature"}) {
    EXPECT_EQ(reading(odd, name), Reading::absent) << name;
  }
  EXPECT_EQ(reading(odd, "no.such"), Reading::absent);
}

TEST_F(SystemSignalsTest, ThisMachineTellsMostOfItself) {
  SystemSignals signals;
  signals.refresh();
  for (const char* name : {"cpu.cores", "load.1", "memory.used", "disk.free", "network.rx",
                           "uptime", "processes", "kernel.name", "host.name"}) {
    EXPECT_EQ(reading(signals, name), Reading::value) << name;
  }
}

class SystemSourceTest : public ::testing::Test {
 protected:
  ~SystemSourceTest() override {
    runner_.stop();
    clearLiveValues();
  }
  static SourceCfg cfgOf(std::map<std::string, std::int64_t> values) {
    SourceCfg cfg;
    cfg.type = "system";
    cfg.periodMs = 1;
    cfg.values = std::move(values);
    return cfg;
  }
  static bool hasValue(std::int64_t id) {
    OpcUa_VariantHlp value;
    return getLiveValue(id, value);
  }
  static bool eventually(const std::function<bool()>& condition) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::yield();
    }
    return true;
  }

  test::TraceCapture trace_;
  SourceRunner runner_;
};

TEST_F(SystemSourceTest, SignalsBecomeLiveValuesOfTheirVariables) {
  ASSERT_TRUE(runner_.start({cfgOf({{"cpu.load", 1}, {"memory.used", 2}, {"kernel.name", 3}})}));
  EXPECT_TRUE(eventually([] { return hasValue(1) && hasValue(2) && hasValue(3); }));
}

TEST_F(SystemSourceTest, TheyAreReadAgainEachPeriodUntilTheSourceStops) {
  ASSERT_TRUE(runner_.start({cfgOf({{"uptime", 1}})}));
  ASSERT_TRUE(eventually([] { return hasValue(1); }));
  clearLiveValues();
  EXPECT_TRUE(eventually([] { return hasValue(1); }));
  runner_.stop();
  clearLiveValues();
  EXPECT_FALSE(hasValue(1));
}

TEST_F(SystemSourceTest, AnUnknownSignalIsAnErrorThatNamesWhatThereIs) {
  EXPECT_FALSE(runner_.start({cfgOf({{"cpu.laod", 1}}), cfgOf({{"uptime", 2}})}));
  EXPECT_EQ(trace_.countContaining("source system: no signal \"cpu.laod\"; there are cpu.load "),
            1);
  EXPECT_TRUE(eventually([] { return hasValue(2); }));
}

TEST_F(SystemSourceTest, AnUnknownTypeOfSourceIsAnError) {
  SourceCfg cfg;
  cfg.type = "telepathy";
  EXPECT_FALSE(runner_.start({cfg}));
  EXPECT_EQ(trace_.count("source telepathy: no such type of source\n"), 1);
}

TEST_F(SystemSourceTest, ASignalThatTheMachineLacksIsLoggedOnce) {
  const test::TempFolder machine;
  machine.write("proc/uptime", "5 5\n");
  std::string error;
  const auto source =
      makeSystemSource(cfgOf({{"temperature", 1}, {"uptime", 2}}), error, machine.path());
  ASSERT_NE(source, nullptr) << error;
  Gate stop;
  std::thread running([&] { source->run(stop); });
  for (int i = 0; i < 3; ++i) {
    clearLiveValues();
    EXPECT_TRUE(eventually([] { return hasValue(2); }));
  }
  stop.open();
  running.join();
  EXPECT_FALSE(hasValue(1));
  EXPECT_EQ(trace_.count("source system: this machine has no \"temperature\"\n"), 1);
}

}  // namespace
}  // namespace orva::host
