#pragma once

#include <string>

namespace orva::host {

// The whole of a file. 0, or an errno.
int readTextFile(const std::string& path, std::string& out);
// 0 when a file of this name can be opened and is no folder, or an errno.
int cannotRead(const std::string& path);

}  // namespace orva::host
