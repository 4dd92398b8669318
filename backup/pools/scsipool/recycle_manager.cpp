#include "backup/pools/scsipool/recycle_manager.h"

#include <algorithm>
#include <boost/algorithm/string/join.hpp>

#include "backup/pools/scsipool/peer_session.h"
#include "platform/base/log.h"
#include "platform/services/recycling_manager.h"
#include "platform/services/storage_catalog.h"

namespace scsi_pool {

namespace {

bool contains(const Recycle_Manager::Snapshot_List& list, const std::string& id) {
  return std::find(list.begin(), list.end(), id) != list.end();
}

}  // namespace

Recycle_Manager::Recycle_Manager(const std::string& pool_uuid)
    : pool_uuid_(pool_uuid), mgr_(SCSI_Pool_Manager::instance()) {}

bool Recycle_Manager::recycle(const std::string& dataset) {
  if (mgr_ == nullptr) return LOG_VIOLATION("mgr_ is NULL");
  SCSI_Pool_Manager::LUN_RETENTION_TYPE type = SCSI_Pool_Manager::RETENTION_TYPE_NORMAL;
  if (!exist(dataset) || !get_retention_type(dataset, type)) return false;
  const bool done =
      type == SCSI_Pool_Manager::RETENTION_TYPE_NEWEST ? recycle_newest(dataset) : recycle_default(dataset);
  return done || LOG_FAILURE("Failed to recycle snapshot\n");
}

bool Recycle_Manager::recycle_default(const std::string& dataset) {
  Snapshot_List remove, keep;
  if (!select_default(dataset, remove, keep)) return false;
  remove_all(remove);
  return true;
}

bool Recycle_Manager::recycle_newest(const std::string& dataset) {
  Snapshot_List remove, keep;
  if (!select_newest(dataset, remove, keep)) return false;
  remove_all(remove);
  return true;
}

void Recycle_Manager::remove_all(const Snapshot_List& snapshots) {
  target_away_ = false;
  for (const std::string& id : snapshots)
    check_and_remove(id);
}

// Each deletion waits long for a target that does not answer, and none of them can succeed.
bool Recycle_Manager::target_reachable() {
  std::string target_pool, attrs;
  if (!mgr_->check_pool_replication(pool_uuid_, target_pool, attrs)) return true;
  Peer_Session peer;
  return (peer.resolve(target_pool) && peer.reachable()) ||
         LOG_NOTICE("No further snapshot is recycled now: the replication target '%s' cannot be reached\n",
                    target_pool.c_str());
}

bool Recycle_Manager::select_default(const std::string& dataset, Snapshot_List& remove, Snapshot_List& keep) {
  ACE_UINT64 retention = 0;
  if (!get_pool_retention(retention)) return false;
  Snapshot_List candidates;
  if (!get_recycle_snapshot_list(dataset, candidates)) return false;
  const std::size_t surplus = candidates.size() > retention ? candidates.size() - retention : 0;
  remove.assign(candidates.begin(), candidates.begin() + surplus);
  keep.assign(candidates.begin() + surplus, candidates.end());
  return true;
}

bool Recycle_Manager::select_newest(const std::string& dataset, Snapshot_List& remove, Snapshot_List& keep) {
  Snapshot_List candidates;
  if (!get_recycle_snapshot_list(dataset, candidates)) return false;
  if (candidates.empty()) return true;
  const std::string newest = candidates.back();
  candidates.pop_back();
  keep.push_back(newest);

  std::string target_pool, attrs;
  if (!mgr_->check_pool_replication(pool_uuid_, target_pool, attrs)) {
    remove = candidates;
    return true;
  }
  Snapshot_List on_target;
  if (!get_target_pool_snapshots(target_pool, dataset, on_target)) return false;
  // Until the newest is on the target, what both sides hold is the base of the next incremental stream.
  const bool bases_needed = !contains(on_target, newest);
  for (const std::string& id : candidates)
    (bases_needed && contains(on_target, id) ? keep : remove).push_back(id);
  return true;
}

bool Recycle_Manager::get_pool_retention(ACE_UINT64& retention) {
  json_spirit::Array pools;
  if (!mgr_->list_pools(pools, pool_uuid_.c_str()) || pools.empty())
    return LOG_FAILURE("Failed to get pool retention\n");
  const json_spirit::Object* pool = json_spirit::get_object(pools.front());
  if (pool == nullptr || !json_spirit::object_find(*pool, "retention", retention))
    return LOG_FAILURE("Failed to get pool retention\n");
  return true;
}

bool Recycle_Manager::get_recycle_snapshot_list(const std::string& dataset, Snapshot_List& list) {
  json_spirit::Array snapshots;
  if (!list_target_snapshots(dataset, snapshots))
    return LOG_FAILURE("Failed to get %s snapshots\n", dataset.c_str());
  for (const json_spirit::Value& value : snapshots) {
    const json_spirit::Object* snapshot = json_spirit::get_object(value);
    bool recycle = false;
    std::string id;
    if (snapshot == nullptr || !json_spirit::object_find(*snapshot, "recycle", recycle) || !recycle) continue;
    if (json_spirit::object_find(*snapshot, "id", id) && !contains(list, id)) list.push_back(id);
  }
  return true;
}

bool Recycle_Manager::in_use(const std::string& snapshot_id, std::string& why) {
  std::string state;
  uint16_t standby = 0;
  if (!get_snapshot_state_info(snapshot_id, state, standby)) return false;
  if (state != "idle")
    why = "its state is " + state;
  else if (standby != 0)
    why = "replication is waiting for it";
  else if (snapshot_exported(snapshot_id))
    why = "it is exported";
  return true;
}

bool Recycle_Manager::check_and_remove(const std::string& snapshot_id) {
  std::string why;
  if (!in_use(snapshot_id, why)) {
    return LOG_FAILURE("Failed to recycle snapshots: get snapshot '%s' state error\n", snapshot_id.c_str());
  }
  if (!why.empty()) return false;
  std::string catalog_uuid;
  // Not known whether a backup refers to it: it stays.
  if (!get_snapshot_catalog_info(pool_uuid_, snapshot_id, catalog_uuid)) return false;
  if (catalog_uuid.empty()) {
    if (target_away_) return false;
    const bool deleted = delete_snapshot(snapshot_id);
    target_away_ = !deleted && !target_reachable();
    return deleted;
  }
  return Recycling_Manager::recycle_scsi_metadata(pool_uuid_, snapshot_id) ||
         LOG_FAILURE("Failed to recycle snapshots: failed to recycle snapshot '%s' metadata\n",
                     snapshot_id.c_str());
}

bool Recycle_Manager::get_snapshot_catalog_info(const std::string& pool_uuid, const std::string& snapshot_id,
                                                std::string& catalog_uuid) {
  catalog_uuid.clear();
  json_spirit::Array catalogs;
  if (!Storage_Catalog_Manager::instance()->query_catalog(pool_uuid, catalogs))
    return LOG_FAILURE("Failed to query catalogs for pool %s\n", pool_uuid.c_str());
  for (const json_spirit::Value& value : catalogs) {
    const json_spirit::Object* catalog = json_spirit::get_object(value);
    json_spirit::Object attrs;
    std::string named;
    if (catalog == nullptr || !json_spirit::object_find(*catalog, "extended_attrs", attrs)) continue;
    if (!json_spirit::object_find(attrs, "snapshot_id", named) || named != snapshot_id) continue;
    if (json_spirit::object_find(*catalog, "uuid", catalog_uuid)) return true;
  }
  return true;
}

bool Recycle_Manager::dependent_clones(const std::string&, const std::string&,
                                       std::vector<std::string>& clones) {
  clones.clear();
  return true;
}

std::string Recycle_Manager::obstacle(const std::string& dataset, const std::string& snapshot_id) {
  std::string why, catalog_uuid;
  if (!in_use(snapshot_id, why)) return "its state cannot be read";
  if (!why.empty()) return why;
  if (!get_snapshot_catalog_info(pool_uuid_, snapshot_id, catalog_uuid))
    return "the backup catalogs cannot be read";
  if (!catalog_uuid.empty())
    return "backup catalog " + catalog_uuid + " refers to it, which is handed to metadata recycling first";
  std::vector<std::string> clones;
  if (!dependent_clones(dataset, snapshot_id, clones)) return "the storage does not tell what depends on it";
  return clones.empty() ? "" : "it has dependent clones: " + boost::join(clones, ",");
}

bool Recycle_Manager::explain(const std::string& dataset, std::vector<Verdict>& verdicts) {
  if (mgr_ == nullptr) return LOG_VIOLATION("mgr_ is NULL");
  SCSI_Pool_Manager::LUN_RETENTION_TYPE type = SCSI_Pool_Manager::RETENTION_TYPE_NORMAL;
  if (!exist(dataset) || !get_retention_type(dataset, type)) return false;
  const bool newest_only = type == SCSI_Pool_Manager::RETENTION_TYPE_NEWEST;
  Snapshot_List remove, keep;
  if (newest_only ? !select_newest(dataset, remove, keep) : !select_default(dataset, remove, keep))
    return false;

  json_spirit::Array snapshots;
  if (!list_target_snapshots(dataset, snapshots)) return false;
  for (const json_spirit::Value& value : snapshots) {
    const json_spirit::Object* snapshot = json_spirit::get_object(value);
    Verdict verdict;
    if (snapshot == nullptr || !json_spirit::object_find(*snapshot, "id", verdict.snapshot_id)) continue;
    if (contains(remove, verdict.snapshot_id)) {
      verdict.reason = obstacle(dataset, verdict.snapshot_id);
      verdict.remove = verdict.reason.empty();
      if (verdict.remove) verdict.reason = "older than what retention keeps";
    } else if (contains(keep, verdict.snapshot_id)) {
      verdict.reason =
          newest_only ? "the newest, or a base of the next replication" : "within the retention count";
    } else {
      verdict.reason = "not marked for recycling";
    }
    verdicts.push_back(verdict);
  }
  return true;
}

}  // namespace scsi_pool
