#pragma once
// The driver of one pool filesystem: a ZFS pool or a Btrfs filesystem. Drivers are made for one request, used
// by one thread and dropped. Every operation logs the reason of a failure once.

#include <ace/Basic_Types.h>

#include <memory>

#include "backup/pools/scsipool/fs_info.h"
#include "backup/pools/scsipool/sub_filesystem.h"
#include "backup/pools/scsipool/sub_volume.h"

namespace scsi_pool {

class Filesystem {
 public:
  virtual ~Filesystem() = default;

  // Creates the pool filesystem on its device. What the device held is lost.
  virtual bool make(const FS_Info_Item& opts) = 0;
  virtual bool destroy() = 0;
  virtual bool mount(const FS_Info_Item& opts) = 0;
  virtual bool umount() = 0;
  virtual bool mounted() const = 0;
  // Flushes everything written so far to the device.
  virtual bool sync() const = 0;
  // Is it present and usable?
  virtual bool verify() const = 0;
  // Bytes in use.
  virtual bool get_used_size(ACE_UINT64& size) const = 0;

  // The objects returned below belong to the caller; null means failure.
  virtual Sub_Volume* create_sub_volume(const char* name, const FS_Info_Item& info) = 0;
  // New volume `name` from snapshot `snapshot` of volume `snapshot_parent`.
  virtual Sub_Volume* clone_sub_volume(const char* name, const char* snapshot_parent, const char* snapshot,
                                       const FS_Info_Item& info) = 0;
  virtual Sub_Volume* get_sub_volume(const char* name) const = 0;
  virtual bool sub_volume_exist(const char* name) const = 0;
  virtual Sub_Filesystem* create_sub_filesystem(const char* name, const FS_Info_Item& info) = 0;
  virtual Sub_Filesystem* clone_sub_filesystem(const char* target_name, const char* source_name,
                                               const char* snapshot_id, const FS_Info_Item& info) = 0;
  // Null, without a message, when there is none of that name.
  virtual Sub_Filesystem* get_sub_filesystem(const char* name) const = 0;
  virtual bool sub_filesystem_exist(const char* name) const = 0;

  // Adds the sizes of all snapshots of a volume or sub filesystem, measured with one run of a tool, whose
  // failure is logged.
  virtual Sizes_Read get_snapshot_sizes(const std::string&, Snapshot_Sizes&) const {
    return Sizes_Read::NO_TOOL;
  }

  // The longest wait, in seconds, for the device node of a new volume; 0 takes the driver's default.
  void check_block_dev_timeout(unsigned int timeout) { check_block_dev_timeout_ = timeout; }

 protected:
  unsigned int check_block_dev_timeout_ = 0;
};

using Filesystem_var = std::unique_ptr<Filesystem>;

}  // namespace scsi_pool
