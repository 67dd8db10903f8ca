#pragma once

#include <gtest/gtest.h>

#include <boost/optional.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <cstdint>
#include <memory>
#include <ostream>
#include <vector>

#include "orva_database/inbox.h"
#include "orva_database/layer.h"
#include "share/archive_provider.h"
#include "share/archive_request.h"
#include "support/archive_fixture.h"
#include "support/manual_clock.h"

namespace orva::cache {

using Times = std::vector<std::int64_t>;
using Kind = archive::Interval::Kind;

// What a layer asked an archive for.
struct Asked {
  std::int64_t start;
  std::int64_t end;
  Kind kind = Kind::range;
  bool operator==(const Asked& o) const {
    return start == o.start && end == o.end && kind == o.kind;
  }
};
inline std::ostream& operator<<(std::ostream& out, const Asked& a) {
  const char* const kinds[] = {"range", "oldest", "newest"};
  return out << kinds[static_cast<int>(a.kind)] << " " << a.start << ".." << a.end;
}
using AllAsked = std::vector<Asked>;

// Keeps what it is given.
struct RecordingWriter : archive::ILayerWriter {
  void write(const PinPtr& pin) override { written.push_back(pin); }
  std::vector<PinPtr> written;
};

// How a range is read.
struct Range {
  std::int64_t start = 0;
  std::int64_t end = 0;
  std::uint32_t limit = 0;
  bool bounds = false;
  boost::optional<std::int64_t> point{};
  std::int64_t resampleInterval = 0;
};

// Base of tests of one layer, on a storage and a clock of its own. Nobody answers what the layer
// asks for but the test.
class LayerFixture : public ::testing::Test {
 public:
  LayerFixture() { makeLayer(); }
  ~LayerFixture() override {
    layer.reset();
    Layer::limits = Layer::Limits();
    Layer::storage = BlockStorage::make(Layer::kStorageBlocks);
    Inbox::maxWaiting = 100'000;
  }

  static vm::Layer description(bool cached = true, std::int64_t resampleInterval = 0) {
    vm::Layer described;
    described.number = 3;
    described.cache = cached;
    described.resampleInterval = resampleInterval;
    return described;
  }
  void makeLayer(const vm::Layer& described = description()) {
    layer = std::make_unique<Layer>();
    layer->init(described, writer);
  }
  // Blocks of `samples` each; answers of fewer than `cachedFrom` make none.
  static void makeSmall(std::uint32_t samples, std::uint32_t cachedFrom = 3) {
    Layer::limits.blockSamples = samples;
    Layer::limits.cachedFrom = cachedFrom;
  }

  // Values count up, so that samples of one time differ.
  PinPtr sample(std::int64_t time) { return test::realPin(time, ++value); }
  std::vector<PinPtr> samples(const Times& times) {
    std::vector<PinPtr> all;
    for (const std::int64_t time : times) all.push_back(sample(time));
    return all;
  }
  void append(const Times& times) {
    for (const PinPtr& pin : samples(times)) *layer << pin;
  }
  void appendPins(const std::vector<PinPtr>& pins) {
    for (const PinPtr& pin : pins) *layer << pin;
  }

  // ---- reads
  archive::SharedItem newItem(const Range& range) {
    const auto request = boost::make_shared<archive::Request>();
    request->options.startTime = range.start;
    request->options.endTime = range.end;
    request->options.returnBounds = range.bounds;
    const archive::SharedItem item = request->addItem(1);
    item->numValuesPerNode = range.limit;
    item->resampleInterval = range.resampleInterval;
    item->setContinuationPoint(range.point);
    requests.push_back(request);
    return item;
  }
  // What the cache gives, and what it leaves open.
  archive::SharedItem load(const Range& range) {
    const archive::SharedItem item = newItem(range);
    layer->load(item, requests.back()->options);
    return item;
  }
  archive::SharedItem firstLast(const Range& range) {
    const archive::SharedItem item = newItem(range);
    layer->getFirtsLast(item, requests.back()->options);
    return item;
  }
  static AllAsked asked(const archive::SharedItem& item) {
    AllAsked all;
    for (const auto& interval : item->openIntervals()) {
      all.push_back({interval->start(), interval->end(), interval->kind()});
    }
    return all;
  }
  static void answer(const archive::SharedInterval& interval, const std::vector<PinPtr>& pins) {
    interval->push(pins.data(), pins.size());
    interval->finalize();
  }
  // Answers everything that is open from a plain list.
  static void answerAll(const archive::SharedItem& item, const std::vector<PinPtr>& archive) {
    for (const auto& interval : item->openIntervals()) {
      answer(interval, test::rightAnswer(*interval, archive));
    }
  }
  // Reads a range to its end and takes what was fetched into the cache; the times given.
  Times read(const Range& range, const std::vector<PinPtr>& archive) {
    const archive::SharedItem item = load(range);
    answerAll(item, archive);
    if (!item->isFinal()) item->finalize();
    layer->drain();
    return test::timesOf(item);
  }
  // The same over all pages.
  Times readPages(Range range, const std::vector<PinPtr>& archive) {
    Times all;
    for (int page = 0; page < 5000; ++page) {
      const archive::SharedItem item = load(range);
      answerAll(item, archive);
      if (!item->isFinal()) item->finalize();
      layer->drain();
      for (const std::int64_t time : test::timesOf(item)) all.push_back(time);
      range.point = item->continuationPoint();
      if (!range.point && item->cut()) range.point = item->values().back()->time + 1;
      if (!range.point) return all;
    }
    ADD_FAILURE() << "pages without an end";
    return all;
  }

  // ---- the cache
  // The times in each block that is there, oldest first; without a `last` that is empty.
  std::vector<Times> blocks() const {
    std::vector<Times> all;
    for (const auto& block : layer->describe()) {
      if (!block.samples.empty()) all.push_back(test::timesOf(block.samples));
    }
    return all;
  }
  // The samples of the n-th entry.
  std::vector<PinPtr> held(std::size_t entry) const { return layer->describe()[entry].samples; }
  // Those of them that are joined to the block before.
  std::vector<bool> joined() const {
    std::vector<bool> all;
    for (const auto& block : layer->describe()) {
      if (!block.samples.empty()) all.push_back(block.joined);
    }
    return all;
  }
  Times keys() const {
    Times all;
    for (const auto& block : layer->describe()) all.push_back(block.key);
    return all;
  }
  // Every block goes but the one that is appended to.
  static void evictAll() { Layer::storage = BlockStorage::make(Layer::kStorageBlocks); }

  test::ManualClock clock;
  RecordingWriter writer;
  std::unique_ptr<Layer> layer;
  double value = 0;
  std::vector<archive::SharedRequest> requests;
};

}  // namespace orva::cache
