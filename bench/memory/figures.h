#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orva::bench {

// One line of the report, in bytes unless its name says otherwise.
struct Figure {
  std::string name;
  std::int64_t value = 0;
  std::int64_t limit = 0;  // more than this is wrong; 0: a figure for information
};
using Figures = std::vector<Figure>;

// What an item costs that nobody writes to, and with its first sample: of `count` items, the second
// half is measured, so that what is there once is not in it.
void measureItems(std::uint32_t count, Figures& out);
// A function block that feeds an item.
void measureBlocks(std::uint32_t count, Figures& out);
// The cache with all its blocks full.
void measureFullCache(Figures& out);
// The most that a read takes while it is answered: from the cache, from a file.
void measureReads(Figures& out);
// Samples that wait to be written, and what their streams keep afterwards.
void measureWriteBuffer(Figures& out);

}  // namespace orva::bench
