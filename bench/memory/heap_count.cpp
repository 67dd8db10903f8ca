#include "bench/memory/heap_count.h"

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>

// glibc's own, behind the names that this file takes.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
}

namespace orva::bench {
namespace {

std::atomic<std::int64_t> live{0};
std::atomic<std::int64_t> peak{0};

std::int64_t costOf(void* memory) {
  return static_cast<std::int64_t>(malloc_usable_size(memory) + sizeof(std::size_t));
}

void* taken(void* memory) {
  if (memory == nullptr) return nullptr;
  const std::int64_t cost = costOf(memory);
  const std::int64_t now = live.fetch_add(cost, std::memory_order_relaxed) + cost;
  std::int64_t most = peak.load(std::memory_order_relaxed);
  while (now > most && !peak.compare_exchange_weak(most, now, std::memory_order_relaxed)) {
  }
  return memory;
}

void given(void* memory) {
  if (memory != nullptr) live.fetch_sub(costOf(memory), std::memory_order_relaxed);
}

}  // namespace

std::int64_t heapBytes() { return live.load(std::memory_order_relaxed); }
std::int64_t heapPeak() { return peak.load(std::memory_order_relaxed); }
void restartHeapPeak() { peak.store(heapBytes(), std::memory_order_relaxed); }

std::int64_t residentBytes() {
  std::FILE* const file = std::fopen("/proc/self/statm", "r");
  if (file == nullptr) return 0;
  long long total = 0;
  long long resident = 0;
  const int read = std::fscanf(file, "%lld %lld", &total, &resident);
  std::fclose(file);
  return read == 2 ? static_cast<std::int64_t>(resident) * ::sysconf(_SC_PAGESIZE) : 0;
}

}  // namespace orva::bench

#define ORVA_HEAP extern "C" __attribute__((visibility("default")))

ORVA_HEAP void* malloc(std::size_t size) { return orva::bench::taken(__libc_malloc(size)); }
ORVA_HEAP void* calloc(std::size_t count, std::size_t size) {
  return orva::bench::taken(__libc_calloc(count, size));
}
ORVA_HEAP void* realloc(void* memory, std::size_t size) {
  const std::int64_t before = memory != nullptr ? orva::bench::costOf(memory) : 0;
  void* const moved = __libc_realloc(memory, size);
  if (moved != nullptr || size == 0) orva::bench::live.fetch_sub(before);
  return orva::bench::taken(moved);
}
ORVA_HEAP void free(void* memory) {
  orva::bench::given(memory);
  __libc_free(memory);
}
ORVA_HEAP void* memalign(std::size_t alignment, std::size_t size) {
  return orva::bench::taken(__libc_memalign(alignment, size));
}
ORVA_HEAP void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return memalign(alignment, size);
}
ORVA_HEAP int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  *memory = memalign(alignment, size);
  return *memory == nullptr ? ENOMEM : 0;
}
