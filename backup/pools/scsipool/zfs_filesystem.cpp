#include "backup/pools/scsipool/zfs_filesystem.h"

#include <ace/OS_NS_errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <thread>
#include <vector>

#include "backup/pools/scsipool/zfs_helper.h"
#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/process/tool_options.h"
#include "platform/zfs/zfs_host.h"

namespace scsi_pool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr off_t SMALLEST_DEVICE = 67108864;  // what ZFS takes
constexpr std::chrono::seconds BUSY_LIMIT(5);
constexpr std::chrono::milliseconds BUSY_STEP(100);
constexpr unsigned LINK_GONE_LIMIT = 2000;  // milliseconds
constexpr unsigned LINK_BACK_LIMIT = 5;     // seconds

bool is_reserved_pool_name(const std::string& zpool) {
  if (!std::isalpha(static_cast<unsigned char>(zpool[0])) || zpool == "log") return true;
  for (const char* kind : {"mirror", "raidz", "draid", "spare"}) {
    if (zpool.compare(0, std::string(kind).size(), kind) == 0) return true;
  }
  return false;
}

// Grows a regular file that is too small for ZFS, sparse if it is sparse. False when it is not such a file or
// cannot grow.
bool grow_small_file(const std::string& path) {
  const int fd = platform::open_cloexec(path, O_RDWR);
  if (fd < 0) return false;
  struct stat status = {};
  bool grown = fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size < SMALLEST_DEVICE;
  if (grown) {
    const bool allocated = status.st_blocks * 512 >= status.st_size;
    grown = (allocated ? posix_fallocate(fd, 0, SMALLEST_DEVICE) : ftruncate(fd, SMALLEST_DEVICE)) == 0;
  }
  close(fd);
  if (grown)
    LOG_INFO("Grew '%s' to %Q bytes, the least that ZFS takes\n", path.c_str(), ACE_UINT64{SMALLEST_DEVICE});
  return grown;
}

// Is a volume exported or mounted? The tool is not asked then: its refusal would take away the device nodes
// of all the pool's other volumes.
bool any_volume_held(const std::string& zpool) {
  for (const std::string& volume : zfs::linked_volumes(zpool)) {
    const std::string dataset = zpool + "/" + volume;
    if (zfs::exclusive_open_succeeds(zfs::zvol_path(dataset))) continue;
    zfs_log_holder(dataset, zfs::zvol_path(dataset));
    return true;
  }
  return false;
}

// Returns what was mounted, the innermost first.
std::vector<std::string> unmount_all(const std::string& zpool) {
  const std::vector<std::string> mounted = zfs::mounted_datasets(zpool);
  for (const std::string& dataset : mounted) {
    zfs_call(platform::format_command("zfs umount \"%s\"", dataset.c_str()));
  }
  return mounted;
}

// Writers would fill the folder below otherwise.
void mount_again(const std::string& zpool, const std::vector<std::string>& mounted) {
  const std::vector<std::string> left = zfs::mounted_datasets(zpool);
  for (auto dataset = mounted.rbegin(); dataset != mounted.rend(); ++dataset) {
    if (std::find(left.begin(), left.end(), *dataset) != left.end()) continue;
    if (zfs_call(platform::format_command("zfs mount \"%s\"", dataset->c_str())) == 0) continue;
    LOG_FAILURE("Failed to mount '%s' again after a refused destroy\n", dataset->c_str());
  }
}

// Makes the kernel build the device nodes again that a refused destroy has taken away.
void restore_device_nodes(const std::string& zpool, const std::vector<std::string>& volumes) {
  for (const std::string& volume : volumes) {
    ZFS_Dataset dataset(zpool + "/" + volume, true);
    const std::string path = zfs::zvol_path(dataset.name());
    if (zfs::is_volume_device(path)) continue;
    dataset.open_when_needed();
    const bool asked = dataset.set_prop("volmode", "none", true) && dataset.set_prop("volmode", "dev", true);
    if (asked && zfs::wait_for_device(path, LINK_BACK_LIMIT)) continue;
    LOG_FAILURE("Failed to bring back the device '%s' after a refused destroy\n", path.c_str());
  }
}

}  // namespace

ZFS_Filesystem::ZFS_Filesystem(const char* device, const char* zpool)
    : device_(device), zpool_(zpool), dataset_(zpool_, true) {
  dataset_.set_log(false);
  dataset_.open_when_needed();
  dataset_.set_log(true);
}

bool ZFS_Filesystem::create_pool() {
  const std::string command =
      platform::format_command("zpool create -f -m none \"%s\" \"%s\"", zpool_.c_str(), device_.c_str());
  if (zfs_call(command) == 0) return true;
  return grow_small_file(device_) && zfs_call(command) == 0;
}

bool ZFS_Filesystem::make(const FS_Info_Item&) {
  if (!zfs_names_ok(zpool_, {zpool_.c_str()})) return false;
  if (is_reserved_pool_name(zpool_)) {
    return LOG_FAILURE(
        "Failed to create zpool '%s' in '%s': ZFS reserves this name or it starts with no letter\n",
        zpool_.c_str(), device_.c_str());
  }
  if (zfs::carries_pool_label(device_)) {
    // -f would overwrite it: a pool that is only not imported at the moment.
    return LOG_FAILURE("Failed to create zpool '%s' in '%s': it holds a ZFS pool\n", zpool_.c_str(),
                       device_.c_str());
  }
  if (!create_pool()) {
    return LOG_FAILURE("Failed to create zpool '%s' in '%s'\n", zpool_.c_str(), device_.c_str());
  }
  if (!dataset_.open() || !dataset_.set_prop("atime", "off", true)) {
    return LOG_FAILURE("Failed to create zpool '%s': failed to set atime to off\n", zpool_.c_str());
  }
  return true;
}

bool ZFS_Filesystem::destroy_pool() const {
  const std::string command = platform::format_command("zpool destroy \"%s\"", zpool_.c_str());
  const Clock::time_point deadline = Clock::now() + BUSY_LIMIT;
  while (zfs_call(command) != 0) {
    // udev may be reading a device that has just been closed.
    if (errno != EBUSY || Clock::now() >= deadline || any_volume_held(zpool_)) return false;
    std::this_thread::sleep_for(BUSY_STEP);
  }
  return true;
}

bool ZFS_Filesystem::destroy() {
  if (!zfs_names_ok(zpool_, {})) return false;
  if (any_volume_held(zpool_)) return LOG_FAILURE("Failed to delete zpool '%s'\n", zpool_.c_str());
  const std::vector<std::string> mounted = unmount_all(zpool_);
  const std::vector<std::string> volumes = zfs::linked_volumes(zpool_);
  if (!destroy_pool()) {
    mount_again(zpool_, mounted);
    restore_device_nodes(zpool_, volumes);
    return LOG_FAILURE("Failed to delete zpool '%s'\n", zpool_.c_str());
  }
  for (const std::string& volume : volumes) {
    zfs::wait_until_gone(zfs::zvol_path(dataset_name(volume.c_str())), LINK_GONE_LIMIT);
  }
  return true;
}

bool ZFS_Filesystem::mount(const FS_Info_Item&) {
  std::string mount_point;
  if (!root_mount_point(mount_point)) {
    return LOG_FAILURE("Failed to mount ZFS '%s': failed to get pool mount point\n", zpool_.c_str());
  }
  if (mount_point == "none" || mounted()) return true;
  if (!zfs_names_ok(zpool_, {})) return false;
  if (zfs_call(platform::format_command("zfs mount \"%s\"", zpool_.c_str())) != 0) {
    return LOG_FAILURE("Failed to mount ZFS '%s'\n", zpool_.c_str());
  }
  dataset_.open_when_needed();
  return true;
}

bool ZFS_Filesystem::umount() {
  std::string mount_point;
  if (!root_mount_point(mount_point)) {
    return LOG_FAILURE("Failed to umount ZFS '%s': failed to get pool mount point\n", zpool_.c_str());
  }
  if (mount_point == "none" || !mounted()) return true;
  if (!zfs_names_ok(zpool_, {})) return false;
  if (zfs_call(platform::format_command("zfs umount \"%s\"", zpool_.c_str())) != 0) {
    return LOG_FAILURE("Failed to umount ZFS '%s'\n", zpool_.c_str());
  }
  dataset_.open_when_needed();
  return true;
}

bool ZFS_Filesystem::mounted() const {
  std::string mount_point;
  if (!root_mount_point(mount_point)) {
    return LOG_FAILURE("Failed to check ZFS mounted: get pool mount point error\n");
  }
  if (mount_point == "none") return true;
  bool is_mounted = false;
  return dataset_.get_prop("mounted", is_mounted, true) && is_mounted;
}

bool ZFS_Filesystem::sync() const {
  return true;
}

bool ZFS_Filesystem::verify() const {
  std::string mount_point;
  if (root_mount_point(mount_point)) return true;
  return LOG_FAILURE("Failed to get zpool '%s' mount point\n", zpool_.c_str());
}

bool ZFS_Filesystem::get_used_size(ACE_UINT64& size) const {
  if (dataset_.get_prop("used", size, true)) return true;
  return LOG_FAILURE("Failed to get ZFS '%s' used size: failed to get property\n", zpool_.c_str());
}

}  // namespace scsi_pool
