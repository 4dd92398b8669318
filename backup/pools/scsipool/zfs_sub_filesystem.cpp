#include "backup/pools/scsipool/zfs_sub_filesystem.h"

#include <ace/OS_NS_errno.h>

#include "backup/pools/scsipool/zfs_helper.h"
#include "platform/base/log.h"
#include "platform/base/names.h"
#include "platform/base/time_text.h"
#include "platform/process/subprocess.h"
#include "platform/process/tool_options.h"

namespace scsi_pool {

namespace {

// Mounting starts helper programs: they get the system's libraries, whatever the daemon runs with.
int call_without_library_path(const std::string& command) {
  platform::Sized_Process_Options options(command);
  options.setenv("LD_LIBRARY_PATH=");
  return subprocess::call(options, nullptr);
}

}  // namespace

ZFS_Sub_Filesystem::ZFS_Sub_Filesystem(const char* zpool, const char* name)
    : zpool_(zpool), name_(name), dataset_(zpool_ + "/" + name_, true) {
  dataset_.open_when_needed();
}

ZFS_Sub_Filesystem::ZFS_Sub_Filesystem(const std::string& zpool, const std::string& name,
                                       const ZFS_Dataset& found)
    : zpool_(zpool), name_(name), dataset_(found) {}

bool ZFS_Sub_Filesystem::destroy(bool force) {
  if (!zfs_names_ok(zpool_, {name_.c_str()})) return false;
  if (!force && mounted()) {
    return LOG_FAILURE("Failed to delete ZFS sub filesystem %s/%s, still mounted.\n", zpool_.c_str(),
                       name_.c_str());
  }
  // What stands in the way (snapshots, datasets inside) is listed by the tool and logged.
  if (zfs_call(platform::format_command("zfs destroy \"%s/%s\"", zpool_.c_str(), name_.c_str())) == 0)
    return true;
  return LOG_FAILURE("Failed to delete ZFS sub filesystem %s/%s, errno=%d, %m\n", zpool_.c_str(),
                     name_.c_str(), errno);
}

bool ZFS_Sub_Filesystem::get_used_size(ACE_UINT64& size) const {
  if (dataset_.get_prop("used", size, true)) return true;
  return LOG_FAILURE("Failed to get ZFS sub filesystem used size\n");
}

bool ZFS_Sub_Filesystem::set_reservation(ACE_UINT64 size) const {
  if (dataset_.set_prop("reservation", size, true)) return true;
  return LOG_FAILURE("Failed to set ZFS sub filesystem reservation\n");
}

bool ZFS_Sub_Filesystem::mount(const FS_Info_Item&) {
  if (!zfs_names_ok(zpool_, {name_.c_str()})) return false;
  if (mounted()) return true;
  std::string mount_point;
  if (!get_mount_point(mount_point) || mount_point == "none") {
    return LOG_FAILURE("Failed to mount ZFS %s/%s, unknown mountpoint.\n", zpool_.c_str(), name_.c_str());
  }
  const std::string command = platform::format_command("zfs mount \"%s/%s\"", zpool_.c_str(), name_.c_str());
  if (call_without_library_path(command) != 0) {
    return LOG_FAILURE("Failed to mount ZFS %s/%s, %m.\n", zpool_.c_str(), name_.c_str());
  }
  dataset_.open_when_needed();
  return true;
}

bool ZFS_Sub_Filesystem::umount() {
  if (!zfs_names_ok(zpool_, {name_.c_str()})) return false;
  if (!mounted()) return true;
  const std::string command = platform::format_command("zfs umount \"%s/%s\"", zpool_.c_str(), name_.c_str());
  if (call_without_library_path(command) != 0) {
    return LOG_FAILURE("Failed to umount ZFS %s/%s, %m.\n", zpool_.c_str(), name_.c_str());
  }
  dataset_.open_when_needed();
  return true;
}

bool ZFS_Sub_Filesystem::mounted() {
  bool is_mounted = false;
  if (dataset_.get_prop("mounted", is_mounted, true)) return is_mounted;
  return LOG_FAILURE("Failed to get ZFS %s/%s mount status.\n", zpool_.c_str(), name_.c_str());
}

bool ZFS_Sub_Filesystem::get_mount_point(std::string& mount_point) const {
  if (dataset_.get_prop("mountpoint", mount_point, true)) return true;
  return LOG_FAILURE("Failed to get %s/%s mount point\n", zpool_.c_str(), name_.c_str());
}

bool ZFS_Sub_Filesystem::set_mount_point(const std::string& mount_point) {
  std::string why;
  const bool keyword = mount_point == "none" || mount_point == "legacy";
  if (!keyword && !platform::valid_path(mount_point, why)) {
    LOG_NOTICE("'%s' is no mount point: %s\n", mount_point.c_str(), why.c_str());
  } else if (dataset_.set_prop("mountpoint", mount_point.c_str(), true)) {
    return true;
  }
  return LOG_FAILURE("Failed to set %s/%s mount point\n", zpool_.c_str(), name_.c_str());
}

Snapshot* ZFS_Sub_Filesystem::create_snapshot(const char* name, const FS_Info_Item&) {
  if (!zfs_names_ok(zpool_, {name_.c_str(), name})) return nullptr;
  if (snapshot_exist(name)) {
    LOG_FAILURE("Failed to create ZFS snapshot %s, already exist.\n", name);
    return nullptr;
  }
  const int status =
      zfs_call(platform::format_command("zfs snapshot \"%s/%s@%s\"", zpool_.c_str(), name_.c_str(), name));
  if (status != 0) {
    LOG_FAILURE("Failed to create ZFS snapshot %s.\n", name);
    return nullptr;
  }
  return zfs_new_snapshot(zpool_, name_, name);
}

Snapshot* ZFS_Sub_Filesystem::get_snapshot(const char* name) const {
  return zfs_get_snapshot(zpool_, name_, name);
}

bool ZFS_Sub_Filesystem::snapshot_exist(const char* name) const {
  return zfs_snapshot_exist(zpool_, name_, name);
}

bool ZFS_Sub_Filesystem::get_info(FS_Info_Item& info) const {
  ACE_UINT64 creation = 0;
  std::string mount_point;
  if (!dataset_.get_prop("creation", creation, true) || !dataset_.get_prop("mountpoint", mount_point, true)) {
    return LOG_FAILURE("Failed to get ZFS filesystem info: get ctime or mountpoint error.\n");
  }
  info["mount_point"] = mount_point;
  info["ctime"] = platform::POSIX_Time_To_ISO8601_Local(static_cast<time_t>(creation));
  return true;
}

bool ZFS_Sub_Filesystem::rollback(const char* snapshot_name) {
  if (!snapshot_name || !*snapshot_name) return LOG_VIOLATION("snapshot_name is NULL or \"\"");
  if (!snapshot_exist(snapshot_name)) {
    return LOG_FAILURE("Failed to rollback filesystem snapshot %s, not exist.\n", snapshot_name);
  }
  const int status = zfs_call(
      platform::format_command("zfs rollback \"%s/%s@%s\"", zpool_.c_str(), name_.c_str(), snapshot_name));
  if (status != 0) return LOG_FAILURE("Failed to rollback ZFS filesystem\n");
  dataset_.open_when_needed();
  return true;
}

bool ZFS_Sub_Filesystem::receive_snapshot(const char* name, bool force, ACE_Process_Ex* proc) {
  return zfs_receive(zpool_, name_, name, force, proc);
}

}  // namespace scsi_pool
