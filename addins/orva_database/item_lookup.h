#pragma once

#include <cstdint>
#include <string>

#include "share/archive_provider.h"

namespace orva {

// The host's id of the variable with this path, or false when there is none.
bool itemIdByPath(const std::string& path, std::int64_t& id);

// The cache id of an archived variable as every JSON method finds it: that of (id, path), else that
// of (id, ""), else a new one for (id, path), or -1. A new one only if the host knows the path by
// that id: any text would otherwise make an item that stays for ever.
std::int64_t cacheIdOf(const archive::ItemKey& key);

}  // namespace orva
