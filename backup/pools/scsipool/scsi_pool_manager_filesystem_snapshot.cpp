// SCSI_Pool_Manager: taking, listing and deleting snapshots of sub filesystems.

#include <ace/Guard_T.h>

#include "backup/pools/scsipool/filesystem_recycle_manager.h"
#include "backup/pools/scsipool/replicate_target_manager.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/snapshot_records.h"
#include "backup/pools/scsipool/utils.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/services/recycling_manager.h"
#include "platform/services/replication_notes.h"

namespace scsi_pool {

bool SCSI_Pool_Manager::create_filesystem_snapshot(const std::string& pool_id, const std::string& name,
                                                   std::string& snapshot_id, bool recycle) {
  if (!filesystem_exist(pool_id, name))
    return LOG_FAILURE("Failed to create snapshot: filesystem '%s' does not exist in '%s'\n", name.c_str(),
                       pool_id.c_str());
  if (!verify_remaing_space(pool_id))
    return LOG_FAILURE("Failed to create snapshot: no free space to create snapshot in '%s'\n",
                       pool_id.c_str());
  if (!generate_uuid(snapshot_id)) return false;
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to create snapshots: init impl error\n");
  {
    const platform::Turns::Turn turn(snapshot_turns_, dataset_key(pool_id, false, name));
    if (!backstore->create_filesystem_snapshot(name.c_str(), snapshot_id.c_str())) return false;
    if (!add_filesystem_snapshot_to_db(pool_id, name, snapshot_id, 0, recycle))
      return LOG_FAILURE(
          "Failed to add snapshot to database, pool is '%s', filesystem is '%s', snapshot is '%s'.\n",
          pool_id.c_str(), name.c_str(), snapshot_id.c_str());
  }
  Filesystem_Recycle_Manager(pool_id).recycle(name);
  return true;
}

bool SCSI_Pool_Manager::add_filesystem_snapshot_to_db(const std::string& pool_id, const std::string& name,
                                                      const std::string& snapshot_id, ACE_UINT64 seq,
                                                      bool recycle) {
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to add snapshot info to database\n");
  FS_Info_Item info;
  if (!backstore->get_filesystem_snapshot_info(name, snapshot_id, info))
    return LOG_FAILURE("Failed to add snapshot info to database: get info error\n");
  std::string ctime;
  json_spirit::object_find(info, "ctime", ctime);

  // From choosing the number to writing it: numbers are unique within the sub filesystem.
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  if (seq == 0) {
    if (!sqlite_impl_->get_last_filesystem_seq(pool_id, name, seq))
      return LOG_FAILURE("Failed to add snapshot info to database: get last seq error\n");
    ++seq;
  }
  return sqlite_impl_->add_filesystem_snapshot(snapshot_id, name, pool_id, ctime, seq, recycle, nullptr);
}

bool SCSI_Pool_Manager::create_filesystem_snapshots(const std::string& pool_id,
                                                    const std::vector<std::string>& names,
                                                    const std::string& catalog_uuid,
                                                    std::map<std::string, std::string>& snapshots_id,
                                                    bool recycle) {
  for (const std::string& name : names) {
    std::string snapshot;
    if (!create_filesystem_snapshot(pool_id, name, snapshot, recycle))
      return LOG_FAILURE("Failed to create snapshots\n");
    snapshots_id[name] = snapshot;
  }
  return submit_replication(pool_id, catalog_uuid, "filesystem_name", names);
}

bool SCSI_Pool_Manager::list_filesystem_snapshot(const std::string& pool_id,
                                                 json_spirit::Array& snapshot_list, const char* snapshot_id) {
  return list_filesystem_snapshot_records(pool_id, snapshot_list, snapshot_id, nullptr);
}

bool SCSI_Pool_Manager::list_filesystem_snapshot_records(const std::string& pool_id,
                                                         json_spirit::Array& snapshot_list,
                                                         const char* snapshot_id,
                                                         const std::string* filesystem) {
  if (!pool_exist(pool_id)) return LOG_FAILURE("Failed to list snapshots: pool does not exist\n");
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  json_spirit::Array rows;
  if (!backstore || !sqlite_impl_->list_all_filesystem_snapshots(pool_id, rows, snapshot_id))
    return LOG_FAILURE("Failed to list snapshots\n");
  std::map<std::string, std::set<std::string>> names = snapshots_by_dataset(rows, "name");
  std::map<std::string, Snapshot_Sizes> sizes;
  try {
    for (const json_spirit::Value& value : rows) {
      const json_spirit::Object& row = value.get_ref<const json_spirit::Object&>();
      const auto name = json_spirit::object_get<std::string>(row, "name");
      const auto snapshot = json_spirit::object_get<std::string>(row, "snapshot_uuid");
      if (filesystem != nullptr && name != *filesystem) continue;
      if (sizes.count(name) == 0 && !backstore->get_filesystem_snapshot_sizes(name, names[name], sizes[name]))
        return LOG_FAILURE("Failed to list snapshots: the storage of '%s' does not answer\n", name.c_str());
      const auto size = sizes[name].find(snapshot);
      if (size == sizes[name].end()) continue;
      json_spirit::Object record;
      record["parent_id"] = name;
      record["id"] = snapshot;
      add_sizes(size->second, record);
      record["ctime"] = json_spirit::object_get<std::string>(row, "ctime");
      record["recycle"] = json_spirit::object_get<bool>(row, "recycle");
      record["seq"] = json_spirit::object_get<ACE_UINT64>(row, "seq");
      snapshot_list.push_back(std::move(record));
    }
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to list snapshot: %s\n", error.what());
  }
  return true;
}

bool SCSI_Pool_Manager::list_filesystem_snapshots(const std::string& pool_id, const std::string& name,
                                                  json_spirit::Array& snapshots) {
  if (!filesystem_exist(pool_id, name))
    return LOG_FAILURE("Failed to list filesystem snapshots,filesystem %s does not exist\n", name.c_str());
  return list_filesystem_snapshot_records(pool_id, snapshots, nullptr, &name) ||
         LOG_FAILURE("Failed to list lun snapshots: list all snapshot error\n");
}

bool SCSI_Pool_Manager::delete_filesystem_snapshot(const std::string& pool_id, const std::string& snapshot_id,
                                                   bool delete_empty_fs) {
  if (!filesystem_snapshot_exist(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to delete snaphost: snapshot '%s' does not exist\n", snapshot_id.c_str());
  std::string name;
  if (!get_filesystem_snapshot_parent(pool_id, snapshot_id, name))
    return LOG_FAILURE("Failed to delete snapshot: get snapshot parent name '%s' error", snapshot_id.c_str());
  json_spirit::Array measured, recorded;
  if (delete_empty_fs && list_filesystem_snapshots(pool_id, name, measured) &&
      sqlite_impl_->list_filesystem_snapshots(pool_id, name, recorded,
                                              SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL) &&
      is_only_snapshot(measured, recorded, snapshot_id))
    return delete_filesystem(pool_id, name);
  if (!free_of_clones(pool_id, name, snapshot_id, false)) return false;
  if (!Recycling_Manager::recycle_scsi_metadata(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to delete filesystem snapshot: failed to recycle metadata\n");
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to delete snapshot\n");
  if (!backstore->filesystem_snapshot_exist(name, snapshot_id)) return true;
  std::string target_pool_id, extended_attrs;
  if (check_pool_replication(pool_id, target_pool_id, extended_attrs) &&
      !Replicate_Target_Manager(target_pool_id, false).delete_snapshot(snapshot_id))
    return LOG_FAILURE("Failed to delete snapshot: delete target pool snapshot error\n");
  // When the daemon is killed in between, it drops the record at its next start.
  const Unsettled_Snapshot unsettled{pool_id, false, name, snapshot_id};
  note_unsettled(unsettled);
  if (!backstore->destroy_filesystem_snapshot(name, snapshot_id)) {
    LOG_FAILURE("Failed to delete snapshot: delete snapshot '%s' error\n", snapshot_id.c_str());
    if (backstore->filesystem_snapshot_exist(name, snapshot_id)) forget_unsettled(unsettled);
    return false;
  }
  FAULT_POINT("delete_snapshot.destroyed");
  if (!sqlite_impl_->del_filesystem_snapshot(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to delete snapshot:delete snapshot '%s' info error\n", snapshot_id.c_str());
  forget_unsettled(unsettled);
  remove_copy(pool_id.c_str(), snapshot_id.c_str());
  return true;
}

bool SCSI_Pool_Manager::delete_filesystem_snapshot(const std::string& pool_id, const std::string& name,
                                                   ACE_UINT64 seq, bool delete_empty_fs) {
  if (!has_catalog()) return false;
  json_spirit::Object info;
  std::string snapshot_id;
  if (!sqlite_impl_->get_filesystem_snapshot_info(pool_id, name, seq, info) ||
      !json_spirit::object_find(info, "snapshot_uuid", snapshot_id))
    return LOG_FAILURE("Failed to delete snapshot: get snapshot id error\n");
  return delete_filesystem_snapshot(pool_id, snapshot_id, delete_empty_fs);
}

bool SCSI_Pool_Manager::filesystem_snapshot_exist(const std::string& pool_id,
                                                  const std::string& snapshot_id) {
  json_spirit::Object info;
  std::string name;
  if (!pool_exist(pool_id) || !sqlite_impl_->get_filesystem_snapshot_info(pool_id, snapshot_id, info))
    return false;
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to check snapshot exist: init impl error\n");
  return json_spirit::object_find(info, "filesystem_name", name) &&
         sqlite_impl_->filesystem_snapshot_exist(pool_id, snapshot_id) &&
         backstore->filesystem_snapshot_exist(name, snapshot_id);
}

bool SCSI_Pool_Manager::filesystem_snapshots_exist(const std::string& pool_id,
                                                   const std::vector<std::string>& snapshots) {
  if (!pool_exist(pool_id)) return false;
  for (const std::string& snapshot : snapshots)
    if (sqlite_impl_->filesystem_snapshot_exist(pool_id, snapshot)) return true;
  return false;
}

bool SCSI_Pool_Manager::filesystem_snapshot_exist_with_seq(const std::string& pool_id,
                                                           const std::string& name, ACE_UINT64 seq) {
  if (!has_catalog()) return false;
  json_spirit::Object info;
  std::string snapshot_id;
  return sqlite_impl_->get_filesystem_snapshot_info(pool_id, name, seq, info) &&
         json_spirit::object_find(info, "snapshot_uuid", snapshot_id) &&
         filesystem_snapshot_exist(pool_id, snapshot_id);
}

bool SCSI_Pool_Manager::get_filesystem_snapshot_parent(const std::string& pool_id,
                                                       const std::string& snapshot_id, std::string& name) {
  if (!has_catalog()) return false;
  json_spirit::Object info;
  if (!sqlite_impl_->get_filesystem_snapshot_info(pool_id, snapshot_id, info))
    return LOG_FAILURE("Failed to get snapshot parent nameget snapshot info error\n");
  return json_spirit::object_find(info, "filesystem_name", name) ||
         LOG_FAILURE("Failed to get snapshot parent name.\n");
}

}  // namespace scsi_pool
