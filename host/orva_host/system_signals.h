#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/opcua_variant.h"

namespace orva::host {

// What the machine tells about itself, by name:
//
//   cpu.load             Double   processor load of all cores in percent, since the last refresh
//   cpu.cores            Int64    processors
//   load.1 .5 .15        Double   load average over 1, 5, 15 minutes
//   memory.total .used .free      Int64  bytes; free is what programs can still get
//   memory.usedPercent   Double
//   swap.used            Int64    bytes
//   disk.total .used .free        Int64  bytes of the root file system
//   disk.usedPercent     Double
//   network.rx .tx       Int64    bytes received and sent on all interfaces but the loopback
//   network.up           Boolean  whether one of these interfaces is up
//   temperature          Double   the highest of all sensors in degrees Celsius
//   uptime               Double   seconds since the machine was started
//   processes            Int64    running and sleeping processes
//   kernel.name          String   name and release of the kernel
//   host.name            String
//
// For one thread.
class SystemSignals {
 public:
  enum class Reading {
    value,
    notYet,  // after another refresh
    absent,  // this machine does not have it
  };

  // `root` is where proc, sys and the root file system are found; tests put a folder there.
  explicit SystemSignals(const std::string& root = "");

  static std::vector<std::string> names();
  static bool known(const std::string& name);

  // Looks at the machine.
  void refresh();
  // What the last refresh() saw; absent for an unknown name.
  Reading read(const std::string& name, OpcUa_VariantHlp& out) const;

 private:
  struct CpuTimes {
    std::uint64_t busy = 0;
    std::uint64_t total = 0;
  };

  std::string text(const std::string& file) const;
  void findSensors();
  void refreshCpu();
  void refreshLoad();
  void refreshMemory();
  void refreshDisk();
  void refreshNetwork();
  void refreshTemperature();
  void refreshOthers();
  bool isUp(const std::string& interfaceName) const;
  void setInteger(const std::string& name, std::uint64_t value);
  void setDouble(const std::string& name, double value);
  void setText(const std::string& name, const std::string& value);
  void setShare(const std::string& prefix, std::uint64_t total, std::uint64_t free);

  const std::string root_;
  std::vector<std::string> sensors_;  // files with a temperature in 1/1000 degrees
  CpuTimes cpu_;
  bool cpuKnown_ = false;
  bool cpuSeenTwice_ = false;
  std::map<std::string, OpcUa_VariantHlp> values_;
};

}  // namespace orva::host
