#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <utility>

#include "share/archive_configs.h"
#include "share/archive_request.h"
#include "share/orva_export.h"
#include "share/write_filter.h"

// What an archive provider implements. A provider is an add-in that registers a factory with the
// data archive manager when it is initialised (share/archive_manager.h):
//
//   extern "C" int InitAddin(HostCallback) {
//     static MyFactory factory;   // lives as long as the process
//     orva::archive::DataArchiveManager::instance().regFactory("mine", &factory);
//     return 0;
//   }

namespace orva::archive {

// (item id, path): what an archived variable is known by.
using ItemKey = std::pair<std::int64_t, std::string>;

// Through it the cache hands new samples of one item and one layer to the archive. Owned by the
// provider, valid until its stop() returned.
class ORVA_API ILayerWriter {
 public:
  // Called under the item's lock, in ascending time, never twice at once for one writer: put the
  // sample into a bounded buffer and return. Never wait for storage, never call back. With a full
  // buffer drop this sample, count it, and trace at most one line a second.
  virtual void write(const PinPtr& pin) = 0;
  // Whether half of the buffer is used, or more: whoever can wait with its samples, since it gets
  // them from a place that keeps them, does. Called like write().
  virtual bool crowded() const { return false; }
  virtual ~ILayerWriter() = default;
};

// One archive. All operations may be called from several threads at once.
class ORVA_API IDataArchive {
 public:
  // Answers the interval (see Interval), now or later on a thread of the provider's. Sees every
  // sample that write() accepted before. After stop() it finalises at once.
  virtual void read(const SharedInterval& interval) = 0;
  // The archive's number for an item, 0 if it does not hold it; 0 for every item after stop().
  // Holding means having samples of it or a writer for it.
  virtual std::uint32_t itemHandle(const ItemKey& key) = 0;
  virtual const Filter& filter() = 0;
  // `parameter` is the layer parameter of the host's variable description.
  virtual ILayerWriter& layerWriter(const ItemKey& key, std::int32_t layer,
                                    std::int64_t parameter) = 0;
  // The archive's "filter" object; before start(). Copy what is kept.
  virtual void loadFilter(const json::Value& filter) = 0;
  virtual ~IDataArchive() = default;
};

class ORVA_API IDataArchiveProc {
 public:
  virtual IDataArchive* archive() = 0;  // owned by the provider, the same one for life
  virtual void start() = 0;             // once, after loadFilter()
  // Writes what is buffered, finalises the reads it holds, joins its threads. Waits for no
  // call-back into the manager; called under none of the manager's locks. The last reference may
  // die later and on any thread.
  virtual void stop() = 0;
  virtual ~IDataArchiveProc() = default;
};

class ORVA_API IDataArchiveProcFactory {
 public:
  // Never empty: an empty reference stops the process. Failing to reach the storage is no reason:
  // report it, and try again later.
  virtual boost::shared_ptr<IDataArchiveProc> create(const ArchiveCfg& limits,
                                                     const ConnectionCfg& connection) = 0;
  virtual ~IDataArchiveProcFactory() = default;
};

}  // namespace orva::archive
