#pragma once

#include <cstdint>

namespace orva::bench {

// What the whole program has on its heap. The program's own malloc() counts: each block with its
// usable size and the word before it, which is what the block takes from the heap. Pages that the
// allocator keeps between blocks are not in it; resident memory shows those.

std::int64_t heapBytes();
// The most since the last call of restartHeapPeak().
std::int64_t heapPeak();
void restartHeapPeak();

// Resident memory of the process, 0 where there is no /proc. Under an emulator it holds the
// emulator too.
std::int64_t residentBytes();

}  // namespace orva::bench
