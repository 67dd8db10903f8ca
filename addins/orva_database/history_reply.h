#pragma once

#include <boost/optional.hpp>
#include <cstdint>

#include "share/archive_request.h"
#include "share/reply_writer.h"
#include "share/status_codes.h"

// What a reply says of an item that was read. The item is final, or closed by a read that gave up.

namespace orva {

struct ItemAnswer {
  explicit ItemAnswer(const archive::Request::Item& item);

  bool bad() const { return isBad(code); }

  StatusCode code;  // why values may be missing; good if nothing is
  bool areMoreValues;
  boost::optional<std::int64_t> continuationPoint;
};

// The member "statusCode", if the code is bad.
void writeBadStatus(StatusCode code, ReplyWriter& reply);

// The member "data" of a reply: an object for each item of the request.
void writeHistoryData(const archive::Request& request, ReplyWriter& reply);

}  // namespace orva
