#pragma once

#include <semaphore.h>

#include <cstdint>
#include <vector>

#include "host/archive_rec.h"
#include "host/host_export.h"

// A read of the older archive interface. The caller fills the question, hands the request to
// ArchiveSource::AddRequest() and waits for the semaphore; it is posted once for every request
// that was taken (AddRequest() returned 0), whatever became of it, and the request must live until
// then. The answer may be read from then on.
struct ORVA_HOST_API ArchiveRequest {
  ArchiveRequest();
  ~ArchiveRequest();
  ArchiveRequest(const ArchiveRequest&) = delete;
  ArchiveRequest& operator=(const ArchiveRequest&) = delete;

  // Waits for the answer.
  void Wait();
  // The same for so long at most; false when the answer is not there yet.
  bool WaitFor(int milliseconds);

  // ---- the question
  std::int64_t id = 0;          // marks the request in diagnostics
  std::vector<int> items;       // legacy item ids
  std::int64_t startTime = 0;   // ticks, 0 is open
  std::int64_t endTime = 0;     // ticks, 0 is open
  double interval = 0;          // microseconds between values, 0: as archived
  std::uint32_t maxValues = 0;  // of each item, 0: all

  // ---- the answer
  std::vector<ArchiveRec> records;  // item by item in the order of `items`, oldest first
  OpcUa_StatusCode status = 0;      // 0, or why records may be missing

  sem_t semaphore;
};
