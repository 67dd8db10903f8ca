#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "host/host_export.h"
#include "host/opcua_types.h"

namespace orva::vm {

// One archive layer of the installation: every item archived in it follows this description.
struct Layer {
  std::int32_t number = 0;
  bool cache = false;                 // keep recent and recently read samples in memory
  std::int64_t resampleInterval = 0;  // ticks; 0 keeps every sample
};

// A variable of the installation.
struct Item {
  std::int64_t id = 0;
  std::string path;
  OpcUa_Byte type = OpcUaType_Null;
};

// Layer number -> (archive number, layer parameter).
using ArchivedLayers = std::map<std::int32_t, std::pair<std::int32_t, std::int64_t>>;

// The host's description of its variables. Thread-safe; answers are snapshots.
class ORVA_HOST_API VMInfo {
 public:
  static VMInfo* GetInstance();

  // Null when there is no such variable.
  boost::shared_ptr<const Item> GetItemByID(std::int64_t id) const;
  // 0 and the id, or 0x803E0000.
  OpcUa_StatusCode GetItemIdByPath(const std::string& path, std::int64_t& id) const;
  // OpcUaType_Null when there is no such variable.
  OpcUa_Byte GetItemType(std::int64_t id) const;
  // Null when there is no such variable; empty when it is not archived.
  boost::shared_ptr<const ArchivedLayers> GetArchivedLayers(std::int64_t id) const;
  // Null when the installation has no such layer.
  boost::shared_ptr<const Layer> GetLayer(std::int32_t number) const;

 private:
  VMInfo() = default;
};

}  // namespace orva::vm
