#include "bench/temp_folder.h"

#include <unistd.h>

#include <cstdint>
#include <system_error>

namespace orva::bench {

namespace fs = std::filesystem;

TempFolder::TempFolder() {
  static int made = 0;
  const std::string name =
      "orva_bench." + std::to_string(::getpid()) + "." + std::to_string(++made);
  path_ = fs::temp_directory_path() / name;
  fs::create_directories(path_);
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::uint64_t TempFolder::bytes() const {
  std::uint64_t sum = 0;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path_)) {
    if (entry.is_regular_file()) sum += entry.file_size();
  }
  return sum;
}

}  // namespace orva::bench
