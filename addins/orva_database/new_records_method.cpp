#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstddef>
#include <limits>
#include <vector>

#include "host/opcua_types.h"
#include "host/trace.h"
#include "orva_database/history_reply.h"
#include "orva_database/item_lookup.h"
#include "orva_database/request_processor.h"
#include "share/addins_share.h"
#include "share/archive_manager.h"

// ReadNewRecords: another controller asks what came since its last visit, in pages. Nothing may be
// skipped on the way: a page ends where the next one begins.

namespace orva {
namespace {

using Item = archive::Request::Item;
using Values = PinList::const_iterator;

constexpr std::uint32_t kValuesPerRequest = 10'000;
constexpr long long kCharacterBytes = 6;  // at most: \u0000
constexpr long long kSampleBytes = 64;    // all of a sample but its text
constexpr long long kItemEndBytes = 128;  // what closing an item takes

struct Element {
  std::int64_t randId;
  std::int64_t from;
};

// How much of the reply's memory samples may fill.
struct Room {
  ReplyWriter& reply;
  long long budget;
  long long reserve;  // for the items still to close

  bool fits(long long bytes) const { return reply.length() + bytes + reserve <= budget; }
};

struct Page {
  Values end;
  bool more;
  std::int64_t next;
};

std::int64_t behind(std::int64_t time) {
  return time == std::numeric_limits<std::int64_t>::max() ? time : time + 1;
}

long long sampleBytes(const Pin& pin) {
  const OpcUa_Byte type = pin.value.GetType();
  const bool hasText = !pin.value.IsArray() && (type == OpcUaType_String || type == OpcUaType_Json);
  const long long characters = hasText ? OpcUa_String_StrSize(pin.value.Get().Value.String) : 0;
  return kSampleBytes + kCharacterBytes * characters;
}

// The page of a good item before it meets the budget. Where a limit cut, samples of the last time
// may be missing: these all go to the next page, unless the page holds nothing else.
Page pageOf(const Item& item, const ItemAnswer& answer, std::int64_t from) {
  const PinList& values = item.values();
  if (values.empty())
    return {values.end(), answer.areMoreValues, answer.continuationPoint.get_value_or(from)};
  const std::int64_t newest = values.back()->time;
  Values end = values.end();
  if (answer.areMoreValues && values.front()->time != newest) {
    while ((*std::prev(end))->time == newest) --end;
    return {end, true, newest};
  }
  return {end, answer.areMoreValues, answer.continuationPoint.get_value_or(behind(newest))};
}

// Where the samples that are written or left together end: those of one time, so that a page never
// ends inside a time; but the page's first time goes sample by sample, or it might never fit.
Values stepEnd(Values from, Values end, std::int64_t firstTime) {
  const std::int64_t time = (*from)->time;
  Values to = std::next(from);
  if (time == firstTime) return to;
  while (to != end && (*to)->time == time) ++to;
  return to;
}

// Writes the page as far as there is room, and corrects what it says of the rest.
void writePage(const PinList& values, const Room& room, std::int64_t from, Page& page) {
  std::int64_t next = from;
  for (Values at = values.begin(); at != page.end;) {
    const Values to = stepEnd(at, page.end, values.front()->time);
    long long bytes = 0;
    for (Values pin = at; pin != to; ++pin) bytes += sampleBytes(**pin);
    if (!room.fits(bytes)) {
      page.more = true;
      page.next = next;
      return;
    }
    next = behind((*at)->time);
    for (; at != to; ++at) WritePinValue(*at, room.reply);
  }
}

void writeElement(const Item& item, const Element& element, const Room& room) {
  const ItemAnswer answer(item);
  ReplyWriter& reply = room.reply;
  reply.StartObject();
  reply.Key("randID");
  reply.Int64(element.randId);
  writeBadStatus(answer.code, reply);
  reply.Key("values");
  reply.StartArray();
  // After a bad answer the client asks again from the same point: nothing is skipped.
  Page page{item.values().end(), answer.areMoreValues, element.from};
  if (!answer.bad()) {
    page = pageOf(item, answer, element.from);
    writePage(item.values(), room, element.from, page);
  }
  reply.EndArray();
  reply.Key("areMoreValues");
  reply.Bool(page.more);
  reply.Key("continuationPoint");
  reply.Int64(page.next);
  reply.EndObject();
}

// Adds an item for the element; one that is not known keeps its place as id -1.
Element addElement(const json::Value& element, std::uint32_t limit, archive::Request& read) {
  std::int64_t cacheId = -1;
  const json::Value& path = json::member(element, "path");
  if (path.IsString()) {
    archive::ItemKey key(0, std::string(path.GetString(), path.GetStringLength()));
    if (itemIdByPath(key.second, key.first)) cacheId = cacheIdOf(key);
  }
  const Element asked{GetSafeInt64Value(element, "randID", 0),
                      GetSafeInt64Value(element, "continuationPoint", 0)};
  const archive::SharedItem& item = read.addItem(cacheId);
  item->numValuesPerNode = limit;
  if (asked.from != 0) item->setContinuationPoint(asked.from);
  return asked;
}

}  // namespace

StatusCode RequestProcessor::ReadNewRecords(const json::Value& request, ReplyWriter& reply,
                                            int budget) {
  const long long reqId = GetSafeInt64Value(request, "reqID", 0);
  const json::Value& items = json::member(request, "items");
  if (!items.IsArray()) {
    OpcUa_Trace_Imp(kTraceError,
                    "<-- ReturnError: !items.IsArray() evaluated to true! Returning 0x%08X\n",
                    __FILE__, __LINE__, status::kBadRequest);
    return status::kBadRequest;
  }
  // The options stay as they are: from each continuation point on to the newest, raw, no bounds.
  const auto read = boost::make_shared<archive::Request>(reqId);
  const std::uint32_t limit = std::max(kValuesPerRequest / std::max(items.Size(), 1U), 1U);
  std::vector<Element> elements;
  elements.reserve(items.Size());
  for (const json::Value& element : items.GetArray()) {
    elements.push_back(addElement(element, limit, *read));
  }
  archive::DataArchiveManager::instance().syncRead(read);

  reply.Key("items");
  reply.StartArray();
  for (std::size_t i = 0; i < elements.size(); ++i) {
    const auto toClose = static_cast<long long>(elements.size() - i);
    const Room room{reply, budget, kItemEndBytes * toClose};
    writeElement(*read->items()[i], elements[i], room);
  }
  reply.EndArray();
  return status::kGood;
}

}  // namespace orva
