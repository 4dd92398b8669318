// The LUN operations of SCSI_Pool_Manager: sub volumes with their exports.

#include <exception>
#include <memory>
#include <utility>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sub_volume_manager.h"
#include "backup/pools/scsipool/utils.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"

namespace scsi_pool {

using json_spirit::Array;
using json_spirit::get_object;
using json_spirit::Object;
using json_spirit::object_find;
using json_spirit::object_get;
using json_spirit::Value;

bool SCSI_Pool_Manager::list_lun(const std::string& pool_id, Array& lun_list, const char* lun_id) {
  const char* const pool = pool_id.c_str();
  if (!pool_exist(pool_id))
    return LOG_FAILURE("Failed to list '%s' SCSI pool LUN:pool does not exist\n", pool);
  Sub_Volume_Exporter::Export_Info target;
  if (!get_target_info(pool_id, target.type, target.target)) return false;
  Array luns;
  if (!sqlite_impl_->list_lun(pool_id, luns, lun_id)) {
    return LOG_FAILURE("Failed to list '%s' SCSI pool LUN:list LUN error\n", pool);
  }
  const SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to list '%s' SCSI pool LUN\n", pool);
  try {
    for (const Value& row : luns)
      append_lun(pool_id, row.get_ref<const Object&>(), target, *backstore, lun_list);
    return true;
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to list '%s' SCSI pool LUN: %s\n", pool, error.what());
  }
}

void SCSI_Pool_Manager::append_lun(const std::string& pool_id, const Object& row,
                                   const Sub_Volume_Exporter::Export_Info& target,
                                   SCSI_Pool_Backstore_Manager& backstore, Array& lun_list) {
  const auto lun_uuid = object_get<std::string>(row, "lun_uuid");
  std::string type = target.type, target_name = target.target;
  object_find(row, "ext_type", type);
  object_find(row, "ext_target", target_name);
  Sub_Volume_Exporter exporter(pool_id, lun_uuid);
  Sub_Volume_Exporter::Export_Info exported;
  if (!exporter.open() || !exporter.export_info(exported)) return;
  ACE_UINT64 used = 0;
  FS_Info_Item info;
  if (!backstore.get_volume_info(lun_uuid, info, used)) return;
  Object lun{{"lun_id", lun_uuid},
             {"size", used},
             {"max_size", object_get<ACE_UINT64>(row, "size")},
             {"extended_attrs", object_get<std::string>(row, "extended_attrs")},
             {"type", type},
             {"target", target_name}};
  std::string origin_lun, origin_snapshot;
  if (object_find(info, "origin_subvol", origin_lun) &&
      object_find(info, "origin_snapshot", origin_snapshot)) {
    lun["origin_lun"] = origin_lun;
    lun["origin_snap"] = origin_snapshot;
  }
  if (exported.status) {
    Array acls;
    exported.acls >> acls;
    lun["lun_num"] = exported.lun_num;
    lun["acls"] = acls;
    Sub_Volume_Exporter::LIO_Lun_Detail detail;
    if (exporter.get_lun_detail(detail, &exported)) lun["vpd_serial_number"] = detail.vpd_serial_number;
  }
  lun_list.push_back(std::move(lun));
}

bool SCSI_Pool_Manager::export_new_lun(const std::string& pool_id, const std::string& lun_id,
                                       const LUN_Option& option, ACE_UINT16& lun_num) {
  Sub_Volume_Exporter::Export_Info info;
  info.acls = option.acls;
  if (option.lun_export && !export_lun(pool_id, lun_id, info)) return false;
  lun_num = info.lun_num;
  return true;
}

bool SCSI_Pool_Manager::create_lun(const std::string& pool_id, const LUN_Option& option, std::string& lun_id,
                                   ACE_UINT16& lun_num) {
  Sub_Volume_Manager volumes(pool_id);
  if (!volumes.open()) return LOG_FAILURE("Failed to create LUN\n");
  Sub_Volume_Manager::Volume_Opts opts;
  opts.size = option.size;
  opts.block_size = option.block_size;
  opts.ext_attrs = option.ext_attrs;
  if (!volumes.create(opts, lun_id)) return LOG_FAILURE("Failed to create LUN: failed to create subvol\n");
  FAULT_POINT("create_lun.volume");
  if (export_new_lun(pool_id, lun_id, option, lun_num)) return true;
  unexport_lun(pool_id, lun_id, false);
  return LOG_FAILURE("Failed to create LUN: export LUN error\n");
}

bool SCSI_Pool_Manager::create_lun(const std::string& pool_id, const std::string& snapshot_id,
                                   const LUN_Option& option, std::string& lun_id, ACE_UINT16& lun_num) {
  Sub_Volume_Manager volumes(pool_id);
  if (!volumes.open()) return LOG_FAILURE("Failed to create LUN with snapshot\n");
  Sub_Volume_Manager::Volume_Opts opts;
  opts.ext_attrs = option.ext_attrs;
  if (!volumes.clone(snapshot_id, option.link_clone, opts, lun_id, false)) {
    return LOG_FAILURE("Failed to create LUN with snapshot: failed to create link clone\n");
  }
  FAULT_POINT("create_lun.clone");
  if (export_new_lun(pool_id, lun_id, option, lun_num)) return true;
  volumes.remove(lun_id);
  return LOG_FAILURE("Failed to create LUN with snapshot: export LUN error\n");
}

bool SCSI_Pool_Manager::update_lun_with_snapshot(const std::string& pool_id, const std::string& lun_id,
                                                 ACE_UINT16& lun_num, std::string& snapshot_id, bool force) {
  if (!lun_exist(pool_id, lun_id)) {
    return LOG_FAILURE("Failed to update LUN with snapshot:LUN '%s' does not exist \n", lun_id.c_str());
  }
  if (!newest_lun_snapshot(*sqlite_impl_, pool_id, lun_id, snapshot_id) ||
      !snapshot_exist(pool_id, snapshot_id)) {
    return LOG_FAILURE("Failed to update LUN with snapshot:failed to get snapshot\n");
  }
  Sub_Volume_Exporter::Export_Info info;
  if (!lun_exported(pool_id, lun_id, info)) {
    return LOG_FAILURE("Failed to update LUN with snapshot: failed to get LUN state\n");
  }
  if (info.status && !unexport_lun(pool_id, lun_id, force)) {
    return LOG_FAILURE("Failed to update LUN with snapshot:failed to unexport outdated LUN\n");
  }
  FAULT_POINT("update_lun.unexport");
  Array luns;
  if (!sqlite_impl_->list_lun(pool_id, luns, lun_id.c_str()) || luns.empty()) {
    return LOG_FAILURE("Failed to update LUN with snapshot:get LUN info error\n");
  }
  const SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to update LUN with snapshot:init pool impl error\n");
  if (!backstore->volume_rollback(lun_id, snapshot_id)) {
    return LOG_FAILURE("Failed to update LUN with snapshot:rollback subvolume error\n");
  }
  FAULT_POINT("update_lun.rollback");
  if (info.status && !export_lun(pool_id, lun_id, info)) {
    return LOG_FAILURE("Failed to update LUN with snapshot:export LUN error\n");
  }
  lun_num = info.lun_num;
  return true;
}

bool SCSI_Pool_Manager::delete_lun(const std::string& pool_id, const std::string& lun_id, bool force) {
  Sub_Volume_Manager volumes(pool_id);
  if (!volumes.open()) return LOG_FAILURE("Failed to delete LUN '%s'\n", lun_id.c_str());
  if (!volumes.exist(lun_id)) {
    return LOG_FAILURE("Failed to delete LUN: LUN '%s' does not exist\n", lun_id.c_str());
  }
  Array snapshots;
  if (!sqlite_impl_->list_lun_snapshots(pool_id, lun_id, snapshots,
                                        SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL)) {
    return LOG_FAILURE("Failed to delete LUN: list LUN snapshots error\n");
  }
  for (const Value& value : snapshots) {
    const Object* snapshot = get_object(value);
    std::string snapshot_id;
    if (snapshot == nullptr || !object_find(*snapshot, "snapshot_uuid", snapshot_id)) continue;
    if (!delete_snapshot(pool_id, snapshot_id, false)) return false;
  }
  FAULT_POINT("delete_lun.snapshots");
  if (!lun_exist(pool_id, lun_id)) return true;
  if (!unexport_lun(pool_id, lun_id, force)) return false;
  FAULT_POINT("delete_lun.unexport");
  return volumes.remove(lun_id) || LOG_FAILURE("Failed to delete LUN\n");
}

bool SCSI_Pool_Manager::export_lun(const std::string& pool_id, const std::string& lun_id,
                                   Sub_Volume_Exporter::Export_Info& export_info) {
  if (!lun_exist(pool_id, lun_id)) {
    return LOG_FAILURE("Failed to export LUN: '%s' does not exist\n", lun_id.c_str());
  }
  Object info;
  if (!sqlite_impl_->get_volume_info(pool_id, lun_id, info)) {
    return LOG_FAILURE("Failed to export LUN: failed to get LUN info\n");
  }
  ACE_UINT64 size = 0;
  try {
    size = object_get<ACE_UINT64>(info, "size");
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to export LUN: %s\n", error.what());
  }
  if ((export_info.type.empty() || export_info.target.empty()) &&
      !get_target_info(pool_id, export_info.type, export_info.target)) {
    return LOG_FAILURE("Failed to export LUN: failed to get target info\n");
  }
  Sub_Volume_Exporter exporter(pool_id, lun_id);
  if (!exporter.open()) return LOG_FAILURE("Failed to export LUN: failed to open sub volume exporter\n");
  return exporter.create_lun(size, export_info) || LOG_FAILURE("Failed to export LUN\n");
}

bool SCSI_Pool_Manager::unexport_lun(const std::string& pool_id, const std::string& lun_id, bool force) {
  if (!lun_exist(pool_id, lun_id)) {
    return LOG_FAILURE("Failed to unexport subvol: subvol '%s' does not exist\n", lun_id.c_str());
  }
  Sub_Volume_Exporter exporter(pool_id, lun_id);
  if (!exporter.open()) return LOG_FAILURE("Failed to unexport lun: failed to init export manager\n");
  Sub_Volume_Exporter::Export_Info info;
  if (!exporter.export_info(info)) {
    return LOG_FAILURE("Failed to unexport lun: Failed to get exported info\n");
  }
  if (!info.status) return true;
  return exporter.delete_lun(info, force) || LOG_FAILURE("Failed to unexport lun\n");
}

bool SCSI_Pool_Manager::lun_exported(const std::string& pool_id, const std::string& lun_id,
                                     Sub_Volume_Exporter::Export_Info& info) {
  if (!lun_exist(pool_id, lun_id)) return LOG_FAILURE("Failed to check lun exported: lun does not exist\n");
  Sub_Volume_Exporter exporter(pool_id, lun_id);
  if (!exporter.open()) return LOG_FAILURE("Failed to check lun exported: failed to init export manager\n");
  return exporter.export_info(info) || LOG_FAILURE("Failed to check lun exported\n");
}

bool SCSI_Pool_Manager::lun_exist(const std::string& pool_id, const std::string& lun_id) {
  if (!pool_exist(pool_id)) return false;
  Sub_Volume_Manager volumes(pool_id);
  if (!volumes.open()) return LOG_FAILURE("Failed to check LUN exist\n");
  return volumes.exist(lun_id);
}

bool SCSI_Pool_Manager::update_lun_acls(const std::string& pool_id, const std::string& lun_id,
                                        const LIO_ACLs& acls, bool add) {
  if (!lun_exist(pool_id, lun_id)) {
    return LOG_FAILURE("Failed to update LUN ACL: subvol '%s' does not exist\n", lun_id.c_str());
  }
  Sub_Volume_Exporter exporter(pool_id, lun_id);
  if (!exporter.open()) return LOG_FAILURE("Failed to update LUN ACL: failed to init export manager\n");
  return exporter.update_acl(acls, add) || LOG_FAILURE("Failed to update LUN ACL\n");
}

bool SCSI_Pool_Manager::get_target_info(const std::string& pool_id, std::string& type, std::string& target) {
  Object info;
  if (!has_catalog()) return false;
  if (!sqlite_impl_->get_pool_info(pool_id, info)) {
    return LOG_FAILURE("Failed to get '%s' SCSI pool target info from database\n", pool_id.c_str());
  }
  try {
    type = object_get<std::string>(info, "type");
    target = object_get<std::string>(info, "target");
    return true;
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get '%s' SCSI pool target info: %s\n", pool_id.c_str(), error.what());
  }
}

bool SCSI_Pool_Manager::set_volume_ext_attrs(const std::string& pool_id,
                                             SCSI_Pool_Backstore_Manager::volume_ext_attrs& attrs) {
  Object extended;
  Array pools;
  if (!get_pool_ext_attrs(pool_id, extended) || !list_pools(pools, pool_id.c_str()) || pools.empty() ||
      !pools.front().is_object()) {
    return LOG_FAILURE("Failed to set volume extended attributes\n");
  }
  object_find(extended, "async", attrs.async);
  object_find(extended, "checksum", attrs.checksum);
  object_find(extended, "block_size", attrs.block_size);
  const Object& pool = *get_object(pools.front());
  object_find(pool, "dedup", attrs.dedup);
  std::string compression;
  if (object_find(pool, "compression", compression) && !compression.empty()) attrs.compression = compression;
  return true;
}

bool SCSI_Pool_Manager::create_lun_backstore(const std::string& path, ACE_UINT64 size) {
  return create_and_pad_file(path.c_str(), size, true);
}

}  // namespace scsi_pool
