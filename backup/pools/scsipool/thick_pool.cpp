#include "backup/pools/scsipool/thick_pool.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "backup/pools/scsipool/btrfs_commands.h"
#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/process/auto_handle.h"

namespace scsi_pool {

bool reserve_thick_pool(const std::string& pool_id) {
  btrfs_keep_blocks("/orbistor/scsipool/" + pool_id);
  const std::string backing = "/orbistor/scsipool_backstore/" + pool_id;
  const Auto_Handle file(platform::open_cloexec(backing, O_WRONLY));
  struct stat info;
  // Only holes get blocks, so that this is safe below a mounted filesystem. Not posix_fallocate, which may
  // write.
  if (file.valid() && ::fstat(file.get(), &info) == 0 &&
      (info.st_blocks * 512 >= info.st_size || ::fallocate(file.get(), 0, 0, info.st_size) == 0))
    return true;
  return LOG_FAILURE("Failed to reserve the room of the thick pool '%s': %m\n", pool_id.c_str());
}

}  // namespace scsi_pool
