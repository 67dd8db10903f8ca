#include "bench/allocation_count.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <new>

namespace orva::bench {
namespace {

// One counter a thread, so that counting costs hardly more than an addition. Threads beyond the
// last slot share slot 0.
constexpr std::uint32_t kSlots = 256;
struct alignas(64) Slot {
  std::atomic<std::uint64_t> count{0};
};
std::array<Slot, kSlots> slots;
std::atomic<std::uint32_t> nextSlot{1};
thread_local std::uint32_t mySlot = kSlots;

void countOne() {
  if (mySlot == kSlots) {
    const std::uint32_t given = nextSlot.fetch_add(1, std::memory_order_relaxed);
    mySlot = given < kSlots ? given : 0;
  }
  std::atomic<std::uint64_t>& count = slots[mySlot].count;
  if (mySlot == 0) {
    count.fetch_add(1, std::memory_order_relaxed);
  } else {
    count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
}

}  // namespace

std::uint64_t allocationCount() {
  std::uint64_t sum = 0;
  for (const Slot& slot : slots) sum += slot.count.load(std::memory_order_relaxed);
  return sum;
}

}  // namespace orva::bench

void* operator new(std::size_t size) {
  orva::bench::countOne();
  if (void* const memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
