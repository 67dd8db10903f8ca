#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "share/archive_provider.h"

namespace orva::bench {

// What the simulated controllers have recorded: every item gives a sample a second, those of one
// controller at the same time, the controllers one after the other within the second. Nothing is
// stored: a record follows from its number. Values are a sine of one hour's period with noise, of
// two decimals.
//
// The plant's clock is the host's, less a delay: what happens in a break is there at once when the
// delay is taken away.
//
// Thread-safe.
class FleetPlant {
 public:
  FleetPlant(std::uint32_t controllers, std::uint32_t items, std::uint32_t delaySeconds);

  std::uint32_t controllers() const { return controllers_; }
  std::uint32_t items() const { return items_; }  // of each controller
  std::uint32_t allItems() const { return controllers_ * items_; }

  // Items are numbered through, controller by controller.
  std::uint32_t number(std::uint32_t controller, std::uint32_t item) const {
    return controller * items_ + item;
  }
  std::uint32_t controllerOf(std::uint32_t number) const { return number / items_; }
  // What an item is called at its controller, and the item number of such a name, or items().
  static std::string remotePath(std::uint32_t item);
  std::uint32_t itemAt(const std::string& remotePath) const;
  // What it is known by here.
  archive::ItemKey localKey(std::uint32_t number) const;
  std::uint32_t numberOf(const archive::ItemKey& key) const {
    return static_cast<std::uint32_t>(key.first - 1);
  }

  // The n-th record of an item, from 0 on.
  std::int64_t time(std::uint32_t controller, std::uint64_t n) const;
  double value(std::uint32_t number, std::uint64_t n) const;
  // How many records each item of a controller has by now, and the number of the first one that is
  // not before `time`.
  std::uint64_t available(std::uint32_t controller) const;
  std::uint64_t firstFrom(std::uint32_t controller, std::int64_t time) const;

  std::int64_t now() const;
  // All that the delay held back is there.
  void endBreak() { delay_ = 0; }
  // No records any more.
  void freeze() { frozenAt_ = now(); }

 private:
  static constexpr std::size_t kPeriodSeconds = 3600;

  const std::uint32_t controllers_;
  const std::uint32_t items_;
  std::array<std::int16_t, kPeriodSeconds> sine_;  // hundredths
  std::atomic<std::int64_t> delay_;
  std::atomic<std::int64_t> frozenAt_;
  const std::int64_t origin_;
};

}  // namespace orva::bench
