#pragma once

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <cstdint>
#include <list>
#include <memory_resource>
#include <utility>

#include "host/archive_rec.h"
#include "host/opcua_variant.h"
#include "share/live_count.h"

namespace orva::aggregation {

// The quality of a sample: an OPC UA status code.
class Quality {
 public:
  Quality& operator=(OpcUa_StatusCode code) {
    code_ = code;
    return *this;
  }
  operator OpcUa_StatusCode() const { return code_; }

 private:
  OpcUa_StatusCode code_ = 0;
};

// One archived sample. Shared by everyone who holds it through PinPtr, and unchanged once it was
// handed to anybody else. The count of its holders is inside, so that a sample is one allocation
// of 32 bytes and a reference to it one pointer.
struct Pin : boost::intrusive_ref_counter<Pin, boost::thread_safe_counter>, LiveCount<Pin> {
  Pin() = default;
  explicit Pin(const ArchiveRec& rec) : time(rec.time), value(rec.value) { quality = rec.status; }

  Quality quality;
  std::int64_t time = 0;  // ticks (100 ns since 1601 UTC)
  OpcUa_VariantHlp value;
};

using PinPtr = boost::intrusive_ptr<Pin>;

inline PinPtr makePin() { return PinPtr(new Pin); }
inline PinPtr makePin(std::int64_t time, OpcUa_VariantHlp value, OpcUa_StatusCode quality = 0) {
  PinPtr pin = makePin();
  pin->time = time;
  pin->value = std::move(value);
  pin->quality = quality;
  return pin;
}

// A list of samples; its nodes may come from an arena.
using PinList = std::pmr::list<PinPtr>;

}  // namespace orva::aggregation

namespace orva {
using aggregation::makePin;
using aggregation::Pin;
using aggregation::PinList;
using aggregation::PinPtr;
}  // namespace orva
