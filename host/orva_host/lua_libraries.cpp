#include "orva_host/lua_libraries.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "host/lua_fb.h"
#include "share/mutex.h"

namespace orva::host {

namespace {

// Fixed room, so that a copy of an entry lies in a frame that a Lua error may leave.
struct Library {
  char name[64];
  lua_CFunction open;
};
constexpr std::size_t kMaxLibraries = 64;

class Libraries {
 public:
  bool add(const char* name, lua_CFunction open) EXCLUDES(mutex_) {
    Library added{};
    std::snprintf(added.name, sizeof added.name, "%s", name);
    added.open = open;
    const MutexLock lock(mutex_);
    for (std::size_t i = 0; i < count_; ++i) {
      if (std::strcmp(entries_[i].name, added.name) == 0) {
        entries_[i] = added;
        return true;
      }
    }
    if (count_ == kMaxLibraries) return false;
    entries_[count_++] = added;
    return true;
  }

  bool get(std::size_t index, Library& out) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (index >= count_) return false;
    out = entries_[index];
    return true;
  }

 private:
  Mutex mutex_;  // leaf
  std::array<Library, kMaxLibraries> entries_ GUARDED_BY(mutex_){};
  std::size_t count_ GUARDED_BY(mutex_) = 0;
};

Libraries& libraries() {
  static Libraries all;
  return all;
}

}  // namespace

void openExternalLibraries(lua_State* L) {
  Library library;
  const int top = lua_gettop(L);
  for (std::size_t i = 0; libraries().get(i, library); ++i) {
    // Called as a plain function: a Lua call cannot take the negative result of a failure.
    if (library.open(L) < 0) luaL_error(L, "library \"%s\" cannot be opened", library.name);
    lua_settop(L, top);
  }
}

}  // namespace orva::host

int RegisterExternalSTLib(const char* name, lua_CFunction open) {
  if (orva::host::libraries().add(name, open)) return 0;
  OpcUa_Trace_Imp(kTraceError, "no room for the Lua library \"%s\"\n", __FILE__, __LINE__, name);
  return -1;
}
