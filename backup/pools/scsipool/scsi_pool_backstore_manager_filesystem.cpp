// Sub filesystems and their snapshots. Each operation opens the driver's object, makes one driver call and
// drops it.

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "platform/base/log.h"

namespace scsi_pool {

bool SCSI_Pool_Backstore_Manager::create_sub_filesystem(const char* name, const char* mount_point) {
  if (!filesystem_ready(name)) return false;
  FS_Info_Item info;
  if (mount_point != nullptr && *mount_point != '\0') info["mount_point"] = mount_point;
  const Sub_Filesystem_var made(fs_mgr_->create_sub_filesystem(name, info));
  return made || LOG_FAILURE("Failed to create sub filesystem %s in %s.\n", name, pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::mount_sub_filesystem(const char* name) {
  if (!filesystem_ready(name)) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  if (!found) {
    return LOG_FAILURE("Failed to mount sub filesystem %s in %s, \nquery info error.\n", name,
                       pool_id_.c_str());
  }
  return found->mount({}) ||
         LOG_FAILURE("Failed to mount sub filesystem %s in %s.\n", name, pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::umount_sub_filesystem(const char* name) {
  if (!filesystem_ready(name)) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  if (!found) {
    return LOG_FAILURE("Failed to umount sub filesystem %s in %s, query info error.\n", name,
                       pool_id_.c_str());
  }
  return found->umount() ||
         LOG_FAILURE("Failed to umount sub filesystem %s in %s.\n", name, pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::sub_filesystem_mounted(const char* name) {
  if (!filesystem_ready(name)) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  if (!found) {
    return LOG_FAILURE("Failed to get sub filesystem mount info %s in %s, query info error.\n", name,
                       pool_id_.c_str());
  }
  return found->mounted();
}

bool SCSI_Pool_Backstore_Manager::sub_filesystem_mounted(const std::string& name) {
  if (!ready({&name})) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  return found && found->mounted();
}

bool SCSI_Pool_Backstore_Manager::destroy_sub_filesystem(const char* name, bool force) {
  if (!filesystem_ready(name)) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  if (!found) {
    return LOG_FAILURE("Failed to destroy sub filesystem %s in %s, query info error.\n", name,
                       pool_id_.c_str());
  }
  return found->destroy(force) ||
         LOG_FAILURE("Failed to destroy sub filesystem %s in %s.\n", name, pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::sub_filesystem_exist(const std::string& name) {
  return ready({&name}) && sub_filesystem(name) != nullptr;
}

bool SCSI_Pool_Backstore_Manager::get_filesystem_info(const std::string& name, FS_Info_Item& info) {
  if (!ready({&name})) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  return (found && found->get_info(info)) ||
         LOG_FAILURE("Failed to get filesystem '%s' info\n", name.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_sub_filesystem_mount_point(const char* name, std::string& mount_point) {
  if (!filesystem_ready(name)) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  if (!found) {
    return LOG_FAILURE("Failed to get sub filesystem mountpoint %s in %s, \nquery info error.\n", name,
                       pool_id_.c_str());
  }
  return found->get_mount_point(mount_point);
}

bool SCSI_Pool_Backstore_Manager::set_sub_filesystem_mount_point(const char* name,
                                                                 const std::string& mount_point) {
  if (!filesystem_ready(name)) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  if (!found) {
    return LOG_FAILURE("Failed to set sub filesystem mountpoint %s in %s, query info error.\n", name,
                       pool_id_.c_str());
  }
  return found->set_mount_point(mount_point);
}

bool SCSI_Pool_Backstore_Manager::filesystem_rollback(const std::string& name,
                                                      const std::string& snapshot_id) {
  if (!ready({&name, &snapshot_id})) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  return (found && found->rollback(snapshot_id.c_str())) ||
         LOG_FAILURE("Failed to rollback filesystem '%s' to '%s'\n", name.c_str(), snapshot_id.c_str());
}

bool SCSI_Pool_Backstore_Manager::clone_filesystem(const std::string& target_name,
                                                   const std::string& source_name,
                                                   const std::string& snapshot_id,
                                                   const std::string& mount_point, bool link_clone) {
  if (!driver_present()) return false;
  if (source_name.empty()) return LOG_VIOLATION("source_name is empty");
  if (snapshot_id.empty()) return LOG_VIOLATION("snapshot_id is empty");
  if (!usable({&target_name, &source_name, &snapshot_id})) return false;
  if (sub_filesystem_exist(target_name)) {
    return LOG_FAILURE("Failed to clone filesystem to %s, already exist.\n", target_name.c_str());
  }
  FS_Info_Item info{{"clone_type", link_clone ? "link" : "full"}};
  if (!mount_point.empty()) info["mount_point"] = mount_point;
  const Sub_Filesystem_var made(
      fs_mgr_->clone_sub_filesystem(target_name.c_str(), source_name.c_str(), snapshot_id.c_str(), info));
  return made ||
         LOG_FAILURE("Failed to clone filesystem snapshot %s in %s\n", snapshot_id.c_str(), pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::create_filesystem_snapshot(const char* name, const char* snapshot_id) {
  if (!filesystem_ready(name)) return false;
  if (snapshot_id == nullptr || *snapshot_id == '\0') return LOG_VIOLATION("snapshot_id is NULL or \"\"");
  const std::string snapshot = snapshot_id;
  if (!usable({&snapshot})) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  if (!found) {
    return LOG_FAILURE("Failed to create snapshot %s of sub filesystem %s in %s, query info error.\n",
                       snapshot_id, name, pool_id_.c_str());
  }
  const Snapshot_var made(found->create_snapshot(snapshot_id, {}));
  return made || LOG_FAILURE("Failed to create snapshot %s of sub filesystem %s in %s.\n", snapshot_id, name,
                             pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::destroy_filesystem_snapshot(const std::string& name,
                                                              const std::string& snapshot_id) {
  if (!ready({&name, &snapshot_id})) return false;
  const Snapshot_var found = filesystem_snapshot(name, snapshot_id);
  if (!found) return LOG_FAILURE("Failed to delete snasphot: get snapshot manager object error\n");
  return found->destroy() ||
         LOG_FAILURE("Failed to delete snapshot '%s/%s'\n", name.c_str(), snapshot_id.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_filesystem_snapshot_info(const std::string& name,
                                                               const std::string& snapshot_id,
                                                               FS_Info_Item& info) {
  if (!ready({&name, &snapshot_id})) return false;
  const Snapshot_var found = filesystem_snapshot(name, snapshot_id);
  if (!found)
    return LOG_FAILURE("Failed to get filesystem snasphot info: get snapshot manager object error\n");
  return found->get_info(info) || LOG_FAILURE("Failed to get '%s/%s' snapshot info:get info error\n",
                                              name.c_str(), snapshot_id.c_str());
}

bool SCSI_Pool_Backstore_Manager::filesystem_snapshot_exist(const std::string& name,
                                                            const std::string& snapshot_id) {
  if (!ready({&name, &snapshot_id})) return false;
  const Sub_Filesystem_var found = sub_filesystem(name);
  return found && found->snapshot_exist(snapshot_id.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_filesystem_snapshot_size(const std::string& name,
                                                               const std::string& snapshot_id,
                                                               ACE_UINT64& size) {
  if (!ready({&name, &snapshot_id})) return false;
  const Snapshot_var found = filesystem_snapshot(name, snapshot_id);
  if (!found)
    return LOG_FAILURE("Failed to get filesystem snasphot size: get snapshot manager object error\n");
  return found->size(size) ||
         LOG_FAILURE("Failed to get snapshot size: get '%s/%s' size error in pool '%s'\n", name.c_str(),
                     snapshot_id.c_str(), pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_filesystem_snapshot_size(const std::string& name,
                                                               const std::string& snapshot_id,
                                                               ACE_UINT64& excl, ACE_UINT64& rfer) {
  if (!ready({&name, &snapshot_id})) return false;
  const Snapshot_var found = filesystem_snapshot(name, snapshot_id);
  if (!found)
    return LOG_FAILURE("Failed to get filesystem snasphot size: get snapshot manager object error\n");
  return found->size(excl, rfer) ||
         LOG_FAILURE("Failed to get snapshot size: get '%s/%s' size error in pool '%s'\n", name.c_str(),
                     snapshot_id.c_str(), pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_filesystem_snapshot_sizes(const std::string& name,
                                                                const std::set<std::string>& snapshot_ids,
                                                                Snapshot_Sizes& sizes) {
  const char* const what = "Failed to get filesystem snasphot size: get snapshot manager object error\n";
  Snapshot_Sizes all;
  if (!ready({&name})) return false;
  const Sizes_Read read = fs_mgr_->get_snapshot_sizes(name, all);
  if (read == Sizes_Read::TOLD) pick(all, snapshot_ids, what, sizes);
  if (read == Sizes_Read::NO_TOOL) measure(sub_filesystem(name).get(), name, snapshot_ids, what, sizes);
  return read != Sizes_Read::NO_ANSWER;
}

bool SCSI_Pool_Backstore_Manager::send_filesystem_snapshot(const std::string& filesystem_name,
                                                           const std::string& snapshot_id,
                                                           const std::vector<std::string>& increments,
                                                           ACE_Process_Ex* proc) {
  if (!ready({&filesystem_name, &snapshot_id}) || !usable(increments)) return false;
  const Snapshot_var found = filesystem_snapshot(filesystem_name, snapshot_id);
  if (!found) return LOG_FAILURE("Failed to get send info: get snapshot manager object error\n");
  return found->send(increments, proc) || LOG_FAILURE("Failed to send snapshot\n");
}

bool SCSI_Pool_Backstore_Manager::receive_filesystem_snapshot(const std::string& filesystem_name,
                                                              const std::string& snapshot_id, bool force,
                                                              ACE_Process_Ex* proc) {
  if (!ready({&filesystem_name, &snapshot_id})) return false;
  if (!sub_filesystem_exist(filesystem_name)) {
    return LOG_FAILURE("Failed to receive filesystem snapshot: filesystem %s does not exist.\n",
                       filesystem_name.c_str());
  }
  if (filesystem_snapshot_exist(filesystem_name, snapshot_id)) {
    return LOG_FAILURE("Failed to receive filesystem snapshot: filesystem %s snapshot %s already exists.\n",
                       filesystem_name.c_str(), snapshot_id.c_str());
  }
  const Sub_Filesystem_var found = sub_filesystem(filesystem_name);
  return (found && found->receive_snapshot(snapshot_id.c_str(), force, proc)) ||
         LOG_FAILURE("Failed to receive filesystem snapshot\n");
}

}  // namespace scsi_pool
