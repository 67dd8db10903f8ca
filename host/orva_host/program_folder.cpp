#include "orva_host/program_folder.h"

namespace orva::host {

std::filesystem::path programFolder() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
}

}  // namespace orva::host
