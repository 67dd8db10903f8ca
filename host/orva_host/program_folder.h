#pragma once

#include <filesystem>

namespace orva::host {

// The folder of the running program's file.
std::filesystem::path programFolder();

}  // namespace orva::host
