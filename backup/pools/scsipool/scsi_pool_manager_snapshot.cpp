// SCSI_Pool_Manager: taking, listing and deleting LUN snapshots.

#include <ace/Guard_T.h>

#include <boost/algorithm/string.hpp>

#include "backup/pools/scsipool/replicate_job_def.h"
#include "backup/pools/scsipool/replicate_job_manager.h"
#include "backup/pools/scsipool/replicate_target_manager.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/snapshot_records.h"
#include "backup/pools/scsipool/utils.h"
#include "backup/pools/scsipool/volume_recycle_manager.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/services/recycling_manager.h"
#include "platform/services/replication_notes.h"

namespace scsi_pool {

bool SCSI_Pool_Manager::create_snapshot(const std::string& pool_id, const std::string& lun_id,
                                        std::string& snapshot_id, bool recycle) {
  if (!lun_exist(pool_id, lun_id))
    return LOG_FAILURE("Failed to create snapshot: LUN '%s' does not exist in '%s'\n", lun_id.c_str(),
                       pool_id.c_str());
  if (!verify_remaing_space(pool_id))
    return LOG_FAILURE("Failed to create snapshot: no free space to create snapshot in '%s'\n",
                       pool_id.c_str());
  json_spirit::Array luns;
  if (!sqlite_impl_->list_lun(pool_id, luns, lun_id.c_str()) || luns.empty() || !luns.front().is_object())
    return LOG_FAILURE("Failed to create snapshot: cannot get LUN '%s' info from db\n", lun_id.c_str());
  trim_backstore(pool_id, lun_id);
  if (!generate_uuid(snapshot_id)) return false;
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to create snapshots: init impl error\n");
  {
    const platform::Turns::Turn turn(snapshot_turns_, dataset_key(pool_id, true, lun_id));
    if (!backstore->create_snapshot(lun_id, snapshot_id)) return false;
    if (!add_snapshot_to_db(pool_id, lun_id, snapshot_id, 0, recycle))
      return LOG_FAILURE("Failed to add snapshot to database, pool is '%s', LUN is '%s', snapshot is '%s'.\n",
                         pool_id.c_str(), lun_id.c_str(), snapshot_id.c_str());
  }
  Volume_Recycle_Manager(pool_id).recycle(lun_id);
  return true;
}

bool SCSI_Pool_Manager::add_snapshot_to_db(const std::string& pool_id, const std::string& lun_id,
                                           const std::string& snapshot_id, ACE_UINT64 seq, bool recycle) {
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to add snapshot info to database\n");
  FS_Info_Item info;
  if (!backstore->get_snapshot_info(lun_id, snapshot_id, info))
    return LOG_FAILURE("Failed to add snapshot info to database: get info error\n");
  std::string ctime;
  json_spirit::object_find(info, "ctime", ctime);

  // From choosing the number to writing it: numbers are unique within the LUN.
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, false);
  if (seq == 0) {
    if (!sqlite_impl_->get_last_seq(pool_id, lun_id, seq))
      return LOG_FAILURE("Failed to add snapshot info to database: get last seq error\n");
    ++seq;
  }
  return sqlite_impl_->add_snapshot(snapshot_id, lun_id, pool_id, ctime, seq, recycle, nullptr);
}

bool SCSI_Pool_Manager::create_snapshots(const std::string& pool_id, const std::vector<std::string>& luns_id,
                                         const std::string& catalog_uuid,
                                         std::map<std::string, std::string>& snapshots_id, bool recycle) {
  for (const std::string& lun : luns_id) {
    std::string snapshot;
    if (!create_snapshot(pool_id, lun, snapshot, recycle)) return LOG_FAILURE("Failed to create snapshots\n");
    snapshots_id[lun] = snapshot;
  }
  return submit_replication(pool_id, catalog_uuid, "lun_uuid", luns_id);
}

bool SCSI_Pool_Manager::submit_replication(const std::string& pool_id, const std::string& catalog_uuid,
                                           const char* type_key, const std::vector<std::string>& taken) {
  std::string target_pool_id, extended_attrs;
  if (!check_pool_replication(pool_id, target_pool_id, extended_attrs)) return true;
  Replicate_Job_Definition definition;
  definition.source_pool_uuid(pool_id);
  definition.target_pool_uuid(target_pool_id);
  definition.catalog_uuid(catalog_uuid);
  definition.extended_attrs(extended_attrs);
  Replicate_Job_Manager* jobs = Replicate_Job_Manager::instance();
  if (jobs == nullptr)
    return LOG_FAILURE("Failed to add replicate job: failed to get replicate job manager\n");

  ACE_INT64 amount = 0;
  std::vector<std::string> all;
  const bool send_all = jobs->job_amount(pool_id, amount, target_pool_id) && amount == 0 &&
                        list_dataset_names(pool_id, type_key, all);
  json_spirit::Array datasets;
  for (const std::string& name : send_all ? all : taken)
    datasets.push_back(json_spirit::Object{{type_key, name}});
  definition.snapshots(datasets);
  if (!jobs->submit_job(definition)) LOG_FAILURE("Failed to add replicate job\n");
  return true;
}

bool SCSI_Pool_Manager::list_dataset_names(const std::string& pool_id, const char* type_key,
                                           std::vector<std::string>& names) {
  const bool luns = std::string(type_key) == "lun_uuid";
  json_spirit::Array records;
  if (luns ? !list_lun(pool_id, records, nullptr) : !list_filesystem(pool_id, records, nullptr)) return false;
  for (const json_spirit::Value& value : records) {
    const json_spirit::Object* record = json_spirit::get_object(value);
    std::string name;
    if (record != nullptr && json_spirit::object_find(*record, luns ? "lun_id" : "name", name) &&
        !name.empty())
      names.push_back(name);
  }
  return true;
}

bool SCSI_Pool_Manager::list_snapshot(const std::string& pool_id, json_spirit::Array& snapshot_list,
                                      const char* snapshot_id) {
  return list_snapshot_records(pool_id, snapshot_list, snapshot_id, nullptr);
}

bool SCSI_Pool_Manager::list_snapshot_records(const std::string& pool_id, json_spirit::Array& snapshot_list,
                                              const char* snapshot_id, const std::string* lun_id) {
  if (!pool_exist(pool_id)) return LOG_FAILURE("Failed to list snapshots: pool does not exist\n");
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  json_spirit::Array rows;
  if (!backstore || !sqlite_impl_->list_all_lun_snapshots(pool_id, rows, snapshot_id))
    return LOG_FAILURE("Failed to list snapshots\n");
  std::map<std::string, std::set<std::string>> names = snapshots_by_dataset(rows, "lun_uuid");
  std::map<std::string, Snapshot_Sizes> sizes;
  try {
    for (const json_spirit::Value& value : rows) {
      const json_spirit::Object& row = value.get_ref<const json_spirit::Object&>();
      const auto lun = json_spirit::object_get<std::string>(row, "lun_uuid");
      if (lun_id != nullptr && lun != *lun_id) continue;
      if (sizes.count(lun) == 0 && !backstore->get_snapshot_sizes(lun, names[lun], sizes[lun]))
        return LOG_FAILURE("Failed to list snapshots: the storage of '%s' does not answer\n", lun.c_str());
      append_snapshot_record(sizes[lun], pool_id, row, snapshot_list);
    }
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to list snapshot: %s\n", error.what());
  }
  return true;
}

// A snapshot that the storage cannot measure is left out of the list.
void SCSI_Pool_Manager::append_snapshot_record(const Snapshot_Sizes& sizes, const std::string& pool_id,
                                               const json_spirit::Object& row,
                                               json_spirit::Array& snapshot_list) {
  const auto lun = json_spirit::object_get<std::string>(row, "lun_uuid");
  const auto snapshot = json_spirit::object_get<std::string>(row, "snapshot_uuid");
  std::string clone;
  json_spirit::object_find(row, "export_snapshot_uuid", clone);
  const auto size = sizes.find(snapshot);
  if (size == sizes.end()) return;

  json_spirit::Object record;
  record["parent_id"] = lun;
  record["id"] = snapshot;
  add_sizes(size->second, record);
  record["ctime"] = json_spirit::object_get<std::string>(row, "ctime");
  record["recycle"] = json_spirit::object_get<bool>(row, "recycle");
  record["seq"] = json_spirit::object_get<ACE_UINT64>(row, "seq");
  if (!clone.empty()) add_export_of_snapshot(pool_id, clone, record);
  snapshot_list.push_back(std::move(record));
}

void SCSI_Pool_Manager::add_export_of_snapshot(const std::string& pool_id, const std::string& clone,
                                               json_spirit::Object& record) {
  Sub_Volume_Exporter exporter(pool_id, clone);
  Sub_Volume_Exporter::Export_Info info;
  if (!exporter.open() || !exporter.export_info(info) || !info.status) return;
  json_spirit::Array acls;
  info.acls >> acls;
  record["lun_num"] = info.lun_num;
  record["acls"] = std::move(acls);
  record["type"] = info.type;
  record["target"] = info.target;
  Sub_Volume_Exporter::LIO_Lun_Detail detail;
  if (exporter.get_lun_detail(detail, &info)) record["vpd_serial_number"] = detail.vpd_serial_number;
}

bool SCSI_Pool_Manager::list_lun_snapshots(const std::string& pool_id, const std::string& lun_id,
                                           json_spirit::Array& snapshots) {
  if (!lun_exist(pool_id, lun_id)) return LOG_FAILURE("Failed to list lun snapshots: lun does not exist\n");
  return list_snapshot_records(pool_id, snapshots, nullptr, &lun_id) ||
         LOG_FAILURE("Failed to list lun snapshots: list all snapshot error\n");
}

bool SCSI_Pool_Manager::delete_snapshot(const std::string& pool_id, const std::string& snapshot_id,
                                        bool delete_empty_lun) {
  if (!snapshot_exist(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to delete snaphost: snapshot '%s' does not exist\n", snapshot_id.c_str());
  std::string lun;
  if (!get_snapshot_parent_id(pool_id, snapshot_id, lun))
    return LOG_FAILURE("Failed to delete snapshot: get snapshot parent uuid '%s' error", snapshot_id.c_str());
  json_spirit::Array measured, recorded;
  if (delete_empty_lun && list_lun_snapshots(pool_id, lun, measured) &&
      sqlite_impl_->list_lun_snapshots(pool_id, lun, recorded, SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL) &&
      is_only_snapshot(measured, recorded, snapshot_id))
    return delete_lun(pool_id, lun, false);
  if (snapshot_exported(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to delete snapshot: snapshot '%s' is exported\n", snapshot_id.c_str());
  // The storage would refuse in the end, when the peer's copy and the metadata are gone already.
  if (!free_of_clones(pool_id, lun, snapshot_id, true)) return false;
  if (!Recycling_Manager::recycle_scsi_metadata(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to delete snapshot: failed to recycle metadata\n");
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to delete snapshot\n");
  if (!backstore->snapshot_exist(lun, snapshot_id)) return true;
  std::string target_pool_id, extended_attrs;
  if (check_pool_replication(pool_id, target_pool_id, extended_attrs) &&
      !Replicate_Target_Manager(target_pool_id, true).delete_snapshot(snapshot_id))
    return LOG_FAILURE("Failed to delete snapshot: delete target pool snapshot error\n");
  // When the daemon is killed in between, it drops the record at its next start.
  const Unsettled_Snapshot unsettled{pool_id, true, lun, snapshot_id};
  note_unsettled(unsettled);
  if (!backstore->destroy_snapshot(lun, snapshot_id)) {
    LOG_FAILURE("Failed to delete snapshot: delete snapshot '%s' error\n", snapshot_id.c_str());
    if (backstore->snapshot_exist(lun, snapshot_id)) forget_unsettled(unsettled);
    return false;
  }
  FAULT_POINT("delete_snapshot.destroyed");
  if (!sqlite_impl_->del_snapshot(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to delete snapshot:delete snapshot '%s' info error\n", snapshot_id.c_str());
  forget_unsettled(unsettled);
  remove_copy(pool_id.c_str(), snapshot_id.c_str());
  return true;
}

bool SCSI_Pool_Manager::dependent_clones(const std::string& pool_id, const std::string& dataset,
                                         const std::string& snapshot_id, bool is_lun,
                                         std::vector<std::string>& clones) {
  clones.clear();
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return false;
  FS_Info_Item info;
  std::string names;
  if (is_lun ? !backstore->get_snapshot_info(dataset, snapshot_id, info)
             : !backstore->get_filesystem_snapshot_info(dataset, snapshot_id, info)) {
    // One that is gone has none.
    return is_lun ? !backstore->snapshot_exist(dataset, snapshot_id)
                  : !backstore->filesystem_snapshot_exist(dataset, snapshot_id);
  }
  if (json_spirit::object_find(info, "clones", names)) boost::split(clones, names, boost::is_any_of(","));
  return true;
}

bool SCSI_Pool_Manager::free_of_clones(const std::string& pool_id, const std::string& dataset,
                                       const std::string& snapshot_id, bool is_lun) {
  std::vector<std::string> clones;
  if (!dependent_clones(pool_id, dataset, snapshot_id, is_lun, clones))
    return LOG_FAILURE("Failed to delete snapshot: cannot tell what depends on snapshot '%s'\n",
                       snapshot_id.c_str());
  return clones.empty() || LOG_FAILURE("Failed to delete snapshot: snapshot '%s' has dependent clones: %s\n",
                                       snapshot_id.c_str(), boost::join(clones, ",").c_str());
}

bool SCSI_Pool_Manager::delete_snapshot(const std::string& pool_id, const std::string& lun_id, ACE_UINT64 seq,
                                        bool delete_empty_lun) {
  if (!has_catalog()) return false;
  json_spirit::Object info;
  std::string snapshot_id;
  if (!sqlite_impl_->get_snapshot_info(pool_id, lun_id, seq, info) ||
      !json_spirit::object_find(info, "snapshot_uuid", snapshot_id))
    return LOG_FAILURE("Failed to delete snapshot: get snapshot id error\n");
  return delete_snapshot(pool_id, snapshot_id, delete_empty_lun);
}

bool SCSI_Pool_Manager::snapshot_exist(const std::string& pool_id, const std::string& snapshot_id) {
  json_spirit::Object info;
  std::string lun;
  if (!pool_exist(pool_id) || !sqlite_impl_->get_snapshot_info(pool_id, snapshot_id, info)) return false;
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to check snapshot exist: init impl error\n");
  return json_spirit::object_find(info, "volume_uuid", lun) &&
         sqlite_impl_->snapshot_exist(pool_id, snapshot_id) && backstore->snapshot_exist(lun, snapshot_id);
}

bool SCSI_Pool_Manager::snapshots_exist(const std::string& pool_id,
                                        const std::vector<std::string>& snapshots) {
  if (!pool_exist(pool_id)) return false;
  for (const std::string& snapshot : snapshots)
    if (sqlite_impl_->snapshot_exist(pool_id, snapshot)) return true;
  return false;
}

bool SCSI_Pool_Manager::snapshot_exist_with_seq(const std::string& pool_id, const std::string& lun_id,
                                                ACE_UINT64 seq) {
  if (!has_catalog()) return false;
  json_spirit::Object info;
  std::string snapshot_id;
  return sqlite_impl_->get_snapshot_info(pool_id, lun_id, seq, info) &&
         json_spirit::object_find(info, "snapshot_uuid", snapshot_id) && snapshot_exist(pool_id, snapshot_id);
}

bool SCSI_Pool_Manager::get_snapshot_parent_id(const std::string& pool_id, const std::string& snapshot_id,
                                               std::string& parent_id) {
  if (!has_catalog()) return false;
  json_spirit::Object info;
  if (!sqlite_impl_->get_snapshot_info(pool_id, snapshot_id, info))
    return LOG_FAILURE("Failed to get snapshot parent idget snapshot info error\n");
  return json_spirit::object_find(info, "volume_uuid", parent_id) ||
         LOG_FAILURE("Failed to get snapshot parent id\n");
}

}  // namespace scsi_pool
