#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orva::test {

// What a program did that ran to its end.
struct ProgramResult {
  int exitCode = -1;  // minus the signal's number if one killed it
  std::string out;
  std::string err;
};

// Runs a program, the first word, and waits for its end; one that takes longer than `timeoutMs` is
// killed.
ProgramResult runProgram(const std::vector<std::string>& command, int timeoutMs = 30'000);

// Runs orva_host with these arguments, likewise.
ProgramResult runHost(const std::vector<std::string>& arguments, int timeoutMs = 30'000);

// The program orva_host at work in a process of its own, with a configuration that listens on
// "port": 0. Its log stands in a file of its own and stays readable after its end.
//
// Used by one thread.
class HostProcess {
 public:
  // Starts it, with these further arguments. `configFile`'s folder also gets the files of its
  // output.
  explicit HostProcess(const std::string& configFile, const std::vector<std::string>& further = {});
  ~HostProcess();  // kill -9 if it still runs
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  // Waits until it listens, and gives the port; 0 when it ended or said nothing for `timeoutMs`.
  std::uint16_t waitUntilListening(int timeoutMs = 30'000);

  void signal(int number);
  // SIGTERM, then waits for the end. Gives the exit code (see ProgramResult); one that does not end
  // within `timeoutMs` is killed.
  int stop(int timeoutMs = 20'000);
  // The same without the signal.
  int waitForEnd(int timeoutMs = 30'000);
  void killNow();  // kill -9, and waits for the end
  bool running();
  pid_t pid() const { return pid_; }

  std::string out() const;
  std::string log() const;
  // Waits until the log holds the text; false when it does not come.
  bool waitForLog(const std::string& text, int timeoutMs = 10'000);

 private:
  bool ended(int timeoutMs);

  std::string outFile_;
  std::string logFile_;
  pid_t pid_ = -1;
  bool reaped_ = false;
  int exitCode_ = -1;
};

// Calls `reached` every few milliseconds until it is true. False when it is not within the time.
template <class Condition>
bool waitUntil(Condition reached, int timeoutMs);

std::int64_t steadyMilliseconds();
void sleepMilliseconds(int milliseconds);

template <class Condition>
bool waitUntil(Condition reached, int timeoutMs) {
  const std::int64_t end = steadyMilliseconds() + timeoutMs;
  while (!reached()) {
    if (steadyMilliseconds() >= end) return false;
    sleepMilliseconds(5);
  }
  return true;
}

}  // namespace orva::test
