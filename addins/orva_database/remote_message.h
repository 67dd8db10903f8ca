#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "share/json.h"
#include "share/status_codes.h"

// What the exchange with another controller sends and gets, as texts:
//
//   request:  /Methods/ReadNewRecords
//             RemoteArchiveSource
//             {"reqID":7,"items":[{"path":"Plant/Load","randID":4711,"continuationPoint":1}]}
//   answer:   {"items":[{"randID":4711,"values":[[1715932800000,1.5,0]],"areMoreValues":false,
//              "continuationPoint":133604064000000001}],"code":0}

namespace orva::archive {

struct RemoteQuestion {
  std::string path;
  std::int64_t randId = 0;
  std::int64_t continuationPoint = 0;
};

std::string remoteRequest(const std::string& methodPath, std::int64_t reqId,
                          const std::vector<RemoteQuestion>& questions);

// What the answer says of one item.
struct RemoteItemReply {
  StatusCode status = 0;
  const json::Value* values = nullptr;  // an array, or null
  bool areMoreValues = false;
  std::int64_t continuationPoint = 0;
};

class RemoteAnswer {
 public:
  enum class Kind {
    good,
    tooLong,     // the other side has no room for so many items: ask for fewer
    unparsable,  // logged
    refused,     // traced: it has no items, or not those that were asked for
  };

  // Reads the text, whose bytes become the document's.
  explicit RemoteAnswer(std::string text) : text_(std::move(text)) {}
  RemoteAnswer(const RemoteAnswer&) = delete;
  RemoteAnswer& operator=(const RemoteAnswer&) = delete;
  // Only an answer that repeats the randID of every question, in order, is one: others come late.
  Kind read(const std::vector<RemoteQuestion>& questions);
  // Once it is good.
  RemoteItemReply item(std::size_t index, const RemoteQuestion& question) const;

 private:
  bool answers(const std::vector<RemoteQuestion>& questions) const;

  std::string text_;
  json::Document document_;
};

}  // namespace orva::archive
