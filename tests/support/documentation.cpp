#include "support/documentation.h"

#include <filesystem>
#include <sstream>

#include "support/temp_folder.h"

namespace orva::test {
namespace {

std::vector<std::string> cellsOf(const std::string& line) {
  std::vector<std::string> cells;
  std::size_t begin = 2;
  for (;;) {
    // From the blank in front of the cell, so that an empty one is seen.
    const std::size_t end = line.find(" |", begin - 1);
    if (end == std::string::npos) return cells;
    cells.push_back(end < begin ? std::string() : line.substr(begin, end - begin));
    begin = end + 3;
  }
}

}  // namespace

std::string repositoryFile(const std::string& name) {
  return readFile(std::string(ORVA_SOURCE_DIR) + "/" + name);
}

std::vector<std::vector<std::string>> tableRows(const std::string& page) {
  std::istringstream lines(page);
  std::vector<std::vector<std::string>> rows;
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, 2, "| ") == 0 && line.compare(0, 5, "| ---") != 0) {
      rows.push_back(cellsOf(line));
    }
  }
  return rows;
}

std::string codeOf(const std::string& cell) {
  if (cell.size() < 2 || cell.front() != '`' || cell.back() != '`') return {};
  return cell.substr(1, cell.size() - 2);
}

std::map<std::string, std::string> deliveredSources() {
  namespace fs = std::filesystem;
  const fs::path root = ORVA_SOURCE_DIR;
  std::map<std::string, std::string> sources;
  for (const char* folder : {"addins", "host", "include"}) {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root / folder)) {
      const std::string extension = entry.path().extension().string();
      if (extension != ".cpp" && extension != ".h") continue;
      sources[fs::relative(entry.path(), root).string()] = readFile(entry.path().string());
    }
  }
  return sources;
}

}  // namespace orva::test
