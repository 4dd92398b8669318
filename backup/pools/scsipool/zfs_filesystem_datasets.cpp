// Volumes and sub filesystems of a ZFS pool.

#include <ace/OS_NS_errno.h>
#include <strings.h>
#include <sys/stat.h>

#include <limits>
#include <memory>
#include <new>

#include "backup/pools/scsipool/filesystem_helper.h"
#include "backup/pools/scsipool/zfs_filesystem.h"
#include "backup/pools/scsipool/zfs_helper.h"
#include "backup/pools/scsipool/zfs_sub_filesystem.h"
#include "backup/pools/scsipool/zfs_sub_volume.h"
#include "platform/base/backoff.h"
#include "platform/base/log.h"
#include "platform/base/names.h"
#include "platform/process/tool_options.h"
#include "platform/zfs/zfs_host.h"

namespace scsi_pool {

namespace {

constexpr ACE_UINT64 SMALLEST_BLOCK = 512;
constexpr ACE_UINT64 LARGEST_BLOCK = 131072;
constexpr unsigned DEFAULT_DEVICE_TIMEOUT = 30;  // seconds

bool is_full_clone(const FS_Info_Item& info) {
  std::string clone_type;
  return get_info_entry(info, "clone_type", clone_type) && clone_type == "full";
}

// False for a block size that is no power of 2.
bool choose_block_size(const FS_Info_Item& info, ACE_UINT64& block_size) {
  if (!get_info_entry(info, "block_size", block_size) || block_size < SMALLEST_BLOCK ||
      block_size > LARGEST_BLOCK) {
    block_size = LARGEST_BLOCK;
  }
  return (block_size & (block_size - 1)) == 0;
}

// " -o mountpoint=<path>", or nothing without a mount point. False for a path that may not stand in a
// command.
bool mount_point_option(const FS_Info_Item& info, std::string& option) {
  std::string mount_point, why;
  if (!get_info_entry(info, "mount_point", mount_point) || mount_point.empty()) return true;
  if (!platform::valid_path(mount_point, why)) {
    return LOG_FAILURE("Failed to use the mount point '%s': %s\n", mount_point.c_str(), why.c_str());
  }
  option = " -o mountpoint=" + zfs_quoted(mount_point);
  return true;
}

// A full copy brings the snapshot that was sent along. The catalog does not know it, and with it the copy
// could never be destroyed. Failing to remove it does not spoil the copy.
void remove_sent_snapshot(const std::string& copy, const char* snapshot) {
  if (zfs_call(platform::format_command("zfs destroy \"%s@%s\"", copy.c_str(), snapshot)) == 0) return;
  LOG_FAILURE("Failed to delete the copied snapshot '%s@%s'\n", copy.c_str(), snapshot);
}

}  // namespace

Sub_Volume* ZFS_Filesystem::new_sub_volume(const char* name) const {
  Sub_Volume* volume = new (std::nothrow) ZFS_Sub_Volume(zpool_.c_str(), name);
  if (!volume) errno = ENOMEM;
  return volume;
}

Sub_Volume* ZFS_Filesystem::create_sub_volume(const char* name, const FS_Info_Item& info) {
  if (!name || !*name) {
    LOG_VIOLATION("name is NULL or \"\"");
    return nullptr;
  }
  if (!zfs_names_ok(zpool_, {name})) return nullptr;
  ACE_UINT64 size = 0;
  if (!get_info_entry(info, "size", size)) {
    LOG_FAILURE("Failed to create ZFS volume: get volume size error\n");
    return nullptr;
  }
  ACE_UINT64 block_size = 0;
  if (!choose_block_size(info, block_size)) {
    LOG_FAILURE("Failed to create ZFS volume: block size %u is not power of 2\n",
                static_cast<unsigned>(block_size));
    return nullptr;
  }
  if (size > std::numeric_limits<ACE_UINT64>::max() - (block_size - 1)) {
    LOG_FAILURE("Failed to create ZFS volume: size %Q is too large\n", size);
    return nullptr;
  }
  size = (size + block_size - 1) & ~(block_size - 1);
  // A block size below 8 KiB is warned about on standard error: the exit status alone decides.
  const int status = zfs_call(platform::format_command("zfs create -s -b %lu -V %lu \"%s/%s\"", block_size,
                                                       size, zpool_.c_str(), name));
  if (status != 0) {
    LOG_FAILURE("Failed to create ZFS volume\n");
    return nullptr;
  }
  if (!set_sub_volume_attrs(name, info)) {
    LOG_FAILURE("Failed to create ZFS volume: Failed to set attributes\n");
    return nullptr;
  }
  return get_block_dev(name);
}

bool ZFS_Filesystem::set_sub_volume_attrs(const char* name, const FS_Info_Item& attrs) {
  bool dedup = false, async = false, checksum = true;
  std::string compression;
  if (!get_info_entry(attrs, "dedup", dedup) || !get_info_entry(attrs, "compression", compression)) {
    return LOG_FAILURE("Failed to create ZFS volume: failed to get ZFS config\n");
  }
  get_info_entry(attrs, "async", async);
  get_info_entry(attrs, "checksum", checksum);
  if (!zfs_names_ok(zpool_, {name})) return false;

  ZFS_Dataset dataset(dataset_name(name), true);
  dataset.open_when_needed();
  const char* dedup_value = dedup ? "on" : "off";
  const char* compression_value = check_compression_type(compression.c_str());
  const char* sync_value = async ? "disabled" : "standard";
  const char* checksum_value = checksum ? "on" : "off";
  const ZFS_Dataset::Values values = {{"dedup", dedup_value},
                                      {"compression", compression_value},
                                      {"sync", sync_value},
                                      {"checksum", checksum_value}};
  std::string failed;
  if (dataset.set_props(values, failed)) return true;
  if (failed == "dedup")
    return LOG_FAILURE("Failedt to create ZFS volume: failed to set dedup to '%s'\n", dedup_value);
  if (failed == "compression") {
    return LOG_FAILURE("Failedt to create ZFS volume: failed to set compression to '%s'\n",
                       compression_value);
  }
  if (failed == "sync")
    return LOG_FAILURE("Failedt to create ZFS volume: failed to set sync to '%s'\n", sync_value);
  return LOG_FAILURE("Failedt to create ZFS volume: failed to set checksum to '%s'\n", checksum_value);
}

const char* ZFS_Filesystem::check_compression_type(const char* type) const {
  if (!type || !*type || strcasecmp(type, "none") == 0) return "off";
  // The text stays as asked for; the accessor writes it in the lower case that ZFS wants.
  for (const char* known : {"lz4", "zle", "lzjb", "gzip"}) {
    if (strcasecmp(type, known) == 0) return type;
  }
  LOG_FAILURE("ZFS not support compression %s\n", type);
  return "off";
}

Sub_Volume* ZFS_Filesystem::get_block_dev(const char* name) {
  std::unique_ptr<Sub_Volume> volume(new_sub_volume(name));
  if (!volume) {
    LOG_FAILURE("Failed to get '%s' block device: Failed to create ZFS sub volume object\n", zpool_.c_str());
    return nullptr;
  }
  std::string path;
  volume->get_dataset(path);
  const unsigned timeout = check_block_dev_timeout_ ? check_block_dev_timeout_ : DEFAULT_DEVICE_TIMEOUT;
  const unsigned without_limit = std::numeric_limits<unsigned>::max();
  unsigned waited = 0;
  for (platform::Exponential_Backoff_Iterator delay(1, without_limit, 2, false); waited <= timeout; ++delay) {
    // A delay is an upper bound: its wait ends as soon as the device is there.
    if (zfs::wait_for_device(path, *delay)) return volume.release();
    waited += *delay;
  }
  LOG_FAILURE("Failed to get block device: create block device '%s' error\n", path.c_str());
  return nullptr;
}

Sub_Volume* ZFS_Filesystem::clone_sub_volume(const char* name, const char* snapshot_parent,
                                             const char* snapshot, const FS_Info_Item& info) {
  if (!name || !*name) return LOG_VIOLATION("name is NULL or \"\""), nullptr;
  if (!snapshot_parent || !*snapshot_parent) return LOG_VIOLATION("snapshot_parent is NULL or \"\""), nullptr;
  if (!snapshot || !*snapshot) return LOG_VIOLATION("snapshot is NULL or \"\""), nullptr;
  if (!zfs_names_ok(zpool_, {name, snapshot_parent, snapshot})) return nullptr;
  const std::unique_ptr<Sub_Volume> parent(get_sub_volume(snapshot_parent));
  if (!parent || !parent->snapshot_exist(snapshot)) {
    LOG_FAILURE("Failed to clone ZFS volume base on snapshot: snapshot not exist\n");
    return nullptr;
  }
  const bool full = is_full_clone(info);
  const char* zpool = zpool_.c_str();
  const std::string command = full ? platform::format_command("zfs send \"%s/%s@%s\" | zfs receive \"%s/%s\"",
                                                              zpool, snapshot_parent, snapshot, zpool, name)
                                   : platform::format_command("zfs clone \"%s/%s@%s\" \"%s/%s\"", zpool,
                                                              snapshot_parent, snapshot, zpool, name);
  if (zfs_call(command) != 0) {
    LOG_FAILURE("Failed to clone ZFS volume base on snapshot: failed to exec %s\n", command.c_str());
    return nullptr;
  }
  if (full) remove_sent_snapshot(dataset_name(name), snapshot);
  if (!set_sub_volume_attrs(name, info)) {
    LOG_FAILURE("Failed to clone ZFS volume base on snapshot: Failed to set attributes\n");
    return nullptr;
  }
  return get_block_dev(name);
}

Sub_Volume* ZFS_Filesystem::get_sub_volume(const char* name) const {
  if (sub_volume_exist(name)) return new_sub_volume(name);
  LOG_FAILURE("Failed to get ZFS sub volume: sub volume '%s/%s' does not exist\n", zpool_.c_str(),
              name ? name : "");
  return nullptr;
}

bool ZFS_Filesystem::sub_volume_exist(const char* name) const {
  if (!zfs_names_ok(zpool_, {name})) return false;
  struct stat status = {};
  return lstat(zfs::zvol_path(dataset_name(name)).c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

Sub_Filesystem* ZFS_Filesystem::create_sub_filesystem(const char* name, const FS_Info_Item& info) {
  std::string mount_point;
  if (!zfs_names_ok(zpool_, {name}) || !mount_point_option(info, mount_point)) return nullptr;
  if (!verify()) {
    LOG_FAILURE("Failed to create ZFS sub filesystem: failed to verify the base filesystem\n");
    return nullptr;
  }
  const std::string command = platform::format_command("zfs create \"%s/%s\" -o canmount=noauto%s",
                                                       zpool_.c_str(), name, mount_point.c_str());
  if (zfs_call(command) != 0) {
    LOG_FAILURE("Failed to create ZFS sub filesystem: %m\n");
    return nullptr;
  }
  ZFS_Dataset dataset(dataset_name(name), true);
  dataset.open_when_needed();
  ACE_UINT64 size = 0;
  if (get_info_entry(info, "size", size) && !dataset.set_prop("quota", size, true)) {
    LOG_FAILURE("Failed to create ZFS sub filesystem, set quota error\n");
    return nullptr;
  }
  if (!dataset.set_prop("atime", "off", true)) {
    LOG_FAILURE("Failed to create ZFS sub filesystem in '%s': failed to set atime to off\n", zpool_.c_str());
    return nullptr;
  }
  Sub_Filesystem* filesystem = new (std::nothrow) ZFS_Sub_Filesystem(zpool_.c_str(), name);
  if (!filesystem) errno = ENOMEM;
  return filesystem;
}

Sub_Filesystem* ZFS_Filesystem::clone_sub_filesystem(const char* target_name, const char* source_name,
                                                     const char* snapshot_id, const FS_Info_Item& info) {
  if (!target_name || !*target_name) return LOG_VIOLATION("target_name is NULL or \"\""), nullptr;
  if (!source_name || !*source_name) return LOG_VIOLATION("source_name is NULL or \"\""), nullptr;
  if (!snapshot_id || !*snapshot_id) return LOG_VIOLATION("snapshot_id is NULL or \"\""), nullptr;
  std::string mount_point;
  if (!zfs_names_ok(zpool_, {target_name, source_name, snapshot_id})) return nullptr;
  if (!mount_point_option(info, mount_point)) return nullptr;
  const std::unique_ptr<Sub_Filesystem> source(get_sub_filesystem(source_name));
  if (!source || !source->snapshot_exist(snapshot_id)) {
    LOG_FAILURE("Failed to clone ZFS filesystem %s, snapshot %s does not exist\n", source_name, snapshot_id);
    return nullptr;
  }
  const bool full = is_full_clone(info);
  const char* zpool = zpool_.c_str();
  const char* format = full ? "zfs send \"%s/%s@%s\" | zfs receive \"%s/%s\" -u%s"
                            : "zfs clone \"%s/%s@%s\" \"%s/%s\" -o canmount=noauto%s";
  const std::string command = platform::format_command(format, zpool, source_name, snapshot_id, zpool,
                                                       target_name, mount_point.c_str());
  if (zfs_call(command) != 0) {
    LOG_FAILURE("Failed to clone ZFS filesystem %s, snapshot %s failed to exec %s\n", source_name,
                snapshot_id, command.c_str());
    return nullptr;
  }
  std::unique_ptr<Sub_Filesystem> target(new (std::nothrow) ZFS_Sub_Filesystem(zpool, target_name));
  if (!target) errno = ENOMEM;
  if (!full) return target.release();
  remove_sent_snapshot(dataset_name(target_name), snapshot_id);
  ZFS_Dataset dataset(dataset_name(target_name), true);
  dataset.open_when_needed();
  if (!dataset.set_prop("canmount", "noauto", true)) {
    // The copy is good; an import without -N would mount it by itself.
    LOG_FAILURE("Failed to set canmount of the copied filesystem '%s' to noauto\n", dataset.name().c_str());
  }
  return target.release();
}

Sub_Filesystem* ZFS_Filesystem::get_sub_filesystem(const char* name) const {
  if (!zfs_names_ok(zpool_, {name})) return nullptr;
  ZFS_Dataset dataset(dataset_name(name), true);
  dataset.set_log(false);
  if (!dataset.open()) return nullptr;
  // What the existence test has read serves the object, too.
  dataset.set_log(true);
  Sub_Filesystem* filesystem = new (std::nothrow) ZFS_Sub_Filesystem(zpool_, name, dataset);
  if (!filesystem) errno = ENOMEM;
  return filesystem;
}

bool ZFS_Filesystem::sub_filesystem_exist(const char* name) const {
  if (!zfs_names_ok(zpool_, {name})) return false;
  ZFS_Dataset dataset(dataset_name(name), true);
  dataset.set_log(false);
  return dataset.open();
}

Sizes_Read ZFS_Filesystem::get_snapshot_sizes(const std::string& dataset, Snapshot_Sizes& sizes) const {
  return zfs_add_snapshot_sizes(zpool_, dataset, sizes);
}

}  // namespace scsi_pool
