#include "support/history_service.h"

#include <sstream>
#include <utility>

#include "orva_database/cache.h"
#include "orva_host/config_sections.h"
#include "orva_host/variables.h"
#include "share/archive_manager.h"
#include "support/archive_fixture.h"

namespace orva::test {
namespace {

using archive::DataArchiveManager;

std::string framed(const std::string& method, const std::string& body) {
  return "/Methods/" + method + "\na test\n" + body;
}

Reply replyOf(int status, std::string text) {
  Reply reply;
  reply.status = static_cast<StatusCode>(status);
  reply.text = std::move(text);
  reply.body.Parse(reply.text.c_str());
  if (reply.body.HasParseError()) reply.body.SetNull();
  return reply;
}

}  // namespace

const json::Value& Reply::item(const char* list, unsigned index) const {
  const json::Value& items = json::member(body, list);
  return items.IsArray() && index < items.Size() ? items[index] : json::nullValue();
}

HistoryService::HistoryService() : clock((startManagerWorker(), ManualClock::kStart)) {
  clock.setAutoAdvance(true);
  auto& manager = DataArchiveManager::instance();
  manager.clear();
  vm::Layer layer;
  layer.cache = true;
  host::replaceInstallation({}, {layer});
  factory_.onCreate = [](ScriptedProvider& provider) { provider.mutableFilter().allValues = true; };
  manager.regFactory("scripted", &factory_);
  host::setConfigSection("DataArchive", R"({"archives":[{"connection":{"providerType":"scripted"},)"
                                        R"("limits":{},"filter":{}}],"defaultArchive":0})");
  manager.init();
  traces.clear();
}

HistoryService::~HistoryService() {
  auto& manager = DataArchiveManager::instance();
  manager.clear();
  manager.regFactory("scripted", nullptr);
  host::replaceConfigSections({});
  host::clearInstallation();
}

void HistoryService::addVariable(std::int64_t id, const std::string& path) {
  vm::Item item;
  item.id = id;
  item.path = path;
  item.type = OpcUaType_Double;
  host::setVariable(item, {{0, {0, 0}}});
}

std::int64_t HistoryService::addItem(std::int64_t id, const std::string& path) {
  addVariable(id, path);
  return DataArchiveManager::instance().createPinCache({id, path});
}

void HistoryService::write(std::int64_t cacheId, const std::vector<PinPtr>& pins) {
  const auto item = DataArchiveManager::instance().getPinCache(cacheId);
  for (const PinPtr& pin : pins) *item << pin;
}

Reply HistoryService::call(const std::string& method, const std::string& body) {
  const std::string request = framed(method, body);
  std::ostringstream out;
  std::ostream* const stream = &out;
  int length = 0;
  const int status = RequestProcessor::ProcessJSONRequestStream(
      &processor_, 0, request.data(), static_cast<int>(request.size()), stream, 0, &length);
  return replyOf(status, out.str());
}

Reply HistoryService::callBuffer(const std::string& method, const std::string& body, int capacity) {
  const std::string request = framed(method, body);
  std::string memory(static_cast<std::size_t>(capacity), '~');
  int length = 0;
  const int status = RequestProcessor::ProcessJSONRequest(&processor_, 0, request.data(),
                                                          static_cast<int>(request.size()),
                                                          &memory[0], capacity, &length);
  memory.resize(static_cast<std::size_t>(length));
  return replyOf(status, memory);
}

std::vector<PinPtr> steps(std::int64_t first, int count, std::int64_t step) {
  std::vector<PinPtr> pins;
  for (int i = 0; i < count; ++i) pins.push_back(number(first + i * step, i));
  return pins;
}

PinPtr number(std::int64_t time, double value) {
  OpcUa_VariantHlp variant;
  variant.SetDouble(value);
  return makePin(time, std::move(variant));
}

PinPtr word(std::int64_t time, const std::string& value) {
  OpcUa_VariantHlp variant;
  variant.SetString(value);
  return makePin(time, std::move(variant));
}

}  // namespace orva::test
