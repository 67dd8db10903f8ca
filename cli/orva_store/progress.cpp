#include "orva_store/progress.h"

#include <unistd.h>

#include <iostream>

#include "orva_store/amount_text.h"

namespace orva::store {
namespace {

constexpr std::chrono::milliseconds kShowEvery{200};

std::string whole(double number) { return std::to_string(static_cast<std::uint64_t>(number)); }

}  // namespace

std::string progressText(std::uint64_t done, std::uint64_t total, std::uint64_t count,
                         const char* unit, double seconds) {
  const double share =
      total == 0 ? 0 : static_cast<double>(done) / static_cast<double>(std::max(done, total));
  std::string text = total == 0 ? "" : whole(share * 100) + " %, ";
  text += std::to_string(count) + " " + unit;
  if (seconds <= 0) return text;
  text += ", " + whole(static_cast<double>(count) / seconds) + " " + unit + "/s";
  if (share > 0) text += ", " + durationText(seconds * (1 - share) / share) + " left";
  return text;
}

Progress::Progress(std::ostream* out, const char* unit)
    : out_(out), unit_(unit), begun_(Clock::now()), shownAt_(begun_) {}

std::ostream* Progress::terminal() { return ::isatty(STDERR_FILENO) != 0 ? &std::cerr : nullptr; }

void Progress::show(std::uint64_t done, std::uint64_t count) {
  const Clock::time_point now = Clock::now();
  if (now - shownAt_ < kShowEvery) return;
  shownAt_ = now;
  isShown_ = true;
  const double seconds = std::chrono::duration<double>(now - begun_).count();
  *out_ << "\r\033[K" << progressText(done, total_, count, unit_, seconds) << std::flush;
}

void Progress::clear() {
  if (isShown_) *out_ << "\r\033[K" << std::flush;
  isShown_ = false;
}

}  // namespace orva::store
