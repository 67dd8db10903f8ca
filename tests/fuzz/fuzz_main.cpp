#include "fuzz/fuzz_targets.h"
#include "orva_host/trace_log.h"

// The program of one fuzzer; the build says which.

extern "C" {
int LLVMFuzzerInitialize(int* argc, char*** argv);
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
}

namespace {

// Nobody reads what is logged about millions of inputs.
class NoLog : public orva::host::TraceHook {
  void onLine(const orva::host::TraceLine&) override {}
};

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  static NoLog& noLog = *new NoLog;  // still there while the process ends
  orva::host::setTraceHook(&noLog);
  return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orva::fuzz::ORVA_FUZZ_TARGET(data, size);
  return 0;
}
