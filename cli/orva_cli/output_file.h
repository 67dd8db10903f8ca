#pragma once

#include <fstream>
#include <ostream>
#include <string>

namespace orva::cli {

// Where data go: a file, or another stream where no file is named. The file is written under
// another name beside its own, which it takes in the end: until then, and whatever goes wrong, what
// stood there stays. A device or a pipe is written directly. Failure is thrown for what goes wrong.
class OutputFile {
 public:
  OutputFile(const std::string& name, std::ostream& otherwise);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(const std::string& text);
  // Everything is written.
  void finish();

 private:
  [[noreturn]] void fail() const;

  const std::string name_;
  std::string target_;      // the file itself, where the name is a link
  std::string unfinished_;  // what is written, until it takes its name; empty when that is done
  std::ofstream file_;
  std::ostream& out_;
};

}  // namespace orva::cli
