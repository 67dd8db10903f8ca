#include "orva_host/addin_loader.h"

#include <dlfcn.h>

#include <cstdio>
#include <filesystem>

#include "orva_host/program_folder.h"
#include "share/status_codes.h"

namespace orva::host {
namespace {

namespace fs = std::filesystem;

// The service call-back handed to every entry. This host offers nothing through it.
int noService(int, const void*, int, void*, int, int*) {
  return static_cast<int>(status::kBadNotSupported);
}

// The file to load; empty with `error` set when there is none.
std::string fileOf(const std::string& name, const std::vector<std::string>& folders,
                   std::string& error) {
  if (name.find('/') != std::string::npos) return name;
  std::string searched;
  for (const std::string& folder : folders) {
    const fs::path candidate = fs::path(folder) / name;
    std::error_code ignored;
    if (fs::exists(candidate, ignored)) return candidate.string();
    searched += (searched.empty() ? "" : ", ") + folder;
  }
  error = "not found in " + searched;
  return {};
}

AddinEntry entryOf(void* library, const char* name) {
  return reinterpret_cast<AddinEntry>(dlsym(library, name));
}

std::string call(AddinEntry entry, const std::string& addin, const char* name) {
  int result = 0;
  try {
    result = entry(noService);
  } catch (...) {
    return "add-in \"" + addin + "\": " + name + " let an exception out";
  }
  if (result >= 0) return {};
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(result));
  return "add-in \"" + addin + "\": " + name + " returned " + text;
}

}  // namespace

std::vector<std::string> addinFolders(const std::string& folder) {
  if (!folder.empty()) return {fs::absolute(folder).lexically_normal().string()};
  const fs::path library = (programFolder() / ".." / "lib").lexically_normal();
  return {library.string(), (library / "orva").string()};
}

Addin loadAddin(const std::string& name, const std::vector<std::string>& folders,
                std::string& error) {
  Addin addin;
  addin.name = name;
  std::string reason;
  const std::string file = fileOf(name, folders, reason);
  // Global: providers find the add-in that they register with.
  void* library = file.empty() ? nullptr : dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    if (reason.empty()) reason = dlerror();
  } else if ((addin.init = entryOf(library, "InitAddin")) == nullptr) {
    reason = file + " has no entry InitAddin";
  } else {
    addin.start = entryOf(library, "StartAddin");
  }
  if (!reason.empty()) error = "add-in \"" + name + "\": " + reason;
  return addin;
}

std::vector<Addin> loadAddins(const std::vector<std::string>& names,
                              const std::vector<std::string>& folders, std::string& error) {
  std::vector<Addin> addins;
  for (const std::string& name : names) {
    addins.push_back(loadAddin(name, folders, error));
    if (!error.empty()) return addins;
  }
  error = initAddins(addins);
  return addins;
}

std::string initAddins(const std::vector<Addin>& addins) {
  for (const Addin& addin : addins) {
    if (std::string error = call(addin.init, addin.name, "InitAddin"); !error.empty()) return error;
  }
  return {};
}

std::string startAddins(const std::vector<Addin>& addins) {
  for (const Addin& addin : addins) {
    if (addin.start == nullptr) continue;
    if (std::string error = call(addin.start, addin.name, "StartAddin"); !error.empty()) {
      return error;
    }
  }
  return {};
}

}  // namespace orva::host
