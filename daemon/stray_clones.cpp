#include "daemon/stray_clones.h"

#include <algorithm>
#include <string>
#include <vector>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "platform/base/log.h"
#include "platform/base/uuid.h"
#include "platform/lio/lio_saved_config.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

// The clones of snapshots of a pool that have no export.
bool find_stray_clones(Context& context, const std::string& pool_id, std::vector<std::string>& clones) {
  Array volumes;
  if (!context.catalog.list_volume(pool_id, volumes, nullptr)) return false;
  for (const Value& value : volumes) {
    const Object* volume = json_spirit::get_object(value);
    std::string id, origin;
    Array exports;
    if (volume == nullptr || !json_spirit::object_find(*volume, "uuid", id) ||
        !json_spirit::object_find(*volume, "snapshot_uuid", origin) || origin == platform::zero_uuid())
      continue;
    if (!context.catalog.list_export(pool_id, exports, id.c_str())) return false;
    if (exports.empty()) clones.push_back(id);
  }
  return true;
}

bool used_by_the_target(const std::string& path, bool& used) {
  std::vector<LIO_Export> exports;
  if (!LIO_Saved_Config::list_saved(exports) || !LIO_Saved_Config::list_kernel(exports)) return false;
  used = std::any_of(exports.begin(), exports.end(), [&](const LIO_Export& one) { return one.path == path; });
  return true;
}

bool remove_clone(Context& context, const std::string& pool_id, const std::string& clone) {
  auto* manager = scsi_pool::SCSI_Pool_Manager::instance();
  scsi_pool::SCSI_Pool_Backstore_Manager_var backstore(manager->init_backstore_mgr(pool_id));
  if (!backstore || !backstore->exist() || !backstore->mounted()) return false;  // its pool is away
  if (!backstore->volume_exist(clone)) return context.catalog.del_volume(pool_id, clone);
  std::string path;
  bool used = false;
  if (!backstore->get_volume_dataset(clone, path) || !used_by_the_target(path, used)) return false;
  if (used)
    return LOG_FAILURE(
        "The clone is still exported: run \"export check --repair\", then restart the daemon\n");
  return backstore->destroy_volume(clone) && context.catalog.del_volume(pool_id, clone);
}

}  // namespace

bool remove_stray_clones(Context& context) {
  Array pools;
  if (!context.catalog.list_pools(pools, nullptr)) return LOG_FAILURE("Failed to list the catalog's pools\n");
  bool good = true;
  for (const Value& value : pools) {
    const Object* pool = json_spirit::get_object(value);
    std::string id;
    std::vector<std::string> clones;
    if (pool == nullptr || !json_spirit::object_find(*pool, "uuid", id)) continue;
    good = find_stray_clones(context, id, clones) && good;
    for (const std::string& clone : clones) {
      LOG_NOTICE("Clone '%s' in pool '%s' is left from an interrupted export of a snapshot\n", clone.c_str(),
                 id.c_str());
      if (!remove_clone(context, id, clone))
        good = LOG_FAILURE("Failed to remove clone '%s'\n", clone.c_str());
    }
  }
  return good;
}

}  // namespace scsipoold
