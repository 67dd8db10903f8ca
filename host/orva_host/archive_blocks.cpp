#include "orva_host/archive_blocks.h"

#include "host/vm_info.h"
#include "orva_host/lua_value.h"

namespace orva::host {

namespace {

constexpr const char* kBlockName = "ArchiveProc";

struct NewBox {
  OpcUa_VariantHlp* box = nullptr;
  int reference = LUA_NOREF;
};

int makeBox(lua_State* L) {
  auto* made = static_cast<NewBox*>(lua_touserdata(L, 1));
  lua_getglobal(L, kBlockName);
  if (!lua_istable(L, -1)) {
    return luaL_error(L, "no function block %s: is the archive add-in loaded?", kBlockName);
  }
  made->box = pushVariantBox(L);
  made->reference = luaL_ref(L, LUA_REGISTRYINDEX);
  return 0;
}

struct NewBlock {
  const std::string id;  // as text, which carries every id
  const std::string& path;
  int reference = LUA_NOREF;
};

int makeNewBlock(lua_State* L) {
  auto* made = static_cast<NewBlock*>(lua_touserdata(L, 1));
  lua_getglobal(L, kBlockName);
  lua_getfield(L, -1, "new");
  lua_newtable(L);
  lua_pushlstring(L, made->id.data(), made->id.size());
  lua_setfield(L, -2, "Id");
  lua_pushlstring(L, made->path.data(), made->path.size());
  lua_setfield(L, -2, "Path");
  lua_call(L, 1, 1);
  made->reference = luaL_ref(L, LUA_REGISTRYINDEX);
  return 0;
}

struct Room {
  int block;
  bool crowded = false;
};

int lookForRoom(lua_State* L) {
  auto* room = static_cast<Room*>(lua_touserdata(L, 1));
  lua_rawgeti(L, LUA_REGISTRYINDEX, room->block);
  lua_getfield(L, -1, "Crowded");
  room->crowded = lua_toboolean(L, -1) != 0;
  return 0;
}

struct Execution {
  int block;
  int box;
};

int execute(lua_State* L) {
  const auto* what = static_cast<const Execution*>(lua_touserdata(L, 1));
  lua_rawgeti(L, LUA_REGISTRYINDEX, what->block);
  lua_rawgeti(L, LUA_REGISTRYINDEX, what->box);
  lua_setfield(L, -2, "Value");
  lua_call(L, 0, 0);
  return 0;
}

}  // namespace

bool ArchiveBlocks::open(std::string& error) {
  NewBox made;
  if (!state_.open(error) || !state_.protectedCall(makeBox, &made, error)) return false;
  box_ = made.box;
  boxReference_ = made.reference;
  return true;
}

ArchiveBlocks::Result ArchiveBlocks::write(PlantRow& row, std::string& error) {
  int block = LUA_NOREF;
  if (!findBlock(row, block, error)) return Result::failed;
  Room room{block};
  if (!state_.protectedCall(lookForRoom, &room, error)) return Result::failed;
  if (room.crowded) return Result::crowded;
  box_->SetDataValue(std::move(row.value), row.quality, row.ticks);
  Execution what{block, boxReference_};
  return state_.protectedCall(execute, &what, error) ? Result::written : Result::failed;
}

bool ArchiveBlocks::findBlock(const PlantRow& row, int& reference, std::string& error) {
  const auto found = blocks_.find({row.id, row.path});
  if (found == blocks_.end()) return makeBlock(row, reference, error);
  reference = found->second;
  return true;
}

bool ArchiveBlocks::makeBlock(const PlantRow& row, int& reference, std::string& error) {
  const auto layers = vm::VMInfo::GetInstance()->GetArchivedLayers(row.id);
  if (!layers || layers->empty()) {
    error = layers ? "the variable is not archived" : "there is no such variable";
    return false;
  }
  NewBlock made{std::to_string(row.id), row.path};
  if (!state_.protectedCall(makeNewBlock, &made, error)) return false;
  reference = made.reference;
  blocks_[{row.id, row.path}] = reference;
  return true;
}

}  // namespace orva::host
