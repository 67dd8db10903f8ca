#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "bench/fleet/fleet_plant.h"
#include "share/request_processor.h"

namespace orva::bench {

// What is made wrong in the replies, to see that it is noticed: with record 3 of the first item of
// the first controller.
enum class Spoil { kNothing, kMissing, kTwice, kChanged };

// ReadNewRecords of a simulated controller: the reply is, to the character, the one that the
// history service gives of the same records, its pages end where that one's do.
class PlantMethods : public CRequestProcessor<PlantMethods> {
 public:
  PlantMethods(const FleetPlant& plant, std::uint32_t controller, Spoil spoil = Spoil::kNothing)
      : CRequestProcessor("PlantMethods"), plant_(plant), controller_(controller), spoil_(spoil) {}

  struct Methods {
    static const std::map<std::string, int, std::less<>>& Name();
  };
  StatusCode CallMethod(const std::string& path, const std::string& callerInfo,
                        const json::Document& request, ReplyWriter& reply, int budget);

 private:
  struct Page {
    std::uint64_t available;  // records that each item has
    std::uint64_t limit;      // records of an item in a reply
    long long end;            // length of the reply from which on samples have no room
  };
  struct Values {
    std::int64_t next;
    bool more;
  };
  void writeElement(const json::Value& element, const Page& page, ReplyWriter& reply) const;
  Values writeValues(std::uint32_t item, std::int64_t from, const Page& page,
                     ReplyWriter& reply) const;
  void writeRecord(std::uint32_t number, std::uint64_t n, ReplyWriter& reply) const;

  const FleetPlant& plant_;
  const std::uint32_t controller_;
  const Spoil spoil_;
};

}  // namespace orva::bench
