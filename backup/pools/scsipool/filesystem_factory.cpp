#include "backup/pools/scsipool/filesystem_factory.h"

#include <cerrno>
#include <new>

#include "backup/pools/scsipool/btrfs_filesystem.h"
#include "backup/pools/scsipool/zfs_filesystem.h"
#include "platform/base/log.h"
#include "platform/process/tool_options.h"

namespace scsi_pool {

namespace {

Filesystem* unknown_type() {
  LOG_FAILURE("Not suport filesystem type\n");
  return nullptr;
}

Filesystem* checked(Filesystem* filesystem) {
  if (filesystem == nullptr) errno = ENOMEM;
  return filesystem;
}

}  // namespace

Filesystem* Filesystem_Factory::create(FS_TYPE type, const char* backstore, const char* mount_point) {
  if (mount_point == nullptr || *mount_point == '\0') {
    LOG_VIOLATION("mount_point is NULL or \"\"");
    return nullptr;
  }
  switch (type) {
    case FS_BTRFS:
      return checked(new (std::nothrow) Btrfs_Filesystem(backstore, mount_point));
    case FS_ZFS:
      return checked(new (std::nothrow) ZFS_Filesystem(backstore, mount_point));
    default:
      return unknown_type();
  }
}

Filesystem* Filesystem_Factory::create(FS_TYPE type, const char* pool_id) {
  if (pool_id == nullptr || *pool_id == '\0') {
    LOG_VIOLATION("pool_id is NULL or \"\"");
    return nullptr;
  }
  const std::string backstore = platform::format_command("/orbistor/scsipool_backstore/%s", pool_id);
  switch (type) {
    case FS_BTRFS:
      return create(type, backstore.c_str(),
                    platform::format_command("/orbistor/scsipool/%s", pool_id).c_str());
    case FS_ZFS:
      return create(type, backstore.c_str(), pool_id);
    default:
      return unknown_type();
  }
}

}  // namespace scsi_pool
