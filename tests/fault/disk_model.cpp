#include "fault/disk_model.h"

#include <algorithm>
#include <fstream>
#include <set>

namespace orva::sqlite::test {
namespace {

using Kind = FileEvent::Kind;

constexpr std::size_t kSector = 512;

void put(std::string& file, std::size_t offset, const char* data, std::size_t size) {
  if (file.size() < offset + size) file.resize(offset + size, '\0');
  file.replace(offset, size, data, size);
}

void change(DiskModel::Files& files, const FileEvent& event) {
  switch (event.kind) {
    case Kind::kWrite:
      put(files[event.file], static_cast<std::size_t>(event.offset), event.data.data(),
          event.data.size());
      break;
    case Kind::kTruncate:
      files[event.file].resize(static_cast<std::size_t>(event.offset), '\0');
      break;
    case Kind::kDelete:
      files.erase(event.file);
      break;
    case Kind::kSync:
      break;
  }
}

}  // namespace

void DiskModel::apply(const FileEvent& event) {
  change(now_, event);
  if (event.kind != Kind::kSync) pending_.push_back(event);
  // What a sync settles: the file, and with its folder which files there are.
  std::set<std::string> settled;
  if (event.kind == Kind::kSync) settled.insert(event.file);
  for (const FileEvent& one : pending_) {
    if (event.syncsFolder && one.kind == Kind::kDelete) settled.insert(one.file);
  }
  std::vector<FileEvent> rest;
  for (FileEvent& one : pending_) {
    if (settled.count(one.file) != 0) {
      change(synced_, one);
    } else {
      rest.push_back(std::move(one));
    }
  }
  pending_.swap(rest);
}

DiskModel::Files DiskModel::some(std::mt19937_64& random) const {
  Files files = synced_;
  for (const FileEvent& event : pending_) {
    if (event.kind != Kind::kWrite) {
      if (random() % 2 == 0) change(files, event);
      continue;
    }
    for (std::size_t at = 0; at < event.data.size(); at += kSector) {
      if (random() % 2 != 0) continue;
      put(files[event.file], static_cast<std::size_t>(event.offset) + at, event.data.data() + at,
          std::min(kSector, event.data.size() - at));
    }
  }
  return files;
}

DiskModel::Files DiskModel::tornAtTheEnd() const {
  Files files = synced_;
  for (const FileEvent& event : pending_) {
    FileEvent torn = event;
    if (&event == &pending_.back()) torn.data.resize(torn.data.size() / 2);
    change(files, torn);
  }
  return files;
}

void DiskModel::store(const Files& files, const std::string& folder) {
  for (const auto& [name, content] : files) {
    std::ofstream(folder + "/" + name, std::ios::binary)
        .write(content.data(), static_cast<std::streamsize>(content.size()));
  }
}

}  // namespace orva::sqlite::test
