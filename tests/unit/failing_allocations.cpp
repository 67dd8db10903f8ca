#include "support/failing_allocations.h"

#include <dlfcn.h>
#include <sqlite3.h>
#include <zstd.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace orva::test {
namespace {

// The thread's allocations that still succeed; negative: all.
thread_local long allocationsLeft = -1;
thread_local int unharmed = 0;

std::atomic<bool> armed{false};
std::atomic<long> failing{0};
std::atomic<long> count{0};
std::atomic<bool> failed{false};
std::atomic<long long> blockCount{0};

bool isNth() {
  if (!armed.load(std::memory_order_relaxed) || unharmed > 0) return false;
  if (++count != failing) return false;
  failed = true;
  return true;
}

void* allocate(std::size_t size) {
  if (allocationsLeft == 0 || isNth()) return nullptr;
  if (allocationsLeft > 0) --allocationsLeft;
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory != nullptr) blockCount.fetch_add(1, std::memory_order_relaxed);
  return memory;
}

void* allocateOrThrow(std::size_t size) {
  void* const memory = allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void release(void* memory) {
  if (memory != nullptr) blockCount.fetch_sub(1, std::memory_order_relaxed);
  std::free(memory);
}

sqlite3_mem_methods sqliteMethods;  // SQLite's own

void* sqliteMalloc(int size) { return isNth() ? nullptr : sqliteMethods.xMalloc(size); }
// The library's own function of that name makes it.
template <class Context>
Context* context(const char* name) {
  if (allocationsLeft == 0 || isNth()) return nullptr;
  using Make = Context* (*)();
  return reinterpret_cast<Make>(dlsym(RTLD_NEXT, name))();
}

void* sqliteRealloc(void* memory, int size) {
  return isNth() ? nullptr : sqliteMethods.xRealloc(memory, size);
}

}  // namespace

FailingAllocations::FailingAllocations() {
  sqlite3_shutdown();
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &sqliteMethods);
  sqlite3_mem_methods hooked = sqliteMethods;
  hooked.xMalloc = &sqliteMalloc;
  hooked.xRealloc = &sqliteRealloc;
  sqlite3_config(SQLITE_CONFIG_MALLOC, &hooked);
  sqlite3_initialize();
}

FailingAllocations::~FailingAllocations() {
  disarm();
  sqlite3_shutdown();
  sqlite3_config(SQLITE_CONFIG_MALLOC, &sqliteMethods);
  sqlite3_initialize();
}

void FailingAllocations::arm(long n) {
  count = 0;
  failed = false;
  failing = n;
  armed = true;
}

void FailingAllocations::disarm() { armed = false; }
long FailingAllocations::counted() const { return count; }
bool FailingAllocations::hasFailed() const { return failed; }
long long FailingAllocations::blocks() { return blockCount; }
long long FailingAllocations::sqliteBytes() { return sqlite3_memory_used(); }

FailingAllocations::Unharmed::Unharmed() { ++unharmed; }
FailingAllocations::Unharmed::~Unharmed() { --unharmed; }

void limitAllocations(long left) { allocationsLeft = left; }

}  // namespace orva::test

// What the unit tests' allocations go through.
void* operator new(std::size_t size) { return orva::test::allocateOrThrow(size); }
void* operator new[](std::size_t size) { return orva::test::allocateOrThrow(size); }
// Without these, memory of the sanitizer's own would come to free().
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return orva::test::allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return orva::test::allocate(size);
}
void operator delete(void* memory) noexcept { orva::test::release(memory); }
void operator delete[](void* memory) noexcept { orva::test::release(memory); }
void operator delete(void* memory, std::size_t) noexcept { orva::test::release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { orva::test::release(memory); }

// What the segments are compressed and read with, which comes from malloc(), fails like the rest.
extern "C" {
ZSTD_CCtx* ZSTD_createCCtx() { return orva::test::context<ZSTD_CCtx>("ZSTD_createCCtx"); }
ZSTD_DCtx* ZSTD_createDCtx() { return orva::test::context<ZSTD_DCtx>("ZSTD_createDCtx"); }
}
