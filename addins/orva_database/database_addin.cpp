#include "orva_database/database_addin.h"

#include "host/archive_source.h"
#include "host/trace.h"
#include "orva_database/database_arch_source_factory.h"
#include "orva_database/guarded.h"
#include "orva_database/remote_archive_source.h"
#include "orva_database/request_processor.h"
#include "orva_database/service_metrics.h"
#include "orva_database/write_data_fb.h"
#include "share/archive_manager.h"
#include "share/events_archive_manager.h"
#include "share/status_codes.h"

namespace orva {

namespace {
constexpr unsigned kEveryEvent = 65535;

// The host's configuration events that concern this add-in; it fixes the numbers only.
constexpr ConfigProcessorMode kOfferSources = 0;
constexpr ConfigProcessorMode kStartArchives = 2;
constexpr ConfigProcessorMode kConfigureRemote = 3;
constexpr ConfigProcessorMode kStartRemote = 7;
constexpr ConfigProcessorMode kReload = 8;
constexpr ConfigProcessorMode kClear = 9;
}  // namespace

int archive::Init(HostCallback) { return 0; }

DataBaseAddin& DataBaseAddin::GetInstance() {
  static DataBaseAddin addin;
  return addin;
}

DataBaseAddin::DataBaseAddin()
    : dataManager_(&archive::DataArchiveManager::instance()),
      eventsManager_(&archive::EventsArchiveManager::instance()) {
  RegisterSTLibsWriteDataFB();
}

DataBaseAddin::~DataBaseAddin() = default;

int DataBaseAddin::Init(HostCallback) {
  int result = static_cast<int>(status::kBadOutOfMemory);  // when something throws
  guarded("DataBaseAddin::Init", [&] {
    AttachConfigProcessor("orva_database", kEveryEvent);
    if (processor_ == nullptr) processor_ = new RequestProcessor;
    result = processor_->Init();
    registerServiceMetrics();
  });
  if (result < 0) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: request_processor->Init() returns 0x%08X\n",
                    __FILE__, __LINE__, static_cast<unsigned>(result));
    return result;
  }
  return 0;
}

int DataBaseAddin::OnConfigEvent(ConfigProcessorMode mode, ControllerConfig*) {
  guarded("DataBaseAddin::OnConfigEvent", [this, mode] { handle(mode); });
  return 0;
}

void DataBaseAddin::handle(ConfigProcessorMode mode) {
  switch (mode) {
    case kOfferSources:
      ArchiveAddin::AddSourceFactory("sqlite3", new DatabaseArchSourceFactory);
      break;
    case kConfigureRemote:
      archive::RemoteArchiveSource::Instance()->Init();
      break;
    case kStartRemote:
      archive::RemoteArchiveSource::Instance()->Start();
      break;
    case kReload:
      archive::RemoteArchiveSource::Instance()->Stop();
      [[fallthrough]];
    case kStartArchives:
      dataManager_->init();
      eventsManager_->init();
      break;
    case kClear:
      dataManager_->clear();
      eventsManager_->clear();
      break;
    default:
      break;
  }
}

}  // namespace orva
