#include "backup/pools/scsipool/zfs_snapshot.h"

#include <ace/OS_NS_errno.h>

#include "backup/pools/scsipool/zfs_helper.h"
#include "platform/base/log.h"
#include "platform/base/time_text.h"
#include "platform/process/tool_options.h"

namespace scsi_pool {

ZFS_Snapshot::ZFS_Snapshot(const char* zpool, const char* name, const char* snap_name)
    : zpool_(zpool),
      name_(name),
      snap_name_(snap_name),
      fullname_(zpool_ + "/" + name_ + "@" + snap_name_),
      dataset_(fullname_, true) {
  dataset_.open_when_needed();
}

ZFS_Snapshot::ZFS_Snapshot(const std::string& zpool, const std::string& name, const std::string& snap_name,
                           const ZFS_Dataset& found)
    : zpool_(zpool),
      name_(name),
      snap_name_(snap_name),
      fullname_(zpool_ + "/" + name_ + "@" + snap_name_),
      dataset_(found) {}

bool ZFS_Snapshot::destroy() {
  if (!zfs_names_ok(zpool_, {name_.c_str(), snap_name_.c_str()})) return false;
  if (zfs_call(platform::format_command("zfs destroy \"%s\"", fullname_.c_str())) == 0) return true;
  return LOG_FAILURE("Failed to delete ZFS snapshot, errno=%d, %m\n", errno);
}

bool ZFS_Snapshot::is_readonly(bool& readonly) const {
  if (dataset_.get_prop("readonly", readonly, true)) return true;
  return LOG_FAILURE("Failed to check ZFS snapshot readonly: failed to get readonly in %s\n",
                     fullname_.c_str());
}

bool ZFS_Snapshot::get_info(FS_Info_Item& info) const {
  ACE_UINT64 creation = 0;
  if (!dataset_.get_prop("creation", creation, true)) {
    return LOG_FAILURE("Failed to get ZFS snapshot info: failed to get creation in %s\n", fullname_.c_str());
  }
  info["ctime"] = platform::POSIX_Time_To_ISO8601_Local(static_cast<time_t>(creation));
  info["name"] = fullname_;
  // Only a snapshot that clones were made of has this property.
  std::string clones;
  if (dataset_.get_prop("clones", clones, false) && !clones.empty() && clones != "-") info["clones"] = clones;
  return true;
}

bool ZFS_Snapshot::size(ACE_UINT64& size) const {
  if (dataset_.get_prop("used", size, true)) return true;
  return LOG_FAILURE("Failed to get ZFS snapshot info: failed to get used in '%s'\n", fullname_.c_str());
}

bool ZFS_Snapshot::size(ACE_UINT64& excl, ACE_UINT64& rfer) const {
  if (dataset_.get_prop("used", excl, true) && dataset_.get_prop("referenced", rfer, true)) return true;
  return LOG_FAILURE("Failed to get ZFS snapshot excl or rfer size in %s\n", fullname_.c_str());
}

bool ZFS_Snapshot::send(const std::vector<std::string>& increment, ACE_Process_Ex* proc) {
  if (!zfs_names_ok(zpool_, {name_.c_str(), snap_name_.c_str()})) return false;
  std::string command = "zfs send ";
  if (!increment.empty()) {
    const std::string& base = increment.back();
    if (!zfs_names_ok(zpool_, {base.c_str()})) return false;
    command += " -i " + zfs_quoted(zpool_ + "/" + name_ + "@" + base) + " ";
  }
  command += zfs_quoted(fullname_);
  LOG_DEBUG("Send snapshot: %s\n", command.c_str());
  if (zfs_spawn(command, proc) != -1) return true;
  return LOG_FAILURE("Failed to send snapshot, run '%s' error, errno=%d, %m\n", command.c_str(), errno);
}

}  // namespace scsi_pool
