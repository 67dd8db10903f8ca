#pragma once

#include <map>
#include <string>
#include <utility>

#include "orva_host/lua_state.h"
#include "orva_host/plant_row.h"

namespace orva::host {

// The function blocks "ArchiveProc" through which a recording is archived, one for each variable,
// in a Lua state of their own. They end, and write what they write then, with this object.
//
// Used by one thread at a time.
class ArchiveBlocks {
 public:
  ArchiveBlocks() = default;
  ArchiveBlocks(const ArchiveBlocks&) = delete;
  ArchiveBlocks& operator=(const ArchiveBlocks&) = delete;

  // False, with the reason, when there is no such function block.
  bool open(std::string& error);
  enum class Result {
    written,  // the block was executed, and the value was taken out of the row
    crowded,  // an archive of the variable asks to wait; the row is as it was
    failed,   // nothing was executed, the reason is given
  };
  // Executes the block of the row's variable once, with the row's value, time and quality.
  Result write(PlantRow& row, std::string& error);

 private:
  using Key = std::pair<std::int64_t, std::string>;

  bool findBlock(const PlantRow& row, int& reference, std::string& error);
  bool makeBlock(const PlantRow& row, int& reference, std::string& error);

  LuaState state_;
  OpcUa_VariantHlp* box_ = nullptr;  // Lua's, set anew for each row
  int boxReference_ = LUA_NOREF;
  std::map<Key, int> blocks_;  // (id, path) -> reference
};

}  // namespace orva::host
