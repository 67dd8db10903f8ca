#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/counting_archive.h"
#include "bench/temp_folder.h"
#include "orva_database/pin.h"
#include "orva_database/request_processor.h"
#include "orva_sqlite/provider.h"

namespace orva::bench {

// Where the service's samples go.
enum class Archive { none, sqlite };

// How an item is archived: layer 0 alone, not cached; cached; layers 0, 1 and 2, all cached, with
// values of each minute and each hour.
enum class Kind { uncached, cached, threeLayers };

// The service with one archive and items of one kind. One at a time: the manager is the process's.
class MeasuredService {
 public:
  MeasuredService(Archive archive, Kind kind);
  ~MeasuredService();
  MeasuredService(const MeasuredService&) = delete;
  MeasuredService& operator=(const MeasuredService&) = delete;

  // Tells the host of so many variables more, "Plant/Area 3/Unit 7/T00000012" and the like.
  void describe(std::uint32_t count);
  // Makes the items of all variables that have none.
  void makeItems();
  std::uint32_t items() const { return static_cast<std::uint32_t>(pins_.size()); }
  cache::CachedItem& item(std::uint32_t index) { return *pins_[index]; }
  static archive::ItemKey key(std::uint32_t index);
  // The n-th sample of an item: a second after the one before, a Double.
  static PinPtr sample(std::uint32_t n);
  static std::int64_t time(std::uint32_t n);

  // Ends the archive and begins anew with what it stored; nothing is cached then.
  void restart();

  struct Reply {
    std::size_t values = 0;  // 0 when it is not what it should be
    std::int64_t bytes = 0;
    std::int64_t peak = 0;  // on the heap, beside the reply
  };
  // Reads, as JSON, `values` samples of each of `count` items from sample `first` of each on.
  Reply read(std::uint32_t firstItem, std::uint32_t count, std::uint32_t first,
             std::uint32_t values);

 private:
  std::string request(std::uint32_t firstItem, std::uint32_t count, std::uint32_t first,
                      std::uint32_t values) const;

  const Kind kind_;
  TempFolder folder_;
  std::uint32_t described_ = 0;
  std::vector<boost::shared_ptr<cache::CachedItem>> pins_;
  std::vector<std::int64_t> ids_;
  RequestProcessor processor_;
  const std::unique_ptr<char[]> reply_;
};

}  // namespace orva::bench
