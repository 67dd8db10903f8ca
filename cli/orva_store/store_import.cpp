#include "orva_store/store_import.h"

#include <cstring>

#include "orva_cli/failure.h"
#include "orva_host/csv_reader.h"
#include "orva_store/store_stat.h"

namespace orva::store {
namespace {

using cli::Failure;
using host::CsvReader;

constexpr std::uint64_t kLookEvery = 1024;  // rows

std::string pathOf(const std::string& file) { return file == "-" ? "/dev/stdin" : file; }
std::string nameOf(const std::string& file) { return file == "-" ? "stdin" : file; }

// 0 where that is not known.
std::uint64_t bytesOf(const std::vector<std::string>& files) {
  std::uint64_t all = 0;
  for (const std::string& file : files) {
    const auto bytes = static_cast<std::uint64_t>(bytesOfFile(pathOf(file)));
    if (bytes == 0) return 0;
    all += bytes;
  }
  return all;
}

class FileImport {
 public:
  FileImport(Importer& importer, Progress& progress, const TellRefused& tell)
      : importer_(importer), progress_(progress), tell_(tell) {}

  // The bytes that were read.
  std::uint64_t run(const std::string& file, std::uint64_t bytesBefore) {
    CsvReader reader;
    const std::string name = nameOf(file);
    if (const int error = reader.open(pathOf(file)); error != 0) {
      throw Failure(name + " cannot be read: " + std::strerror(error));
    }
    if (reader.next(record_) != CsvReader::Result::record || !host::isPlantHeader(record_)) {
      throw Failure(name + ": the first line must be " + host::kPlantHeader +
                    "; a compressed file comes by way of zcat and stdin");
    }
    for (;;) {
      const CsvReader::Result result = reader.next(record_);
      if (result == CsvReader::Result::end) break;
      const char* const reason = result == CsvReader::Result::bad ? reader.error() : takeRecord();
      ImportCounts& counts = importer_.counts();
      if (++counts.rows % kLookEvery == 0) {
        progress_.at(bytesBefore + reader.bytes(), counts.rows);
      }
      if (reason == nullptr) continue;
      ++counts.refused;
      tell_(name, reader.line(), reason);
    }
    if (reader.error() != nullptr) throw Failure(name + ": " + reader.error());
    return reader.bytes();
  }

 private:
  const char* takeRecord() {
    const char* const reason = host::parsePlantRow(record_, row_);
    return reason != nullptr ? reason : importer_.take(row_);
  }

  Importer& importer_;
  Progress& progress_;
  const TellRefused& tell_;
  std::vector<CsvReader::Field> record_;  // reused
  host::PlantRow row_;
};

}  // namespace

ImportCounts importFiles(ImportPlan& plan, const Importer::Options& options,
                         const std::vector<std::string>& files, Progress& progress,
                         const TellRefused& tell) {
  Importer importer(plan, options);
  FileImport each(importer, progress, tell);
  progress.total(bytesOf(files));
  std::uint64_t bytes = 0;
  try {
    for (const std::string& file : files) bytes += each.run(file, bytes);
  } catch (const Failure&) {
    importer.finish();  // what came before
    throw;
  }
  importer.finish();
  return importer.counts();
}

}  // namespace orva::store
