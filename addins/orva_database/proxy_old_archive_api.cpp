#include "orva_database/proxy_old_archive_api.h"

#include <boost/smart_ptr/make_shared.hpp>

#include "host/global_params.h"
#include "host/trace.h"
#include "orva_database/guarded.h"
#include "orva_database/proxy_old_archive_state.h"
#include "share/archive_manager.h"
#include "share/status_codes.h"

namespace orva::archive {

namespace {

template <class Field, class Value>
void setIfGiven(Field& field, const boost::optional<Value>& value) {
  if (value) field = *value;
}

// Remembered like an index: the host is asked once.
constexpr std::uint32_t kNoParameter = 0xFFFFFFFF;

// Programs' values before variables, the reverse of how function blocks read parameters.
std::uint32_t findParameter(int item) {
  std::uint32_t index = 0;
  GlobalParamKey key{static_cast<std::uint32_t>(item), 0};
  if (GetGlobalArrayIndexByID(&key, &index) == 0) return index;
  key.qualifier = 0x10000;
  if (GetGlobalArrayIndexByID(&key, &index) == 0) return index;
  return kNoParameter;
}

// Good in the strict sense: neither bad nor uncertain.
bool isPlainlyGood(OpcUa_StatusCode code) { return (code & 0xC0000000U) == 0; }

}  // namespace

void FilterFields::add(const FilterFields& later) {
  setIfGiven(allValues, later.allValues);
  setIfGiven(writeByChange, later.writeByChange);
  setIfGiven(maxWritePeriod, later.maxWritePeriod);
  setIfGiven(minWritePeriod, later.minWritePeriod);
  setIfGiven(deadband, later.deadband);
  setIfGiven(blocksWrite, later.blocksWrite);
}

void FilterFields::applyTo(Filter& filter) const {
  setIfGiven(filter.allValues, allValues);
  setIfGiven(filter.writeByChange, writeByChange);
  setIfGiven(filter.maxWritePeriod, maxWritePeriod);
  setIfGiven(filter.minWritePeriod, minWritePeriod);
  setIfGiven(filter.deadband, deadband);
  setIfGiven(filter.blocksWrite, blocksWrite);
}

ProxyOldArchiveApi::ProxyOldArchiveApi() : state_(boost::make_shared<State>()) {}

ProxyOldArchiveApi::~ProxyOldArchiveApi() {
  while (const boost::shared_ptr<Request> request = state_->anyRequest()) {
    request->clearCallbacks();
    state_->finish(request);
  }
}

void ProxyOldArchiveApi::SetHostArchive(ArchiveAdapter* archive, bool forward) {
  MutexLock lock(state_->mutex);
  state_->hostArchive = archive;
  state_->forwardToHost = forward;
}

void ProxyOldArchiveApi::LoadArchSettings(const json::Value*) {}
int ProxyOldArchiveApi::InitSource() { return 0; }
int ProxyOldArchiveApi::DestroySource() { return 0; }
int ProxyOldArchiveApi::ExecuteWrite(std::map<int, std::vector<ArchiveRec>>&) { return 0; }
int ProxyOldArchiveApi::ExecuteRead(ArchiveRequest*) { return 0; }
int ProxyOldArchiveApi::ReadItemList(ArchiveRequest*) { return 0; }
int ProxyOldArchiveApi::ExecuteDelete(unsigned int, int*) { return 0; }

int ProxyOldArchiveApi::Init(int, const json::Value*) {
  return legacyResult("ProxyOldArchiveApi::Init", [this] {
    manager = &DataArchiveManager::instance();
    return status::kGood;
  });
}

int ProxyOldArchiveApi::GetArchiveItemId(long long id, const std::string& name, const std::string&,
                                         int& out) {
  return legacyResult("ProxyOldArchiveApi::GetArchiveItemId", [&] {
    if (manager == nullptr) return status::kBadNotFound;
    out = static_cast<int>(manager->getCacheId(static_cast<unsigned>(id), name));
    return status::kGood;
  });
}

int ProxyOldArchiveApi::FindArchiveItemId(long long id, const std::string&, int& out) {
  return legacyResult("ProxyOldArchiveApi::FindArchiveItemId", [&] { return findItem(id, out); });
}

// Each look-up asks the manager, so that a known item gets layers that it lacks.
StatusCode ProxyOldArchiveApi::findItem(long long id, int& out) {
  if (manager == nullptr) return status::kBadNotFound;
  if (manager->createPinCache(ItemKey(id, "")) == cache::Cache::ID_NOT_FOUND) {
    return status::kBadNotFound;
  }
  out = static_cast<int>(id);
  if (hold(out).pin) return status::kGood;
  return bind(out, id).pin ? status::kGood : status::kBadNotFound;
}

// A stopped item counts as not held: the archives were built anew, and the id is bound to what
// stands in the item's place.
ProxyOldArchiveApi::Held ProxyOldArchiveApi::hold(int item) {
  State::LegacyItem known = state_->find(item);
  if (!known.pin) return {};
  const bool filterIsDue = known.awaitsArchive && known.pin->hasLayer(0);
  if (!known.pin->stopped() && !filterIsDue) return {std::move(known.pin), known.cacheId};
  return bind(item, known.variable);
}

// Binds a legacy id to the item that the manager has now. A binding to another item that lives
// stays: ids may be alike, and another thread may have been faster.
ProxyOldArchiveApi::Held ProxyOldArchiveApi::bind(int item, std::int64_t variable) {
  State::LegacyItem bound;
  bound.variable = variable;
  bound.pin = manager->providePin(ItemKey(variable, ""), bound.cacheId);
  if (!bound.pin) return {};
  MutexLock filterLock(state_->filterMutex);
  State::LegacyItem old = state_->find(item);
  if (old.pin && old.pin != bound.pin && !old.pin->stopped()) return {old.pin, old.cacheId};
  if (old.variable == variable) bound.set = old.set;
  bound.awaitsArchive =
      !bound.pin->updateFilter([&bound](Filter& filter) { bound.set.applyTo(filter); });
  state_->bind(item, bound);
  return {bound.pin, bound.cacheId};
}

int ProxyOldArchiveApi::SetDisableWriteByChange(int item, bool disable) {
  return legacyResult("ProxyOldArchiveApi::SetDisableWriteByChange", [&] {
    FilterFields fields;
    fields.writeByChange = !disable;
    return setFields(item, fields);
  });
}

bool ProxyOldArchiveApi::GetDisableWriteByChange(int item) {
  bool result = false;
  guarded("ProxyOldArchiveApi::GetDisableWriteByChange", [&] {
    const Held held = hold(item);
    result = held.pin && held.pin->filter().writeByChange;
  });
  return result;
}

int ProxyOldArchiveApi::SetFilter(int item, boost::optional<bool> allValues,
                                  boost::optional<bool> writeByChange,
                                  boost::optional<long long> maxWritePeriod,
                                  boost::optional<long long> minWritePeriod,
                                  boost::optional<double> deadband,
                                  boost::optional<bool> blocksWrite) {
  return legacyResult("ProxyOldArchiveApi::SetFilter", [&] {
    if (!blocksWrite && writeByChange && !*writeByChange) blocksWrite = false;
    return setFields(
        item, {allValues, writeByChange, maxWritePeriod, minWritePeriod, deadband, blocksWrite});
  });
}

StatusCode ProxyOldArchiveApi::setFields(int item, const FilterFields& fields) {
  if (!hold(item).pin) return status::kBadNotFound;
  MutexLock filterLock(state_->filterMutex);
  const boost::shared_ptr<Pin> pin = state_->noteFields(item, fields);
  pin->updateFilter([&fields](Filter& filter) { fields.applyTo(filter); });
  return status::kGood;
}

int ProxyOldArchiveApi::AddValue(int item, const ArchiveRec& rec) {
  return legacyResult("ProxyOldArchiveApi::AddValue", [&] { return write(item, rec); });
}

// The item may be stopped by another thread at any moment; then its successor gets the record.
StatusCode ProxyOldArchiveApi::write(int item, const ArchiveRec& rec) {
  Held held = hold(item);
  if (!held.pin) return status::kBadNotFound;
  writeToHost(item, rec);
  const PinPtr sample(new orva::Pin(rec));
  if (held.pin->write(sample)) return status::kGood;
  held = hold(item);
  return held.pin && held.pin->write(sample) ? status::kGood : status::kBadNotFound;
}

void ProxyOldArchiveApi::writeToHost(int item, const ArchiveRec& rec) {
  ArchiveAdapter* archive = nullptr;
  bool isKnown = false;
  std::uint32_t parameter = kNoParameter;
  {
    MutexLock lock(state_->mutex);
    if (!state_->forwardToHost) return;
    archive = state_->hostArchive;
    const auto found = state_->paramIndex.find(item);
    isKnown = found != state_->paramIndex.end();
    if (isKnown) parameter = found->second;
  }
  if (!isKnown) {
    parameter = findParameter(item);
    MutexLock lock(state_->mutex);
    state_->paramIndex.emplace(item, parameter);
  }
  if (parameter == kNoParameter) return;
  ArchiveAdapterValue value;
  value.index = parameter;
  value.time = FileTimeToRTime(rec.time);
  if (!isPlainlyGood(GetRPARAMValue(value.index, &rec.value.Get(), &value.value))) return;
  value.quality = GetDAQualityByUA(rec.status);
  const int result = ArchiveAdapterWriteValues(archive, 1, &value);
  if (result < 0) {
    OpcUa_Trace_Imp(kTraceError,
                    "<--ReturnError: ArchiveAdapterWriteValues(hostArchive, 1, value) returns "
                    "0x%08X\n",
                    __FILE__, __LINE__, static_cast<unsigned>(result));
  }
}

// ---- what is held

ProxyOldArchiveApi::State::LegacyItem ProxyOldArchiveApi::State::find(std::int64_t item) {
  MutexLock lock(mutex);
  const auto found = pins.find(item);
  return found == pins.end() ? LegacyItem() : found->second;
}

void ProxyOldArchiveApi::State::bind(std::int64_t item, const LegacyItem& bound) {
  LegacyItem replaced = bound;  // what it is replaced by; dies after the mutex is released
  MutexLock lock(mutex);
  std::swap(pins[item], replaced);
}

boost::shared_ptr<cache::Cache::Pin> ProxyOldArchiveApi::State::noteFields(
    std::int64_t item, const FilterFields& fields) {
  MutexLock lock(mutex);
  LegacyItem& bound = pins.at(item);
  bound.set.add(fields);
  return bound.pin;
}

}  // namespace orva::archive
