#pragma once

#include <map>
#include <random>
#include <string>
#include <vector>

#include "fault/fault_vfs.h"

namespace orva::sqlite::test {

// What a disk may hold after a loss of power: what was synced, and of the rest anything. A write is
// torn at sectors of 512 bytes, a truncate happens or not, and what came later may be there without
// what came before.
class DiskModel {
 public:
  using Files = std::map<std::string, std::string>;

  void apply(const FileEvent& event);

  // The processes were killed, the power stayed.
  const Files& everything() const { return now_; }
  // What was not synced is lost.
  const Files& synced() const { return synced_; }
  // Some of what was not synced is there.
  Files some(std::mt19937_64& random) const;
  // All is there but the second half of the latest write.
  Files tornAtTheEnd() const;

  static void store(const Files& files, const std::string& folder);

 private:
  Files now_;
  Files synced_;
  std::vector<FileEvent> pending_;  // not synced
};

}  // namespace orva::sqlite::test
