#include "backup/pools/scsipool/filesystem_recycle_manager.h"

#include "platform/base/log.h"

namespace scsi_pool {

Filesystem_Recycle_Manager::Filesystem_Recycle_Manager(const std::string& pool_uuid)
    : Recycle_Manager(pool_uuid) {}

bool Filesystem_Recycle_Manager::list_target_snapshots(const std::string& dataset,
                                                       json_spirit::Array& snapshots) {
  return mgr_->list_filesystem_snapshots(pool_uuid_, dataset, snapshots) ||
         LOG_FAILURE("Failed to get filesystem %s snapshots\n", dataset.c_str());
}

bool Filesystem_Recycle_Manager::get_retention_type(const std::string&,
                                                    SCSI_Pool_Manager::LUN_RETENTION_TYPE& type) {
  type = SCSI_Pool_Manager::RETENTION_TYPE_NORMAL;
  return true;
}

bool Filesystem_Recycle_Manager::exist(const std::string& dataset) {
  return mgr_->filesystem_exist(pool_uuid_, dataset) ||
         LOG_FAILURE("Failed to recycle snapshot: filesystem %s does not exist\n", dataset.c_str());
}

bool Filesystem_Recycle_Manager::delete_snapshot(const std::string& snapshot_id) {
  return mgr_->delete_filesystem_snapshot(pool_uuid_, snapshot_id, false) ||
         LOG_FAILURE("Failed to recycle snapshots: failed to delete snapshot '%s'\n", snapshot_id.c_str());
}

bool Filesystem_Recycle_Manager::get_snapshot_state_info(const std::string& snapshot_id, std::string& state,
                                                         uint16_t& standby) {
  return mgr_->get_filesystem_snapshot_state_info(pool_uuid_, snapshot_id, state, standby) ||
         LOG_FAILURE("Failed to recycle snapshots: get snapshot '%s' state error\n", snapshot_id.c_str());
}

bool Filesystem_Recycle_Manager::snapshot_exported(const std::string&) {
  return false;
}

bool Filesystem_Recycle_Manager::get_target_pool_snapshots(const std::string&, const std::string&,
                                                           Snapshot_List& list) {
  list.clear();
  return true;
}

bool Filesystem_Recycle_Manager::dependent_clones(const std::string& dataset, const std::string& snapshot_id,
                                                  std::vector<std::string>& clones) {
  return mgr_->dependent_clones(pool_uuid_, dataset, snapshot_id, false, clones);
}

}  // namespace scsi_pool
