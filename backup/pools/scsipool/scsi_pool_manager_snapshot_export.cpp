// SCSI_Pool_Manager: snapshots exported as LUNs of their own, through link clones.

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sub_volume_manager.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"

namespace scsi_pool {

namespace {

constexpr ACE_UINT16 ANY_LUN_NUM = 65535;

bool named(const char* text) {
  return text != nullptr && *text != '\0';
}

// The clone and LUN number of one export row; false for a row without them.
bool read_export(const json_spirit::Value& value, std::string& clone, ACE_UINT16& lun_num) {
  const json_spirit::Object* row = json_spirit::get_object(value);
  return row != nullptr && json_spirit::object_find(*row, "export_snapshot_uuid", clone) && !clone.empty() &&
         json_spirit::object_find(*row, "lun_num", lun_num);
}

}  // namespace

bool SCSI_Pool_Manager::export_snapshot(const std::string& pool_id, const std::string& snapshot_id,
                                        const LIO_ACLs& acls, ACE_UINT16& lun_num, bool only_once,
                                        const char* new_type, const char* new_target) {
  if (!snapshot_exist(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to export snapshot: '%s' does not exist in pool '%s'\n", snapshot_id.c_str(),
                       pool_id.c_str());
  if (only_once) {
    json_spirit::Array exports;
    if (!sqlite_impl_->list_export_by_snapshot(pool_id, snapshot_id, exports))
      return LOG_FAILURE("Failed to export snapshot:list export snapshots error\n");
    if (!exports.empty()) {
      const json_spirit::Object* last = json_spirit::get_object(exports.back());
      return (last != nullptr && json_spirit::object_find(*last, "lun_num", lun_num)) ||
             LOG_FAILURE("Failed to export snapshot: get export snapshots LUN num in database error\n");
    }
  }

  Sub_Volume_Exporter::Export_Info export_info;
  export_info.acls = acls;
  json_spirit::Object info;
  if (!sqlite_impl_->get_snapshot_info(pool_id, snapshot_id, info))
    return LOG_FAILURE("Failed to export subvol:get snapshot '%s' info error\n", snapshot_id.c_str());
  ACE_UINT64 size = 0;
  try {
    json_spirit::object_get<std::string>(info, "volume_uuid");
    size = json_spirit::object_get<ACE_UINT64>(info, "snapshot_size");
    export_info.type = json_spirit::object_get<std::string>(info, "type");
    export_info.target = json_spirit::object_get<std::string>(info, "target");
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to export subvol: %s\n", error.what());
  }
  if (named(new_type) && named(new_target)) {
    export_info.type = new_type;
    export_info.target = new_target;
  }

  std::string clone;
  Sub_Volume_Manager volumes(pool_id);
  if (!volumes.open()) return LOG_FAILURE("Failed to export snapshot: failed to open sub volume manager\n");
  if (!volumes.clone(snapshot_id, true, Sub_Volume_Manager::Volume_Opts(), clone, true))
    return LOG_FAILURE("Failed to export snapshot: failed to clone snapshot");
  FAULT_POINT("export_snapshot.clone");
  Sub_Volume_Exporter exporter(pool_id, clone);
  if (!exporter.open()) return LOG_FAILURE("Failed to export snapshot: failed to open sub volume exporter\n");
  if (!exporter.create_lun(size, export_info)) {
    volumes.remove(clone);
    return LOG_FAILURE("Failed to export snapshot\n");
  }
  lun_num = export_info.lun_num;
  return true;
}

bool SCSI_Pool_Manager::exports_of_snapshot(const std::string& pool_id, const std::string& snapshot_id,
                                            json_spirit::Array& exports) {
  if (!has_catalog()) return false;
  return sqlite_impl_->list_export_by_snapshot(pool_id, snapshot_id, exports) ||
         LOG_FAILURE("Failed to get export snapshots by snapshots '%s'\n", snapshot_id.c_str());
}

bool SCSI_Pool_Manager::unexport_snapshot(const std::string& pool_id, const std::string& snapshot_id,
                                          ACE_UINT16 lun_num) {
  std::string parent;
  if (!get_snapshot_parent_id(pool_id, snapshot_id, parent))
    return LOG_FAILURE("Failed to unexport snapshot: get snapshot parent uuid error\n");
  Sub_Volume_Manager volumes(pool_id);
  if (!volumes.open()) return LOG_FAILURE("Failed to unexport snapshot: failed to open sub volume manager\n");
  if (!snapshot_exist(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to find '%s' in SCSI pool '%s'\n", snapshot_id.c_str(), pool_id.c_str());
  json_spirit::Array exports;
  if (!exports_of_snapshot(pool_id, snapshot_id, exports)) return false;
  for (const json_spirit::Value& value : exports) {
    std::string clone;
    ACE_UINT16 number = 0;
    if (!read_export(value, clone, number) || (lun_num != ANY_LUN_NUM && number != lun_num)) continue;
    Sub_Volume_Exporter exporter(pool_id, clone);
    if (!exporter.open())
      return LOG_FAILURE("Failed to unexport snapshot %s: failed to open sub volume exporter\n",
                         clone.c_str());
    Sub_Volume_Exporter::Export_Info info;
    if (!exporter.export_info(info))
      return LOG_FAILURE("Failed to unexport snapshot: %sfailed to get export info\n", clone.c_str());
    if (!info.status) continue;
    if (!exporter.delete_lun(info, true))
      return LOG_FAILURE("Failed to unexport snapshot %s\n", clone.c_str());
    FAULT_POINT("unexport_snapshot.lun");
    if (!volumes.remove(clone)) return LOG_FAILURE("Failed to unexport snapshot %s\n", clone.c_str());
  }
  return true;
}

bool SCSI_Pool_Manager::snapshot_exported(const std::string& pool_id, const std::string& snapshot_id) {
  std::string parent;
  if (!get_snapshot_parent_id(pool_id, snapshot_id, parent))
    return LOG_FAILURE("Failed to check snapshot exported: get snapshot parent uuid error\n");
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to check snapshot exported\n");
  if (!sqlite_impl_->snapshot_exist(pool_id, snapshot_id) || !backstore->snapshot_exist(parent, snapshot_id))
    return LOG_FAILURE("Failed to find '%s' in SCSI pool '%s'\n", snapshot_id.c_str(), pool_id.c_str());
  json_spirit::Array exports;
  return exports_of_snapshot(pool_id, snapshot_id, exports) && !exports.empty();
}

bool SCSI_Pool_Manager::update_snapshot_acls(const std::string& pool_id, const std::string& snapshot_id,
                                             int lun_num, const LIO_ACLs& acls, bool add) {
  if (!snapshot_exist(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to update snapshot ACL: snapshot '%s' does not exist\n", snapshot_id.c_str());
  json_spirit::Array exports;
  if (!exports_of_snapshot(pool_id, snapshot_id, exports)) return false;
  for (const json_spirit::Value& value : exports) {
    std::string clone;
    ACE_UINT16 number = 0;
    if (!read_export(value, clone, number) || (lun_num != ANY_LUN_NUM && number != lun_num)) continue;
    Sub_Volume_Exporter exporter(pool_id, clone);
    if (!exporter.open()) return LOG_FAILURE("Failed to update LUN ACL: failed to init export manager\n");
    return exporter.update_acl(acls, add) || LOG_FAILURE("Failed to update LUN ACL\n");
  }
  return true;
}

}  // namespace scsi_pool
