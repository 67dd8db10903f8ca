#include "orva_database/item_lookup.h"

#include "host/vm_info.h"
#include "share/archive_manager.h"
#include "share/status_codes.h"

namespace orva {

bool itemIdByPath(const std::string& path, std::int64_t& id) {
  std::int64_t found = 0;
  if (isBad(vm::VMInfo::GetInstance()->GetItemIdByPath(path, found))) return false;
  id = found;
  return true;
}

std::int64_t cacheIdOf(const archive::ItemKey& key) {
  auto& manager = archive::DataArchiveManager::instance();
  if (const std::int64_t cacheId = manager.getCacheId(key); cacheId != -1) return cacheId;
  if (const std::int64_t cacheId = manager.getCacheId(archive::ItemKey(key.first, {}));
      cacheId != -1) {
    return cacheId;
  }
  std::int64_t known = 0;
  if (!itemIdByPath(key.second, known) || known != key.first) return -1;
  return manager.createPinCache(key);
}

}  // namespace orva
