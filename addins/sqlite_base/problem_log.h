#pragma once

#include <cstdint>
#include <string>

#include "host/host_events.h"

namespace orva::sqlite {

// Tells what keeps an archive from working, and that it works again: in the trace, a problem that
// lasts once a minute, and as events of the host, the first problem and the end of them all.
//
// For the thread that writes the archive, under no lock: whoever listens to events is called.
class ProblemLog {
 public:
  // `provider` begins each line.
  ProblemLog(const char* provider, const std::string& file);

  // The place or the file could not be opened; ends with opened() or works().
  void cannotOpen(const std::string& problem);
  void opened();
  // The file is open, and a transaction failed; ends with works() alone, since opening the file
  // anew proves nothing.
  void failed(const std::string& problem);
  void works();
  // The file was there, but nothing was in it.
  void wasEmpty();
  // The file could not be read and was moved; a new one is begun.
  void movedAside(const std::string& name);

  // An event of this archive.
  void post(HostEventKind kind, HostEventSeverity severity, const std::string& text,
            std::int64_t count = 0) const;

 private:
  enum class Trouble { kNone, kOpening, kWriting };

  void report(const std::string& problem, Trouble trouble);

  const char* const provider_;
  const std::string file_;
  const std::string source_;
  Trouble trouble_ = Trouble::kNone;
  std::string last_;  // traced already
  std::int64_t lastAt_ = 0;
};

}  // namespace orva::sqlite
