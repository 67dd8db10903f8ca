#include "orva_database/remote_item.h"

#include <algorithm>

#include "host/host_time.h"
#include "host/trace.h"
#include "host/vm_info.h"
#include "share/archive_manager.h"
#include "share/ticks.h"

namespace orva::archive {
namespace {
// An item that is not there is looked for once in a pass.
constexpr std::int64_t kLookUpTicks = 50 * kTicksPerMillisecond;
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
  const std::int64_t now = getInt64FileTime();
  const std::int64_t since = now - lookedUpAt_;
  if (unresolved_ && since >= 0 && since < kLookUpTicks) return false;
  lookedUpAt_ = now;
  auto& manager = DataArchiveManager::instance();
  cacheId_ = manager.createPinCache(ItemKey(info_.localId, info_.localPath));
  pin_ = cacheId_ != cache::Cache::ID_NOT_FOUND ? manager.getPinCache(cacheId_) : nullptr;
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
  if (!localEnd_.find(info_.localId, cacheId_)) return false;
  newestTime_ = localEnd_.time();
  newest_ = localEnd_.samples();
  info_.continuationPoint = newestTime_ == kMaxTime ? kMaxTime : newestTime_ + 1;
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

bool RemoteItem::take(const RemoteItemReply& reply) {
  noteRemoteStatus(reply.status);
  // Nothing is skipped: the next question starts where this one did.
  if (isBad(reply.status)) return false;
  const std::int64_t asked = info_.continuationPoint;
  if (reply.values != nullptr) {
    if (!exact_ || asked <= newestTime_) expected_ = newest_;
    exact_ = false;  // should it end half way
    receive(*reply.values);
  }
  if (!reply.areMoreValues) expected_.clear();
  // Until they are stored, prepare() keeps the next page from being asked for.
  info_.continuationPoint = reply.continuationPoint;
  exact_ = reply.continuationPoint > asked;
  return reply.areMoreValues && reply.continuationPoint > asked;
}

void RemoteItem::receive(const json::Value& values) {
  info_.localType = vm::VMInfo::GetInstance()->GetItemType(info_.localId);
  for (const json::Value& value : values.GetArray()) {
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
