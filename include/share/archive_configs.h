#pragma once

#include <cstdint>
#include <string>

#include "share/json.h"
#include "share/orva_export.h"

namespace orva::archive {

// Which manager built a record.
enum Type : std::int32_t { kDataArchive = 0, kEventsArchive = 1 };

// The limits of an archive, as its provider gets them. Times are ticks (100 ns).
//
// Accepted forms differ from field to field and stay as they are, since configurations rely on
// them: a value of a wrong form gives 0 for maxSize, maxTime and cleanupPeriod, and leaves the
// default of writeBufferSize, maxWriteValues, maxDelValues and writePeriod.
struct ORVA_API ArchiveCfg {
  ArchiveCfg() = default;
  explicit ArchiveCfg(const json::Value& limits);  // anything but an object gives the defaults

  std::uint32_t writeBufferSize = 10000;  // samples buffered at most
  std::uint32_t maxSize = 0;              // megabytes of storage, 0 unlimited
  std::uint32_t reserved = 0;             // always 0
  std::uint32_t maxWriteValues = 10000;   // samples in one transaction
  std::uint32_t maxDelValues = 100000;    // samples deleted in one transaction
  std::int64_t maxTime = 0;               // how long samples are kept, 0 for ever
  std::int64_t writePeriod = 5'000'000;   // the longest a sample waits for its transaction
  std::int64_t cleanupPeriod = 0;         // how often maxTime and maxSize are enforced, 0 never
};

// How a provider reaches its storage. `parameters` is free text for the provider.
struct ORVA_API ConnectionCfg {
  explicit ConnectionCfg(Type kind = kDataArchive) : type(kind) {}
  ConnectionCfg(const json::Value& connection, Type kind);

  std::string location;
  std::string user;
  std::string pass;
  std::string host;
  std::int32_t port = 0;
  Type type;
  std::string providerType;  // the name under which the provider's factory is registered
  std::string parameters;
  std::int64_t reconnectTimeout = 10'000'000;  // ticks
  std::int32_t connectionsCount = 0;
};

}  // namespace orva::archive
