#include <gmock/gmock.h>

#include <cstdio>

#include "model/model_options.h"

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  if (!orva::model::readModelOptions(argc, argv)) {
    std::fprintf(stderr,
                 "usage: %s [--seed S] [--seeds N] [--ops N] [--log] [GoogleTest's flags]\n",
                 argv[0]);
    return 2;
  }
  return RUN_ALL_TESTS();
}
