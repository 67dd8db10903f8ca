#pragma once

#include <filesystem>
#include <string>

namespace orva::bench {

// A folder of its own under the system's folder for temporary files, removed with all it holds.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  std::string file(const std::string& name) const { return (path_ / name).string(); }
  // Bytes of all files in it.
  std::uint64_t bytes() const;

 private:
  std::filesystem::path path_;
};

}  // namespace orva::bench
