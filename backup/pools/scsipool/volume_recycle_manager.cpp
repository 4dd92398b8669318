#include "backup/pools/scsipool/volume_recycle_manager.h"

#include "backup/pools/scsipool/peer_session.h"
#include "platform/base/log.h"

namespace scsi_pool {

Volume_Recycle_Manager::Volume_Recycle_Manager(const std::string& pool_uuid) : Recycle_Manager(pool_uuid) {}

bool Volume_Recycle_Manager::list_target_snapshots(const std::string& dataset,
                                                   json_spirit::Array& snapshots) {
  return mgr_->list_lun_snapshots(pool_uuid_, dataset, snapshots) ||
         LOG_FAILURE("Failed to get lun %s snapshots\n", dataset.c_str());
}

bool Volume_Recycle_Manager::get_retention_type(const std::string& dataset,
                                                SCSI_Pool_Manager::LUN_RETENTION_TYPE& type) {
  return mgr_->lun_retention_type(pool_uuid_, dataset, type) ||
         LOG_FAILURE("Failed to recycle snapshot: failed to get LUN retention type\n");
}

bool Volume_Recycle_Manager::exist(const std::string& dataset) {
  return mgr_->lun_exist(pool_uuid_, dataset) ||
         LOG_FAILURE("Failed to recycle snapshot: LUN %s does not exist\n", dataset.c_str());
}

bool Volume_Recycle_Manager::delete_snapshot(const std::string& snapshot_id) {
  return mgr_->delete_snapshot(pool_uuid_, snapshot_id, false) ||
         LOG_FAILURE("Failed to recycle snapshots: failed to delete snapshot '%s'\n", snapshot_id.c_str());
}

bool Volume_Recycle_Manager::get_snapshot_state_info(const std::string& snapshot_id, std::string& state,
                                                     uint16_t& standby) {
  return mgr_->get_snapshot_state_info(pool_uuid_, snapshot_id, state, standby) ||
         LOG_FAILURE("Failed to recycle snapshots: get snapshot '%s' state error\n", snapshot_id.c_str());
}

bool Volume_Recycle_Manager::snapshot_exported(const std::string& snapshot_id) {
  return mgr_->snapshot_exported(pool_uuid_, snapshot_id);
}

bool Volume_Recycle_Manager::get_target_pool_snapshots(const std::string& target_pool,
                                                       const std::string& dataset, Snapshot_List& list) {
  Peer_Session peer;
  if (!peer.resolve(target_pool))
    return LOG_FAILURE("Failed to get target pool snapshot: failed to get host info\n");
  if (!peer.connect()) return LOG_FAILURE("Failed to get target pool snapshot: failed to init session\n");
  json_spirit::Value reply;
  if (!peer.get("/svc/r/scsipool/snapshot", {{"pool_id", target_pool}, {"lun_id", dataset}}, reply) ||
      !reply.is_array())
    return LOG_FAILURE("Failed to get target pool snapshot\n");
  for (const json_spirit::Value& value : *json_spirit::get_array(reply)) {
    const json_spirit::Object* snapshot = json_spirit::get_object(value);
    std::string id;
    if (snapshot != nullptr && json_spirit::object_find(*snapshot, "id", id)) list.push_back(id);
  }
  return true;
}

bool Volume_Recycle_Manager::dependent_clones(const std::string& dataset, const std::string& snapshot_id,
                                              std::vector<std::string>& clones) {
  return mgr_->dependent_clones(pool_uuid_, dataset, snapshot_id, true, clones);
}

}  // namespace scsi_pool
