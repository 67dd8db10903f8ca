#include "support/scripted_provider.h"

#include <algorithm>
#include <boost/smart_ptr/make_shared.hpp>
#include <stdexcept>

#include "share/ticks.h"

namespace orva::test {

using archive::Interval;
using archive::ItemKey;
using archive::SharedInterval;

namespace {

constexpr std::size_t kPiece = 1000;  // values between two looks at full()

bool earlier(const PinPtr& a, const PinPtr& b) { return a->time < b->time; }

PinPtr timeOnly(std::int64_t time) { return makePin(time, OpcUa_VariantHlp()); }

void pushAll(const SharedInterval& interval, const std::vector<PinPtr>& values,
             const Script& script) {
  if (script.oneByOne) {
    for (const PinPtr& value : values) interval->push(value);
    return;
  }
  for (std::size_t i = 0; i < values.size(); i += kPiece) {
    if (!script.everything && interval->full()) return;
    interval->push(values.data() + i, std::min(kPiece, values.size() - i));
  }
}

// The samples of [start, end], whatever the interval's kind and limit.
std::vector<PinPtr> wholeStretch(std::int64_t start, std::int64_t end,
                                 const std::vector<PinPtr>& samples) {
  auto first = samples.begin();
  auto last = samples.end();
  if (start != 0) first = std::lower_bound(first, last, timeOnly(start), earlier);
  if (end != 0) last = std::upper_bound(samples.begin(), last, timeOnly(end), earlier);
  return first < last ? std::vector<PinPtr>(first, last) : std::vector<PinPtr>();
}

bool isReversed(const Interval& interval) {
  return interval.end() != 0 && interval.end() < interval.start();
}

}  // namespace

std::vector<PinPtr> rightAnswer(const Interval& interval, const std::vector<PinPtr>& samples) {
  std::vector<PinPtr> values = wholeStretch(interval.start(), interval.end(), samples);
  if (isReversed(interval)) return {};
  if (interval.kind() != Interval::Kind::range) {
    if (values.empty()) return {};
    return {interval.kind() == Interval::Kind::oldest ? values.front() : values.back()};
  }
  const bool cut = interval.wanted() != 0 && values.size() > interval.wanted();
  if (cut) values.resize(static_cast<std::size_t>(interval.wanted()));
  if (interval.bounds().left && interval.start() != 0) {
    const auto found =
        std::lower_bound(samples.begin(), samples.end(), timeOnly(interval.start()), earlier);
    if (found != samples.begin()) values.insert(values.begin(), *(found - 1));
  }
  if (interval.bounds().right && interval.end() != 0 && !cut) {
    const auto found =
        std::upper_bound(samples.begin(), samples.end(), timeOnly(interval.end()), earlier);
    if (found != samples.end()) values.push_back(*found);
  }
  return values;
}

void answer(const SharedInterval& interval, const std::vector<PinPtr>& samples,
            const Script& script) {
  std::vector<PinPtr> values;
  if (script.everything || script.shift != 0) {
    values = wholeStretch(interval->start() + script.shift,
                          interval->end() == 0 ? 0 : interval->end() + script.shift, samples);
  } else {
    values = rightAnswer(*interval, samples);
  }
  if (values.size() > script.atMost) values.resize(script.atMost);
  if (script.outOfOrder) std::reverse(values.begin(), values.end());
  pushAll(interval, values, script);
  if (script.twice) pushAll(interval, values, script);
  if (script.fail != 0) interval->fail(script.fail);
  if (script.silent) return;
  interval->finalize();
  if (script.twice) interval->finalize();
  if (script.lateValue) pushAll(interval, values, script);
}

struct ScriptedProvider::Writer : archive::ILayerWriter {
  Writer(ScriptedProvider& p, LayerKey k) : provider(p), key(std::move(k)) {}
  void write(const PinPtr& pin) override { provider.write(key, pin); }
  bool crowded() const override { return provider.crowded(); }

  ScriptedProvider& provider;
  const LayerKey key;
};

ScriptedProvider::ScriptedProvider(const archive::ArchiveCfg& limits_,
                                   const archive::ConnectionCfg& connection_)
    : limits(limits_), connection(connection_) {}

ScriptedProvider::~ScriptedProvider() {
  std::thread worker;
  {
    MutexLock lock(mutex_);
    stopped_ = true;
    worker.swap(worker_);
  }
  changed_.notify();
  if (worker.joinable()) worker.join();
}

void ScriptedProvider::setScript(const Script& script) {
  MutexLock lock(mutex_);
  script_ = script;
}

void ScriptedProvider::scriptNext(const Script& script) {
  MutexLock lock(mutex_);
  next_.push_back(script);
}

void ScriptedProvider::setHolds(bool holds) {
  MutexLock lock(mutex_);
  holds_ = holds;
}

void ScriptedProvider::setHandleThrows(bool throws) {
  MutexLock lock(mutex_);
  handleThrows_ = throws;
}

void ScriptedProvider::onCrowded(std::function<bool()> hook) {
  MutexLock lock(mutex_);
  onCrowded_ = std::move(hook);
}

void ScriptedProvider::onLayerWriter(std::function<void(const ItemKey&)> hook) {
  MutexLock lock(mutex_);
  onLayerWriter_ = std::move(hook);
}

void ScriptedProvider::onRead(std::function<void(const SharedInterval&)> hook) {
  MutexLock lock(mutex_);
  onRead_ = std::move(hook);
}

void ScriptedProvider::onWrite(
    std::function<void(const ItemKey&, std::int32_t, const PinPtr&)> hook) {
  MutexLock lock(mutex_);
  onWrite_ = std::move(hook);
}

void ScriptedProvider::onStart(std::function<void()> hook) {
  MutexLock lock(mutex_);
  onStart_ = std::move(hook);
}

void ScriptedProvider::onStop(std::function<void()> hook) {
  MutexLock lock(mutex_);
  onStop_ = std::move(hook);
}

std::uint32_t ScriptedProvider::knowItem(const ItemKey& key) {
  const auto [entry, isNew] = handles_.emplace(key, static_cast<std::uint32_t>(keys_.size() + 1));
  if (isNew) keys_.push_back(key);
  return entry->second;
}

void ScriptedProvider::addItem(const ItemKey& key) {
  MutexLock lock(mutex_);
  knowItem(key);
}

void ScriptedProvider::add(const ItemKey& key, std::int32_t layer, const PinPtr& pin) {
  add(key, layer, std::vector<PinPtr>{pin});
}

void ScriptedProvider::add(const ItemKey& key, std::int32_t layer,
                           const std::vector<PinPtr>& pins) {
  MutexLock lock(mutex_);
  knowItem(key);
  std::vector<PinPtr>& samples = stored_[{key, layer}].samples;
  for (const PinPtr& pin : pins) {
    samples.insert(std::upper_bound(samples.begin(), samples.end(), pin, earlier), pin);
  }
}

std::vector<PinPtr> ScriptedProvider::samples(const ItemKey& key, std::int32_t layer) const {
  MutexLock lock(mutex_);
  const auto found = stored_.find({key, layer});
  return found == stored_.end() ? std::vector<PinPtr>() : found->second.samples;
}

void ScriptedProvider::setStoresWrites(bool stores) {
  MutexLock lock(mutex_);
  storesWrites_ = stores;
}

std::size_t ScriptedProvider::readCount() const {
  MutexLock lock(mutex_);
  return reads_.size();
}

std::vector<ReadRecord> ScriptedProvider::reads() const {
  MutexLock lock(mutex_);
  return reads_;
}

std::vector<PinPtr> ScriptedProvider::written(const ItemKey& key, std::int32_t layer) const {
  MutexLock lock(mutex_);
  const auto found = stored_.find({key, layer});
  return found == stored_.end() ? std::vector<PinPtr>() : found->second.written;
}

std::int64_t ScriptedProvider::layerParameter(const ItemKey& key, std::int32_t layer) const {
  MutexLock lock(mutex_);
  const auto found = stored_.find({key, layer});
  return found == stored_.end() ? -1 : found->second.parameter;
}

std::size_t ScriptedProvider::layerWriterCount() const {
  MutexLock lock(mutex_);
  return layerWriterCount_;
}

std::vector<std::string> ScriptedProvider::calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

std::string ScriptedProvider::filterText() const {
  MutexLock lock(mutex_);
  return filterText_;
}

std::size_t ScriptedProvider::heldCount() const {
  MutexLock lock(mutex_);
  return held_.size();
}

bool ScriptedProvider::waitForHeld(std::size_t count) {
  for (int tries = 0; tries < 100; ++tries) {
    const std::uint64_t seen = changed_.count();
    if (heldCount() >= count) return true;
    changed_.waitReal(seen, kTicksPerSecond / 10);
  }
  return heldCount() >= count;
}

bool ScriptedProvider::release() {
  Held held;
  {
    MutexLock lock(mutex_);
    if (held_.empty()) return false;
    held = std::move(held_.front());
    held_.pop_front();
  }
  answerHeld(held);
  return true;
}

void ScriptedProvider::releaseAll() {
  while (release()) {
  }
}

SharedInterval ScriptedProvider::takeHeld() {
  MutexLock lock(mutex_);
  if (held_.empty()) return {};
  SharedInterval interval = std::move(held_.front().interval);
  held_.pop_front();
  return interval;
}

void ScriptedProvider::start() {
  std::function<void()> hook;
  {
    MutexLock lock(mutex_);
    calls_.emplace_back("start");
    hook = onStart_;
  }
  if (hook) hook();
}

void ScriptedProvider::stop() {
  std::function<void()> hook;
  {
    MutexLock lock(mutex_);
    calls_.emplace_back("stop");
    hook = onStop_;
  }
  if (hook) hook();
  std::thread worker;
  std::deque<Held> rest;
  {
    MutexLock lock(mutex_);
    stopped_ = true;
    worker.swap(worker_);
    rest.swap(held_);
  }
  changed_.notify();
  if (worker.joinable()) worker.join();
  for (const Held& held : rest) held.interval->finalize();
}

Script ScriptedProvider::nextScript() {
  if (next_.empty()) return script_;
  const Script script = next_.front();
  next_.pop_front();
  return script;
}

std::vector<PinPtr> ScriptedProvider::lookUp(const Interval& interval) const {
  const std::uint32_t handle = interval.handle();
  if (handle == 0 || handle > keys_.size()) return {};
  // Layer -1 asks each archive for what it has; this one keeps such answers in layer 0.
  const std::int32_t layer = interval.layer() == -1 ? 0 : interval.layer();
  const auto found = stored_.find({keys_[handle - 1], layer});
  return found == stored_.end() ? std::vector<PinPtr>() : found->second.samples;
}

void ScriptedProvider::read(const SharedInterval& interval) {
  std::function<void(const SharedInterval&)> hook;
  Held held;
  bool stopped = false;
  {
    MutexLock lock(mutex_);
    stopped = stopped_;
    reads_.push_back({interval->handle(), interval->cacheId(), interval->layer(), interval->start(),
                      interval->end(), interval->kind(), interval->bounds(), interval->wanted(),
                      stopped});
    hook = onRead_;
    if (!stopped) held = {interval, lookUp(*interval), nextScript()};
  }
  if (hook) hook(interval);
  if (stopped) {
    interval->finalize();
    return;
  }
  switch (held.script.when) {
    case When::now:
      answerHeld(held);
      break;
    case When::later: {
      MutexLock lock(mutex_);
      queue_.push_back(std::move(held));
      if (!worker_.joinable()) worker_ = std::thread([this] { workerLoop(); });
      break;
    }
    case When::held: {
      MutexLock lock(mutex_);
      held_.push_back(std::move(held));
      break;
    }
    case When::never: {
      MutexLock lock(mutex_);
      kept_.push_back(interval);
      break;
    }
    case When::dropped:
      break;
    case When::throws:
      throw std::runtime_error("scripted read");
  }
  changed_.notify();
}

void ScriptedProvider::answerHeld(const Held& held) {
  test::answer(held.interval, held.samples, held.script);
  if (!held.script.silent) return;
  MutexLock lock(mutex_);
  kept_.push_back(held.interval);
}

void ScriptedProvider::workerLoop() {
  for (;;) {
    const std::uint64_t seen = changed_.count();
    Held held;
    {
      MutexLock lock(mutex_);
      if (!queue_.empty()) {
        held = std::move(queue_.front());
        queue_.pop_front();
      } else if (stopped_) {
        return;
      }
    }
    if (held.interval) {
      answerHeld(held);
    } else {
      changed_.waitReal(seen, kTicksPerSecond);
    }
  }
}

std::uint32_t ScriptedProvider::itemHandle(const ItemKey& key) {
  MutexLock lock(mutex_);
  if (handleThrows_) throw std::runtime_error("scripted itemHandle");
  if (stopped_ || !holds_) return 0;
  const auto found = handles_.find(key);
  return found == handles_.end() ? 0 : found->second;
}

archive::ILayerWriter& ScriptedProvider::layerWriter(const ItemKey& key, std::int32_t layer,
                                                     std::int64_t parameter) {
  std::function<void(const ItemKey&)> hook;
  {
    MutexLock lock(mutex_);
    hook = onLayerWriter_;
  }
  if (hook) hook(key);
  MutexLock lock(mutex_);
  ++layerWriterCount_;
  knowItem(key);
  const LayerKey layerKey(key, layer);
  Stored& stored = stored_[layerKey];
  stored.parameter = parameter;
  if (!stored.writer) stored.writer = std::make_unique<Writer>(*this, layerKey);
  return *stored.writer;
}

void ScriptedProvider::write(const LayerKey& key, const PinPtr& pin) {
  std::function<void(const ItemKey&, std::int32_t, const PinPtr&)> hook;
  {
    MutexLock lock(mutex_);
    hook = onWrite_;
  }
  if (hook) hook(key.first, key.second, pin);
  MutexLock lock(mutex_);
  Stored& stored = stored_[key];
  stored.written.push_back(pin);
  if (!storesWrites_) return;
  std::vector<PinPtr>& samples = stored.samples;
  samples.insert(std::upper_bound(samples.begin(), samples.end(), pin, earlier), pin);
}

bool ScriptedProvider::crowded() const {
  std::function<bool()> hook;
  {
    MutexLock lock(mutex_);
    hook = onCrowded_;
  }
  return hook && hook();
}

void ScriptedProvider::loadFilter(const json::Value& filter) {
  filter_.load(filter);
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  filter.Accept(writer);
  MutexLock lock(mutex_);
  calls_.emplace_back("loadFilter");
  filterText_ = text.GetString();
}

boost::shared_ptr<archive::IDataArchiveProc> ScriptedFactory::create(
    const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection) {
  if (createsNothing) return {};
  const auto provider = boost::make_shared<ScriptedProvider>(limits, connection);
  if (onCreate) onCreate(*provider);
  MutexLock lock(mutex_);
  made_.push_back(provider);
  return provider;
}

std::size_t ScriptedFactory::count() const {
  MutexLock lock(mutex_);
  return made_.size();
}

ScriptedProvider& ScriptedFactory::provider(std::size_t index) {
  MutexLock lock(mutex_);
  return *made_.at(index);
}

boost::weak_ptr<ScriptedProvider> ScriptedFactory::weak(std::size_t index) {
  MutexLock lock(mutex_);
  return made_.at(index);
}

void ScriptedFactory::forget() {
  std::vector<boost::shared_ptr<ScriptedProvider>> made;  // providers end outside the lock
  MutexLock lock(mutex_);
  made.swap(made_);
}

}  // namespace orva::test
