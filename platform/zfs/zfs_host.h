#pragma once
// Where the kernel and udev show ZFS on this host: device links, imported pools, mounts, pool labels on
// files. Reading only, no tool is run. Any thread, except host_paths(), which tests set before anything runs.

#include <ace/Basic_Types.h>

#include <string>
#include <vector>

namespace zfs {

struct Host_Paths {
  std::string dev = "/dev";
  std::string proc = "/proc";
  bool (*is_device)(const std::string& path) = nullptr;  // null: is it a block device?
};
Host_Paths& host_paths();

// "/dev/zvol/<dataset>", the link under which a volume's device appears.
std::string zvol_path(const std::string& dataset);

// Is the path (a link is followed) a block device?
bool is_volume_device(const std::string& path);

// Waits until the path is a volume's device. False when it is none after `seconds`.
bool wait_for_device(const std::string& path, unsigned seconds);

// Waits until there is nothing of that name any more. False when there still is after `milliseconds`.
bool wait_until_gone(const std::string& path, unsigned milliseconds);

// Can the device be opened exclusively? A LUN export or a mount refuses that (errno EBUSY); readers and
// udev's probing do not. True as well when there is no such device.
bool exclusive_open_succeeds(const std::string& path);

enum class Pool_Presence { unknown, absent, imported };

// Is the pool imported, as the kernel shows it? Unknown when the kernel shows no pools at all (no module, or
// none imported yet).
Pool_Presence pool_presence(const std::string& zpool);

// The volumes of a pool that have a device link, by their path below the pool, sorted; partitions left out.
std::vector<std::string> linked_volumes(const std::string& zpool);

// The mounted ZFS filesystems of a pool as dataset names, the innermost mount first.
std::vector<std::string> mounted_datasets(const std::string& zpool);

// Does the file or device carry the label of a pool that was not destroyed? False when it cannot be read.
bool carries_pool_label(const std::string& path);

}  // namespace zfs
