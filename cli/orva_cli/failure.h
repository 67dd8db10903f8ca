#pragma once

#include <stdexcept>
#include <string>

namespace orva::cli {

// Ends the program with a message for the user: what is the matter, and what to do about it.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The same for what was typed wrong.
class UsageError : public Failure {
 public:
  using Failure::Failure;
};

}  // namespace orva::cli
