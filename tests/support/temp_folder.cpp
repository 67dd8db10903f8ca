#include "support/temp_folder.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace orva::test {

TempFolder::TempFolder()
    : path_((std::filesystem::temp_directory_path() / "orva_test_XXXXXX").string()) {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary folder");
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempFolder::write(const std::string& name, const std::string& text) const {
  const std::filesystem::path file = std::filesystem::path(path_) / name;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << text;
  return file.string();
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace orva::test
