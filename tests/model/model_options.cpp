#include "model/model_options.h"

#include <cstdlib>
#include <string>

namespace orva::model {

namespace {

ModelOptions options;

bool readNumber(const char* text, std::uint64_t& out) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  char* end = nullptr;
  out = std::strtoull(text, &end, 10);
  return *end == '\0';
}

}  // namespace

const ModelOptions& modelOptions() { return options; }

bool readModelOptions(int argc, char** argv) {
  if (const char* operations = std::getenv("ORVA_MODEL_OPS")) {
    if (!readNumber(operations, options.operations)) return false;
  }
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    std::uint64_t* number = nullptr;
    if (name == "--log") {
      options.log = true;
      continue;
    }
    if (name == "--seed") number = &options.seed;
    if (name == "--seeds") number = &options.seeds;
    if (name == "--ops") number = &options.operations;
    if (number == nullptr || i + 1 == argc || !readNumber(argv[++i], *number)) return false;
  }
  return true;
}

}  // namespace orva::model
