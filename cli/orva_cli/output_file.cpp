#include "orva_cli/output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "orva_cli/failure.h"

namespace orva::cli {
namespace {

// A rename may reach the disk before what the file holds does.
bool isSynced(const std::string& file) {
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool done = ::fsync(descriptor) == 0;
  ::close(descriptor);
  return done;
}

}  // namespace

OutputFile::OutputFile(const std::string& name, std::ostream& otherwise)
    : name_(name), out_(name.empty() ? otherwise : file_) {
  if (name_.empty()) return;
  std::error_code error;
  const std::filesystem::file_status there = std::filesystem::status(name_, error);
  std::string opened = name_;
  if (is_regular_file(there) || !exists(there)) {
    target_ = std::filesystem::weakly_canonical(name_, error).string();
    if (error) target_ = name_;
    opened = target_ + ".new";
  }
  file_.open(opened, std::ios::binary | std::ios::trunc);
  if (!file_) throw Failure(opened + " cannot be written");
  if (opened != name_) unfinished_ = opened;
}

OutputFile::~OutputFile() {
  std::error_code error;
  if (!unfinished_.empty()) std::filesystem::remove(unfinished_, error);
}

void OutputFile::write(const std::string& text) {
  out_.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!out_) fail();
}

void OutputFile::finish() {
  if (!out_.flush()) fail();
  if (name_.empty()) return;
  file_.close();
  if (!file_) fail();
  if (unfinished_.empty()) return;
  std::error_code error;
  if (!isSynced(unfinished_)) fail();
  std::filesystem::rename(unfinished_, target_, error);
  if (error) throw Failure(name_ + " cannot be written: " + error.message());
  unfinished_.clear();
}

void OutputFile::fail() const {
  throw Failure("cannot write " + (name_.empty() ? "the output" : name_) + "; is the disk full?");
}

}  // namespace orva::cli
