#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "host/opcua_types.h"
#include "host/pin.h"
#include "share/json.h"

namespace orva::archive {

// One configured remote item, and what its exchange works with.
struct RemoteSourceInfo {
  // Fills the four configured fields from an element of "items". What is missing or of another type
  // is 0, or empty.
  void init(const json::Value& item);

  // Appends one received sample, [time, value, quality], to `values`. False, with a trace, when it
  // has another form, or a value of a type that cannot be taken.
  bool addValue(const json::Value& sample);

  std::int64_t localId = 0;
  std::int64_t remoteId = 0;  // tells people what the item is; the other side goes by the path
  std::string localPath;
  std::string remotePath;

  // From here on there are new records: ticks of the other controller's own, never converted.
  std::int64_t continuationPoint = 0;
  OpcUa_Byte localType = OpcUaType_Null;  // values become this type, if known
  std::list<PinPtr> values;               // received, not yet stored; oldest first
};

}  // namespace orva::archive
