#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "orva_database/remote_archive_source.h"
#include "orva_host/config_sections.h"
#include "orva_host/variables.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"
#include "unit/orva_database/remote_fake.h"

namespace orva::archive {

inline std::string itemText(std::int32_t controller, std::int64_t id, const std::string& path) {
  return R"({"controllerIndex":)" + std::to_string(controller) + R"(,"localId":)" +
         std::to_string(id) + R"(,"remoteId":)" + std::to_string(1000 + id) +
         R"(,"localPath":"Here/)" + path + R"(","remotePath":")" + path + R"("})";
}

inline std::string sectionText(const std::vector<std::string>& items,
                               const std::string& more = {}) {
  std::string text = "{" + more + R"("items":[)";
  for (std::size_t i = 0; i < items.size(); ++i) text += (i == 0 ? "" : ",") + items[i];
  return text + "]}";
}

// A source, the controllers that it may ask, and a local archive.
class RemoteArchiveSourceTest : public test::ArchiveFixture {
 protected:
  using Texts = std::vector<std::string>;
  static constexpr std::int64_t kSecond = kTicksPerSecond;
  static constexpr std::int64_t kMs = kTicksPerMillisecond;
  static constexpr std::int64_t kStart = test::ManualClock::kStart;

  RemoteArchiveSourceTest() : source(std::make_unique<RemoteArchiveSource>(link())) { start(); }

  std::unique_ptr<ControllerLink> link() { return std::make_unique<test::FakeLink>(network); }
  // As after a restart of this controller; its archive stays.
  void restart() {
    manager().clear();
    source = std::make_unique<RemoteArchiveSource>(link());
    const auto kept = stored();
    start();
    for (const PinPtr& pin : kept) factory.last().add(kLoad, 0, pin);
    source->Init();
  }

  int init(const std::string& section) {
    host::setConfigSection("RemoteData", section);
    return source->Init();
  }
  // An item of controller 1, archived here as well.
  void configureLoad() {
    network.peer(1);
    localItem(7, "Here/Load");
    init(sectionText({itemText(1, 7, "Load")}));
  }
  // The items P0, P1 ... of controller 1, with so many records each, archived here as well.
  void configureItems(int count, int records) {
    Texts items;
    for (int i = 0; i < count; ++i) {
      const std::string path = "P" + std::to_string(i);
      localItem(100 + i, "Here/" + path);
      items.push_back(itemText(1, 100 + i, path));
      network.peer(1).add(path, kStart, records);
    }
    init(sectionText(items));
  }
  static void localItem(std::int64_t id, const std::string& path,
                        OpcUa_Byte type = OpcUaType_Double) {
    vm::Item item;
    item.id = id;
    item.path = path;
    item.type = type;
    host::setVariable(item, {{0, {0, 0}}});
  }

  void pass() { source->Execute(); }
  // The next round.
  void nextRound() {
    clock.advance(kSecond);
    pass();
  }

  // What the local archive holds of an item.
  std::vector<PinPtr> stored(const ItemKey& key = kLoad) { return factory.last().samples(key, 0); }
  std::vector<std::int64_t> storedTimes(const ItemKey& key = kLoad) {
    return test::timesOf(stored(key));
  }
  std::vector<std::string> storedValues(const ItemKey& key = kLoad) {
    std::vector<std::string> values;
    for (const PinPtr& pin : stored(key)) values.push_back(pin->value.ToText());
    return values;
  }
  test::FakePeer& peer() { return network.peer(1); }

  static inline const ItemKey kLoad{7, "Here/Load"};
  test::FakeNetwork network;
  test::TraceCapture traces;
  std::unique_ptr<RemoteArchiveSource> source;
};

}  // namespace orva::archive
