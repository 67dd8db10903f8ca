#pragma once

#include <boost/optional.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/archive_rec.h"
#include "host/archive_request.h"
#include "host/host_export.h"
#include "share/json.h"

// The host's older archive interface: sources of archived values, made by factories that add-ins
// register with the host's archive add-in. Items have signed 32-bit "legacy" ids here. Results are
// OPC UA status codes; 0x803E0000 says that an item is unknown.

// Counters of a source. Plain values: whoever uses them sees to it that one thread does.
struct StatParam {
  std::int64_t value = 0;
  void Add(std::int64_t amount) { value += amount; }
};
struct MinStatParam {
  std::int64_t value = INT64_MAX;
  void Add(std::int64_t amount) {
    if (amount < value) value = amount;
  }
};
struct MaxStatParam {
  std::int64_t value = INT64_MIN;
  void Add(std::int64_t amount) {
    if (amount > value) value = amount;
  }
};

// What a source counts about itself. Times in ticks.
struct ArchiveStatistics {
  StatParam reads, writes, deletes;           // operations
  StatParam readTime, writeTime, deleteTime;  // together
  MinStatParam minReadTime, minWriteTime;     // of one operation
  MaxStatParam maxReadTime, maxWriteTime;
};

// What a source keeps to. 0: no limit.
struct ArchiveLimits {
  std::uint32_t maxQueuedRequests = 0;
  std::uint32_t maxRecordsPerRequest = 0;
  std::int64_t maxTime = 0;  // ticks
};

class ORVA_HOST_API BaseSource {
 public:
  // This host has no settings for sources and does not call it.
  virtual void LoadArchSettings(const orva::json::Value* settings) = 0;
  virtual ~BaseSource();

  // What keeps the values: "memory", a server, a file.
  const std::string& Description() const { return description_; }
  void SetDescription(std::string text) { description_ = std::move(text); }

 private:
  std::string description_;
};

class ORVA_HOST_API ArchiveSource : public BaseSource {
 public:
  // The order of the virtual operations is part of the interface.

  // Called once, before InitSource() and anything else; `settings` is a JSON null where the
  // configuration says nothing about the source.
  virtual int Init(int number, const orva::json::Value* settings) = 0;
  virtual int GetArchiveItemId(long long id, const std::string& name, const std::string& second,
                               int& out) = 0;
  virtual int FindArchiveItemId(long long id, const std::string& path, int& out) = 0;
  virtual int AddValue(int item, const ArchiveRec& rec) = 0;
  virtual int SetDisableWriteByChange(int item, bool disable) = 0;
  virtual bool GetDisableWriteByChange(int item) = 0;
  virtual int AddRequest(ArchiveRequest* request) = 0;
  virtual int SetFilter(int item, boost::optional<bool> allValues,
                        boost::optional<bool> writeByChange,
                        boost::optional<long long> maxWritePeriod,
                        boost::optional<long long> minWritePeriod, boost::optional<double> deadband,
                        boost::optional<bool> blocksWrite) = 0;
  virtual int GetLastTime(int item, long long& out) = 0;
  // Takes a request out of the queue that a host may keep for sources without one of their own.
  // This host keeps none, so the base answers 0x803E0000: what was taken stays under way.
  virtual int RemoveRequest(ArchiveRequest* request);
  virtual int InitSource() = 0;
  virtual int DestroySource() = 0;
  virtual int ExecuteWrite(std::map<int, std::vector<ArchiveRec>>& records) = 0;
  virtual int ExecuteRead(ArchiveRequest* request) = 0;
  virtual int ReadItemList(ArchiveRequest* request) = 0;
  virtual int ExecuteDelete(unsigned int item, int* deleted) = 0;

  ArchiveStatistics statistics;
  ArchiveLimits limits;
};

class ORVA_HOST_API ArchiveSourceFactory {
 public:
  // The caller owns the new source.
  virtual ArchiveSource* CreateArchiveSource() = 0;
  virtual ~ArchiveSourceFactory();
};

// The host's archive add-in: the registry of factories and the sources in use. Thread-safe.
class ORVA_HOST_API ArchiveAddin {
 public:
  // Takes the factory over; a later one of the same type replaces the earlier for sources to come,
  // those made already stay. 0, or a negative status for an empty type or no factory: then the
  // factory stays the caller's.
  static int AddSourceFactory(const std::string& type, ArchiveSourceFactory* factory);
  // The source of that type and number: made by the type's factory and initialised (Init(), then
  // InitSource()) on the first call, the same one from then on, valid until the process ends. Null
  // when the type is unknown or the source cannot be made or initialised (traced); the next call
  // tries again. Threads that ask for a source while another makes it wait for that; a source that
  // asks for itself while it is made gets null.
  static ArchiveSource* GetArchiveSource(const std::string& type, int number = 0);
};
