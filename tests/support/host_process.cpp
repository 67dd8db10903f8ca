#include "support/host_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

#include "support/temp_folder.h"

// ORVA_HOST_PROGRAM, ORVA_ADDIN_DIR and ORVA_LAUNCHER come from the build.

namespace orva::test {

namespace {

std::vector<std::string> commandLine(const std::vector<std::string>& arguments) {
  std::vector<std::string> command;
  std::istringstream launcher(ORVA_LAUNCHER);
  for (std::string word; launcher >> word;) command.push_back(word);
  command.emplace_back(ORVA_HOST_PROGRAM);
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

void redirect(int target, const std::string& file) {
  const int opened = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (opened >= 0) dup2(opened, target);
}

pid_t start(const std::vector<std::string>& command, const std::string& outFile,
            const std::string& errFile) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child != 0) return child;
  redirect(STDOUT_FILENO, outFile);
  redirect(STDERR_FILENO, errFile);
  execv(arguments[0], arguments.data());
  execvp(arguments[0], arguments.data());
  _exit(127);
}

int exitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

// Each start gets files of its own, so that the log of a former one stays readable.
std::string outputFile(const std::string& folder) {
  static std::atomic<int> counter{0};
  return folder + "/host_" + std::to_string(++counter);
}

}  // namespace

std::int64_t steadyMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void sleepMilliseconds(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

ProgramResult runProgram(const std::vector<std::string>& command, int timeoutMs) {
  const TempFolder folder;
  const pid_t child = start(command, folder.path("out"), folder.path("err"));
  int status = 0;
  const bool ended =
      waitUntil([&] { return waitpid(child, &status, WNOHANG) == child; }, timeoutMs);
  if (!ended) {
    ::kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  return {exitCodeOf(status), readFile(folder.path("out")), readFile(folder.path("err"))};
}

ProgramResult runHost(const std::vector<std::string>& arguments, int timeoutMs) {
  return runProgram(commandLine(arguments), timeoutMs);
}

HostProcess::HostProcess(const std::string& configFile, const std::vector<std::string>& further) {
  const std::string folder = std::filesystem::path(configFile).parent_path().string();
  const std::string output = outputFile(folder);
  outFile_ = output + ".out";
  logFile_ = output + ".log";
  std::vector<std::string> arguments{"--config", configFile, "--addins", ORVA_ADDIN_DIR};
  arguments.insert(arguments.end(), further.begin(), further.end());
  pid_ = start(commandLine(arguments), outFile_, logFile_);
}

HostProcess::~HostProcess() { killNow(); }

std::uint16_t HostProcess::waitUntilListening(int timeoutMs) {
  static const std::string kBegin = "listening on http://127.0.0.1:";
  std::string text;
  std::size_t at = std::string::npos;
  const auto listens = [&] {
    text = out();
    at = text.find(kBegin);
    return (at != std::string::npos && text.find('\n', at) != std::string::npos) || !running();
  };
  if (!waitUntil(listens, timeoutMs) || at == std::string::npos) return 0;
  return static_cast<std::uint16_t>(std::stoi(text.substr(at + kBegin.size())));
}

void HostProcess::signal(int number) {
  if (!reaped_) ::kill(pid_, number);
}

bool HostProcess::ended(int timeoutMs) {
  return waitUntil([this] { return !running(); }, timeoutMs);
}

bool HostProcess::running() {
  if (reaped_) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
  exitCode_ = exitCodeOf(status);
  reaped_ = true;
  return false;
}

int HostProcess::stop(int timeoutMs) {
  signal(SIGTERM);
  return waitForEnd(timeoutMs);
}

int HostProcess::waitForEnd(int timeoutMs) {
  if (!ended(timeoutMs)) killNow();
  return exitCode_;
}

void HostProcess::killNow() {
  if (reaped_) return;
  ::kill(pid_, SIGKILL);
  int status = 0;
  waitpid(pid_, &status, 0);
  exitCode_ = exitCodeOf(status);
  reaped_ = true;
}

std::string HostProcess::out() const { return readFile(outFile_); }
std::string HostProcess::log() const { return readFile(logFile_); }

bool HostProcess::waitForLog(const std::string& text, int timeoutMs) {
  return waitUntil([&] { return log().find(text) != std::string::npos; }, timeoutMs);
}

}  // namespace orva::test
