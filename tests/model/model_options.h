#pragma once

#include <cstdint>

namespace orva::model {

// How much the model test does. Flags of the program, after GoogleTest's own:
//   --seed S    the first world (1)
//   --seeds N   at most so many worlds (no limit)
//   --ops N     so many operations in all (2,000,000; or what ORVA_MODEL_OPS says)
//   --log       prints everything that happens
struct ModelOptions {
  std::uint64_t seed = 1;
  std::uint64_t seeds = UINT64_MAX;
  std::uint64_t operations = 2'000'000;
  bool log = false;
};

const ModelOptions& modelOptions();
// False when an argument is unknown or no number.
bool readModelOptions(int argc, char** argv);

}  // namespace orva::model
