#include "support/trace_capture.h"

#include <algorithm>

namespace orva::test {

TraceCapture::TraceCapture() { host::setTraceHook(this); }
TraceCapture::~TraceCapture() { host::setTraceHook(nullptr); }

std::vector<host::TraceLine> TraceCapture::lines() const {
  MutexLock lock(mutex_);
  return lines_;
}

std::vector<std::string> TraceCapture::texts() const {
  std::vector<std::string> all;
  for (const host::TraceLine& line : lines()) all.push_back(line.text);
  return all;
}

int TraceCapture::count(const std::string& text) const {
  const auto all = texts();
  return static_cast<int>(std::count(all.begin(), all.end(), text));
}

int TraceCapture::countContaining(const std::string& part) const {
  int found = 0;
  for (const std::string& text : texts()) found += text.find(part) != std::string::npos ? 1 : 0;
  return found;
}

void TraceCapture::clear() {
  MutexLock lock(mutex_);
  lines_.clear();
}

void TraceCapture::onLine(const host::TraceLine& line) {
  MutexLock lock(mutex_);
  lines_.push_back(line);
}

}  // namespace orva::test
