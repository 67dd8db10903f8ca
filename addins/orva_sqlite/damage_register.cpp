#include "orva_sqlite/damage_register.h"

#include <algorithm>

#include "host/trace.h"

namespace orva::sqlite {
namespace {

const char* reasonOf(Decoded how) {
  return how == Decoded::kUnknownVersion ? "written by a later version"
                                         : "its checksum or a field is wrong";
}

}  // namespace

void DamageRegister::report(const Stream& stream, const Segment& segment, Decoded how) {
  {
    MutexLock lock(mutex_);
    std::vector<Stretch>& known = stretches_[&stream];
    const bool again = std::any_of(known.begin(), known.end(),
                                   [&](const Stretch& s) { return s.id == segment.id; });
    if (again) return;
    known.push_back({segment.first, segment.end(), segment.id});
    reported_.push_back({&stream, segment, reasonOf(how)});
    any_ = true;
  }
  ++counters_.damaged;
  OpcUa_Trace_Imp(
      kTraceError,
      "sqlite: segment %lld of item %lld \"%s\", layer %d, is damaged (%s): %lld samples "
      "from %lld to %lld are set apart\n",
      __FILE__, __LINE__, static_cast<long long>(segment.id),
      static_cast<long long>(stream.item.key.first), stream.item.key.second.c_str(), stream.layer,
      reasonOf(how), static_cast<long long>(segment.count), static_cast<long long>(segment.first),
      static_cast<long long>(segment.last));
}

void DamageRegister::remember(const Stream& stream, const Segment& segment) {
  MutexLock lock(mutex_);
  stretches_[&stream].push_back({segment.first, segment.end(), 0});
  any_ = true;
}

bool DamageRegister::meets(const Stream& stream, std::int64_t from, std::int64_t to) const {
  if (!any_) return false;
  MutexLock lock(mutex_);
  const auto found = stretches_.find(&stream);
  if (found == stretches_.end()) return false;
  return std::any_of(found->second.begin(), found->second.end(),
                     [=](const Stretch& s) { return s.first <= to && s.last >= from; });
}

std::vector<DamageRegister::Found> DamageRegister::reported() const {
  MutexLock lock(mutex_);
  return reported_;
}

void DamageRegister::settled(std::size_t count) {
  MutexLock lock(mutex_);
  const auto end = std::min(count, reported_.size());
  reported_.erase(reported_.begin(), reported_.begin() + static_cast<std::ptrdiff_t>(end));
}

void DamageRegister::acquit(const Found& found) {
  MutexLock lock(mutex_);
  std::vector<Stretch>& known = stretches_[found.stream];
  known.erase(std::remove_if(known.begin(), known.end(),
                             [&](const Stretch& s) { return s.id == found.segment.id; }),
              known.end());
}

bool DamageRegister::hasReported() const {
  if (!any_) return false;
  MutexLock lock(mutex_);
  return !reported_.empty();
}

void DamageRegister::forgetBefore(std::int64_t time) {
  if (!any_) return;
  MutexLock lock(mutex_);
  for (auto& entry : stretches_) {
    auto& list = entry.second;
    list.erase(
        std::remove_if(list.begin(), list.end(), [=](const Stretch& s) { return s.last < time; }),
        list.end());
  }
}

void DamageRegister::forgetRows() {
  MutexLock lock(mutex_);
  for (auto& entry : stretches_) {
    for (Stretch& stretch : entry.second) stretch.id = 0;
  }
  reported_.clear();
}

}  // namespace orva::sqlite
