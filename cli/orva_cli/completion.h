#pragma once

#include <string>

namespace CLI {
class App;
}

namespace orva::cli {

// A script that teaches a shell, "bash", "zsh" or "fish", to complete the commands and options of
// `app`, and the names of items by asking the host.
std::string completionScript(const CLI::App& app, const std::string& shell);

}  // namespace orva::cli
