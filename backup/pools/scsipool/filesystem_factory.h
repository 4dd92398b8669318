#pragma once
// Makes the driver of a pool filesystem. No state; any thread.

#include "backup/pools/scsipool/filesystem.h"
#include "backup/pools/scsipool/filesystem_helper.h"

namespace scsi_pool {

class Filesystem_Factory {
 public:
  // The caller owns the driver; null (logged) for an unknown type or without a mount point. For ZFS
  // `mount_point` is the zpool's name. Touches nothing on disk.
  static Filesystem* create(FS_TYPE type, const char* backstore, const char* mount_point);
  // The driver of a pool that lives in a file of its own, all paths taken from its id.
  static Filesystem* create(FS_TYPE type, const char* pool_id);
};

}  // namespace scsi_pool
