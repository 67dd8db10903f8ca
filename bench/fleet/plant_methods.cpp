#include "bench/fleet/plant_methods.h"

#include <algorithm>

#include "share/addins_share.h"

namespace orva::bench {
namespace {

// The figures of the history service.
constexpr std::uint64_t kValuesPerRequest = 10'000;
constexpr long long kSampleBytes = 64;
constexpr long long kItemEndBytes = 128;
constexpr std::uint64_t kSpoiledRecord = 3;
constexpr int kBadNotFound = static_cast<int>(0x803E0000U);

}  // namespace

const std::map<std::string, int, std::less<>>& PlantMethods::Methods::Name() {
  static const std::map<std::string, int, std::less<>> methods = {{"/Methods/ReadNewRecords", 0}};
  return methods;
}

StatusCode PlantMethods::CallMethod(const std::string&, const std::string&,
                                    const json::Document& request, ReplyWriter& reply, int budget) {
  const json::Value& items = json::member(request, "items");
  if (!items.IsArray()) return status::kBadRequest;
  const std::uint64_t limit =
      std::max<std::uint64_t>(kValuesPerRequest / std::max(items.Size(), 1U), 1);
  const std::uint64_t available = plant_.available(controller_);
  reply.Key("items");
  reply.StartArray();
  long long toClose = items.Size();
  for (const json::Value& element : items.GetArray()) {
    reply.StartObject();
    reply.Key("randID");
    reply.Int64(GetSafeInt64Value(element, "randID", 0));
    writeElement(element, {available, limit, budget - kItemEndBytes * toClose--}, reply);
    reply.EndObject();
  }
  reply.EndArray();
  return status::kGood;
}

void PlantMethods::writeElement(const json::Value& element, const Page& page,
                                ReplyWriter& reply) const {
  const json::Value& path = json::member(element, "path");
  const std::uint32_t item =
      plant_.itemAt(path.IsString() ? std::string(path.GetString()) : std::string());
  Values values{GetSafeInt64Value(element, "continuationPoint", 0), false};
  if (item >= plant_.items()) {
    reply.Key("statusCode");
    reply.Int(kBadNotFound);
  }
  reply.Key("values");
  reply.StartArray();
  if (item < plant_.items()) values = writeValues(item, values.next, page, reply);
  reply.EndArray();
  reply.Key("areMoreValues");
  reply.Bool(values.more);
  reply.Key("continuationPoint");
  reply.Int64(values.next);
}

PlantMethods::Values PlantMethods::writeValues(std::uint32_t item, std::int64_t from,
                                               const Page& page, ReplyWriter& reply) const {
  std::uint64_t n = plant_.firstFrom(controller_, from);
  const bool cut = n + page.limit < page.available;
  // More records of the last one's time might follow, so it begins the next page.
  const std::uint64_t end =
      cut ? n + std::max<std::uint64_t>(page.limit - 1, 1) : std::max(n, page.available);
  const std::uint32_t number = plant_.number(controller_, item);
  Values values{from, cut};
  for (; n < end; ++n) {
    if (reply.length() + kSampleBytes > page.end) return {values.next, true};
    writeRecord(number, n, reply);
    values.next = plant_.time(controller_, n) + 1;
  }
  if (cut && page.limit > 1) values.next = plant_.time(controller_, n);
  return values;
}

void PlantMethods::writeRecord(std::uint32_t number, std::uint64_t n, ReplyWriter& reply) const {
  const bool spoiled = spoil_ != Spoil::kNothing && number == 0 && n == kSpoiledRecord;
  if (spoiled && spoil_ == Spoil::kMissing) return;
  OpcUa_VariantHlp value;
  value.SetDouble(plant_.value(number, n) + (spoiled && spoil_ == Spoil::kChanged ? 0.01 : 0));
  const PinPtr pin = makePin(plant_.time(controller_, n), std::move(value));
  WritePinValue(pin, reply);
  if (spoiled && spoil_ == Spoil::kTwice) WritePinValue(pin, reply);
}

}  // namespace orva::bench
