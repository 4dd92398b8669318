#pragma once
// A pool on ZFS: one zpool (or, on the global device, one dataset that plays its part) that holds volumes and
// sub filesystems. Every change runs `zpool` or `zfs`; a step that fails leaves what the steps before it
// made. A refused name is an error in the log and a failure with nothing run. The pool's own operations are
// in zfs_filesystem.cpp, those on what is inside in zfs_filesystem_datasets.cpp.

#include <string>

#include "backup/pools/scsipool/filesystem.h"
#include "backup/pools/scsipool/scsipool_export.h"
#include "platform/zfs/zfs_dataset.h"

namespace scsi_pool {

class SCSIPOOL_Export ZFS_Filesystem : public Filesystem {
 public:
  // `device` is the file or device of the zpool (empty for a dataset on the global device), `zpool` its name,
  // "<pool>" or "<global device>/<pool>". Nothing is created.
  ZFS_Filesystem(const char* device, const char* zpool);

  // Refuses a device that carries the label of a living pool, and names that ZFS reserves. A file smaller
  // than ZFS takes (64 MiB) is grown to that.
  bool make(const FS_Info_Item& opts) override;
  // Unmounts the pool's filesystems first. Refused, with the tool not run, while a volume is exported or
  // mounted; a pool that is busy otherwise is tried again for five seconds.
  bool destroy() override;
  bool mount(const FS_Info_Item& opts) override;
  bool umount() override;
  bool mounted() const override;
  bool sync() const override;
  bool verify() const override;
  bool get_used_size(ACE_UINT64& size) const override;

  Sub_Volume* create_sub_volume(const char* name, const FS_Info_Item& info) override;
  Sub_Volume* clone_sub_volume(const char* name, const char* snapshot_parent, const char* snapshot,
                               const FS_Info_Item& info) override;
  Sub_Volume* get_sub_volume(const char* name) const override;
  bool sub_volume_exist(const char* name) const override;
  Sub_Filesystem* create_sub_filesystem(const char* name, const FS_Info_Item& info) override;
  Sub_Filesystem* clone_sub_filesystem(const char* target_name, const char* source_name,
                                       const char* snapshot_id, const FS_Info_Item& info) override;
  Sub_Filesystem* get_sub_filesystem(const char* name) const override;
  bool sub_filesystem_exist(const char* name) const override;
  Sizes_Read get_snapshot_sizes(const std::string& dataset, Snapshot_Sizes& sizes) const override;

  // The value of the property `compression` for a requested one: "off" for none and for what ZFS volumes here
  // do not support (which is logged).
  const char* check_compression_type(const char* type) const;
  // Sets `dedup`, `compression`, `async` and `checksum` of the volume `name`.
  bool set_sub_volume_attrs(const char* name, const FS_Info_Item& attrs);
  // Waits for the device of a new volume, up to the timeout. Null, with the volume left, when it does not
  // come.
  Sub_Volume* get_block_dev(const char* name);

 private:
  bool create_pool();
  bool destroy_pool() const;
  bool root_mount_point(std::string& mount_point) const {
    return dataset_.get_prop("mountpoint", mount_point, true);
  }
  std::string dataset_name(const char* name) const { return zpool_ + "/" + name; }
  Sub_Volume* new_sub_volume(const char* name) const;

  const std::string device_;
  const std::string zpool_;
  ZFS_Dataset dataset_;
};

}  // namespace scsi_pool
