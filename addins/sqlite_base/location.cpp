#include "sqlite_base/location.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "host/host_time.h"
#include "share/ticks.h"

namespace orva::sqlite {
namespace {

namespace fs = std::filesystem;

std::string fileOf(const std::string& configured, const char* usualName) {
  if (configured.empty()) return {};
  const fs::path path(configured);
  std::error_code error;
  if (fs::is_directory(path, error)) return (path / usualName).string();
  if (fs::exists(path, error)) return configured;
  return path.has_extension() ? configured : (path / usualName).string();
}

// "20240101-000000" of the current time, UTC.
std::string timeText() {
  const long long seconds = (getInt64FileTime() - kUnixEpochTicks) / kTicksPerSecond;
  const long long day = seconds / 86400 - (seconds % 86400 < 0 ? 1 : 0);
  const long long inDay = seconds - day * 86400;
  // Civil date of a day count, by eras of 400 years that begin in March.
  const long long shifted = day + 719468;
  const long long era = (shifted >= 0 ? shifted : shifted - 146096) / 146097;
  const long long dayOfEra = shifted - era * 146097;
  const long long year = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const long long dayOfYear = dayOfEra - (365 * year + year / 4 - year / 100);
  const long long month = (5 * dayOfYear + 2) / 153;
  char text[64];
  std::snprintf(text, sizeof text, "%04lld%02lld%02lld-%02lld%02lld%02lld",
                year + era * 400 + (month >= 10 ? 1 : 0), month < 10 ? month + 3 : month - 9,
                dayOfYear - (153 * month + 2) / 5 + 1, inDay / 3600, inDay / 60 % 60, inDay % 60);
  return text;
}

std::string freeName(const std::string& file) {
  const std::string base = file + ".unreadable-" + timeText();
  std::error_code error;
  std::string name = base;
  for (int n = 2; fs::exists(name, error); ++n) name = base + "-" + std::to_string(n);
  return name;
}

}  // namespace

Location::Location(const std::string& configured, const char* usualName)
    : file_(fileOf(configured, usualName)) {}

Location::Claim Location::claim(std::string& problem) {
  if (lock_ >= 0) return Claim::kOurs;
  if (file_.empty()) {
    problem = "no location is configured";
    return Claim::kUnreachable;
  }
  std::error_code error;
  const fs::path folder = fs::path(file_).parent_path();
  if (!folder.empty()) fs::create_directories(folder, error);
  if (error) {
    problem = "folder " + folder.string() + " cannot be made: " + error.message();
    return Claim::kUnreachable;
  }
  const std::string lockFile = file_ + ".lock";
  const int descriptor = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (descriptor < 0) {
    problem = lockFile + " cannot be opened: " + std::strerror(errno);
    return Claim::kUnreachable;
  }
  if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
    lock_ = descriptor;
    return Claim::kOurs;
  }
  const int reason = errno;
  ::close(descriptor);
  if (reason == EWOULDBLOCK) {
    problem = lockFile + " is locked";
    return Claim::kTaken;
  }
  problem = lockFile + " cannot be locked: " + std::strerror(reason);
  return Claim::kUnreachable;
}

void Location::unlock() {
  if (lock_ >= 0) ::close(lock_);
  lock_ = -1;
}

std::string Location::moveAside(std::string& problem) const {
  std::string name = freeName(file_);
  std::error_code error;
  fs::rename(file_, name, error);
  if (error) {
    problem = file_ + " cannot be renamed: " + error.message();
    return {};
  }
  // The log belongs to the file; what is left of it would be taken for the new file's.
  fs::rename(file_ + "-wal", name + "-wal", error);
  if (error) fs::remove(file_ + "-wal", error);
  fs::remove(file_ + "-shm", error);
  return name;
}

}  // namespace orva::sqlite
