#pragma once

namespace orva {

// Offers the figures of cache, filters, reads and queues to the host's metrics, if it has that
// service; see docs/metrics.md. Once in a process, whatever it is called again.
//
// Collecting takes the queue's, the cache directory's and, one after the other, the items' mutexes,
// each for a moment; it waits for no archive.
void registerServiceMetrics();

}  // namespace orva
