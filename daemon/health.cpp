#include "daemon/health.h"

#include <memory>

#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "backup/pools/scsipool/zfs_import.h"
#include "daemon/leftovers.h"
#include "daemon/version.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

void check_zfs(const std::string& zpool, Pool_State& pool) {
  std::string state;
  scsi_pool::pool_health(zpool, state);
  if (state == "ONLINE") return;
  pool.state = state == "absent" ? "not mounted" : state;
  pool.message =
      state == "absent" ? "the ZFS pool is not imported" : "the ZFS pool is not healthy: see zpool status";
}

void check_file_pool(const scsi_pool::SCSI_Pool_Backstore_Manager& manager, Pool_State& pool) {
  if (!manager.exist()) {
    pool.state = "missing";
    pool.message = "its backing file is gone: bring " + backing_file(pool.id) +
                   " back, or remove the pool with \"pool delete --force\"";
  } else if (pool.fs_type == "zfs") {
    check_zfs(pool.id, pool);
  } else if (!manager.mounted()) {
    pool.state = "not mounted";
    pool.message = "its filesystem is not mounted: see the log of the daemon's start";
  }
}

Pool_State state_of(const Object& row) {
  Pool_State pool;
  std::string global_dev;
  json_spirit::object_find(row, "uuid", pool.id);
  json_spirit::object_find(row, "name", pool.name);
  json_spirit::object_find(row, "fs_type", pool.fs_type);
  json_spirit::object_find(row, "global_dev", global_dev);
  pool.state = "ok";
  scsi_pool::SCSI_Pool_Backstore_Manager_var manager(
      scsi_pool::SCSI_Pool_Backstore_Factory::create(pool.id, global_dev));
  if (manager == nullptr || !manager->open(pool.fs_type)) {
    pool.state = "missing";
    pool.message = "its storage cannot be opened: see the log";
  } else if (global_dev.empty()) {
    check_file_pool(*manager, pool);
  } else if (pool.fs_type == "zfs") {
    check_zfs(global_dev, pool);
  }
  return pool;
}

}  // namespace

void Health::problem(const std::string& text) {
  const std::lock_guard<std::mutex> guard(mutex_);
  problems_.push_back(text);
}

std::vector<std::string> Health::problems() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return problems_;
}

bool pool_states(scsi_pool::SCSI_Pool_Sqlite_Manager& catalog, std::vector<Pool_State>& states) {
  Array rows;
  if (!catalog.list_pools(rows, nullptr)) return false;
  for (const Value& row : rows) {
    if (const Object* object = json_spirit::get_object(row)) states.push_back(state_of(*object));
  }
  return true;
}

Value health_report(const Health& health, scsi_pool::SCSI_Pool_Sqlite_Manager& catalog) {
  std::vector<std::string> problems = health.problems();
  std::vector<std::string> orphans;
  std::vector<Pool_State> states;
  if (!pool_states(catalog, states) || !find_orphans(catalog, orphans)) {
    problems.push_back("the catalog of pools cannot be read: see the log");
  }
  Array pools;
  bool good = problems.empty() && orphans.empty();
  for (const Pool_State& one : states) {
    good = good && one.state == "ok";
    Object pool{{"pool_id", one.id}, {"pool_name", one.name}, {"fs_type", one.fs_type}, {"state", one.state}};
    if (!one.message.empty()) pool["message"] = one.message;
    pools.push_back(pool);
  }
  return Object{{"status", good ? "ok" : "degraded"},
                {"version", VERSION},
                {"pools", pools},
                {"orphans", orphans},
                {"problems", problems}};
}

}  // namespace scsipoold
