#pragma once

#include <atomic>
#include <cstdint>

#include "share/archive_provider.h"

namespace orva::bench {

class CountingWriter : public archive::ILayerWriter {
 public:
  void write(const PinPtr&) override { ++written; }
  std::uint64_t written = 0;
};

// An archive that takes every sample and keeps none: what is read comes from the cache, or not at
// all.
class CountingArchive : public archive::IDataArchiveProc, public archive::IDataArchive {
 public:
  CountingArchive() { filter_.allValues = true; }

  archive::IDataArchive* archive() override { return this; }
  void start() override {}
  void stop() override {}
  void read(const archive::SharedInterval& interval) override {
    ++reads;
    interval->finalize();
  }
  std::uint32_t itemHandle(const archive::ItemKey&) override { return 1; }
  const archive::Filter& filter() override { return filter_; }
  archive::ILayerWriter& layerWriter(const archive::ItemKey&, std::int32_t, std::int64_t) override {
    return writer_;
  }
  void loadFilter(const json::Value&) override {}

  std::atomic<std::uint64_t> reads{0};

 private:
  archive::Filter filter_;
  CountingWriter writer_;
};

}  // namespace orva::bench
