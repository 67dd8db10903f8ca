#pragma once

#include <string>

namespace CLI {
class App;
}

namespace orva::cli {

// The manual page of `app`, orva(1), for troff.
std::string manPage(const CLI::App& app);

}  // namespace orva::cli
