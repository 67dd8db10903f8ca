#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/opcua_types.h"
#include "host/trace.h"
#include "host/vm_info.h"
#include "orva_host/network_config.h"

namespace orva::host {

// Which diagnostics are shown and where.
struct LogCfg {
  std::uint32_t levels = kTraceError | kTraceWarning;  // bit mask
  std::string file;                                    // empty: stderr
};

struct VariableCfg {
  vm::Item item;
  vm::ArchivedLayers layers;
};

// A Lua program that runs once per cycle.
struct ProgramCfg {
  std::string name;
  std::string file;  // absolute
  int cycleMs = 1000;
};

// Something that sets live values of variables.
struct SourceCfg {
  std::string type;     // "system" or "csv"
  int periodMs = 1000;  // "system": how often the signals are read
  // Signal name ("system") or column name ("csv") -> variable id. A column that is not named here
  // belongs to the variable whose path is the column's name, if there is one.
  std::map<std::string, std::int64_t> values;
  std::string file;    // "csv": absolute
  double speed = 1.0;  // "csv": file time per real time; 0: as fast as it goes
};

struct HttpLimits {
  std::uint32_t bodyBytes = 1U << 20;
  std::uint32_t headerBytes = 8192;
  int headerTimeMs = 10'000;  // to receive a request's header
  int bodyTimeMs = 10'000;    // to receive a request's body
  int idleTimeMs = 60'000;    // how long a connection may wait for its next request
  std::uint32_t connections = 64;
  int threads = 8;  // requests served at one time
};

struct HttpCfg {
  bool enabled = false;  // the file has the section
  std::string bind = "127.0.0.1";
  std::uint16_t port = 8580;  // 0: any free one
  std::string token;          // empty: nobody has to show one
  std::string web;            // the folder of the pages; empty: beside the program
  HttpLimits limits;
};

// The whole configuration file. Paths are absolute.
struct HostConfig {
  LogCfg log;
  std::vector<std::string> addins;  // a bare file name, or an absolute path
  std::vector<vm::Layer> layers;
  std::vector<VariableCfg> variables;
  std::vector<ProgramCfg> programs;
  std::vector<SourceCfg> sources;
  HttpCfg http;
  NetworkCfg network;
  // What add-ins get as text: "DataArchive", "EventsArchive", "RemoteData" and "network", those
  // that the file has.
  std::map<std::string, std::string> sections;
  std::string folder;  // of the file, absolute
};

// Reads and checks a configuration file. What is wrong goes into `errors`, one text per fault in
// the form "<file>: <section>.<field>: <what is wrong>"; true when there is none.
bool readConfigFile(const std::string& path, HostConfig& out, std::vector<std::string>& errors);

// The same for a text that was read from `path`.
bool readConfigText(const std::string& text, const std::string& path, HostConfig& out,
                    std::vector<std::string>& errors);

}  // namespace orva::host
