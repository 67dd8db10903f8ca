#pragma once

#include <string>

namespace orva::sqlite {

// Where an archive lives. A configured location is a folder, which then holds a file of the usual
// name, or the file itself: what exists decides; of what does not, a name with an extension is a
// file.
class Location {
 public:
  Location(const std::string& configured, const char* usualName);
  ~Location() { unlock(); }
  Location(const Location&) = delete;
  Location& operator=(const Location&) = delete;

  const std::string& file() const { return file_; }

  enum class Claim { kOurs, kTaken, kUnreachable };
  // Makes the folders that are missing and locks the place, so that no second archive, of this or
  // another process, writes there. Why it did not work is in `problem`.
  Claim claim(std::string& problem);
  void unlock();

  // Gives the file, and its write-ahead log, a new name beside it; the new name, or empty with
  // `problem` set.
  std::string moveAside(std::string& problem) const;

 private:
  std::string file_;
  int lock_ = -1;  // descriptor of the locked lock file
};

}  // namespace orva::sqlite
