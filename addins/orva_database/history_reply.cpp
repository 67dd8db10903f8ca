#include "orva_database/history_reply.h"

#include <limits>

#include "share/addins_share.h"

namespace orva {
namespace {

using Item = archive::Request::Item;

StatusCode codeOf(const Item& item, bool final) {
  if (const StatusCode failure = item.failure(); failure != status::kGood) return failure;
  return final ? item.status() : status::kBadTimeout;
}

void writeItem(const Item& item, ReplyWriter& reply) {
  const ItemAnswer answer(item);
  reply.StartObject();
  reply.Key("archiveItemId");
  reply.Int64(item.cacheId);
  writeBadStatus(answer.code, reply);
  reply.Key("areMoreValues");
  reply.Bool(answer.areMoreValues);
  if (answer.continuationPoint) {
    reply.Key("continuationPoint");
    reply.Int64(*answer.continuationPoint);
  }
  reply.Key("values");
  reply.StartArray();
  WritePinValues(item.values(), reply);
  reply.EndArray();
  reply.EndObject();
}

}  // namespace

ItemAnswer::ItemAnswer(const Item& item) {
  const bool final = item.isFinal();
  const bool cut = item.cut();
  code = codeOf(item, final);
  areMoreValues = cut || item.status() == status::kGoodMoreData;
  // Until the item is final its point is the one that the reader gave.
  if (!final) return;
  continuationPoint = item.continuationPoint();
  if (cut && !continuationPoint && !item.values().empty()) {
    const std::int64_t last = item.values().back()->time;
    if (last != std::numeric_limits<std::int64_t>::max()) continuationPoint = last + 1;
  }
}

void writeBadStatus(StatusCode code, ReplyWriter& reply) {
  if (!isBad(code)) return;
  reply.Key("statusCode");
  reply.Int(static_cast<std::int32_t>(code));
}

void writeHistoryData(const archive::Request& request, ReplyWriter& reply) {
  reply.Key("data");
  reply.StartArray();
  for (const auto& item : request.items()) writeItem(*item, reply);
  reply.EndArray();
}

}  // namespace orva
