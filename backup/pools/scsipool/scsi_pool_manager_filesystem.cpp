// SCSI_Pool_Manager: sub filesystems and their mount points.

#include <sys/stat.h>
#include <unistd.h>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sub_filesystem_manager.h"
#include "platform/base/log.h"
#include "platform/base/names.h"
#include "platform/base/path_conf.h"

namespace scsi_pool {

namespace {

bool is_link(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

}  // namespace

bool SCSI_Pool_Manager::list_filesystem(const std::string& pool_id, json_spirit::Array& result,
                                        const char* name) {
  if (!pool_exist(pool_id))
    return LOG_FAILURE("Failed to list '%s' SCSI pool filesystem:pool does not exist\n", pool_id.c_str());
  json_spirit::Array rows;
  if (!sqlite_impl_->list_filesystem(pool_id, rows, name))
    return LOG_FAILURE("Failed to list '%s' SCSI pool filesystem:database operation error\n",
                       pool_id.c_str());
  try {
    for (const json_spirit::Value& value : rows) {
      const json_spirit::Object& row = value.get_ref<const json_spirit::Object&>();
      json_spirit::Object record;
      for (const char* key : {"name", "mountpoint", "snapshot_uuid", "extended_attrs"})
        record[key] = json_spirit::object_get<std::string>(row, key);
      result.push_back(std::move(record));
    }
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to list '%s' SCSI pool filesystem: %s\n", pool_id.c_str(), error.what());
  }
  return true;
}

bool SCSI_Pool_Manager::mount_point_path(const std::string& pool_id, const std::string& leaf,
                                         std::string& path) {
  std::string why;
  if (!platform::valid_dataset_name(leaf, why) || !platform::valid_dataset_name(pool_id, why))
    return LOG_FAILURE("Failed to build mount point '%s': %s\n", leaf.c_str(), why.c_str());
  // A link would lead the mount out of the manager's folder.
  const platform::Path_Conf folder(mount_point_, 0750);
  if (is_link(folder.path(pool_id)) || is_link(folder.path(pool_id, leaf)))
    return LOG_FAILURE("Failed to build mount point '%s': it is a link\n", leaf.c_str());
  return folder.make_path(path, pool_id, leaf) ||
         LOG_FAILURE("Failed to build mount point '%s': %m\n", leaf.c_str());
}

bool SCSI_Pool_Manager::create_filesystem(const std::string& pool_id, const FS_Option& option,
                                          const std::string& name) {
  Sub_Filesystem_Manager filesystems(pool_id);
  if (!filesystems.open()) return LOG_FAILURE("Failed to create filesystem\n");
  Sub_Filesystem_Manager::Filesystem_Opts opts;
  opts.ext_attrs = option.ext_attrs;
  const std::string& leaf = option.mount_point.empty() ? name : option.mount_point;
  if (mount_point_path(pool_id, leaf, opts.mount_point) && filesystems.create(opts, name)) return true;
  remove_mount_folder(opts.mount_point);
  return LOG_FAILURE("Failed to create filesystem: failed to create sub filesystem.\n");
}

bool SCSI_Pool_Manager::create_filesystem(const std::string& pool_id, const std::string& snapshot_id,
                                          const FS_Option& option, const std::string& name) {
  Sub_Filesystem_Manager filesystems(pool_id);
  if (!filesystems.open()) return LOG_FAILURE("Failed to create filesystem with snapshot\n");
  Sub_Filesystem_Manager::Filesystem_Opts opts;
  opts.ext_attrs = option.ext_attrs;
  const std::string& leaf = option.mount_point.empty() ? name : option.mount_point;
  if (mount_point_path(pool_id, leaf, opts.mount_point) &&
      filesystems.clone(snapshot_id, option.link_clone, opts, name, false))
    return true;
  remove_mount_folder(opts.mount_point);
  return LOG_FAILURE("Failed to create filesystem with snapshot: failed to create link clone\n");
}

bool SCSI_Pool_Manager::delete_filesystem(const std::string& pool_id, const std::string& name) {
  Sub_Filesystem_Manager filesystems(pool_id);
  if (!filesystems.open()) return LOG_FAILURE("Failed to delete filesystem '%s'\n", name.c_str());
  if (!filesystems.exist(name))
    return LOG_FAILURE("Failed to delete filesystem: filesystem '%s' does not exist\n", name.c_str());
  json_spirit::Array snapshots;
  if (!sqlite_impl_->list_filesystem_snapshots(pool_id, name, snapshots,
                                               SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL))
    return LOG_FAILURE("Failed to delete filesystem %s: list filesystem snapshots error\n", name.c_str());
  for (const json_spirit::Value& value : snapshots) {
    const json_spirit::Object* row = json_spirit::get_object(value);
    std::string snapshot;
    if (row != nullptr && json_spirit::object_find(*row, "snapshot_uuid", snapshot) &&
        !delete_filesystem_snapshot(pool_id, snapshot, false))
      return false;
  }
  if (!filesystem_exist(pool_id, name)) return true;
  const std::string folder = recorded_mount_point(pool_id, name);
  if (!filesystems.remove(name, true)) return LOG_FAILURE("Failed to delete filesystem %s\n", name.c_str());
  remove_mount_folder(folder);
  return true;
}

std::string SCSI_Pool_Manager::recorded_mount_point(const std::string& pool_id, const std::string& name) {
  json_spirit::Array rows;
  std::string path;
  sqlite_impl_->list_filesystem(pool_id, rows, name.c_str());
  const json_spirit::Object* row = rows.empty() ? nullptr : json_spirit::get_object(rows.front());
  if (row != nullptr) json_spirit::object_find(*row, "mountpoint", path);
  return path;
}

// One that is in use, or holds anything, stays.
void SCSI_Pool_Manager::remove_mount_folder(const std::string& path) {
  const std::string start = mount_point_ + "/";
  if (path.compare(0, start.size(), start) != 0) return;
  ::rmdir(path.c_str());
  ::rmdir(path.substr(0, path.rfind('/')).c_str());
}

bool SCSI_Pool_Manager::filesystem_exist(const std::string& pool_id, const std::string& name) {
  if (!pool_exist(pool_id)) return false;
  Sub_Filesystem_Manager filesystems(pool_id);
  return filesystems.open() && filesystems.exist(name);
}

bool SCSI_Pool_Manager::mount_filesystem(const std::string& pool_id, const std::string& name) {
  if (pool_id.empty()) return LOG_VIOLATION("pool_id is empty");
  if (name.empty()) return LOG_VIOLATION("name is empty");
  Sub_Filesystem_Manager filesystems(pool_id);
  if (!filesystems.open())
    return LOG_FAILURE("Failed to mount filesystem %s in pool %s\n", name.c_str(), pool_id.c_str());
  return filesystems.mount(name);
}

bool SCSI_Pool_Manager::umount_filesystem(const std::string& pool_id, const std::string& name) {
  Sub_Filesystem_Manager filesystems(pool_id);
  if (!filesystems.open())
    return LOG_FAILURE("Failed to umount filesystem %s in pool %s\n", name.c_str(), pool_id.c_str());
  return filesystems.umount(name);
}

bool SCSI_Pool_Manager::filesystem_mounted(const std::string& pool_id, const std::string& name,
                                           bool& result) {
  Sub_Filesystem_Manager filesystems(pool_id);
  if (!filesystems.open())
    return LOG_FAILURE("Failed to get filesystem %s mounted info in pool %s\n", name.c_str(),
                       pool_id.c_str());
  result = filesystems.mounted(name);
  return true;
}

bool SCSI_Pool_Manager::get_mounted_filesystem(const std::string& pool_id, const std::string& name,
                                               json_spirit::Array& result) {
  if (!has_catalog()) return false;
  return sqlite_impl_->get_mounted_info(pool_id, name, result) ||
         LOG_FAILURE("Failed to get mounted info from pool %s.\n", pool_id.c_str());
}

bool SCSI_Pool_Manager::get_filesystem_mount_point(const std::string& pool_id, const std::string& name,
                                                   std::string& mount_point) {
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to get filesystem %s mount point.\n", name.c_str());
  return backstore->get_sub_filesystem_mount_point(name.c_str(), mount_point);
}

bool SCSI_Pool_Manager::set_filesystem_mount_point(const std::string& pool_id, const std::string& name,
                                                   const std::string& mount_point) {
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to set filesystem %s mount point.\n", name.c_str());
  const std::string former = recorded_mount_point(pool_id, name);
  std::string path;
  const bool done = mount_point_path(pool_id, mount_point, path) &&
                    backstore->set_sub_filesystem_mount_point(name.c_str(), path) &&
                    sqlite_impl_->update_mountpoint(pool_id, name, path);
  if (former != path) remove_mount_folder(done ? former : path);
  return done;
}

bool SCSI_Pool_Manager::rollback_filesystem_to_newest(const std::string& pool_id, const std::string& name,
                                                      std::string& snapshot_id) {
  if (!filesystem_exist(pool_id, name))
    return LOG_FAILURE("Failed to update filesystem with snapshot:filesystem '%s' does not exist \n",
                       name.c_str());
  json_spirit::Array snapshots;
  const json_spirit::Object* newest = nullptr;
  if (sqlite_impl_->list_filesystem_snapshots(pool_id, name, snapshots,
                                              SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL) &&
      !snapshots.empty())
    newest = json_spirit::get_object(snapshots.back());
  if (newest == nullptr || !json_spirit::object_find(*newest, "snapshot_uuid", snapshot_id) ||
      !filesystem_snapshot_exist(pool_id, snapshot_id))
    return LOG_FAILURE("Failed to update filesystem with snapshot:failed to get snapshot\n");
  SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to update LUN with snapshot:init pool impl error\n");
  return backstore->filesystem_rollback(name, snapshot_id) ||
         LOG_FAILURE("Failed to rollback filesystem %s.\n", name.c_str());
}

bool SCSI_Pool_Manager::resume_mount_points() {
  if (!has_catalog()) return false;
  json_spirit::Array rows;
  if (!sqlite_impl_->get_mounted_info("", "", rows))
    return LOG_FAILURE("Failed to get filesystem mounted info.\n");
  try {
    for (const json_spirit::Value& value : rows) {
      const json_spirit::Object& row = value.get_ref<const json_spirit::Object&>();
      const auto pool = json_spirit::object_get<std::string>(row, "pool_uuid");
      const auto name = json_spirit::object_get<std::string>(row, "name");
      if (!mount_filesystem(pool, name))
        LOG_FAILURE("Failed to mount filesystem %s, pool: %s.\n", name.c_str(), pool.c_str());
    }
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to mount filesystems, %s\n", error.what());
  }
  return true;
}

}  // namespace scsi_pool
