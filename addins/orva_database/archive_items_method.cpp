#include <string>

#include "host/trace.h"
#include "host/vm_info.h"
#include "orva_database/history_reply.h"
#include "orva_database/item_lookup.h"
#include "orva_database/request_processor.h"
#include "share/archive_manager.h"

// GetArchiveItems: which cache ids the archived variables have.

namespace orva {
namespace {

constexpr std::int64_t kUnknown = -1;

// The variable that an element names. Its id is kUnknown, and `known` false, if the element has
// none and the host does not know its path.
struct Named {
  archive::ItemKey key{kUnknown, {}};
  bool known = false;
};

Named nameOf(const json::Value& element) {
  Named named;
  auto& [id, path] = named.key;
  const bool hasId = json::readInt64(json::member(element, "itemId"), id);
  const json::Value& pathMember = json::member(element, "path");
  named.known = hasId;
  if (pathMember.IsString()) {
    path.assign(pathMember.GetString(), pathMember.GetStringLength());
    if (!hasId) named.known = itemIdByPath(path, id);
  } else if (hasId) {
    if (const auto item = vm::VMInfo::GetInstance()->GetItemByID(id)) path = item->path;
  }
  return named;
}

void writeArchiveItem(const archive::ItemKey& key, std::int64_t cacheId, ReplyWriter& reply) {
  reply.StartObject();
  reply.Key("itemId");
  reply.Int64(key.first);
  reply.Key("path");
  reply.String(key.second);
  reply.Key("archiveItemId");
  reply.Int64(cacheId);
  if (cacheId == kUnknown) writeBadStatus(status::kBadNothingResolved, reply);
  reply.EndObject();
}

void writeCachedItems(ReplyWriter& reply) {
  reply.Key("items");
  reply.StartArray();
  for (const auto& [cacheId, key] : archive::DataArchiveManager::instance().cachedItems()) {
    writeArchiveItem(key, cacheId, reply);
  }
  reply.EndArray();
}

// Returns how many of the elements are archived.
std::size_t writeNamedItems(const json::Value& items, ReplyWriter& reply) {
  std::size_t resolved = 0;
  reply.Key("items");
  reply.StartArray();
  for (const json::Value& element : items.GetArray()) {
    const Named named = nameOf(element);
    const std::int64_t cacheId = named.known ? cacheIdOf(named.key) : kUnknown;
    if (cacheId != kUnknown) ++resolved;
    writeArchiveItem(named.key, cacheId, reply);
  }
  reply.EndArray();
  return resolved;
}

StatusCode refuse(const char* condition) {
  archive::Request::Options options;
  options.onlyItemList = true;
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  options.toJson(writer);
  OpcUa_Trace_Imp(kTraceWarning,
                  "<-- ReturnError: %s evaluated to true! Returning 0x%08X, options %s\n", __FILE__,
                  __LINE__, condition, status::kBadNothingResolved, text.GetString());
  return status::kBadNothingResolved;
}

}  // namespace

StatusCode RequestProcessor::GetArchiveItems(const json::Value& request, ReplyWriter& reply) {
  const json::Value& items = json::member(request, "items");
  if (&items == &json::nullValue()) {
    writeCachedItems(reply);
    return status::kGood;
  }
  if (!items.IsArray()) return refuse("!items.IsArray()");
  const std::size_t resolved = writeNamedItems(items, reply);
  if (resolved == 0 && !items.Empty()) return refuse("resolved == 0");
  return status::kGood;
}

}  // namespace orva
