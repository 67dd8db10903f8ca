#include "orva_host/host_app.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "host/host_events.h"
#include "host/trace.h"
#include "orva_host/addin_loader.h"
#include "orva_host/archive_client.h"
#include "orva_host/config_events.h"
#include "orva_host/config_file.h"
#include "orva_host/config_sections.h"
#include "orva_host/history_route.h"
#include "orva_host/host_metrics.h"
#include "orva_host/host_network.h"
#include "orva_host/http_methods.h"
#include "orva_host/http_server.h"
#include "orva_host/metrics_route.h"
#include "orva_host/program_runner.h"
#include "orva_host/signal_thread.h"
#include "orva_host/source_runner.h"
#include "orva_host/static_files.h"
#include "orva_host/trace_log.h"
#include "orva_host/variables.h"

namespace orva::host {
namespace {

// Time for requests that are being served when the host stops.
constexpr int kRequestGraceMs = 500;
// Time for what still runs once the archives are closed, and so nothing can wait for them.
constexpr int kLastGraceMs = 1000;

bool failed(const std::string& error) {
  if (!error.empty()) std::fprintf(stderr, "%s\n", error.c_str());
  return !error.empty();
}

void deliver(std::initializer_list<int> modes) {
  for (const int mode : modes) deliverConfigEvent(mode);
}

void useInstallation(const HostConfig& config) {
  std::vector<std::pair<vm::Item, vm::ArchivedLayers>> variables;
  variables.reserve(config.variables.size());
  for (const VariableCfg& variable : config.variables) {
    variables.emplace_back(variable.item, variable.layers);
  }
  replaceConfigSections(config.sections);
  replaceInstallation(variables, config.layers);
}

void postEvent(HostEventKind kind, HostEventSeverity severity, const std::string& text) {
  postHostEvent(kind, severity, "orva_host", text.c_str());
}

// 0, or the errno of the attempt to open the log.
int useLog(const LogCfg& log) {
  setTraceLevels(log.levels);
  return setTraceFile(log.file);
}

}  // namespace

struct HostApp::Parts {
  SignalThread signals;  // first, so that all other threads have the signals blocked
  HostConfig config;
  std::vector<Addin> addins;
  ArchiveClient client;
  ProgramRunner programs;
  SourceRunner sources;
  HostNetwork network;
  HttpServer http;
  HostMetrics metrics{http, network};
};

HostApp::HostApp(CommandLine options)
    : options_(std::move(options)),
      configFile_(std::filesystem::absolute(options_.config).string()) {}
HostApp::~HostApp() = default;

int HostApp::run() {
  parts_ = std::make_unique<Parts>();
  if (!readConfig() || !openScript() || !prepare()) return EXIT_FAILURE;
  if (options_.checkConfig) return check();
  const bool started = start();
  if (started) serve();
  stop();
  return started && !parts_->client.failed() ? EXIT_SUCCESS : EXIT_FAILURE;
}

bool HostApp::readConfig() {
  std::vector<std::string> errors;
  if (!readConfigFile(options_.config, parts_->config, errors)) {
    for (const std::string& error : errors) failed(error);
    return false;
  }
  HttpCfg& http = parts_->config.http;
  if (options_.port) {
    http.enabled = true;
    http.port = *options_.port;
  }
  return true;
}

// Before prepare() changes the working folder: the script's path is the caller's.
bool HostApp::openScript() {
  if (!options_.archiveClient) return true;
  const int error = parts_->client.open(*options_.archiveClient);
  return error == 0 || !failed(*options_.archiveClient + ": " + std::strerror(error));
}

bool HostApp::prepare() {
  HostConfig& config = parts_->config;
  const std::vector<std::string> folders = addinFolders(options_.addins);
  // Paths that add-ins find in their sections are relative to the file's folder, too.
  if (chdir(config.folder.c_str()) != 0) {
    return !failed(config.folder + ": " + std::strerror(errno));
  }
  if (const int error = useLog(config.log); error != 0) {
    return !failed(options_.config + ": log.file: \"" + config.log.file +
                   "\" cannot be written: " + std::strerror(error));
  }
  useInstallation(config);
  std::string error;
  parts_->addins = loadAddins(config.addins, folders, error);
  return !failed(error);
}

int HostApp::check() {
  const HostConfig& config = parts_->config;
  std::printf("%s: fine\n", options_.config.c_str());
  std::printf("%zu add-ins, %zu layers, %zu variables, %zu programs, %zu sources\n",
              config.addins.size(), config.layers.size(), config.variables.size(),
              config.programs.size(), config.sources.size());
  return EXIT_SUCCESS;
}

bool HostApp::start() {
  postEvent(HostEventKind::kStarted, HostEventSeverity::kInformation,
            "version " ORVA_VERSION ", configuration " + configFile_);
  if (!options_.archiveClient && failed(parts_->network.open(parts_->config.network))) return false;
  if (failed(startAddins(parts_->addins))) return false;
  deliver({0, 1, 2});
  // The archives are there, and other controllers may ask for them.
  parts_->network.serve();
  deliver({3, 4, 5, 6, 7});
  if (options_.archiveClient) {
    parts_->client.start([this] { parts_->signals.give(SIGTERM); });
    return true;
  }
  // Those that cannot start say so in the log, the others run.
  parts_->sources.start(parts_->config.sources);
  parts_->programs.start(parts_->config.programs);
  return !parts_->config.http.enabled || listen();
}

bool HostApp::listen() {
  HttpServer& http = parts_->http;
  http.add(methodsRoute());
  http.add(itemsRoute());
  http.add(metricsRoute());
  http.add(historyRoute());
  const std::string& web = parts_->config.http.web;
  for (HttpRoute& route : pageRoutes(web.empty() ? defaultWebFolder() : web)) {
    http.add(std::move(route));
  }
  if (const std::string error = http.start(parts_->config.http); !error.empty()) {
    return !failed(error + "; see \"http\" in " + options_.config +
                   ", or give another port with --port");
  }
  std::printf("listening on %s\n", http.address().c_str());
  std::fflush(stdout);
  return true;
}

void HostApp::serve() {
  std::optional<std::chrono::steady_clock::time_point> end;
  if (options_.seconds) {
    end = std::chrono::steady_clock::now() + std::chrono::seconds(*options_.seconds);
  }
  while (true) {
    const int signal = parts_->signals.next(end);
    if (signal == SIGHUP) {
      reread();
    } else if (signal == SIGUSR1) {
      rebuildArchives();
    } else {
      return;
    }
  }
}

void HostApp::reread() {
  HostConfig config;
  std::vector<std::string> errors;
  if (!readConfigFile(configFile_, config, errors)) {
    for (const std::string& error : errors) logMsg("%s\n", error.c_str());
    logMsg("the configuration stays as it was\n");
    postEvent(HostEventKind::kConfigurationRefused, HostEventSeverity::kError,
              errors.empty() ? configFile_ : errors.front());
    return;
  }
  if (const int error = useLog(config.log); error != 0) {
    logMsg("%s: %s\n", config.log.file.c_str(), std::strerror(error));
  }
  useInstallation(config);
  parts_->network.reread(config.network);
  deliver({8, 3, 7});
  logMsg("the configuration was read again\n");
  postEvent(HostEventKind::kConfigurationRead, HostEventSeverity::kInformation, configFile_);
}

void HostApp::rebuildArchives() {
  deliver({9, 2});
  logMsg("the archives were built anew\n");
  postEvent(HostEventKind::kArchivesRebuilt, HostEventSeverity::kInformation, "events 9 and 2");
}

void HostApp::stop() {
  parts_->programs.stop();
  parts_->sources.stop();
  parts_->http.stop(kRequestGraceMs);
  parts_->network.stop();
  parts_->client.stop(kRequestGraceMs);
  // Before event 9, which ends the archives that store it.
  postEvent(HostEventKind::kStopping, HostEventSeverity::kInformation, "");
  deliver({8, 9});
  const bool servedHttp = parts_->http.joinWithin(kLastGraceMs);
  const bool servedAll = parts_->network.joinWithin(kLastGraceMs) && servedHttp;
  if (parts_->client.joinWithin(kLastGraceMs) && servedAll) return;
  // A handler that waits for nothing of ours any more will not end. Everything accepted is
  // stored, so the process may go without it.
  logMsg("a request did not end\n");
  std::fflush(nullptr);
  _exit(options_.archiveClient ? EXIT_FAILURE : EXIT_SUCCESS);
}

}  // namespace orva::host
