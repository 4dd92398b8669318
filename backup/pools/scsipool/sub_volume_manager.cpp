#include "backup/pools/scsipool/sub_volume_manager.h"

#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
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

Sub_Volume_Manager::Sub_Volume_Manager(const std::string& pool_uuid)
    : pool_uuid_(pool_uuid), pool_mgr_(SCSI_Pool_Manager::instance()) {}

bool Sub_Volume_Manager::open() {
  if (pool_mgr_ == nullptr) return LOG_VIOLATION("pool_mgr_ is NULL");
  sqlite_impl_.reset(new (std::nothrow) SCSI_Pool_Sqlite_Manager_Impl);
  if (!sqlite_impl_) {
    errno = ENOMEM;
    return false;
  }
  if (!sqlite_impl_->open())
    return LOG_FAILURE("Failed to init sub volume manager: failed to open database\n");
  if (!pool_mgr_->pool_exist(pool_uuid_)) {
    return LOG_FAILURE("Failed to init sub volume manager: pool %s does not exist\n", pool_uuid_.c_str());
  }
  std::string fs_type, global_dev;
  if (!pool_mgr_->get_pool_backstore_info(pool_uuid_, fs_type, global_dev)) {
    return LOG_FAILURE("Failed to init sub volume manager: failed to get backstore info\n");
  }
  back_mgr_.reset(SCSI_Pool_Backstore_Factory::create(pool_uuid_, global_dev));
  return (back_mgr_ && back_mgr_->open(fs_type)) ||
         LOG_FAILURE("Failed to init sub volume manager: Failed to init backstore manager\n");
}

bool Sub_Volume_Manager::get_attr_from_pool(SCSI_Pool_Backstore_Manager::volume_ext_attrs& attrs) {
  const char* const pool = pool_uuid_.c_str();
  Array pools;
  const bool listed = sqlite_impl_->list_pools(pools, pool);
  const Object* record = pools.empty() ? nullptr : get_object(pools.front());
  if (!listed || record == nullptr) {
    return LOG_FAILURE("Failed to get sub volume attribute from pool '%s'\n", pool);
  }
  try {
    const auto text = object_get<std::string>(*record, "extended_attrs");
    Value parsed = Object{};
    if (!text.empty() && !loads_json(text, parsed)) {
      return LOG_FAILURE("Failed to get sub volume attribute from pool'%s':load extended attributes error\n",
                         pool);
    }
    const Object& extended = parsed.get_ref<const Object&>();
    attrs.async = object_get<bool>(extended, "async");
    attrs.checksum = object_get<bool>(extended, "checksum");
    attrs.block_size = object_get<ACE_UINT32>(extended, "block_size");
    attrs.dedup = object_get<bool>(*record, "dedup");
    attrs.compression = object_get<std::string>(*record, "compression");
    return true;
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get sub volume attribute from pool '%s': %s\n", pool, error.what());
  }
}

bool Sub_Volume_Manager::create(const Volume_Opts& opt, std::string& vol_uuid) {
  if (!pool_mgr_->verify_remaing_space(pool_uuid_)) {
    return LOG_FAILURE("Failed to create sub volume: no free space to create sub volume in '%s'\n",
                       pool_uuid_.c_str());
  }
  if (vol_uuid.empty() && !generate_uuid(vol_uuid)) return false;
  // The catalog could not record it, which would come out only after the volume has been made.
  if (!platform::is_uuid(vol_uuid) || opt.size == 0) {
    return LOG_FAILURE("Failed to create sub volume: '%s' of %Q bytes: a UUID and a size are needed\n",
                       vol_uuid.c_str(), opt.size);
  }
  SCSI_Pool_Backstore_Manager::volume_ext_attrs attrs;
  if (!get_attr_from_pool(attrs)) {
    return LOG_FAILURE("Failed to create sub volume: failed to get attributes from pool\n");
  }
  if (opt.block_size != 0) attrs.block_size = opt.block_size;
  if (!back_mgr_->create_volume(vol_uuid, opt.size, attrs)) {
    return LOG_FAILURE("Failed to create LUN: '%s'\n", vol_uuid.c_str());
  }
  return add_database_entry(vol_uuid, "", opt.size, JSON_Dump(opt.ext_attrs).c_str());
}

bool Sub_Volume_Manager::clone(const std::string& snapshot_uuid, bool link_clone, const Volume_Opts& option,
                               std::string& vol_uuid, bool record_relation) {
  if (!pool_mgr_->verify_remaing_space(pool_uuid_)) {
    return LOG_FAILURE("Failed to clone sub volume: no free space to create sub volume in '%s'\n",
                       pool_uuid_.c_str());
  }
  if (!pool_mgr_->snapshot_exist(pool_uuid_, snapshot_uuid)) {
    return LOG_FAILURE("Failed to clone sub volume: snapshot '%s' does not exist in pool '%s'\n",
                       snapshot_uuid.c_str(), pool_uuid_.c_str());
  }
  Object info;
  ACE_UINT64 size = 0;
  std::string parent;
  if (!sqlite_impl_->get_snapshot_info(pool_uuid_, snapshot_uuid, info) ||
      !object_find(info, "snapshot_size", size) || !object_find(info, "volume_uuid", parent)) {
    return LOG_FAILURE("Failed to clone sub volume: cannot get snapshot '%s' info error\n",
                       snapshot_uuid.c_str());
  }
  if (vol_uuid.empty() && !generate_uuid(vol_uuid)) return false;
  // As in create(): what cannot be recorded must not be made.
  if (!platform::is_uuid(vol_uuid))
    return LOG_FAILURE("Failed to clone sub volume: '%s' is no UUID\n", vol_uuid.c_str());
  SCSI_Pool_Backstore_Manager::volume_ext_attrs attrs;
  // A clone gets by without the pool's attributes; a half-read set must not count.
  if (!get_attr_from_pool(attrs)) attrs = {};
  if (!back_mgr_->clone_volume(vol_uuid, parent, snapshot_uuid, attrs, link_clone)) {
    return LOG_FAILURE("Failed to clone sub volume: failed to %s clone subvol\n",
                       link_clone ? "link" : "hard");
  }
  const std::string& origin = record_relation ? snapshot_uuid : platform::zero_uuid();
  return add_database_entry(vol_uuid, origin, size, JSON_Dump(option.ext_attrs).c_str()) ||
         LOG_FAILURE("Failed to link clone: add data to database error\n");
}

bool Sub_Volume_Manager::add_database_entry(const std::string& vol_uuid, const std::string& snapshot_uuid,
                                            ACE_UINT64 size, const char* ext_attrs) {
  FS_Info_Item info;
  SCSI_Pool_Sqlite_Manager::Volume_Info record;
  if (!back_mgr_->get_volume_info(vol_uuid, info) || !object_find(info, "ctime", record.ctime)) {
    return LOG_FAILURE("Failed to add sub volume info to database: get info error\n");
  }
  if (sqlite_impl_->lun_exist(pool_uuid_, vol_uuid)) {
    return sqlite_impl_->update_volume_ctime(pool_uuid_, vol_uuid, record.ctime);
  }
  if (size == 0) return LOG_FAILURE("Failed to add sub volume info to database: LUN size is 0\n");
  record.uuid = vol_uuid;
  record.snapshot_uuid = snapshot_uuid.empty() ? platform::zero_uuid() : snapshot_uuid;
  record.pool_uuid = pool_uuid_;
  record.size = size;
  record.extended_attrs = ext_attrs != nullptr ? ext_attrs : "";
  return sqlite_impl_->add_volume(record);
}

bool Sub_Volume_Manager::delete_database_entry(const std::string& vol_uuid) {
  return sqlite_impl_->del_volume(pool_uuid_, vol_uuid) ||
         LOG_FAILURE("Failed to delete sub volume from database\n");
}

bool Sub_Volume_Manager::exist(const std::string& vol_uuid) {
  return sqlite_impl_->lun_exist(pool_uuid_, vol_uuid) && back_mgr_->volume_exist(vol_uuid);
}

bool Sub_Volume_Manager::remove(const std::string& vol_uuid) {
  if (!exist(vol_uuid)) {
    return LOG_FAILURE("Failed to delete sub volume: subvol '%s' does not exist\n", vol_uuid.c_str());
  }
  Array snapshots;
  if (!sqlite_impl_->list_lun_snapshots(pool_uuid_, vol_uuid, snapshots,
                                        SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL)) {
    return LOG_FAILURE("Failed to delete sub volume: failed to list snapshots\n");
  }
  if (!snapshots.empty()) {
    return LOG_FAILURE("Failed to delete sub volume: %s sub volume has snapshots\n", vol_uuid.c_str());
  }
  if (!back_mgr_->destroy_volume(vol_uuid)) return LOG_FAILURE("Failed to delete sub volume\n");
  FAULT_POINT("remove_volume.destroy");
  return delete_database_entry(vol_uuid) || LOG_FAILURE("Failed to delete sub volume\n");
}

bool Sub_Volume_Manager::rollback(const std::string& vol_uuid, std::string& snapshot_uuid) {
  if (!exist(vol_uuid)) {
    return LOG_FAILURE("Failed to rollback sub volume:volume '%s' does not exist \n", vol_uuid.c_str());
  }
  if (!newest_lun_snapshot(*sqlite_impl_, pool_uuid_, vol_uuid, snapshot_uuid) ||
      !pool_mgr_->snapshot_exist(pool_uuid_, snapshot_uuid)) {
    return LOG_FAILURE("Failed to rollback sub volume:failed to get snapshot\n");
  }
  if (!back_mgr_->volume_rollback(vol_uuid, snapshot_uuid)) {
    return LOG_FAILURE("Failed to rollback sub volume:rollback sub volume error\n");
  }
  // The data are back already: an old creation time does no harm.
  if (!add_database_entry(vol_uuid, "", 0, nullptr)) {
    LOG_FAILURE("Failed to update LUN with snapshot:Update LUN ctime error\n");
  }
  return true;
}

bool Sub_Volume_Manager::list(Array& vols, const char* vol_uuid) {
  Array rows;
  if (!sqlite_impl_->list_volume(pool_uuid_, rows, vol_uuid)) {
    return LOG_FAILURE("Failed to list '%s' SCSI pool sub volumes:failed to get from database\n",
                       pool_uuid_.c_str());
  }
  try {
    for (const Value& row : rows)
      append_volume(row.get_ref<const Object&>(), vols);
    return true;
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to list '%s' SCSI pool sub volume: %s\n", pool_uuid_.c_str(), error.what());
  }
}

void Sub_Volume_Manager::append_volume(const Object& row, Array& vols) {
  const auto uuid = object_get<std::string>(row, "uuid");
  const auto origin = object_get<std::string>(row, "snapshot_uuid");
  const auto size = object_get<ACE_UINT64>(row, "size");
  const auto attrs = object_get<std::string>(row, "extended_attrs");
  ACE_UINT64 used = 0;
  FS_Info_Item info;
  if (!back_mgr_->get_volume_info(uuid, info, used)) return;
  info["uuid"] = uuid;
  info["size"] = used;
  info["max_size"] = size;
  info["extended_attrs"] = attrs;
  if (origin != platform::zero_uuid()) info["id"] = origin;
  vols.push_back(std::move(info));
}

bool newest_lun_snapshot(SCSI_Pool_Sqlite_Manager& catalog, const std::string& pool_id,
                         const std::string& lun_id, std::string& snapshot_id) {
  Array snapshots;
  if (!catalog.list_lun_snapshots(pool_id, lun_id, snapshots, SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL) ||
      snapshots.empty()) {
    return false;
  }
  // Oldest first.
  const Object* newest = get_object(snapshots.back());
  return newest != nullptr && object_find(*newest, "snapshot_uuid", snapshot_id);
}

}  // namespace scsi_pool
