#pragma once

#include "host/addin_base.h"
#include "share/orva_export.h"

namespace orva {

namespace archive {
class DataArchiveManager;
class EventsArchiveManager;
// What InitAddin() forwards to: nothing is done before the host calls DataBaseAddin::Init().
int Init(HostCallback callback);
}  // namespace archive

class RequestProcessor;

// The add-in as the host sees it. The host calls Init() and then delivers configuration events, on
// one thread. Exported for the host; nothing inside the add-in calls it.
class ORVA_API DataBaseAddin : public AddinBase {
 public:
  static DataBaseAddin& GetInstance();
  DataBaseAddin(const DataBaseAddin&) = delete;
  DataBaseAddin& operator=(const DataBaseAddin&) = delete;

  // Asks for all configuration events and registers the JSON handlers. 0, or the negative status
  // of a registration that failed. A further call repeats that with the same request processor,
  // which holds the asynchronous reads.
  int Init(HostCallback callback);

  //  0  offers the host sources of its older archive interface, of the type "sqlite3"
  //  2  both managers read their configuration and start their archives
  //  3  the remote archive source reads its configuration
  //  7  the remote archive source starts
  //  8  it stops, and the managers do as at 2; archives that exist go on as they are, so nothing
  //     that is bound to them is lost
  //  9  the archives end; 2 may follow
  //  everything else: nothing
  // Always 0, whatever the managers do.
  int OnConfigEvent(ConfigProcessorMode mode, ControllerConfig* config) override;
  ~DataBaseAddin() override;

 private:
  DataBaseAddin();

  void handle(ConfigProcessorMode mode);

  RequestProcessor* processor_ = nullptr;  // from Init() on; never freed: requests may be served
  archive::DataArchiveManager* const dataManager_;
  archive::EventsArchiveManager* const eventsManager_;
};

}  // namespace orva
