#include "orva_store/store_import.h"

#include <cstring>
#include <filesystem>
#include <memory>

#include "orva_cli/failure.h"
#include "orva_host/csv_reader.h"
#include "orva_store/store_stat.h"

namespace orva::store {

using cli::Failure;
using host::CsvReader;

namespace {

constexpr std::uint64_t kLookEvery = 1024;  // rows

// Behind the first line.
std::unique_ptr<CsvReader> openReader(const std::string& path, const std::string& name) {
  auto reader = std::make_unique<CsvReader>();
  if (const int error = reader->open(path); error != 0) {
    throw Failure(name + " cannot be read: " + std::strerror(error));
  }
  std::vector<CsvReader::Field> record;
  if (reader->next(record) != CsvReader::Result::record || !host::isPlantHeader(record)) {
    throw Failure(name + ": the first line must be " + host::kPlantHeader +
                  "; a compressed file comes by way of zcat and stdin");
  }
  return reader;
}

}  // namespace

struct ImportInput::File {
  std::string path;
  std::string name;
  std::unique_ptr<CsvReader> reader;  // of what can be read but once; the others are opened again
};

ImportInput::ImportInput(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    File input{file == "-" ? "/dev/stdin" : file, file == "-" ? "stdin" : file, nullptr};
    auto reader = openReader(input.path, input.name);
    std::error_code error;
    const bool isRegular = file != "-" && std::filesystem::is_regular_file(file, error);
    if (!isRegular) input.reader = std::move(reader);
    files_.push_back(std::move(input));
  }
}

ImportInput::~ImportInput() = default;

class FileImport {
 public:
  FileImport(Importer& importer, Progress& progress, const TellRefused& tell)
      : importer_(importer), progress_(progress), tell_(tell) {}

  void run(ImportInput& input) {
    progress_.total(bytesOf(input));
    for (ImportInput::File& file : input.files_) {
      if (file.reader == nullptr) file.reader = openReader(file.path, file.name);
      importFile(*file.reader, file.name);
      bytes_ += file.reader->bytes();
      file.reader.reset();
    }
  }

 private:
  // 0 where that is not known.
  static std::uint64_t bytesOf(const ImportInput& input) {
    std::uint64_t all = 0;
    for (const ImportInput::File& file : input.files_) {
      const auto bytes = static_cast<std::uint64_t>(bytesOfFile(file.path));
      if (bytes == 0) return 0;
      all += bytes;
    }
    return all;
  }

  void importFile(CsvReader& reader, const std::string& name) {
    for (;;) {
      const CsvReader::Result result = reader.next(record_);
      if (result == CsvReader::Result::end) break;
      const char* const reason = result == CsvReader::Result::bad ? reader.error() : takeRecord();
      ImportCounts& counts = importer_.counts();
      if (++counts.rows % kLookEvery == 0) progress_.at(bytes_ + reader.bytes(), counts.rows);
      if (reason == nullptr) continue;
      ++counts.refused;
      tell_(name, reader.line(), reason);
    }
    if (reader.error() != nullptr) throw Failure(name + ": " + reader.error());
  }

  const char* takeRecord() {
    const char* const reason = host::parsePlantRow(record_, row_);
    return reason != nullptr ? reason : importer_.take(row_);
  }

  Importer& importer_;
  Progress& progress_;
  const TellRefused& tell_;
  std::uint64_t bytes_ = 0;               // of the files before
  std::vector<CsvReader::Field> record_;  // reused
  host::PlantRow row_;
};

void importFiles(ImportPlan& plan, const Importer::Options& options, ImportInput& input,
                 Progress& progress, const TellRefused& tell, ImportCounts& counts) {
  Importer importer(plan, options);
  try {
    try {
      FileImport(importer, progress, tell).run(input);
    } catch (const Failure&) {
      importer.finish();  // what came before
      throw;
    }
    importer.finish();
  } catch (...) {
    counts = importer.result();
    throw;
  }
  counts = importer.result();
}

}  // namespace orva::store
