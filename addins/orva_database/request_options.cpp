#include <algorithm>
#include <boost/make_shared.hpp>
#include <limits>

#include "host/opcua_variant.h"
#include "host/trace.h"
#include "share/archive_request.h"
#include "share/ticks.h"

// How a request is read from the body of a JSON call, and its options are written for logs.

namespace orva::archive {
namespace {

constexpr std::uint32_t kValuesPerRequest = 10'000;

std::int64_t integerMember(const json::Value& object, const char* name) {
  std::int64_t value = 0;
  json::readInt64(json::member(object, name), value);
  return value;
}

// Ticks of a time in ms since 1970, at the ends of 64 bits when it lies beyond; 0 stays 0, open.
std::int64_t ticksMember(const json::Value& object, const char* name) {
  const std::int64_t milliseconds = integerMember(object, name);
  if (milliseconds == 0) return 0;
  std::int64_t ticks;
  if (__builtin_add_overflow(milliseconds, kUnixEpochMilliseconds, &ticks) ||
      __builtin_mul_overflow(ticks, kTicksPerMillisecond, &ticks)) {
    return milliseconds < 0 ? std::numeric_limits<std::int64_t>::min()
                            : std::numeric_limits<std::int64_t>::max();
  }
  return ticks;
}

// Only a number written with a fraction or an exponent counts. An integer literal is raw, as is
// a negative number: clients that send 60000000 get raw values today and plot them as such.
std::int64_t resampleMember(const json::Value& object) {
  const json::Value& value = json::member(object, "resampleInterval");
  if (!value.IsDouble()) return 0;
  OpcUa_VariantHlp number;
  number.SetDouble(value.GetDouble());
  std::int64_t ticks = 0;
  OpcUa_VariantHlp::GetTime(number, 1, ticks);
  return std::max<std::int64_t>(ticks, 0);
}

std::uint32_t valuesPerNode(const json::Value& parameters, std::uint32_t elements) {
  const json::Value& value = json::member(parameters, "numValuesPerNode");
  if (value.IsUint() && value.GetUint() != 0) return value.GetUint();
  return elements != 0 ? kValuesPerRequest / elements : 0;
}

}  // namespace

std::int32_t Request::Options::layerFor(std::int64_t interval) {
  if (interval < kTicksPerMinute) return 0;
  return interval < kTicksPerHour ? 1 : 2;
}

void Request::Options::fromJson(const json::Value& parameters) {
  returnFirstLastValue = json::member(parameters, "returnFirstLastValue").IsTrue();
  resampleInterval = 0;
  // First and last need no range: what was set before stays.
  if (returnFirstLastValue) return;
  startTime = ticksMember(parameters, "startTime");
  endTime = ticksMember(parameters, "endTime");
  resampleInterval = resampleMember(parameters);
  layerId = layerFor(resampleInterval);
  fourthFlag = false;
  returnBounds = json::member(parameters, "returnBounds").IsTrue();
}

void Request::Options::toJson(rapidjson::Writer<rapidjson::StringBuffer>& writer) const {
  writer.StartObject();
  writer.Key("bounds");
  writer.Bool(returnBounds);
  writer.Key("firstLast");
  writer.Bool(returnFirstLastValue);
  writer.Key("onlyItemList");
  writer.Bool(onlyItemList);
  writer.Key("layerId");
  writer.Int(layerId);
  writer.Key("start");
  writer.Int64(startTime);
  writer.Key("end");
  writer.Int64(endTime);
  writer.EndObject();
}

boost::shared_ptr<Request> Request::make(const json::Value& body) {
  const json::Value& items = json::member(body, "data");
  if (!items.IsArray()) {
    OpcUa_Trace_Imp(kTraceWarning,
                    "<-- ReturnError: !items.IsArray() evaluated to true! Returning 0x%08X\n",
                    __FILE__, __LINE__, status::kBadRequest);
    return {};
  }
  auto request = boost::make_shared<Request>();
  const json::Value& parameters = json::member(body, "parameters");
  const std::uint32_t limit = valuesPerNode(parameters, items.Size());
  request->options.fromJson(parameters);
  request->items_.reserve(items.Size());
  for (const json::Value& element : items.GetArray()) {
    const SharedItem& item = request->addItem(integerMember(element, "archiveItemId"));
    const std::int64_t point = integerMember(element, "continuationPoint");
    if (point != 0) item->setContinuationPoint(point);
    item->numValuesPerNode = limit;
    item->resampleInterval = request->options.resampleInterval;
  }
  return request;
}

}  // namespace orva::archive
