#include "backup/pools/scsipool/btrfs_snapshot.h"

#include <cerrno>

#include "backup/pools/scsipool/btrfs_commands.h"
#include "backup/pools/scsipool/filesystem_helper.h"
#include "platform/base/log.h"

namespace scsi_pool {

bool Btrfs_Snapshot::destroy() {
  return remove_btrfs_subvolume(mount_point_, name_, true);
}

bool Btrfs_Snapshot::is_readonly(bool& readonly) const {
  FS_Info_Item info;
  if (!get_info(info)) return LOG_FAILURE("Failed to check snapshot readonly: get snapshot info error\n");
  std::string flags;
  if (!get_info_entry(info, "flags", flags)) return false;
  readonly = flags.find("readonly") != std::string::npos;
  return true;
}

bool Btrfs_Snapshot::get_info(FS_Info_Item& info) const {
  std::string ctime;
  std::string flags;
  std::string name;
  const std::string path = btrfs_path(mount_point_, name_);
  if (!show_btrfs_subvolume(mount_point_, name_, ctime, flags, name)) {
    return LOG_FAILURE("Failed to show btrfs snapshot '%s', errno=%d, %m\n", path.c_str(), errno);
  }
  if (ctime.empty() || name.empty()) {
    return LOG_FAILURE("Failed to get snapshot '%s' error:ctime or name is empty\n", path.c_str());
  }
  info["ctime"] = ctime;
  info["name"] = name_;
  info["flags"] = flags;
  return true;
}

bool Btrfs_Snapshot::received_uuid(std::string& uuid) const {
  return read_btrfs_received_uuid(mount_point_, name_, uuid) ||
         LOG_FAILURE("Failed to show btrfs snapshot '%s', errno=%d, %m\n",
                     btrfs_path(mount_point_, name_).c_str(), errno);
}

bool Btrfs_Snapshot::size(ACE_UINT64& size) const {
  ACE_UINT64 excl = 0;
  ACE_UINT64 rfer = 0;
  if (!this->size(excl, rfer)) return false;
  size = rfer + excl;
  return true;
}

bool Btrfs_Snapshot::size(ACE_UINT64& excl, ACE_UINT64& rfer) const {
  switch (get_btrfs_sizes(mount_point_, name_, excl, rfer)) {
    case Btrfs_Sizes::DONE:
      return true;
    case Btrfs_Sizes::NO_GROUP:
      return LOG_FAILURE("Failed to get snapshot size: get qgroup info error\n");
    default:
      return LOG_FAILURE("Failed to get snapshot size: get rfer or excl size error\n");
  }
}

bool Btrfs_Snapshot::send(const std::vector<std::string>& increment, ACE_Process_Ex* proc) {
  std::string command = "btrfs send ";
  for (const std::string& base : increment)
    command += " -c " + btrfs_path(mount_point_, base);
  if (!increment.empty()) command += " -p " + btrfs_path(mount_point_, increment.back());
  command += " " + btrfs_path(mount_point_, name_);
  LOG_DEBUG("Send snapshot: %s\n", command.c_str());
  // The paths stand without quotes in the command, so a blank in one would make two of it.
  const bool usable = mount_point_.find(' ') == std::string::npos;
  if (!usable) errno = EINVAL;
  if (usable && spawn_btrfs_stream(command, proc)) return true;
  return LOG_FAILURE("Failed to send snapshot, run '%s' error, errno=%d, %m\n", command.c_str(), errno);
}

}  // namespace scsi_pool
