// The example with several controllers, run as it stands there, but for its ports.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <map>

#include "orva_host/udp_socket.h"
#include "support/temp_folder.h"

namespace orva::test {
namespace {

std::string anyFreePort() {
  host::UdpSocket socket;
  EXPECT_EQ(socket.open("127.0.0.1", 0), 0);
  return std::to_string(socket.port());
}

void replaceAll(std::string& text, const std::string& part, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += by.size()) {
    text.replace(at, part.size(), by);
  }
}

TEST(FleetExampleTest, WhatIsWrittenOnAStationIsReadAtTheCenterAlsoAfterBreaks) {
  const std::string example = std::string(ORVA_SOURCE_DIR) + "/examples/fleet/";
  const TempFolder folder;
  std::map<std::string, std::string> ports;
  for (const char* port : {"28101", "28102", "28103"}) ports[port] = anyFreePort();
  for (const char* name :
       {"station1.json", "station2.json", "center.json", "station.lua", "run.sh"}) {
    std::string text = readFile(example + name);
    ASSERT_FALSE(text.empty()) << name;
    for (const auto& [port, free] : ports) replaceAll(text, port, free);
    folder.write(name, text);
  }
  const std::string program = ORVA_HOST_PROGRAM;
  ASSERT_EQ(setenv("RUN_WITH", ORVA_LAUNCHER, 1), 0);
  FILE* const pipe = popen(
      ("bash " + folder.path("run.sh") + " " + program.substr(0, program.rfind('/')) + " 2>&1")
          .c_str(),
      "r");
  ASSERT_NE(pipe, nullptr);
  std::string printed;
  char bytes[4096];
  while (const std::size_t count = fread(bytes, 1, sizeof bytes, pipe)) {
    printed.append(bytes, count);
  }
  const int result = pclose(pipe);
  EXPECT_TRUE(WIFEXITED(result) && WEXITSTATUS(result) == 0) << printed;
  for (const char* line : {"station 1 wrote, and the center has:\n   20",
                           "station 2 wrote, and the center has:\n   20",
                           "the center is back and has all ", "station 2 was away"}) {
    EXPECT_NE(printed.find(line), std::string::npos) << line << " is missing in\n" << printed;
  }
}

}  // namespace
}  // namespace orva::test
