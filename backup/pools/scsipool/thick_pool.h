#pragma once

#include <string>

#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

// Makes sure that a mounted Btrfs pool that was created thick has all of its room. Its entry of /etc/fstab,
// with which a boot mounts it, lets the filesystem give freed blocks back: this ends that, and reserves again
// what was given back before. False, logged, when the room cannot be reserved; the pool can be used all the
// same. Any thread.
SCSIPOOL_Export bool reserve_thick_pool(const std::string& pool_id);

}  // namespace scsi_pool
