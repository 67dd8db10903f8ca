#include "orva_database/remote_archive_source.h"

#include <algorithm>
#include <vector>

#include "host/config_data.h"
#include "host/trace.h"
#include "orva_database/archive_section.h"
#include "orva_database/guarded.h"
#include "share/archive_manager.h"
#include "share/ticks.h"

namespace orva::archive {
namespace {

constexpr std::int64_t kDefaultPeriod = kTicksPerSecond;
constexpr long long kPauseTicks = 100 * kTicksPerMillisecond;
// When the local archive has no room: a transaction makes some.
constexpr long long kCrowdedPauseTicks = 10 * kTicksPerMillisecond;
constexpr long long kTryTicks = kTicksPerMillisecond;
// Pages a controller is asked for in a pass. The next pass asks also those that came due.
constexpr int kSweeps = 16;
// An exchange with a controller that answered last time, and with one that did not.
constexpr int kExchangeMs = 5000;
constexpr int kShortExchangeMs = 2000;

}  // namespace

RemoteArchiveSource* RemoteArchiveSource::Instance() {
  // Workers use the manager, so it is there first and goes last.
  static_cast<void>(DataArchiveManager::instance());
  static RemoteArchiveSource source(std::make_unique<NetworkLink>());
  return &source;
}

RemoteArchiveSource::RemoteArchiveSource(std::unique_ptr<ControllerLink> link)
    : link_(std::move(link)), period_(kDefaultPeriod) {}

RemoteArchiveSource::~RemoteArchiveSource() {
  Stop();
  DestroySource();
}

// ---- configuration

int RemoteArchiveSource::Init() {
  MutexLock lock(mutex_);
  controllers_.clear();
  peers_.clear();
  ++version_;
  json::Document cfg;
  const int result = readArchiveSection("RemoteData", cfg);
  if (result < 0) {
    OpcUa_Trace_Imp(kTraceError,
                    "<--ReturnError: orva::parse_json(GetConfigDataValue(\"RemoteData\"), cfg) "
                    "returns 0x%08X\n",
                    __FILE__, __LINE__, static_cast<unsigned>(result));
    return result;
  }
  period_ = kDefaultPeriod;
  json::readInt64(json::member(cfg, "requestPeriod"), period_);
  const json::Value& items = json::member(cfg, "items");
  if (items.IsArray()) {
    for (const json::Value& item : items.GetArray()) AddRequest(item);
  }
  return result;
}

int RemoteArchiveSource::AddRequest(const json::Value& item) {
  const json::Value& controllerIndex = json::member(item, "controllerIndex");
  const std::int32_t index = controllerIndex.IsInt() ? controllerIndex.GetInt() : 0;
  RemoteSourceInfo info;
  info.init(item);
  controllers_[index].push_back(std::move(info));
  Peer& peer = peers_[index];
  // Index -1 never has an address: an entry begins with it.
  if (peer.index == index) return 0;
  peer.index = index;
  peer.addresses = link_->addresses(index, peer.address);
  peer.missing = peer.addresses <= 1 ? 1 - peer.addresses : 0;
  return 0;
}

void RemoteArchiveSource::DestroySource() {
  MutexLock lock(mutex_);
  controllers_.clear();
  peers_.clear();
  ++version_;
  running_ = false;
}

std::int64_t RemoteArchiveSource::requestPeriod() const {
  MutexLock lock(mutex_);
  return period_;
}

RemoteArchiveSource::Controllers RemoteArchiveSource::controllers() const {
  MutexLock lock(mutex_);
  return controllers_;
}

RemoteCounts RemoteArchiveSource::counts(std::int32_t controllerIndex) const {
  MutexLock lock(passMutex_);
  const auto found = exchanges_.find(controllerIndex);
  return found != exchanges_.end() ? found->second->counts() : RemoteCounts();
}

// ---- the worker

int RemoteArchiveSource::Start() {
  MutexLock lock(mutex_);
  stop_ = false;
  running_ = true;
  thread_ = std::make_unique<tthread::thread>(&ThreadFunc, this);
  if (!thread_->joinable()) return 0;  // the system has no more threads
  MutexLock workers(workersMutex_);
  ++started_;
  return 0;
}

int RemoteArchiveSource::Stop() {
  MutexLock lock(mutex_);
  stop_ = true;
  wake_.notify();
  if (thread_) {
    thread_->join();
    thread_.reset();
  }
  waitForWorkers();
  return 0;
}

// Also for those whose handles Start() replaced: they see the flag too.
void RemoteArchiveSource::waitForWorkers() {
  MutexLock workers(workersMutex_);
  while (begun_ < started_ || ended_ != begun_) workersChanged_.wait(workersMutex_);
}

void RemoteArchiveSource::ThreadFunc(void* source) {
  static_cast<RemoteArchiveSource*>(source)->work();
}

bool RemoteArchiveSource::isLatest(std::uint64_t worker) {
  MutexLock workers(workersMutex_);
  return worker >= started_;
}

void RemoteArchiveSource::work() {
  std::uint64_t number = 0;
  {
    MutexLock workers(workersMutex_);
    number = ++begun_;
  }
  while (true) {
    const std::uint64_t seen = wake_.count();
    if (stop_.load() || !isLatest(number)) break;
    wake_.wait(seen, executePass());
  }
  // Whoever waits may destroy this object once the mutex is free.
  MutexLock workers(workersMutex_);
  ++ended_;
  workersChanged_.notifyAll();
}

// ---- a pass

bool RemoteArchiveSource::lockUnlessStopping() NO_THREAD_SAFETY_ANALYSIS {
  while (!mutex_.try_lock()) {
    const std::uint64_t seen = wake_.count();
    if (stop_.load()) return false;
    wake_.waitReal(seen, kTryTicks);
  }
  return true;
}

bool RemoteArchiveSource::takeTables(std::int64_t& period) {
  if (!lockUnlessStopping()) return false;
  period = period_;
  const bool changed = version_ != seenVersion_;
  Controllers controllers;
  std::map<std::int32_t, Peer> peers;
  if (changed) {
    controllers = controllers_;
    peers = peers_;
    seenVersion_ = version_;
  }
  mutex_.unlock();
  if (changed) configure(controllers, peers);
  return true;
}

// Controllers and items that go on being configured keep where they are.
void RemoteArchiveSource::configure(const Controllers& controllers,
                                    const std::map<std::int32_t, Peer>& peers) {
  for (auto entry = exchanges_.begin(); entry != exchanges_.end();) {
    entry = controllers.count(entry->first) == 0 ? exchanges_.erase(entry) : std::next(entry);
  }
  for (const auto& [index, items] : controllers) {
    auto& exchange = exchanges_[index];
    if (!exchange) exchange = std::make_unique<RemoteExchange>(index, methodPath_);
    exchange->configure(peers.at(index).address, items);
  }
}

void RemoteArchiveSource::Execute() { static_cast<void>(executePass()); }

// Makes a pass; how long the worker then pauses.
long long RemoteArchiveSource::executePass() {
  long long pause = kPauseTicks;
  if (!link_->isOpen() || inPass_.exchange(true)) return pause;
  {
    MutexLock lock(passMutex_);
    guarded("RemoteArchiveSource::Execute", [&]() NO_THREAD_SAFETY_ANALYSIS {
      pass();
      pause = pauseAfterPass();
    });
  }
  inPass_ = false;
  return pause;
}

long long RemoteArchiveSource::pauseAfterPass() const {
  if (hasMore_) return 0;
  for (const auto& [index, exchange] : exchanges_) {
    if (!exchange->isFailing() && exchange->lacksRoom()) return kCrowdedPauseTicks;
  }
  return kPauseTicks;
}

void RemoteArchiveSource::pass() {
  hasMore_ = false;
  std::int64_t period = 0;
  if (!takeTables(period)) return;
  const std::int64_t now = Signal::elapsed();
  for (const auto& [index, exchange] : exchanges_) exchange->beginRoundIfDue(now, period);
  const Exchanges failing = chooseFailing(now);
  hasMore_ = askAnswering();
  if (askOneOf(failing)) hasMore_ = askAnswering();
  for (const auto& [index, exchange] : exchanges_) exchange->report(now);
}

// Page after page, one of each controller in turn. Whether there may be more.
bool RemoteArchiveSource::askAnswering() {
  int limitMs = kExchangeMs;
  bool asked = true;
  for (int i = 0; i < kSweeps && asked; ++i) {
    asked = false;
    for (const auto& [index, exchange] : exchanges_) {
      if (stop_.load()) return false;
      if (exchange->isFailing()) continue;
      if (exchange->exchange(*link_, limitMs, stop_)) asked = true;
      // When many fall silent together the others do not wait for each of them so long.
      if (exchange->isFailing()) limitMs = kShortExchangeMs;
    }
  }
  return asked;
}

// Those that did not answer and may be tried again, the one that waits longest first.
RemoteArchiveSource::Exchanges RemoteArchiveSource::chooseFailing(std::int64_t now) const {
  Exchanges failing;
  for (const auto& [index, exchange] : exchanges_) {
    if (exchange->isFailing() && exchange->mayTry(now)) failing.push_back(exchange.get());
  }
  std::stable_sort(failing.begin(), failing.end(),
                   [](const auto* a, const auto* b) { return a->triedAt() < b->triedAt(); });
  return failing;
}

// In a pass one of them is tried, so that they do not hold up the others. Whether it answers now.
bool RemoteArchiveSource::askOneOf(const Exchanges& failing) {
  for (RemoteExchange* const exchange : failing) {
    if (stop_.load()) return false;
    if (exchange->exchange(*link_, kShortExchangeMs, stop_)) return !exchange->isFailing();
  }
  return false;
}

}  // namespace orva::archive
