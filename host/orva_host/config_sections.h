#pragma once

#include <map>
#include <string>

namespace orva::host {

// The sections that GetConfigDataValue() hands out. Thread-safe.
void setConfigSection(const std::string& name, const std::string& text);
// Puts these in the place of all there were.
void replaceConfigSections(const std::map<std::string, std::string>& sections);

}  // namespace orva::host
