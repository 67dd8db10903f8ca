#include "host/trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "host/host_time.h"
#include "orva_host/served_request.h"
#include "orva_host/time_text.h"
#include "orva_host/trace_log.h"
#include "share/mutex.h"

namespace orva::host {
namespace {

// Longer texts are cut: a trace must not allocate, it may be about a lack of memory.
constexpr int kMaxText = 4096;
constexpr int kMaxPrefix = 256;

std::atomic<std::uint32_t> levelsShown{kTraceError | kTraceWarning};

std::atomic<bool> isHooked{false};  // read without the lock to spare it when there is no hook
Mutex hookMutex(LockClass::kTrace);
TraceHook* hook GUARDED_BY(hookMutex) = nullptr;

// The descriptor lines are written to. Its number never changes: another file is put behind it, so
// writers need no lock.
int logDescriptor() {
  static const int descriptor = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  return descriptor >= 0 ? descriptor : STDERR_FILENO;
}

const char* levelName(std::uint32_t level) {
  if (level == 0) return "INFO";
  if ((level & kTraceError) != 0) return "ERROR";
  if ((level & kTraceWarning) != 0) return "WARNING";
  return "TRACE";
}

const char* baseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

// Cuts trailing newlines and makes control characters harmless: one text is one line.
int cleaned(char* text, int length) {
  while (length > 0 && text[length - 1] == '\n') --length;
  for (int i = 0; i < length; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7F) text[i] = ' ';
  }
  return length;
}

int clamped(int printed, int capacity) {
  if (printed < 0) return 0;
  return printed < capacity ? printed : capacity - 1;
}

int prefixOf(char* out, std::uint32_t level, const char* file, int line) {
  char now[kUtcTextSize];
  utcText(getInt64FileTime(), now);
  char served[64];
  servedRequestText(served, sizeof served);
  const char* space = served[0] == '\0' ? "" : " ";
  int length =
      file == nullptr
          ? std::snprintf(out, kMaxPrefix, "%s %s%s%s: ", now, levelName(level), space, served)
          : std::snprintf(out, kMaxPrefix, "%s %s %.100s:%d%s%s: ", now, levelName(level),
                          baseName(file), line, space, served);
  return clamped(length, kMaxPrefix);
}

bool writeLine(const char* line, int length) {
  ssize_t written = 0;
  do {
    written = write(logDescriptor(), line, static_cast<std::size_t>(length));
  } while (written < 0 && errno == EINTR);
  return written == length;
}

// Whether the hook took the line.
bool hooked(std::uint32_t level, const char* file, int line, const char* text) {
  if (!isHooked.load(std::memory_order_acquire)) return false;
  MutexLock lock(hookMutex);
  if (hook == nullptr) return false;
  try {
    hook->onLine({level, file == nullptr ? "" : file, line, text});
  } catch (...) {
    return false;
  }
  return true;
}

int emit(std::uint32_t level, const char* file, int line, const char* format, va_list arguments) {
  char buffer[kMaxPrefix + kMaxText + 1];
  char text[kMaxText];
  int length = clamped(std::vsnprintf(text, sizeof text, format, arguments), kMaxText);
  if (hooked(level, file, line, text)) return length;
  const int prefix = prefixOf(buffer, level, file, line);
  length = cleaned(text, length);
  std::memcpy(buffer + prefix, text, static_cast<std::size_t>(length));
  buffer[prefix + length] = '\n';
  return writeLine(buffer, prefix + length + 1) ? length : -1;
}

}  // namespace

void setTraceLevels(std::uint32_t levels) { levelsShown = levels; }

int setTraceFile(const std::string& path) {
  const int opened = path.empty()
                         ? fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)
                         : open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (opened < 0) return errno;
  const int result = dup3(opened, logDescriptor(), O_CLOEXEC) < 0 ? errno : 0;
  close(opened);
  return result;
}

void setTraceHook(TraceHook* newHook) {
  MutexLock lock(hookMutex);
  hook = newHook;
  isHooked.store(newHook != nullptr, std::memory_order_release);
}

}  // namespace orva::host

void OpcUa_Trace_Imp(std::uint32_t level, const char* format, const char* file, int line, ...) {
  using namespace orva::host;
  const bool shown = (level & levelsShown.load(std::memory_order_relaxed)) != 0;
  if (!shown && !isHooked.load(std::memory_order_relaxed)) return;
  va_list arguments;
  va_start(arguments, line);
  emit(level, file, line, format, arguments);
  va_end(arguments);
}

int logMsg(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = orva::host::emit(0, nullptr, 0, format, arguments);
  va_end(arguments);
  return result;
}
