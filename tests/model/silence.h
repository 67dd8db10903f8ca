#pragma once

#include <atomic>
#include <cstdint>

#include "orva_host/trace_log.h"

namespace orva::model {

// Swallows and counts what is traced: lines about late pushes, refused samples and faulty archives
// are part of these tests.
class Silence final : public host::TraceHook {
 public:
  Silence() { host::setTraceHook(this); }
  ~Silence() override { host::setTraceHook(nullptr); }
  void onLine(const host::TraceLine&) override { ++lines_; }
  std::uint64_t lines() const { return lines_; }

 private:
  std::atomic<std::uint64_t> lines_{0};
};

}  // namespace orva::model
