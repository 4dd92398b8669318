// The pool operations of SCSI_Pool_Manager. A pool is its catalog record and its backing store; most
// operations treat it as existing only when both are there.

#include <exception>
#include <map>
#include <memory>
#include <vector>

#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/utils.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/base/uuid.h"

namespace scsi_pool {

using json_spirit::Array;
using json_spirit::get_object;
using json_spirit::Object;
using json_spirit::object_find;
using json_spirit::object_get;
using json_spirit::Value;

namespace {

using Snapshots_By_LUN = std::map<std::string, std::vector<std::string>>;

const Object* first_object(const Array& rows) {
  return rows.empty() ? nullptr : get_object(rows.front());
}

// The snapshots that the catalog knows as exported.
Snapshots_By_LUN exported_snapshots(SCSI_Pool_Sqlite_Manager& catalog, const std::string& pool_id) {
  Snapshots_By_LUN exported;
  Array rows;
  catalog.list_all_lun_snapshots(pool_id, rows, nullptr);
  for (const Value& value : rows) {
    const Object* row = get_object(value);
    std::string lun, snapshot, clone;
    if (row != nullptr && object_find(*row, "lun_uuid", lun) &&
        object_find(*row, "snapshot_uuid", snapshot) && object_find(*row, "export_snapshot_uuid", clone)) {
      exported[lun].push_back(snapshot);
    }
  }
  return exported;
}

}  // namespace

SCSI_Pool_Backstore_Manager* SCSI_Pool_Manager::init_backstore_mgr(const std::string& pool_id) {
  std::string fs_type, global_dev;
  if (!get_pool_backstore_info(pool_id, fs_type, global_dev) || fs_type.empty()) {
    LOG_FAILURE("Failed to init backstore manager: get backstore info error\n");
    return nullptr;
  }
  SCSI_Pool_Backstore_Manager_var backstore(SCSI_Pool_Backstore_Factory::create(pool_id, global_dev));
  if (!backstore || !backstore->open(fs_type)) {
    LOG_FAILURE("Failed to init backstore manager\n");
    return nullptr;
  }
  return backstore.release();
}

bool SCSI_Pool_Manager::get_pool_backstore_info(const std::string& pool_id, std::string& fs_type,
                                                std::string& global_dev) {
  if (!has_catalog()) return false;
  Array rows;
  const bool listed = sqlite_impl_->list_pools(rows, pool_id.c_str());
  const Object* row = first_object(rows);
  if (!listed || row == nullptr)
    return LOG_FAILURE("Failed to get pool backstore info: get pool info error\n");
  if (!object_find(*row, "fs_type", fs_type)) {
    return LOG_FAILURE("Failed to get pool backstore info: get filesystem type error\n");
  }
  object_find(*row, "global_dev", global_dev);
  return true;
}

bool SCSI_Pool_Manager::pool_exist(const std::string& pool_id) {
  if (pool_id.empty() || !has_catalog() || !sqlite_impl_->pool_exist(pool_id)) return false;
  const SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  return backstore && backstore->exist();
}

bool SCSI_Pool_Manager::list_pools(Array& pools, const char* pool_id) {
  Array rows;
  if (!has_catalog() || !sqlite_impl_->list_pools(rows, pool_id)) return false;
  try {
    for (const Value& row : rows) {
      if (!append_pool(row.get_ref<const Object&>(), pools)) return false;
    }
    return true;
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to list scsi pool: %s\n", error.what());
  }
}

bool SCSI_Pool_Manager::append_pool(const Object& row, Array& pools) {
  const auto uuid = object_get<std::string>(row, "uuid");
  const SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(uuid));
  ACE_UINT64 used = 0;
  if (!backstore || !backstore->exist() || !backstore->get_used_size(used)) return true;
  const auto attrs_text = object_get<std::string>(row, "extended_attrs");
  Value attrs = Object{};
  if (!attrs_text.empty() && !loads_json(attrs_text, attrs)) {
    return LOG_FAILURE("Failed to list scsi pool: load extended attributes error\n");
  }
  std::string global_dev;
  object_find(row, "global_dev", global_dev);
  pools.push_back(Object{{"pool_id", uuid},
                         {"used_size", used},
                         {"pool_name", object_get<std::string>(row, "name")},
                         {"type", object_get<std::string>(row, "type")},
                         {"target", object_get<std::string>(row, "target")},
                         {"total_size", object_get<ACE_UINT64>(row, "size")},
                         {"retention", object_get<ACE_UINT64>(row, "retention")},
                         {"compression", object_get<std::string>(row, "compression")},
                         {"thin_provision", object_get<bool>(row, "thin_provision")},
                         {"dedup", object_get<bool>(row, "dedup")},
                         {"fs_type", object_get<std::string>(row, "fs_type")},
                         {"snapshot_mounted", pool_busy(uuid)},
                         {"extended_attrs", attrs},
                         {"global_dev", global_dev}});
  return true;
}

bool SCSI_Pool_Manager::create_pool(std::string& pool_id, const std::string& pool_name,
                                    const Pool_Option& option) {
  if (!has_catalog()) return false;
  if (pool_id.empty() && !generate_uuid(pool_id)) {
    return LOG_FAILURE("Failed to create SCSI pool: generate uuid error\n");
  }
  // The catalog could not record it, which would come out only after the storage has been made.
  if (!platform::is_uuid(pool_id)) {
    return LOG_FAILURE("Failed to create SCSI pool: '%s' is not a UUID\n", pool_id.c_str());
  }
  if (sqlite_impl_->pool_exist_by_name(pool_name)) {
    return LOG_FAILURE("Failed to create SCSI pool: pool with name %s is exist\n", pool_name.c_str());
  }
  const FS_Info_Item mount_request{{"compression", option.compression}};
  if (option.lun_type == TYPE_FC && !add_lio_fc_target(option.target.c_str())) {
    return LOG_FAILURE("Failed to create SCSI pool: failed to create FC target '%s'\n",
                       option.target.c_str());
  }
  FAULT_POINT("create_pool.target");
  const SCSI_Pool_Backstore_Manager_var backstore(
      SCSI_Pool_Backstore_Factory::create(pool_id, option.global_dev));
  if (!backstore || !backstore->open(option.fs_type) ||
      !backstore->create(option.size, option.thin_provision)) {
    return false;
  }
  FAULT_POINT("create_pool.create");
  if (!backstore->mount(mount_request)) return false;
  FAULT_POINT("create_pool.mount");
  const std::string transport =
      option.lun_type == TYPE_UNKNOWN ? "null" : lio_target_type_to_string(option.lun_type);
  return sqlite_impl_->add_pool(pool_id, pool_name, option.fs_type, option.global_dev, option.compression,
                                option.dedup, option.thin_provision, option.size, transport, option.target,
                                option.retention, JSON_Dump(option.ext_attrs));
}

bool SCSI_Pool_Manager::delete_pool(const std::string& pool_id, bool force) {
  const char* const pool = pool_id.c_str();
  if (!pool_exist(pool_id)) {
    return LOG_FAILURE("Failed to delete '%s' SCSI pool: SCSI pool does not exist\n", pool);
  }
  if (!delete_pool_luns(pool_id, force)) return false;
  FAULT_POINT("delete_pool.luns");
  const SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to delete '%s' SCSI pool\n", pool);
  // `zpool destroy` of a pool with an exported volume is refused and takes away the device nodes of the
  // others.
  Array exports;
  if (!sqlite_impl_->list_export(pool_id, exports, nullptr) || !exports.empty()) {
    return LOG_FAILURE("Failed to delete '%s' SCSI pool: a volume of it is still exported\n", pool);
  }
  if (!backstore->destroy()) {
    return LOG_FAILURE("Failed to delete '%s' SCSI pool: delete SCSI pool backstore error\n", pool);
  }
  FAULT_POINT("delete_pool.backstore");
  return sqlite_impl_->del_pool(pool_id) ||
         LOG_FAILURE("Failed to delete '%s' SCSI pool: delete SCSI pool record error\n", pool);
}

bool SCSI_Pool_Manager::delete_pool_luns(const std::string& pool_id, bool force) {
  Array luns;
  if (!sqlite_impl_->list_lun(pool_id, luns, nullptr)) {
    return LOG_FAILURE("Failed to delete '%s' SCSI pool: list pool LUN error\n", pool_id.c_str());
  }
  for (auto value = luns.rbegin(); value != luns.rend(); ++value) {
    const Object* lun = get_object(*value);
    std::string lun_uuid;
    if (lun == nullptr || !object_find(*lun, "lun_uuid", lun_uuid)) continue;
    if (!delete_lun(pool_id, lun_uuid, force)) {
      return LOG_FAILURE("Failed to delete '%s' SCSI pool: delete LUN error\n", pool_id.c_str());
    }
  }
  return true;
}

bool SCSI_Pool_Manager::pool_busy(const std::string& pool_id) {
  if (!pool_exist(pool_id)) {
    return LOG_FAILURE("Failed to check '%s' SCSI pool: SCSI pool does not exist\n", pool_id.c_str());
  }
  Array luns;
  if (!sqlite_impl_->list_lun(pool_id, luns, nullptr)) {
    return LOG_FAILURE("Failed to check '%s' SCSI pool: list pool LUN error\n", pool_id.c_str());
  }
  // Asking the storage starts tools for each LUN and snapshot, so only the few are asked about that the
  // catalog knows as exported: the others cannot be.
  const Snapshots_By_LUN exported = exported_snapshots(*sqlite_impl_, pool_id);
  for (const Value& value : luns) {
    const Object* lun = get_object(value);
    std::string lun_uuid;
    if (lun == nullptr || !object_find(*lun, "lun_uuid", lun_uuid)) continue;
    const auto snapshots = exported.find(lun_uuid);
    if (snapshots == exported.end() || !lun_exist(pool_id, lun_uuid)) continue;
    for (const std::string& snapshot : snapshots->second) {
      if (snapshot_exported(pool_id, snapshot)) return true;
    }
  }
  return false;
}

bool SCSI_Pool_Manager::update_pool(const std::string& pool_id, ACE_UINT16 retention, const std::string& name,
                                    const Object& ext_attrs) {
  const char* const pool = pool_id.c_str();
  try {
    Array pools;
    if (!list_pools(pools, pool) || pools.empty()) {
      return LOG_FAILURE("Failed to update '%s' SCSI pool: SCSI pool does not exist\n", pool);
    }
    const Object& record = pools.front().get_ref<const Object&>();
    const auto new_retention = retention != 0 ? retention : object_get<ACE_UINT16>(record, "retention");
    const auto new_name = !name.empty() ? name : object_get<std::string>(record, "pool_name");
    Object attrs;
    if (!get_pool_ext_attrs(pool_id, attrs)) return LOG_FAILURE("Failed to update '%s' SCSI pool\n", pool);
    for (const auto& [key, value] : ext_attrs)
      attrs[key] = value;
    return sqlite_impl_->update_pool(pool_id, new_retention, new_name, JSON_Dump(attrs)) ||
           LOG_FAILURE("Failed to update '%s' SCSI pool: update SCSI pool record error\n", pool);
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to update '%s' SCSI pool: %s\n", pool, error.what());
  }
}

bool SCSI_Pool_Manager::get_pool_ext_attrs(const std::string& pool_id, Object& info) {
  Array pools;
  const bool listed = list_pools(pools, pool_id.c_str());
  const Object* record = first_object(pools);
  if (!listed || record == nullptr) {
    return LOG_FAILURE("Failed to get pool extended attribute: get pool info error\n");
  }
  return object_find(*record, "extended_attrs", info) ||
         LOG_FAILURE("Failed to get pool extended attribute: get extended_attrs error\n");
}

bool SCSI_Pool_Manager::verify_remaing_space(const std::string& pool_id) {
  if (pool_id.empty()) return LOG_FAILURE("Failed to check pool free space enough: pool id is empty\n");
  Array pools;
  const bool listed = list_pools(pools, pool_id.c_str());
  const Object* record = first_object(pools);
  if (!listed || record == nullptr) {
    return LOG_FAILURE("Failed to check pool free space enough: get pool '%s' info error\n", pool_id.c_str());
  }
  ACE_UINT64 total = 0, used = 0;
  if (!object_find(*record, "total_size", total) || !object_find(*record, "used_size", used)) {
    return LOG_FAILURE(
        "Failed to check pool free space enough: get pool '%s' total size or used size error\n",
        pool_id.c_str());
  }
  return used <= total;
}

}  // namespace scsi_pool
