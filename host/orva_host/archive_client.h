#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "orva_host/archive_commands.h"
#include "orva_host/gate.h"
#include "orva_host/line_input.h"

namespace orva::host {

// An older-style client: executes commands, a line each, on the archive sources of type "sqlite3".
// Results go to stdout, what failed to stderr as "SCRIPT:LINE: what is wrong"; it goes on with the
// next command then.
//
// Works on a thread of its own, so that the host can stop while a command waits for its archive.
class ArchiveClient {
 public:
  ArchiveClient() = default;
  ~ArchiveClient();
  ArchiveClient(const ArchiveClient&) = delete;
  ArchiveClient& operator=(const ArchiveClient&) = delete;

  // Opens the file with the commands; "-" and an empty path are stdin. 0, or an errno.
  int open(const std::string& script) { return input_.open(script); }
  // `ended` is called on the client's thread when there is no further command.
  void start(std::function<void()> ended);
  // Begins no further command, and gives the one that runs so much time.
  void stop(int graceMs);
  // Whether the thread has ended, or never was. It may wait for an archive.
  bool joinWithin(int graceMs);
  // Whether a command failed, or was not reached.
  bool failed() const { return failed_; }

 private:
  void run();
  void executeAll();
  bool executeNext(ArchiveCommands& commands);
  bool print(const CommandResult& result);
  void report(const std::string& what);

  LineInput input_;  // the client's thread only, once that runs
  Gate stopping_;
  Gate ended_;
  std::atomic<bool> failed_{false};
  std::function<void()> onEnd_;
  std::thread thread_;
};

}  // namespace orva::host
