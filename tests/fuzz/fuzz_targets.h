#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orva::fuzz {

// What the fuzzers call with any bytes, and the tests with those of corpus/<name>. A broken promise
// is an exception; everything else is for the sanitizers to find. What the bytes of each mean
// stands at the head of its file.
struct Target {
  const char* name;
  void (*run)(const std::uint8_t* data, std::size_t size);
};

const std::vector<Target>& targets();

void configuration(const std::uint8_t* data, std::size_t size);
void continuation(const std::uint8_t* data, std::size_t size);
void csvSource(const std::uint8_t* data, std::size_t size);
void datagrams(const std::uint8_t* data, std::size_t size);
void historyQuery(const std::uint8_t* data, std::size_t size);
void luaBlock(const std::uint8_t* data, std::size_t size);
void remoteAnswer(const std::uint8_t* data, std::size_t size);
void requestEndpoint(const std::uint8_t* data, std::size_t size);
void segment(const std::uint8_t* data, std::size_t size);

}  // namespace orva::fuzz
