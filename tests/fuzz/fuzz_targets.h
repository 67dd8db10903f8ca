#pragma once

#include <cstddef>
#include <cstdint>

namespace orva::fuzz {

// What the fuzzers call with any bytes, and the tests with those of corpus/. A broken promise is an
// exception; everything else is for the sanitizers to find.

// corpus/datagrams: datagrams one after the other, each behind two bytes of length (the lower one
// first). Their checksums are made right, or hardly any would get past it; not so where the highest
// bit of the length is set.
void datagrams(const std::uint8_t* data, std::size_t size);

// corpus/remote_answer: the number of the local variable's type, then the text of an answer to
// three questions with the randIDs 1, 2 and 3.
void remoteAnswer(const std::uint8_t* data, std::size_t size);

}  // namespace orva::fuzz
