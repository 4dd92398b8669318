#include "backup/pools/scsipool/btrfs_sub_volume.h"

#include <cerrno>
#include <new>

#include "backup/pools/scsipool/btrfs_commands.h"
#include "backup/pools/scsipool/btrfs_snapshot.h"
#include "platform/base/log.h"
#include "platform/process/tool_options.h"

namespace scsi_pool {

bool Btrfs_Sub_Volume::destroy() {
  return remove_btrfs_subvolume(mount_point_, name_, false);
}

bool Btrfs_Sub_Volume::get_info(FS_Info_Item& info) const {
  std::string ctime;
  std::string flags;
  std::string name;
  const std::string path = btrfs_path(mount_point_, name_);
  if (!show_btrfs_subvolume(mount_point_, name_, ctime, flags, name)) {
    return LOG_FAILURE("Failed to show btrfs subvolume '%s', errno=%d, %m\n", path.c_str(), errno);
  }
  if (ctime.empty() || name.empty()) {
    return LOG_FAILURE("Failed to get  subvolume '%s' error:ctime or name is empty\n", path.c_str());
  }
  info["ctime"] = ctime;
  info["name"] = name;
  info["flags"] = flags;
  return true;
}

bool Btrfs_Sub_Volume::get_info(const char*, std::string&) const {
  return true;
}

bool Btrfs_Sub_Volume::set_info(const char*, const char*) {
  return true;
}

bool Btrfs_Sub_Volume::rollback(const char* snapshot) {
  // A volume is no snapshot of itself: deleting it would delete what is to take its place.
  if (!snapshot_exist(snapshot) || snapshot == name_) {
    return LOG_FAILURE("Failed to rollback volume: snapshot does not exist\n");
  }
  if (!destroy()) return LOG_FAILURE("Failed to rollback volume: delete volume error\n");
  if (!btrfs_snapshot(mount_point_, snapshot, name_, false)) {
    return LOG_FAILURE("Failed to rollback btrfs subvolume\n");
  }
  btrfs_sync(mount_point_);
  return true;
}

bool Btrfs_Sub_Volume::get_used_size(ACE_UINT64& size) const {
  ACE_UINT64 excl = 0;
  ACE_UINT64 rfer = 0;
  switch (get_btrfs_sizes(mount_point_, name_, excl, rfer)) {
    case Btrfs_Sizes::DONE:
      size = rfer + excl;
      return true;
    case Btrfs_Sizes::NO_GROUP:
      return LOG_FAILURE("Failed to get volume size: get qgroup list error\n");
    default:
      return LOG_FAILURE("Failed to get subvolume size: get rfer or excl size error\n");
  }
}

bool Btrfs_Sub_Volume::get_dataset(std::string& path) const {
  path = btrfs_path(mount_point_, name_) + "/lun_backstore";
  return true;
}

Snapshot* Btrfs_Sub_Volume::create_snapshot(const char* name, const FS_Info_Item&) {
  if (name == nullptr || *name == '\0') {
    LOG_VIOLATION("name is NULL or \"\"");
    return nullptr;
  }
  if (!valid_btrfs_name(name) || !btrfs_snapshot(mount_point_, name_, name, true)) {
    LOG_FAILURE("Failed to create btrfs snapshot\n");
    return nullptr;
  }
  Snapshot* snapshot = new (std::nothrow) Btrfs_Snapshot(mount_point_.c_str(), name);
  if (snapshot == nullptr) errno = ENOMEM;
  return snapshot;
}

Snapshot* Btrfs_Sub_Volume::get_snapshot(const char* name) const {
  if (!snapshot_exist(name)) return nullptr;
  Snapshot* snapshot = new (std::nothrow) Btrfs_Snapshot(mount_point_.c_str(), name);
  if (snapshot == nullptr) errno = ENOMEM;
  return snapshot;
}

bool Btrfs_Sub_Volume::snapshot_exist(const char* name) const {
  if (name == nullptr || *name == '\0') return LOG_VIOLATION("name is NULL or \"\"");
  if (!valid_btrfs_name(name)) return false;
  std::string ctime;
  std::string flags;
  std::string name_shown;
  if (!show_btrfs_subvolume(mount_point_, name, ctime, flags, name_shown)) {
    return LOG_FAILURE("Failed to check btrfs snapshot '%s' exist, errno=%d, %m\n", name, errno);
  }
  return !ctime.empty();
}

bool Btrfs_Sub_Volume::receive_snapshot(const char*, bool, ACE_Process_Ex* proc) {
  if (!is_pool_root(mount_point_)) return false;
  const std::string command = platform::format_command("btrfs receive -e \"%s\"", mount_point_.c_str());
  LOG_DEBUG("Receive snapshot: %s\n", command.c_str());
  if (spawn_btrfs_stream(command, proc)) return true;
  return LOG_FAILURE("Failed to receive snapshot, run '%s', errno=%d, %m\n", command.c_str(), errno);
}

}  // namespace scsi_pool
