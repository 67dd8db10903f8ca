#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "orva_database/controller_link.h"
#include "share/archive_provider.h"
#include "share/json.h"
#include "share/mutex.h"

namespace orva::test {

// A record of another controller's archive: its time to the tick, its value as JSON text.
struct RemoteRecord {
  std::int64_t time = 0;
  std::string value;
  std::uint32_t quality = 0;
};

// Another controller, as its ReadNewRecords answers. For one thread, apart from `isSilent`.
struct FakePeer {
  std::map<std::string, std::vector<RemoteRecord>> history;  // by path, ascending
  std::size_t page = 1000;                                   // records of an item in one answer
  std::size_t mostItems = 1'000'000;                         // more of them are answered 0x80080000
  std::size_t room = 1'000'000;       // records in one answer; the first items use it up
  std::set<std::string> tooLarge;     // paths whose next record has room in no answer
  std::atomic<bool> isSilent{false};  // exchanges last until their limit or their stop
  // Changes an answer's text on its way.
  std::function<std::string(const std::string&)> spoil;

  struct Asked {
    std::string path;
    std::int64_t point = 0;
    std::int64_t randId = 0;
  };
  std::vector<std::vector<Asked>> requests;  // what each one asked for
  std::vector<std::string> texts;            // of the requests

  // `count` records, `step` ticks apart, with the values 0.0, 1.0 ...
  void add(const std::string& path, std::int64_t first, int count, std::int64_t step = 10'000'000);
  std::string answer(const std::string& request);

 private:
  std::string answerItem(const Asked& asked, std::size_t& left) const;
};

// The controllers of an installation, by index.
struct FakeNetwork {
  std::map<std::int32_t, std::unique_ptr<FakePeer>> peers;
  bool open = true;
  // Says what an exchange that got its answer gives instead; 0: that answer.
  std::function<int(std::int32_t index)> lose;
  std::atomic<int> exchanges{0};
  std::atomic<int> inExchange{0};
  std::vector<int> limits;          // of the exchanges, in milliseconds
  std::vector<std::int32_t> order;  // and whom they went to

  FakePeer& peer(std::int32_t index);
};

class FakeLink final : public archive::ControllerLink {
 public:
  explicit FakeLink(FakeNetwork& network) : network_(network) {}

  bool isOpen() const override { return network_.open; }
  int addresses(std::int32_t index, NLAddress& first) override;
  int exchange(const NLAddress& to, const std::string& request, const NLWait& wait,
               std::string& answer) override;

 private:
  FakeNetwork& network_;
};

// A local archive that takes ten samples, and then no more until there is room again.
struct CrowdedWriter : archive::ILayerWriter {
  static constexpr std::size_t kRoom = 10;

  void write(const PinPtr& pin) override {
    times.push_back(pin->time);
    ++taken;
  }
  bool crowded() const override { return taken >= kRoom; }
  void makeRoom() { taken = 0; }

  std::vector<std::int64_t> times;
  std::size_t taken = 0;
};

}  // namespace orva::test
