#include "backup/pools/scsipool/sub_filesystem_manager.h"

#include <cerrno>
#include <new>

#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "platform/base/log.h"
#include "platform/base/uuid.h"

namespace scsi_pool {

Sub_Filesystem_Manager::Sub_Filesystem_Manager(const std::string& pool_uuid)
    : pool_uuid_(pool_uuid), pool_mgr_(SCSI_Pool_Manager::instance()) {}

bool Sub_Filesystem_Manager::open() {
  if (pool_mgr_ == nullptr) return LOG_VIOLATION("pool_mgr_ is NULL");
  sqlite_impl_.reset(new (std::nothrow) SCSI_Pool_Sqlite_Manager_Impl);
  if (!sqlite_impl_) {
    errno = ENOMEM;
    return false;
  }
  if (!sqlite_impl_->open())
    return LOG_FAILURE("Failed to init sub volume manager: failed to open database\n");
  if (!pool_mgr_->pool_exist(pool_uuid_))
    return LOG_FAILURE("Failed to init sub volume manager: pool %s does not exist\n", pool_uuid_.c_str());
  std::string fs_type, global_dev;
  if (!pool_mgr_->get_pool_backstore_info(pool_uuid_, fs_type, global_dev))
    return LOG_FAILURE("Failed to init sub volume manager: failed to get backstore info\n");
  back_mgr_.reset(SCSI_Pool_Backstore_Factory::create(pool_uuid_, global_dev));
  if (!back_mgr_ || !back_mgr_->open(fs_type))
    return LOG_FAILURE("Failed to init sub volume manager: Failed to init backstore manager\n");
  return true;
}

bool Sub_Filesystem_Manager::create(const Filesystem_Opts& opts, const std::string& name) {
  if (!pool_mgr_->verify_remaing_space(pool_uuid_))
    return LOG_FAILURE("Failed to create sub filesystem, no free space in %s.\n", pool_uuid_.c_str());
  if (!back_mgr_->create_sub_filesystem(name.c_str(), opts.mount_point.c_str()))
    return LOG_FAILURE("Failed to create sub filesystem %s.\n", name.c_str());
  return add_database_entry(name, "", JSON_Dump(opts.ext_attrs).c_str());
}

bool Sub_Filesystem_Manager::add_database_entry(const std::string& name, const std::string& snapshot_uuid,
                                                const char* ext_attrs) {
  FS_Info_Item info;
  if (!back_mgr_->get_filesystem_info(name, info))
    return LOG_FAILURE("Failed to add filesystem info to database, get info error.\n");
  SCSI_Pool_Sqlite_Manager::Filesystem_Info record;
  if (!json_spirit::object_find(info, "ctime", record.ctime))
    return LOG_FAILURE("Failed to add filesystem info to database, get ctime error.\n");
  if (sqlite_impl_->filesystem_exist(pool_uuid_, name))
    return sqlite_impl_->update_filesystem_ctime(pool_uuid_, name, record.ctime);
  record.name = name;
  record.snapshot_uuid = snapshot_uuid.empty() ? platform::zero_uuid() : snapshot_uuid;
  record.pool_uuid = pool_uuid_;
  record.extended_attrs = ext_attrs == nullptr ? "" : ext_attrs;
  json_spirit::object_find(info, "mount_point", record.mountpoint);
  record.mounted = false;
  return sqlite_impl_->add_filesystem(record);
}

bool Sub_Filesystem_Manager::delete_database_entry(const std::string& name) {
  return sqlite_impl_->del_filesystem(pool_uuid_, name) ||
         LOG_FAILURE("Failed to delete filesystem %s from database.\n", name.c_str());
}

bool Sub_Filesystem_Manager::exist(const std::string& name) {
  return sqlite_impl_->filesystem_exist(pool_uuid_, name) && back_mgr_->sub_filesystem_exist(name);
}

bool Sub_Filesystem_Manager::remove(const std::string& name, bool force) {
  if (!exist(name)) return LOG_FAILURE("Failed to remove filesystem %s, not exist.\n", name.c_str());
  json_spirit::Array snapshots;
  if (!sqlite_impl_->list_filesystem_snapshots(pool_uuid_, name, snapshots,
                                               SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL))
    return LOG_FAILURE("Failed to remove filesystem %s, get snapshot error.\n", name.c_str());
  if (!snapshots.empty())
    return LOG_FAILURE("Failed to remove filesystem %s, snapshot exists.\n", name.c_str());
  if (!back_mgr_->destroy_sub_filesystem(name.c_str(), force) || !delete_database_entry(name))
    return LOG_FAILURE("Failed to remove filesystem %s.\n", name.c_str());
  return true;
}

bool Sub_Filesystem_Manager::list(json_spirit::Array& result, const char* name) {
  if (name == nullptr || *name == '\0') return LOG_VIOLATION("name is NULL or \"\"");
  json_spirit::Array rows;
  if (!sqlite_impl_->list_filesystem(pool_uuid_, rows, name))
    return LOG_FAILURE("Failed to list filesystem, get info from database error.\n");
  try {
    for (const json_spirit::Value& value : rows) {
      const json_spirit::Object& row = value.get_ref<const json_spirit::Object&>();
      const auto origin = json_spirit::object_get<std::string>(row, "snapshot_uuid");
      const auto attrs = json_spirit::object_get<std::string>(row, "extended_attrs");
      FS_Info_Item info;
      if (!back_mgr_->get_filesystem_info(name, info)) continue;
      info["name"] = name;
      info["extended_attrs"] = attrs;
      if (origin != platform::zero_uuid()) info["snapshot_uuid"] = origin;
      result.push_back(std::move(info));
    }
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to list filesystem from pool %s, %s\n", pool_uuid_.c_str(), error.what());
  }
  return true;
}

// The list is in ascending order of the sequence numbers: the last is the newest.
bool Sub_Filesystem_Manager::newest_snapshot(const std::string& name, std::string& snapshot_id) {
  json_spirit::Array snapshots;
  if (!sqlite_impl_->list_filesystem_snapshots(pool_uuid_, name, snapshots,
                                               SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL) ||
      snapshots.empty())
    return false;
  const json_spirit::Object* newest = json_spirit::get_object(snapshots.back());
  return newest != nullptr && json_spirit::object_find(*newest, "snapshot_uuid", snapshot_id) &&
         pool_mgr_->filesystem_snapshot_exist(pool_uuid_, snapshot_id);
}

bool Sub_Filesystem_Manager::rollback(const std::string& name, std::string& snapshot_id) {
  if (!exist(name)) return LOG_FAILURE("Failed to rollback filesystem %s, not exist.\n", name.c_str());
  if (!newest_snapshot(name, snapshot_id))
    return LOG_FAILURE("Failed to rollback filesystem %s, get snapshot info error.\n", name.c_str());
  if (!back_mgr_->filesystem_rollback(name, snapshot_id))
    return LOG_FAILURE("Failed to rollback filesystem %s.\n", name.c_str());
  return add_database_entry(name, "", nullptr) ||
         LOG_FAILURE("Failed to rollback filesystem %s, update database info error.\n", name.c_str());
}

bool Sub_Filesystem_Manager::clone(const std::string& snapshot_id, bool link_clone,
                                   const Filesystem_Opts& option, const std::string& target_name,
                                   bool record_relation) {
  if (!pool_mgr_->verify_remaing_space(pool_uuid_))
    return LOG_FAILURE("Failed to clone filesystem, no free space in pool %s.\n", pool_uuid_.c_str());
  if (!pool_mgr_->filesystem_snapshot_exist(pool_uuid_, snapshot_id))
    return LOG_FAILURE("Failed to clone filesystem, snapshot %s does not exist in pool %s.\n",
                       snapshot_id.c_str(), pool_uuid_.c_str());
  json_spirit::Object info;
  std::string source;
  if (!sqlite_impl_->get_filesystem_snapshot_info(pool_uuid_, snapshot_id, info) ||
      !json_spirit::object_find(info, "filesystem_name", source))
    return LOG_FAILURE("Failed to clone filesystem, get snapshot %s info error.\n", snapshot_id.c_str());
  if (!back_mgr_->clone_filesystem(target_name, source, snapshot_id, option.mount_point, link_clone))
    return LOG_FAILURE("Failed to clone filesystem %s to %s, snapshot %s.\n", source.c_str(),
                       target_name.c_str(), snapshot_id.c_str());
  const std::string origin = record_relation ? snapshot_id : platform::zero_uuid();
  return add_database_entry(target_name, origin, JSON_Dump(option.ext_attrs).c_str()) ||
         LOG_FAILURE("Failed to clone filesystem %s to %s, add data to database error.\n", source.c_str(),
                     target_name.c_str());
}

bool Sub_Filesystem_Manager::mount(const std::string& name) {
  if (!exist(name)) return LOG_FAILURE("filesystem %s does not exist.\n", name.c_str());
  if (!back_mgr_->mount_sub_filesystem(name.c_str()))
    return LOG_FAILURE("Failed to mount %s.\n", name.c_str());
  if (sqlite_impl_->update_mounted_info(pool_uuid_, name, true)) return true;
  back_mgr_->umount_sub_filesystem(name.c_str());
  return LOG_FAILURE("Failed to mount %s, add database info error.\n", name.c_str());
}

bool Sub_Filesystem_Manager::umount(const std::string& name) {
  if (!exist(name)) return LOG_FAILURE("filesystem %s does not exist.\n", name.c_str());
  if (!mounted(name)) return LOG_FAILURE("filesystem %s is not mounted.\n", name.c_str());
  if (!back_mgr_->umount_sub_filesystem(name.c_str()))
    return LOG_FAILURE("Failed to umount filesystem %s.\n", name.c_str());
  return sqlite_impl_->update_mounted_info(pool_uuid_, name, false) ||
         LOG_FAILURE("Failed to delete mount info from database, name %s.\n", name.c_str());
}

bool Sub_Filesystem_Manager::mounted(const std::string& name) {
  json_spirit::Array rows;
  return back_mgr_->sub_filesystem_mounted(name) && sqlite_impl_->get_mounted_info(pool_uuid_, name, rows) &&
         !rows.empty();
}

}  // namespace scsi_pool
