#include "daemon/startup.h"

#include <string>

#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/thick_pool.h"
#include "backup/pools/scsipool/zfs_import.h"
#include "daemon/leftovers.h"
#include "daemon/receive_handler.h"
#include "daemon/replication_worker.h"
#include "daemon/stray_clones.h"
#include "platform/base/log.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

struct Pool_Row {
  std::string id, name, fs_type, compression;
  bool thin = false;
};

// The pools that live in files of their own, of one filesystem type. Those on a global device come with it.
bool file_pools(Context& context, const std::string& fs_type, std::vector<Pool_Row>& pools) {
  Array rows;
  if (!context.catalog.list_pools(rows, nullptr)) return false;
  for (const Value& value : rows) {
    const Object* row = json_spirit::get_object(value);
    if (row == nullptr) continue;
    Pool_Row pool;
    std::string global_dev;
    json_spirit::object_find(*row, "uuid", pool.id);
    json_spirit::object_find(*row, "name", pool.name);
    json_spirit::object_find(*row, "fs_type", pool.fs_type);
    json_spirit::object_find(*row, "compression", pool.compression);
    json_spirit::object_find(*row, "thin_provision", pool.thin);
    json_spirit::object_find(*row, "global_dev", global_dev);
    if (global_dev.empty() && pool.fs_type == fs_type) pools.push_back(pool);
  }
  return true;
}

bool bring_back(Context& context, const char* fs_type, bool (*one_pool)(Context&, const Pool_Row&)) {
  std::vector<Pool_Row> pools;
  if (!file_pools(context, fs_type, pools)) return LOG_FAILURE("Failed to read the catalog of pools\n");
  bool good = true;
  for (const Pool_Row& pool : pools) {
    if (one_pool(context, pool)) continue;
    good = LOG_FAILURE("Failed to bring pool '%s' (%s) back\n", pool.name.c_str(), pool.id.c_str());
    context.health.problem("pool '" + pool.name + "' (" + pool.id + ") could not be brought back at start");
  }
  return good;
}

bool mount_pool(Context& context, const Pool_Row& pool) {
  scsi_pool::SCSI_Pool_Backstore_Manager_var manager(
      scsi_pool::SCSI_Pool_Backstore_Factory::create(pool.id, ""));
  if (manager == nullptr || !manager->open(pool.fs_type)) return false;
  if (!manager->mount({{"compression", pool.compression}})) return false;
  // The boot may have mounted it already, in a way that gives reserved room back.
  if (!pool.thin && !scsi_pool::reserve_thick_pool(pool.id))
    context.health.problem("the room of pool '" + pool.name + "' (" + pool.id +
                           ") could not be reserved again at start");
  return true;
}

bool import_zfs_pools(Context& context) {
  return bring_back(context, "zfs",
                    [](Context&, const Pool_Row& pool) { return scsi_pool::import_pool(pool.id); });
}

bool mount_btrfs_pools(Context& context) {
  return bring_back(context, "btrfs", mount_pool);
}

bool restore_exports(Context& context) {
  return context.restorer.start();
}

bool report_orphans(Context& context) {
  std::vector<std::string> orphans;
  if (!find_orphans(context.catalog, orphans)) return false;
  for (const std::string& id : orphans) {
    LOG_NOTICE("The backing file %s belongs to no pool of the catalog\n", backing_file(id).c_str());
  }
  return true;
}

}  // namespace

const std::vector<Start_Step>& steps_before_service() {
  static const std::vector<Start_Step> steps = {{"import ZFS pools", import_zfs_pools},
                                                {"mount Btrfs pools", mount_btrfs_pools}};
  return steps;
}

const std::vector<Start_Step>& steps_after_service() {
  static const std::vector<Start_Step> steps = {
      {"look for orphaned backing files", report_orphans},
      {"remove what interrupted exports of snapshots left", remove_stray_clones},
      {"settle the snapshots that were being received or deleted", Receive_Handler::settle_snapshots},
      {"bring all exports back", restore_exports},
      {"start the replication worker", [](Context&) { return start_replication_worker(); }}};
  return steps;
}

void run_steps(const std::vector<Start_Step>& steps, Context& context) {
  for (const Start_Step& step : steps) {
    if (!step.run(context))
      context.health.problem(std::string("at start, failed to ") + step.name + ": see the log");
  }
}

}  // namespace scsipoold
