#include "host/global_params.h"

#include <deque>
#include <map>
#include <tuple>
#include <unordered_map>

#include "host/vm_info.h"
#include "orva_host/live_values.h"
#include "orva_host/variables.h"
#include "share/mutex.h"

namespace orva::host {
namespace {

constexpr std::uint32_t kVariables = 0x10000;  // qualifier: the installation's variables
constexpr std::uint32_t kAllValues = 0;        // qualifier: whatever value was set

enum class Kind : std::uint8_t { kFloating = 0, kBoolean = 1, kInteger = 2 };

// Integer is what every value of the type fits into: 32 bits. Larger integers are read as
// floating-point numbers rather than not at all.
Kind kindOf(OpcUa_Byte type) {
  if (type == OpcUaType_Boolean) return Kind::kBoolean;
  if (type >= OpcUaType_SByte && type <= OpcUaType_Int32) return Kind::kInteger;
  return Kind::kFloating;
}

struct Parameter {
  std::int64_t id;
  GlobalParamDescriptor descriptor;
};

struct Parameters {
  Mutex mutex;  // leaf
  std::unordered_map<std::int64_t, OpcUa_VariantHlp> values GUARDED_BY(mutex);
  // What an index means never changes, so a variable whose kind changes gets another one. A deque
  // keeps its elements where they are.
  std::deque<Parameter> known GUARDED_BY(mutex);
  std::map<std::pair<std::int64_t, Kind>, std::uint32_t> indices GUARDED_BY(mutex);

  std::uint32_t indexOf(std::int64_t id, Kind kind) REQUIRES(mutex) {
    const auto next = static_cast<std::uint32_t>(known.size());
    const auto [entry, added] = indices.emplace(std::pair(id, kind), next);
    if (added) {
      const auto bits = static_cast<std::uint8_t>(static_cast<unsigned>(kind) << 6);
      known.push_back({id, {{0, bits, 0, 0}}});
    }
    return entry->second;
  }
};

Parameters& parameters() {
  static Parameters& made = *new Parameters;
  return made;
}

bool findVariable(std::uint32_t low, std::int64_t& id, OpcUa_Byte& type) {
  const auto item = itemByLowBits(low);
  if (!item) return false;
  id = item->id;
  type = item->type;
  return true;
}

bool findValue(std::uint32_t low, std::int64_t& id, OpcUa_Byte& type) {
  Parameters& all = parameters();
  MutexLock lock(all.mutex);
  for (const std::int64_t candidate :
       {std::int64_t{low}, std::int64_t{static_cast<std::int32_t>(low)}}) {
    const auto found = all.values.find(candidate);
    if (found == all.values.end()) continue;
    id = candidate;
    type = found->second.GetType();
    return true;
  }
  return false;
}

bool readValue(std::uint32_t index, OpcUa_VariantHlp& out) {
  Parameters& all = parameters();
  MutexLock lock(all.mutex);
  if (index >= all.known.size()) return false;
  const auto found = all.values.find(all.known[index].id);
  if (found == all.values.end()) return false;
  out = found->second;
  return true;
}

}  // namespace

void setLiveValue(std::int64_t id, const OpcUa_VariantHlp& value) {
  OpcUa_VariantHlp converted = value;
  const OpcUa_Byte type = vm::VMInfo::GetInstance()->GetItemType(id);
  if (type != OpcUaType_Null) static_cast<void>(converted.ChangeType(type));  // else as it is
  Parameters& all = parameters();
  MutexLock lock(all.mutex);
  std::swap(all.values[id], converted);
}

bool getLiveValue(std::int64_t id, OpcUa_VariantHlp& out) {
  Parameters& all = parameters();
  MutexLock lock(all.mutex);
  const auto found = all.values.find(id);
  if (found == all.values.end()) return false;
  out = found->second;
  return true;
}

void clearLiveValues() {
  Parameters& all = parameters();
  MutexLock lock(all.mutex);
  all.values.clear();
}

}  // namespace orva::host

int GetGlobalArrayIndexByID(const GlobalParamKey* key, std::uint32_t* index) {
  if (key == nullptr || index == nullptr) return 1;
  std::int64_t id = 0;
  OpcUa_Byte type = OpcUaType_Null;
  const bool found =
      key->qualifier == orva::host::kVariables   ? orva::host::findVariable(key->id, id, type)
      : key->qualifier == orva::host::kAllValues ? orva::host::findValue(key->id, id, type)
                                                 : false;
  if (!found) return 1;
  orva::host::Parameters& all = orva::host::parameters();
  orva::MutexLock lock(all.mutex);
  *index = all.indexOf(id, orva::host::kindOf(type));
  return 0;
}

const GlobalParamDescriptor* GetGlobalParam(std::uint32_t index) {
  orva::host::Parameters& all = orva::host::parameters();
  orva::MutexLock lock(all.mutex);
  return index < all.known.size() ? &all.known[index].descriptor : nullptr;
}

int iReadBoolean(std::uint32_t index, int* value) {
  OpcUa_VariantHlp live;
  bool read = false;
  if (value == nullptr || !orva::host::readValue(index, live) || !live.GetBool(read)) return 1;
  *value = read ? 1 : 0;
  return 0;
}

int iReadInteger(std::uint32_t index, std::int32_t* value) {
  OpcUa_VariantHlp live;
  std::int64_t read = 0;
  if (value == nullptr || !orva::host::readValue(index, live) || !live.GetInt64(read)) return 1;
  if (read < INT32_MIN || read > INT32_MAX) return 1;
  *value = static_cast<std::int32_t>(read);
  return 0;
}

int iReadFloat(std::uint32_t index, double* value) {
  OpcUa_VariantHlp live;
  if (value == nullptr || !orva::host::readValue(index, live)) return 1;
  return live.GetDouble(*value) ? 0 : 1;
}
