#pragma once

#include <cstdint>
#include <string>

namespace orva::host {

// Where the host's diagnostics go: stderr, or a file. A line reads
//   2024-05-17T08:09:10.123Z ERROR layer.cpp:123: text
// and is written with one write(), so that lines of several threads never mix.

// Which levels of OpcUa_Trace_Imp are shown (bits). Lines of logMsg always are.
void setTraceLevels(std::uint32_t levels);
// Appends to this file from now on, opening it anew when it is the same; an empty path means
// stderr. 0, or the errno of the attempt, and everything stays as it was.
int setTraceFile(const std::string& path);

struct TraceLine {
  std::uint32_t level;  // 0 for logMsg
  std::string file;     // as given; empty for logMsg
  int line;
  std::string text;  // as formatted, with its newline
};

// Gets every line of every level in place of the log. Called on the thread that traces, one call
// at a time; must not trace itself.
class TraceHook {
 public:
  virtual ~TraceHook() = default;
  virtual void onLine(const TraceLine& line) = 0;
};
// Returns when no thread is inside the former hook any more. Null gives the log back.
void setTraceHook(TraceHook* hook);

}  // namespace orva::host
