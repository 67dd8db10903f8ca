#pragma once

#include <string>

namespace orva::test {

// A new folder below the system's folder for temporary files, removed with all it holds at the end.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string path(const std::string& name) const { return path_ + "/" + name; }
  // Writes a file, making the folders on the way to it. Returns its path.
  std::string write(const std::string& name, const std::string& text) const;

 private:
  std::string path_;
};

// The whole file; empty when it cannot be read.
std::string readFile(const std::string& path);

}  // namespace orva::test
