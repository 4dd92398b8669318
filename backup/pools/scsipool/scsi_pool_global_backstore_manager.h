#pragma once
// A pool that is a sub filesystem of the server's global storage device, with a quota and, unless thin, a
// reservation of the pool's size. Nothing is formatted or mounted for it.

#include <string>

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"

namespace scsi_pool {

class SCSIPOOL_Export SCSI_Pool_Global_Backstore_Manager : public SCSI_Pool_Backstore_Manager {
 public:
  // `global_dev`: the name of the global ZFS pool or dataset, or the mount point of the global Btrfs
  // filesystem.
  SCSI_Pool_Global_Backstore_Manager(const std::string& pool_id, const std::string& global_dev);

  bool open(FS_TYPE fs_type) override;
  bool open(const std::string& fs_type_str) override;
  // The sub filesystem stays when its reservation fails.
  bool create(ACE_UINT64 size, bool thin) override;
  // There must be no snapshots and no datasets left inside.
  bool destroy() override;
  // The system mounts the global device: these four are true once opened.
  bool mount(const FS_Info_Item& info) override;
  bool umount() override;
  bool mounted() const override;
  bool exist() const override;
  bool get_used_size(ACE_UINT64& size) const override;

 protected:
  bool device_driver_present() const;

  std::string sub_fs_mountpoint_;  // the global device
  Filesystem_var sub_fs_mgr_;      // its driver; empty until open()
};

}  // namespace scsi_pool
