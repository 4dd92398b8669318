#include "backup/pools/scsipool/zfs_sub_volume.h"

#include <ace/OS_NS_errno.h>

#include <boost/algorithm/string.hpp>
#include <chrono>
#include <thread>
#include <vector>

#include "backup/pools/scsipool/zfs_helper.h"
#include "platform/base/log.h"
#include "platform/base/time_text.h"
#include "platform/process/tool_options.h"
#include "platform/zfs/zfs_host.h"

namespace scsi_pool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds BUSY_LIMIT(5);
constexpr std::chrono::milliseconds BUSY_STEP(100);
constexpr unsigned LINK_GONE_LIMIT = 2000;  // milliseconds

// Adds the two parts of "<zpool>/<volume>@<snapshot>", where <zpool> may be "<global device>/<pool>".
void add_origin(const std::string& origin, FS_Info_Item& info) {
  std::vector<std::string> parts;
  boost::split(parts, origin, boost::is_any_of("/@"), boost::token_compress_on);
  if (parts.size() != 3 && parts.size() != 4) return;
  info["origin_subvol"] = parts[parts.size() - 2];
  info["origin_snapshot"] = parts.back();
}

}  // namespace

ZFS_Sub_Volume::ZFS_Sub_Volume(const char* zpool, const char* name)
    : zpool_(zpool), name_(name), dataset_(zpool_ + "/" + name_, true) {
  dataset_.open_when_needed();
}

bool ZFS_Sub_Volume::destroy() {
  if (!zfs_names_ok(zpool_, {name_.c_str()})) return false;
  std::string path;
  get_dataset(path);
  const std::string command =
      platform::format_command("zfs destroy \"%s/%s\"", zpool_.c_str(), name_.c_str());
  const Clock::time_point deadline = Clock::now() + BUSY_LIMIT;
  while (zfs_call(command) != 0) {
    // Right after a clone, or after a writer has closed the device, udev reads it for a moment. Unlike a LUN
    // export or a mount it lets an exclusive open through.
    const bool passing = errno == EBUSY && zfs::is_volume_device(path) && zfs::exclusive_open_succeeds(path);
    if (passing && Clock::now() < deadline) {
      std::this_thread::sleep_for(BUSY_STEP);
      continue;
    }
    if (errno == EBUSY) zfs_log_holder(dataset_.name(), path);
    return LOG_FAILURE("Failed to delete ZFS volume, errno=%d, %m\n", errno);
  }
  // udev takes the link away a little later; until then the volume would seem to exist.
  zfs::wait_until_gone(path, LINK_GONE_LIMIT);
  return true;
}

bool ZFS_Sub_Volume::get_info(FS_Info_Item& info) const {
  ACE_UINT64 creation = 0;
  if (!dataset_.get_prop("creation", creation, true)) {
    return LOG_FAILURE("Failed to get ZFS volume info: get ctime error \n");
  }
  std::string origin;
  if (dataset_.get_prop("origin", origin, false)) add_origin(origin, info);
  info["ctime"] = platform::POSIX_Time_To_ISO8601_Local(static_cast<time_t>(creation));
  info["name"] = platform::format_command("%s/%s", zpool_.c_str(), name_.c_str());
  return true;
}

bool ZFS_Sub_Volume::get_info(const char* name, std::string& val) const {
  if (!name || !*name) return LOG_VIOLATION("name is NULL or \"\"");
  if (dataset_.get_prop(name, val, true)) return true;
  return LOG_FAILURE("Failed to get ZFS volume info: failed to get attr '%s' \n", name);
}

bool ZFS_Sub_Volume::set_info(const char* key, const char* value) {
  if (!key || !*key) return LOG_VIOLATION("key is NULL or \"\"");
  if (!value) return LOG_VIOLATION("value is NULL");
  return dataset_.set_prop(key, value, true);
}

bool ZFS_Sub_Volume::rollback(const char* snapshot) {
  if (!snapshot || !*snapshot) return LOG_VIOLATION("snapshot is NULL or \"\"");
  if (!snapshot_exist(snapshot)) {
    return LOG_FAILURE("Failed to rollback volume: snapshot '%s' does not exist\n", snapshot);
  }
  std::string path;
  get_dataset(path);
  if (!zfs::exclusive_open_succeeds(path)) {
    // ZFS would not refuse, and the one that uses the device would mix what it has cached with the old
    // content.
    zfs_log_holder(dataset_.name(), path);
    return LOG_FAILURE("Failed to rollback volume\n");
  }
  const int status = zfs_call(
      platform::format_command("zfs rollback \"%s/%s@%s\"", zpool_.c_str(), name_.c_str(), snapshot));
  if (status != 0) return LOG_FAILURE("Failed to rollback volume\n");
  dataset_.open_when_needed();
  return true;
}

bool ZFS_Sub_Volume::get_used_size(ACE_UINT64& size) const {
  if (dataset_.get_prop("used", size, true)) return true;
  return LOG_FAILURE("Failed to get ZFS volume used size\n");
}

bool ZFS_Sub_Volume::get_dataset(std::string& path) const {
  path = zfs::zvol_path(zpool_ + "/" + name_);
  return true;
}

Snapshot* ZFS_Sub_Volume::create_snapshot(const char* name, const FS_Info_Item&) {
  if (!zfs_names_ok(zpool_, {name_.c_str(), name})) return nullptr;
  if (snapshot_exist(name)) {
    LOG_FAILURE("Failed to create snapshot: snapshot exist\n");
    return nullptr;
  }
  const int status =
      zfs_call(platform::format_command("zfs snapshot \"%s/%s@%s\"", zpool_.c_str(), name_.c_str(), name));
  if (status != 0) {
    LOG_FAILURE("Failed to create ZFS snapshot.\n");
    return nullptr;
  }
  return zfs_new_snapshot(zpool_, name_, name);
}

Snapshot* ZFS_Sub_Volume::get_snapshot(const char* name) const {
  return zfs_get_snapshot(zpool_, name_, name);
}

bool ZFS_Sub_Volume::snapshot_exist(const char* name) const {
  return zfs_snapshot_exist(zpool_, name_, name);
}

bool ZFS_Sub_Volume::receive_snapshot(const char* name, bool force, ACE_Process_Ex* proc) {
  return zfs_receive(zpool_, name_, name, force, proc);
}

}  // namespace scsi_pool
