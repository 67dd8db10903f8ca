#include "orva_database/remote_item.h"

#include <algorithm>

#include "host/trace.h"
#include "host/vm_info.h"
#include "orva_database/remote_value.h"
#include "share/archive_manager.h"
#include "share/ticks.h"

namespace orva::archive {
namespace {
// An item that is not there is looked for once in a pass.
constexpr std::int64_t kLookUpTicks = 50 * kTicksPerMillisecond;
// Kept of the newest millisecond; a controller may send any number.
constexpr std::size_t kMostNewest = 10'000;

// The newest time in an answer, also of samples that cannot be taken.
std::optional<std::int64_t> newestTimeIn(const json::Value* values) {
  std::optional<std::int64_t> newest;
  if (values == nullptr) return newest;
  for (const json::Value& value : values->GetArray()) {
    std::int64_t time = 0;
    if (!value.IsArray() || value.Empty() || !readRemoteTime(value[0], time)) continue;
    if (!newest || *newest < time) newest = time;
  }
  return newest;
}

std::int64_t later(std::int64_t time, std::int64_t ticks) {
  return time > kMaxTime - ticks ? kMaxTime : time + ticks;
}

}  // namespace

bool RemoteItem::prepare() {
  lacksRoom_ = false;
  return findPin() && findStart() && store() && hasRoom();
}

bool RemoteItem::hasRoom() {
  lacksRoom_ = pin_->crowded();
  return !lacksRoom_;
}

// Whether there is a local item that archives. One that was stopped has a successor.
bool RemoteItem::findPin() {
  if (pin_ && !pin_->stopped()) return true;
  const std::int64_t now = Signal::elapsed();
  const std::int64_t since = now - lookedUpAt_;
  if (unresolved_ && since >= 0 && since < kLookUpTicks) return false;
  lookedUpAt_ = now;
  auto& manager = DataArchiveManager::instance();
  cacheId_ = manager.createPinCache(ItemKey(info_.localId, info_.localPath));
  pin_ = cacheId_ != cache::Cache::ID_NOT_FOUND ? manager.getPinCache(cacheId_) : nullptr;
  localEnd_ = LocalEnd();  // archives that end leave reads unanswered
  // While its archives are not there it takes samples that nobody keeps.
  if (pin_ && pin_->layerCount() != 0) {
    unresolved_ = false;
    return true;
  }
  pin_.reset();
  if (!unresolved_) {
    OpcUa_Trace_Imp(kTraceWarning, "Remote item \"%s\": item %lld \"%s\" is not archived here\n",
                    __FILE__, __LINE__, info_.remotePath.c_str(),
                    static_cast<long long>(info_.localId), info_.localPath.c_str());
    unresolved_ = true;
  }
  return false;
}

bool RemoteItem::findStart() {
  if (started_) return true;
  if (!localEnd_.find(info_.localId, cacheId_) || pin_->stopped()) return false;
  newestTime_ = localEnd_.time();
  newest_ = localEnd_.samples();
  info_.continuationPoint = later(newestTime_, 1);
  started_ = true;
  return true;
}

// True when nothing that was received waits any more.
bool RemoteItem::store() {
  while (!info_.values.empty()) {
    if (!hasRoom()) return false;
    switch (pin_->offer(info_.values.front())) {
      case cache::CachedItem::Offer::stopped:
        return false;
      case cache::CachedItem::Offer::refused:
        ++counts_.refused;
        break;
      case cache::CachedItem::Offer::taken:
        ++counts_.stored;
        break;
    }
    info_.values.pop_front();
  }
  return true;
}

RemoteItem::Next RemoteItem::take(const RemoteItemReply& reply) {
  noteRemoteStatus(reply.status);
  // Nothing is skipped: the next question starts where this one did.
  if (isBad(reply.status)) return Next::nothing;
  const std::int64_t asked = info_.continuationPoint;
  const bool wasExact = exact_;
  if (reply.values != nullptr) {
    if (!exact_ || asked <= newestTime_) expected_ = newest_;
    exact_ = false;  // should it end half way
    receive(*reply.values);
  }
  if (!reply.areMoreValues) expected_.clear();
  exact_ = wasExact;
  // Until they are stored, prepare() keeps the next page from being asked for.
  advance(reply);
  if (!reply.areMoreValues) return Next::nothing;
  if (info_.continuationPoint > asked) return Next::page;
  const bool isEmpty = reply.values == nullptr || reply.values->Empty();
  return isEmpty ? Next::again : Next::nothing;
}

void RemoteItem::advance(const RemoteItemReply& reply) {
  std::int64_t& point = info_.continuationPoint;
  const std::optional<std::int64_t> newest = newestTimeIn(reply.values);
  if (!newest) {
    if (reply.areMoreValues || !announcedFrom_) return;
    point = *announcedFrom_;
    announcedFrom_.reset();
    exact_ = false;
    return;
  }
  const std::int64_t behind = std::max(point, later(*newest, 1));
  const std::int64_t accounted = std::max(point, later(*newest, kTicksPerMillisecond));
  const bool isBeyond = reply.continuationPoint > accounted;
  exact_ = reply.continuationPoint > point && (!isBeyond || reply.areMoreValues);
  announcedFrom_.reset();
  if (isBeyond && reply.areMoreValues) announcedFrom_ = behind;
  point = isBeyond && !reply.areMoreValues ? behind : std::max(point, reply.continuationPoint);
}

void RemoteItem::receive(const json::Value& values) {
  info_.localType = vm::VMInfo::GetInstance()->GetItemType(info_.localId);
  for (const json::Value& value : values.GetArray()) {
    ++counts_.received;
    if (!info_.addValue(value)) {
      ++counts_.skipped;
      continue;
    }
    const PinPtr sample = info_.values.back();
    if (isRepeated(*sample)) {
      info_.values.pop_back();
      ++counts_.duplicates;
    } else if (sample->time < newestTime_) {
      // The filter would take it as the first sample after a start.
      info_.values.pop_back();
      ++counts_.refused;
    } else {
      if (sample->time > newestTime_) {
        newest_.clear();
        expected_.clear();
      }
      newestTime_ = sample->time;
      newest_.push_back(sample);
      if (newest_.size() > kMostNewest) newest_.pop_front();
    }
  }
}

// Whether the sample was here before; each one that was is met once.
bool RemoteItem::isRepeated(const Pin& sample) {
  if (sample.time != newestTime_) return false;
  const auto same = std::find_if(expected_.begin(), expected_.end(), [&](const PinPtr& pin) {
    return pin->value.IsEqual(sample.value);
  });
  if (same == expected_.end()) return false;
  expected_.erase(same);
  return true;
}

void RemoteItem::noteRemoteStatus(StatusCode status) {
  if (status == remoteStatus_) return;
  remoteStatus_ = status;
  OpcUa_Trace_Imp(kTraceWarning, "Remote item \"%s\": the other controller says 0x%08X\n", __FILE__,
                  __LINE__, info_.remotePath.c_str(), status);
}

}  // namespace orva::archive
