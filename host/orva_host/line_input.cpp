#include "orva_host/line_input.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace orva::host {
namespace {

constexpr std::size_t kBytesAtOnce = 64 * 1024;
constexpr int kLookAtGateMs = 50;

}  // namespace

LineInput::~LineInput() {
  if (file_ > STDIN_FILENO) static_cast<void>(::close(file_));  // nothing was written
}

int LineInput::open(const std::string& path) {
  if (path.empty() || path == "-") {
    name_ = "stdin";
    file_ = STDIN_FILENO;
    return 0;
  }
  name_ = path;
  file_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  return file_ < 0 ? errno : 0;
}

LineInput::Result LineInput::next(std::string& out, const Gate& stop) {
  out.clear();
  bool begun = false;
  bool tooLong = false;
  while (true) {
    if (stop.isOpen()) return Result::stopped;
    if (begin_ < buffer_.size()) {
      if (!begun) ++number_;
      begun = true;
      if (takeFromBuffer(out, tooLong)) break;
    }
    if (!waitForInput(stop)) continue;
    if (fill()) continue;
    if (error_ != 0) return Result::failed;
    if (!begun) return Result::end;
    break;
  }
  return tooLong ? Result::tooLong : Result::line;
}

bool LineInput::takeFromBuffer(std::string& out, bool& tooLong) {
  const std::size_t feed = buffer_.find('\n', begin_);
  const std::size_t end = feed == std::string::npos ? buffer_.size() : feed;
  if (out.size() + (end - begin_) > kLongestLine) tooLong = true;
  if (!tooLong) out.append(buffer_, begin_, end - begin_);
  begin_ = feed == std::string::npos ? end : feed + 1;
  return feed != std::string::npos;
}

bool LineInput::waitForInput(const Gate& stop) {
  pollfd input{file_, POLLIN, 0};
  while (!stop.isOpen()) {
    // Anything but a time-out is something that reading tells better.
    if (::poll(&input, 1, kLookAtGateMs) != 0) return true;
  }
  return false;
}

bool LineInput::fill() {
  buffer_.resize(kBytesAtOnce);
  begin_ = 0;
  ssize_t count = 0;
  do {
    count = ::read(file_, buffer_.data(), buffer_.size());
  } while (count < 0 && errno == EINTR);
  if (count < 0) error_ = errno;
  buffer_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return count > 0;
}

}  // namespace orva::host
