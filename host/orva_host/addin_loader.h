#pragma once

#include <string>
#include <vector>

#include "host/addin_base.h"

namespace orva::host {

using AddinEntry = int (*)(HostCallback);

// A loaded add-in. It is never unloaded: threads and objects of it live until the process ends.
struct Addin {
  std::string name;
  AddinEntry init = nullptr;
  AddinEntry start = nullptr;  // optional
};

// Where add-ins that are named without a folder are looked for: in `folder` if it is not empty,
// else in ../lib and ../lib/orva beside the program's own folder.
std::vector<std::string> addinFolders(const std::string& folder);

// Loads one add-in; what it exports is visible to those loaded later. `error` gets why it cannot,
// or stays empty.
Addin loadAddin(const std::string& name, const std::vector<std::string>& folders,
                std::string& error);

// Loads all of them in this order, then calls InitAddin of each. Stops at the first that fails.
std::vector<Addin> loadAddins(const std::vector<std::string>& names,
                              const std::vector<std::string>& folders, std::string& error);
// Calls InitAddin of each; empty, or what failed.
std::string initAddins(const std::vector<Addin>& addins);
// Calls StartAddin of each that has one; empty, or what failed.
std::string startAddins(const std::vector<Addin>& addins);

}  // namespace orva::host
