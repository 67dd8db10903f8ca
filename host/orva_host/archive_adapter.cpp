#include "orva_host/archive_adapter.h"

#include <algorithm>
#include <cmath>

#include "host/global_params.h"
#include "host/opcua_variant.h"
#include "share/status_codes.h"
#include "share/ticks.h"

namespace {

constexpr OpcUa_StatusCode kParamMismatch = 0x80740000;  // type mismatch

bool kindOfParameter(std::uint32_t index, RPARAMValue::Kind& out) {
  const GlobalParamDescriptor* descriptor = GetGlobalParam(index);
  if (descriptor == nullptr) return false;
  switch (descriptor->bytes[1] >> 6) {
    case 1:
      out = RPARAMValue::Kind::boolean;
      return true;
    case 2:
      out = RPARAMValue::Kind::integer;
      return true;
    default:
      out = RPARAMValue::Kind::floating;
      return true;
  }
}

bool fillBoolean(const OpcUa_VariantHlp& value, RPARAMValue& out) {
  bool read = false;
  if (!value.GetBool(read)) return false;
  out.integer = read ? 1 : 0;
  return true;
}

bool fillInteger(const OpcUa_VariantHlp& value, RPARAMValue& out) {
  std::int64_t read = 0;
  if (!value.GetInt64(read) || read < INT32_MIN || read > INT32_MAX) return false;
  out.integer = static_cast<std::int32_t>(read);
  return true;
}

bool fillValue(const OpcUa_VariantHlp& value, RPARAMValue& out) {
  switch (out.kind) {
    case RPARAMValue::Kind::boolean:
      return fillBoolean(value, out);
    case RPARAMValue::Kind::integer:
      return fillInteger(value, out);
    default:
      return value.GetDouble(out.floating);
  }
}

bool canBeWritten(const ArchiveAdapterValue& value) {
  RPARAMValue::Kind kind{};
  return kindOfParameter(value.index, kind) && kind == value.value.kind &&
         std::isfinite(value.time);
}

}  // namespace

int ArchiveAdapter::write(const ArchiveAdapterValue* values, std::uint32_t count) {
  const bool complete =
      count == 0 || (values != nullptr && std::all_of(values, values + count, canBeWritten));
  if (!complete) return static_cast<int>(orva::status::kBadInvalidArgument);
  const orva::MutexLock lock(mutex_);
  for (std::uint32_t i = 0; i < count; ++i) insert(values[i]);
  return 0;
}

void ArchiveAdapter::insert(const ArchiveAdapterValue& value) {
  std::deque<ArchiveAdapterValue>& kept = values_[value.index];
  const auto isLater = [](RTime time, const ArchiveAdapterValue& one) { return time < one.time; };
  kept.insert(std::upper_bound(kept.begin(), kept.end(), value.time, isLater), value);
  if (kept.size() > kValuesOfParameter) kept.pop_front();
}

std::vector<ArchiveAdapterValue> ArchiveAdapter::values(std::uint32_t index) const {
  const orva::MutexLock lock(mutex_);
  const auto kept = values_.find(index);
  if (kept == values_.end()) return {};
  return {kept->second.begin(), kept->second.end()};
}

void ArchiveAdapter::clear() {
  const orva::MutexLock lock(mutex_);
  values_.clear();
}

namespace orva::host {

ArchiveAdapter* archiveAdapter() {
  static ArchiveAdapter& made = *new ArchiveAdapter;
  return &made;
}

}  // namespace orva::host

RTime FileTimeToRTime(long long ticks) {
  // In whole seconds first: as one number the ticks would lose digits, or overflow.
  const long long seconds =
      ticks / orva::kTicksPerSecond - orva::kUnixEpochTicks / orva::kTicksPerSecond;
  const long long rest = ticks % orva::kTicksPerSecond;
  return static_cast<double>(seconds) +
         static_cast<double>(rest) / static_cast<double>(orva::kTicksPerSecond);
}

OpcUa_StatusCode GetRPARAMValue(std::uint32_t index, const OpcUa_Variant* value, RPARAMValue* out) {
  if (value == nullptr || out == nullptr) return orva::status::kBadInvalidArgument;
  RPARAMValue converted;
  if (!kindOfParameter(index, converted.kind)) return orva::status::kBadNotFound;
  if (!fillValue(OpcUa_VariantHlp(*value), converted)) return kParamMismatch;
  *out = converted;
  return orva::status::kGood;
}

std::uint16_t GetDAQualityByUA(OpcUa_StatusCode status) {
  switch (status >> 30) {
    case 0:
      return 0xC0;
    case 1:
      return 0x40;
    default:
      return 0;
  }
}

int ArchiveAdapterWriteValues(ArchiveAdapter* adapter, std::uint32_t count,
                              const ArchiveAdapterValue* values) {
  if (adapter == nullptr) return static_cast<int>(orva::status::kBadInvalidArgument);
  return adapter->write(values, count);
}
