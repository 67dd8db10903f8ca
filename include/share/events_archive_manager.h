#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "share/archive_configs.h"
#include "share/json.h"
#include "share/orva_export.h"

namespace orva::archive {

// An archive of events. It does all its work by itself once it is started; when its last reference
// goes it stores what it still holds and ends.
class IEventsArchiveProc {
 public:
  virtual ~IEventsArchiveProc() = default;
  // Ends the archive. The manager never calls it: archives end by their destructor.
  virtual void stop() = 0;
  // Called once after creation, on the host's configuration thread. The manager is locked
  // meanwhile: start() must not wait for another thread that uses it.
  virtual void start() = 0;
};

class IEventsArchiveProcFactory {
 public:
  virtual ~IEventsArchiveProcFactory() = default;
  // Never an empty reference: that ends the process. One that throws leaves its archive out.
  virtual boost::shared_ptr<IEventsArchiveProc> create(const ArchiveCfg& limits,
                                                       const ConnectionCfg& connection) = 0;
};

// Owner of the archives of events: the registry of their provider factories and the configured
// archives. It neither reads nor writes events.
//
// Thread-safe, regFactory() apart.
class ORVA_API EventsArchiveManager {
 public:
  static EventsArchiveManager& instance();
  ~EventsArchiveManager();
  EventsArchiveManager(const EventsArchiveManager&) = delete;
  EventsArchiveManager& operator=(const EventsArchiveManager&) = delete;

  // A later factory of the same name replaces the earlier. Not owned. Takes no lock: register
  // while the host loads add-ins, before init().
  void regFactory(const std::string& providerType, IEventsArchiveProcFactory* factory);

  // Reads the section "EventsArchive" and starts its archives; does nothing while archives exist.
  // 0, or the negative status of the parse helper.
  int init();
  // Creates, starts and keeps the archive that the entry describes; nothing when no factory has its
  // provider type.
  void addArchive(int number, const json::Value& entry);
  // Lets go of every archive, by ascending number, under no lock; init() may follow.
  void clear();

  std::int32_t defaultArchive() const;
  // The archive of that number; empty when there is none.
  boost::shared_ptr<IEventsArchiveProc> archive(int number) const;

 private:
  EventsArchiveManager();

  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace orva::archive
