#include "orva_host/archive_client.h"

#include <cstdio>
#include <cstring>
#include <exception>

namespace orva::host {
namespace {

constexpr const char* kSourceType = "sqlite3";

}  // namespace

ArchiveClient::~ArchiveClient() {
  stopping_.open();
  if (thread_.joinable()) thread_.join();
}

void ArchiveClient::start(std::function<void()> ended) {
  onEnd_ = std::move(ended);
  thread_ = std::thread([this] { run(); });
}

void ArchiveClient::stop(int graceMs) {
  stopping_.open();
  if (thread_.joinable()) ended_.waitFor(std::chrono::milliseconds(graceMs));
}

bool ArchiveClient::joinWithin(int graceMs) {
  if (!thread_.joinable()) return true;
  if (!ended_.waitFor(std::chrono::milliseconds(graceMs))) return false;
  thread_.join();
  return true;
}

void ArchiveClient::run() {
  try {
    executeAll();
  } catch (const std::exception& error) {
    report(error.what());
  }
  ended_.open();
  onEnd_();
}

void ArchiveClient::executeAll() {
  ArchiveCommands commands(
      [](int number) { return ArchiveAddin::GetArchiveSource(kSourceType, number); });
  if (!commands.use(0)) {
    report(std::string("no add-in offers archive sources of type \"") + kSourceType + "\"");
    return;
  }
  while (executeNext(commands)) {
  }
}

// False when there is no further command.
bool ArchiveClient::executeNext(ArchiveCommands& commands) {
  std::string line;
  switch (input_.next(line, stopping_)) {
    case LineInput::Result::line:
      return print(commands.execute(line));
    case LineInput::Result::tooLong:
      report("the line is too long");
      return true;
    case LineInput::Result::failed:
      report(std::strerror(input_.error()));
      return false;
    case LineInput::Result::stopped:
      report("stopped before the end of the commands");
      return false;
    default:
      return false;
  }
}

bool ArchiveClient::print(const CommandResult& result) {
  if (!result.out.empty()) {
    const bool written =
        std::fwrite(result.out.data(), 1, result.out.size(), stdout) == result.out.size() &&
        std::fflush(stdout) == 0;
    if (!written) {
      report("results cannot be written");
      return false;
    }
  }
  if (!result.error.empty()) report(result.error);
  return true;
}

void ArchiveClient::report(const std::string& what) {
  failed_ = true;
  std::fprintf(stderr, "%s:%lld: %s\n", input_.name().c_str(), input_.number(), what.c_str());
}

}  // namespace orva::host
