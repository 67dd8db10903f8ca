#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz/fuzz_targets.h"
#include "orva_host/trace_log.h"

// All fuzzers in one program, since each would cost a link:
//   orva_fuzz TARGET [options of libFuzzer] [folders and files of inputs]

extern "C" {
int LLVMFuzzerInitialize(int* argc, char*** argv);
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
}

namespace {

// libFuzzer starts processes of its own with what is left of the arguments; they find it here.
constexpr const char* kVariable = "ORVA_FUZZ_TARGET";

const orva::fuzz::Target* target = nullptr;

const orva::fuzz::Target* targetNamed(const char* name) {
  for (const orva::fuzz::Target& each : orva::fuzz::targets()) {
    if (name != nullptr && std::strcmp(each.name, name) == 0) return &each;
  }
  return nullptr;
}

[[noreturn]] void endWithUsage() {
  std::fputs("usage: orva_fuzz TARGET [libFuzzer options] [folders]\nThe targets are:\n", stderr);
  for (const orva::fuzz::Target& each : orva::fuzz::targets()) {
    std::fprintf(stderr, "  %s\n", each.name);
  }
  std::exit(2);
}

}  // namespace

int LLVMFuzzerInitialize(int* argc, char*** argv) {
  target = *argc > 1 ? targetNamed((*argv)[1]) : nullptr;
  if (target != nullptr) {
    setenv(kVariable, target->name, 1);
    (*argv)[1] = (*argv)[0];
    ++*argv;
    --*argc;
  } else {
    target = targetNamed(std::getenv(kVariable));
  }
  if (target == nullptr) endWithUsage();
  // Nobody reads what is logged about millions of inputs.
  return orva::host::setTraceFile("/dev/null");
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  target->run(data, size);
  return 0;
}
