#include "orva_host/system_signals.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "orva_host/text_file.h"

namespace orva::host {

namespace {

namespace fs = std::filesystem;

constexpr const char* kNames[] = {"cpu.load",    "cpu.cores",        "load.1",
                                  "load.5",      "load.15",          "memory.total",
                                  "memory.used", "memory.free",      "memory.usedPercent",
                                  "swap.used",   "disk.total",       "disk.used",
                                  "disk.free",   "disk.usedPercent", "network.rx",
                                  "network.tx",  "network.up",       "temperature",
                                  "uptime",      "processes",        "kernel.name",
                                  "host.name"};
constexpr const char* kLoopback = "lo";

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// "MemTotal:  16305616 kB" by its name, in bytes.
std::map<std::string, std::uint64_t> memoryTable(const std::string& text) {
  std::map<std::string, std::uint64_t> table;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string name;
    std::uint64_t kilobytes = 0;
    if (fields >> name >> kilobytes && name.back() == ':') {
      name.pop_back();
      table[name] = kilobytes * 1024;
    }
  }
  return table;
}

std::vector<fs::path> entries(const std::string& folder) {
  std::vector<fs::path> found;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    found.push_back(entry->path());
  }
  std::sort(found.begin(), found.end());
  return found;
}

bool isNumber(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(),
                                      [](unsigned char c) { return std::isdigit(c) != 0; });
}

bool isSensorInput(const std::string& name) {
  static const std::string kSuffix = "_input";
  return name.compare(0, 4, "temp") == 0 && name.size() > kSuffix.size() &&
         name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0;
}

}  // namespace

SystemSignals::SystemSignals(const std::string& root) : root_(root) { findSensors(); }

std::vector<std::string> SystemSignals::names() { return {std::begin(kNames), std::end(kNames)}; }

bool SystemSignals::known(const std::string& name) {
  return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

void SystemSignals::refresh() {
  values_.clear();
  refreshCpu();
  refreshLoad();
  refreshMemory();
  refreshDisk();
  refreshNetwork();
  refreshTemperature();
  refreshOthers();
}

SystemSignals::Reading SystemSignals::read(const std::string& name, OpcUa_VariantHlp& out) const {
  const auto found = values_.find(name);
  if (found != values_.end()) {
    out = found->second;
    return Reading::value;
  }
  return name == "cpu.load" && cpuKnown_ && !cpuSeenTwice_ ? Reading::notYet : Reading::absent;
}

// Empty when the machine has no such file.
std::string SystemSignals::text(const std::string& file) const {
  std::string content;
  return readTextFile(root_ + file, content) == 0 ? content : std::string();
}

void SystemSignals::findSensors() {
  for (const fs::path& chip : entries(root_ + "/sys/class/hwmon")) {
    for (const fs::path& file : entries(chip.string())) {
      if (isSensorInput(file.filename().string())) sensors_.push_back(file.string());
    }
  }
  for (const fs::path& zone : entries(root_ + "/sys/class/thermal")) {
    if (zone.filename().string().compare(0, 12, "thermal_zone") == 0) {
      sensors_.push_back((zone / "temp").string());
    }
  }
}

void SystemSignals::refreshCpu() {
  std::istringstream lines(text("/proc/stat"));
  std::string line;
  std::uint64_t cores = 0;
  bool known = false;
  CpuTimes now;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string name;
    fields >> name;
    if (name.compare(0, 3, "cpu") != 0) continue;
    if (name != "cpu") {
      ++cores;
      continue;
    }
    // user nice system idle iowait irq softirq steal; what follows is part of user and nice.
    std::uint64_t time = 0;
    for (int i = 0; i < 8 && fields >> time; ++i) {
      now.total += time;
      if (i != 3 && i != 4) now.busy += time;
      known = true;
    }
  }
  if (cores != 0) setInteger("cpu.cores", cores);
  cpuSeenTwice_ = known && cpuKnown_;
  // A counter may step back; the load is then told after the next refresh.
  if (cpuSeenTwice_ && now.total > cpu_.total && now.busy >= cpu_.busy) {
    const auto busy = static_cast<double>(now.busy - cpu_.busy);
    setDouble("cpu.load",
              std::min(100.0, 100.0 * busy / static_cast<double>(now.total - cpu_.total)));
  } else {
    cpuSeenTwice_ = false;
  }
  cpuKnown_ = known;
  cpu_ = now;
}

void SystemSignals::refreshLoad() {
  std::istringstream fields(text("/proc/loadavg"));
  double load = 0;
  for (const char* name : {"load.1", "load.5", "load.15"}) {
    if (fields >> load) setDouble(name, load);
  }
}

void SystemSignals::refreshMemory() {
  const std::map<std::string, std::uint64_t> table = memoryTable(text("/proc/meminfo"));
  const auto find = [&table](const char* name) {
    const auto found = table.find(name);
    return found == table.end() ? nullptr : &found->second;
  };
  const std::uint64_t* total = find("MemTotal");
  const std::uint64_t* free = find("MemAvailable");
  if (free == nullptr) free = find("MemFree");
  if (total != nullptr && free != nullptr) setShare("memory", *total, *free);
  const std::uint64_t* swapTotal = find("SwapTotal");
  const std::uint64_t* swapFree = find("SwapFree");
  if (swapTotal != nullptr && swapFree != nullptr && *swapFree <= *swapTotal) {
    setInteger("swap.used", *swapTotal - *swapFree);
  }
}

void SystemSignals::refreshDisk() {
  struct statvfs info {};
  if (::statvfs((root_ + "/").c_str(), &info) != 0) return;
  const std::uint64_t unit = info.f_frsize;
  setShare("disk", unit * info.f_blocks, unit * info.f_bavail);
}

void SystemSignals::refreshNetwork() {
  const std::string table = text("/proc/net/dev");
  if (table.empty()) return;
  std::istringstream lines(table);
  std::string line;
  std::uint64_t received = 0;
  std::uint64_t sent = 0;
  bool up = false;
  while (std::getline(lines, line)) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;  // one of the two lines of headings
    const std::size_t begin = std::min(line.find_first_not_of(' '), colon);
    const std::string interfaceName = line.substr(begin, colon - begin);
    if (interfaceName == kLoopback) continue;
    std::istringstream fields(line.substr(colon + 1));
    std::uint64_t counters[9] = {};
    for (std::uint64_t& counter : counters) fields >> counter;
    received += counters[0];
    sent += counters[8];
    up = up || isUp(interfaceName);
  }
  setInteger("network.rx", received);
  setInteger("network.tx", sent);
  values_["network.up"].SetBool(up);
}

// An interface that cannot tell (a tunnel) counts as up.
bool SystemSignals::isUp(const std::string& interfaceName) const {
  const std::string state = firstLine(text("/sys/class/net/" + interfaceName + "/operstate"));
  return state == "up" || state == "unknown";
}

void SystemSignals::refreshTemperature() {
  bool found = false;
  double highest = 0;
  for (const std::string& sensor : sensors_) {
    std::string content;
    if (readTextFile(sensor, content) != 0) continue;
    std::istringstream field(content);
    double thousandths = 0;
    if (!(field >> thousandths)) continue;
    highest = found ? std::max(highest, thousandths / 1000) : thousandths / 1000;
    found = true;
  }
  if (found) setDouble("temperature", highest);
}

void SystemSignals::refreshOthers() {
  std::istringstream fields(text("/proc/uptime"));
  double seconds = 0;
  if (fields >> seconds) setDouble("uptime", seconds);
  std::uint64_t processes = 0;
  for (const fs::path& entry : entries(root_ + "/proc")) {
    if (isNumber(entry.filename().string())) ++processes;
  }
  if (processes != 0) setInteger("processes", processes);
  const std::string kernel = firstLine(text("/proc/sys/kernel/ostype"));
  const std::string release = firstLine(text("/proc/sys/kernel/osrelease"));
  if (!kernel.empty()) setText("kernel.name", release.empty() ? kernel : kernel + " " + release);
  const std::string host = firstLine(text("/proc/sys/kernel/hostname"));
  if (!host.empty()) setText("host.name", host);
}

void SystemSignals::setInteger(const std::string& name, std::uint64_t value) {
  values_[name].SetInt64(static_cast<std::int64_t>(value));
}

void SystemSignals::setDouble(const std::string& name, double value) {
  values_[name].SetDouble(value);
}

void SystemSignals::setText(const std::string& name, const std::string& value) {
  values_[name].SetString(value);
}

void SystemSignals::setShare(const std::string& prefix, std::uint64_t total, std::uint64_t free) {
  const std::uint64_t used = total - std::min(total, free);
  setInteger(prefix + ".total", total);
  setInteger(prefix + ".used", used);
  setInteger(prefix + ".free", free);
  if (total == 0) return;
  setDouble(prefix + ".usedPercent",
            100.0 * static_cast<double>(used) / static_cast<double>(total));
}

}  // namespace orva::host
