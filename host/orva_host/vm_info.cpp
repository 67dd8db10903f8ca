#include "host/vm_info.h"

#include <boost/smart_ptr/make_shared.hpp>
#include <set>
#include <unordered_map>

#include "orva_host/variables.h"
#include "share/mutex.h"
#include "share/status_codes.h"

namespace orva::host {
namespace {

struct Installation {
  std::map<std::int64_t, Variable> variables;
  std::unordered_map<std::string, std::int64_t> ids;         // by path
  std::set<std::pair<std::uint32_t, std::int64_t>> lowBits;  // low 32 bits of each id, and the id
  std::map<std::int32_t, boost::shared_ptr<const vm::Layer>> layers;

  void add(const vm::Item& item, const vm::ArchivedLayers& archived) {
    remove(item.id);
    variables[item.id] = {boost::make_shared<const vm::Item>(item),
                          boost::make_shared<const vm::ArchivedLayers>(archived)};
    lowBits.emplace(static_cast<std::uint32_t>(item.id), item.id);
    if (!item.path.empty()) ids[item.path] = item.id;
  }
  void remove(std::int64_t id) {
    const auto found = variables.find(id);
    if (found == variables.end()) return;
    const auto named = ids.find(found->second.item->path);
    if (named != ids.end() && named->second == id) ids.erase(named);
    lowBits.erase({static_cast<std::uint32_t>(id), id});
    variables.erase(found);
  }
  boost::shared_ptr<const vm::Item> itemByLowBits(std::uint32_t low) const {
    auto found = variables.find(low);
    if (found == variables.end()) {
      const auto first = lowBits.lower_bound({low, INT64_MIN});
      if (first == lowBits.end() || first->first != low) return {};
      found = variables.find(first->second);
    }
    return found->second.item;
  }
  void addLayer(const vm::Layer& layer) {
    layers[layer.number] = boost::make_shared<const vm::Layer>(layer);
  }
};

struct Current {
  Mutex mutex;  // leaf
  Installation installation GUARDED_BY(mutex);
};

Current& current() {
  static Current& made = *new Current;
  return made;
}

// Null when there is no such variable.
Variable variableOf(std::int64_t id) {
  Current& now = current();
  MutexLock lock(now.mutex);
  const auto found = now.installation.variables.find(id);
  return found == now.installation.variables.end() ? Variable() : found->second;
}

}  // namespace

void setVariable(const vm::Item& item, const vm::ArchivedLayers& layers) {
  Current& now = current();
  MutexLock lock(now.mutex);
  now.installation.add(item, layers);
}

void removeVariable(std::int64_t id) {
  Current& now = current();
  MutexLock lock(now.mutex);
  now.installation.remove(id);
}

void setLayer(const vm::Layer& layer) {
  Current& now = current();
  MutexLock lock(now.mutex);
  now.installation.addLayer(layer);
}

void replaceInstallation(const std::vector<std::pair<vm::Item, vm::ArchivedLayers>>& variables,
                         const std::vector<vm::Layer>& layers) {
  Installation made;
  for (const auto& [item, archived] : variables) made.add(item, archived);
  for (const vm::Layer& layer : layers) made.addLayer(layer);
  Current& now = current();
  MutexLock lock(now.mutex);
  std::swap(now.installation, made);
}

void clearInstallation() { replaceInstallation({}, {}); }

std::vector<Variable> allVariables() {
  Current& now = current();
  MutexLock lock(now.mutex);
  std::vector<Variable> all;
  all.reserve(now.installation.variables.size());
  for (const auto& [id, variable] : now.installation.variables) all.push_back(variable);
  return all;
}

boost::shared_ptr<const vm::Item> itemByLowBits(std::uint32_t low) {
  Current& now = current();
  MutexLock lock(now.mutex);
  return now.installation.itemByLowBits(low);
}

}  // namespace orva::host

namespace orva::vm {

VMInfo* VMInfo::GetInstance() {
  static VMInfo instance;
  return &instance;
}

boost::shared_ptr<const Item> VMInfo::GetItemByID(std::int64_t id) const {
  return host::variableOf(id).item;
}

OpcUa_StatusCode VMInfo::GetItemIdByPath(const std::string& path, std::int64_t& id) const {
  host::Current& now = host::current();
  MutexLock lock(now.mutex);
  const auto found = now.installation.ids.find(path);
  if (found == now.installation.ids.end()) return status::kBadNotFound;
  id = found->second;
  return status::kGood;
}

OpcUa_Byte VMInfo::GetItemType(std::int64_t id) const {
  const auto item = host::variableOf(id).item;
  return item ? item->type : static_cast<OpcUa_Byte>(OpcUaType_Null);
}

boost::shared_ptr<const ArchivedLayers> VMInfo::GetArchivedLayers(std::int64_t id) const {
  return host::variableOf(id).layers;
}

boost::shared_ptr<const Layer> VMInfo::GetLayer(std::int32_t number) const {
  host::Current& now = host::current();
  MutexLock lock(now.mutex);
  const auto found = now.installation.layers.find(number);
  if (found == now.installation.layers.end()) return {};
  return found->second;
}

}  // namespace orva::vm
