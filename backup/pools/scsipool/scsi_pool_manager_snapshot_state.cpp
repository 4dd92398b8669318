// SCSI_Pool_Manager: what replication and recycling rely on: state, standby count and recycle flag of LUN and
// sub filesystem snapshots, and where a pool replicates to.

#include <ace/Guard_T.h>

#include <limits>

#include "backup/pools/scsipool/replicate_target_manager.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "platform/base/log.h"
#include "platform/services/storage_catalog.h"

namespace scsi_pool {

namespace {

// A count that would wrap to 0 would take the protection away.
bool full(ACE_UINT16 standby) {
  return standby == std::numeric_limits<ACE_UINT16>::max();
}

}  // namespace

bool SCSI_Pool_Manager::check_pool_replication(const std::string& pool_id, std::string& target_pool_id,
                                               std::string& extended_attrs) {
  json_spirit::Object info;
  if (!Storage_Catalog_Utils::get_replicate(pool_id, info))
    return LOG_FAILURE("Failed to query pool '%s' replication info\n", pool_id.c_str());
  if (info.empty()) return false;
  json_spirit::Object attrs;
  if (!json_spirit::object_find(info, "target_uuid", target_pool_id) ||
      !json_spirit::object_find(info, "extended_attrs", attrs))
    return LOG_FAILURE("Failed to query pool '%s' replication info:get info error\n", pool_id.c_str());
  extended_attrs = JSON_Dump(attrs);
  return true;
}

std::string SCSI_Pool_Manager::snapshot_state_val_to_key(SNAPSHOT_STATE state) {
  switch (state) {
    case SENDING_STATE:
      return "sending";
    case DEPEND_STATE:
      return "depend";
    default:
      return "idle";
  }
}

bool SCSI_Pool_Manager::update_snapshot_state(const std::string& pool_id, const std::string& snapshot_id,
                                              SNAPSHOT_STATE state) {
  if (!has_catalog()) return false;
  return sqlite_impl_->update_snapshot_state(pool_id, snapshot_id, snapshot_state_val_to_key(state)) ||
         LOG_FAILURE("Failed to update snapshot state\n");
}

bool SCSI_Pool_Manager::reset_snapshots_state(const std::string& pool_id) {
  if (!has_catalog()) return false;
  return sqlite_impl_->update_snapshot_state(pool_id, "", "idle") ||
         LOG_FAILURE("Failed to reset snapshot state\n");
}

bool SCSI_Pool_Manager::update_filesystem_snapshot_state(const std::string& pool_id,
                                                         const std::string& snapshot_id,
                                                         SNAPSHOT_STATE state) {
  if (!has_catalog()) return false;
  return sqlite_impl_->update_filesystem_snapshot_info(pool_id, snapshot_id,
                                                       {{"state", snapshot_state_val_to_key(state)}}) ||
         LOG_FAILURE("Failed to update filesystem snapshot state\n");
}

bool SCSI_Pool_Manager::reset_filesystem_snapshots_state(const std::string& pool_id) {
  if (!has_catalog()) return false;
  return sqlite_impl_->update_filesystem_snapshot_info(pool_id, "", {{"state", "idle"}}) ||
         LOG_FAILURE("Failed to reset filesystem snapshot state\n");
}

bool SCSI_Pool_Manager::update_snapshot_recycle(const std::string& pool_id, const std::string& snapshot_id,
                                                bool recycle) {
  if (!has_catalog()) return false;
  std::string target, attrs;
  if ((check_pool_replication(pool_id, target, attrs) &&
       !Replicate_Target_Manager(target, true).update_snapshot(snapshot_id, {{"recycle", recycle}})) ||
      !sqlite_impl_->update_snapshot_recycle(pool_id, snapshot_id, recycle))
    return LOG_FAILURE("Failed to update snapshot '%s' recycle in target pool '%s'\n", snapshot_id.c_str(),
                       pool_id.c_str());
  return true;
}

bool SCSI_Pool_Manager::update_filesystem_snapshot_recycle(const std::string& pool_id,
                                                           const std::string& snapshot_id, bool recycle) {
  if (!has_catalog()) return false;
  const json_spirit::Object data{{"recycle", recycle}};
  std::string target, attrs;
  if (check_pool_replication(pool_id, target, attrs) &&
      !Replicate_Target_Manager(target, false).update_snapshot(snapshot_id, data))
    return LOG_FAILURE("Failed to update snapshot '%s' recycle in target pool '%s'\n", snapshot_id.c_str(),
                       pool_id.c_str());
  return sqlite_impl_->update_filesystem_snapshot_info(pool_id, snapshot_id, data) ||
         LOG_FAILURE("Failed to update snapshot '%s' recycle in pool '%s'\n", snapshot_id.c_str(),
                     pool_id.c_str());
}

bool SCSI_Pool_Manager::read_state_info(const std::string& pool_id, const std::string& snapshot_id,
                                        bool is_lun, std::string& state, ACE_UINT16& standby) {
  if (!has_catalog()) return false;
  json_spirit::Object info;
  if (is_lun ? !sqlite_impl_->get_snapshot_state_info(pool_id, snapshot_id, info)
             : !sqlite_impl_->get_filesystem_snapshot_state_info(pool_id, snapshot_id, info))
    return LOG_FAILURE("Failed to get snapshot state info: pool is '%s', snapshot is '%s'\n", pool_id.c_str(),
                       snapshot_id.c_str());
  try {
    state = json_spirit::object_get<std::string>(info, "state");
    standby = json_spirit::object_get<ACE_UINT16>(info, "standby");
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get snapshot state info: %s\n", error.what());
  }
  return true;
}

bool SCSI_Pool_Manager::get_snapshot_state_info(const std::string& pool_id, const std::string& snapshot_id,
                                                std::string& state, ACE_UINT16& standby) {
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  return read_state_info(pool_id, snapshot_id, true, state, standby);
}

bool SCSI_Pool_Manager::get_filesystem_snapshot_state_info(const std::string& pool_id,
                                                           const std::string& snapshot_id, std::string& state,
                                                           ACE_UINT16& standby) {
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  return read_state_info(pool_id, snapshot_id, false, state, standby);
}

// Below, the read of a count and the write of the new one are one step under the lock: no concurrent change
// is lost, a reset neither.

bool SCSI_Pool_Manager::add_snapshot_standby(const std::string& pool_id, const std::string& snapshot_id) {
  if (!has_catalog()) return false;
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  std::string state;
  ACE_UINT16 standby = 0;
  if (!read_state_info(pool_id, snapshot_id, true, state, standby))
    return LOG_FAILURE("Failed to add snapshot standby : get standby value error\n");
  return (!full(standby) && sqlite_impl_->update_snapshot_standby(pool_id, snapshot_id, standby + 1)) ||
         LOG_FAILURE("Failed to add snapshot standby : update standby value error\n");
}

bool SCSI_Pool_Manager::sub_snapshot_standby(const std::string& pool_id, const std::string& snapshot_id) {
  if (!has_catalog()) return false;
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  std::string state;
  ACE_UINT16 standby = 0;
  if (!read_state_info(pool_id, snapshot_id, true, state, standby))
    return LOG_FAILURE("Failed to subtract snapshot standby : get standby value error\n");
  if (standby == 0) return LOG_FAILURE("Failed to subtract snapshot standby : standby is 0\n");
  return sqlite_impl_->update_snapshot_standby(pool_id, snapshot_id, standby - 1) ||
         LOG_FAILURE("Failed to subtract snapshot standby : update standby value error\n");
}

bool SCSI_Pool_Manager::add_filesystem_snapshot_standby(const std::string& pool_id,
                                                        const std::string& snapshot_id) {
  if (!has_catalog()) return false;
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  std::string state;
  ACE_UINT16 standby = 0;
  if (!read_state_info(pool_id, snapshot_id, false, state, standby))
    return LOG_FAILURE("Failed to add filesystem snapshot standby : get standby value error\n");
  return (!full(standby) &&
          sqlite_impl_->update_filesystem_snapshot_info(pool_id, snapshot_id, {{"standby", standby + 1}})) ||
         LOG_FAILURE("Failed to add filesystem snapshot standby : update standby value error\n");
}

bool SCSI_Pool_Manager::sub_filesystem_snapshot_standby(const std::string& pool_id,
                                                        const std::string& snapshot_id) {
  if (!has_catalog()) return false;
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  std::string state;
  ACE_UINT16 standby = 0;
  if (!read_state_info(pool_id, snapshot_id, false, state, standby))
    return LOG_FAILURE("Failed to subtract filesystem snapshot standby : get standby value error\n");
  if (standby == 0) return LOG_FAILURE("Failed to subtract filesystem snapshot standby : standby is 0\n");
  return sqlite_impl_->update_filesystem_snapshot_info(pool_id, snapshot_id, {{"standby", standby - 1}}) ||
         LOG_FAILURE("Failed to subtract filesystem snapshot standby : update standby value error\n");
}

bool SCSI_Pool_Manager::reset_snapshot_standby(const std::string& pool_id, const std::string& lun_id) {
  if (!has_catalog()) return false;
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  json_spirit::Array snapshots;
  if (!sqlite_impl_->list_lun_snapshots(pool_id, lun_id, snapshots,
                                        SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL))
    return LOG_FAILURE("Failed to reset lun %s snapshot standby in %s\n", lun_id.c_str(), pool_id.c_str());
  for (const json_spirit::Value& value : snapshots) {
    const json_spirit::Object* row = json_spirit::get_object(value);
    std::string id;
    if (row != nullptr && json_spirit::object_find(*row, "snapshot_uuid", id) &&
        !sqlite_impl_->update_snapshot_standby(pool_id, id, 0))
      return false;
  }
  return true;
}

bool SCSI_Pool_Manager::reset_filesystem_snapshot_standby(const std::string& pool_id,
                                                          const std::string& name) {
  if (!has_catalog()) return false;
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  json_spirit::Array snapshots;
  if (!sqlite_impl_->list_filesystem_snapshots(pool_id, name, snapshots,
                                               SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL))
    return LOG_FAILURE("Failed to reset filesystem %s snapshot standby in %s\n", name.c_str(),
                       pool_id.c_str());
  for (const json_spirit::Value& value : snapshots) {
    const json_spirit::Object* row = json_spirit::get_object(value);
    std::string id;
    if (row != nullptr && json_spirit::object_find(*row, "snapshot_uuid", id) &&
        !sqlite_impl_->update_filesystem_snapshot_info(pool_id, id, {{"standby", 0}}))
      return false;
  }
  return true;
}

}  // namespace scsi_pool
