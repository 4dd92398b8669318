#pragma once
// A ZFS filesystem inside a pool: a sub filesystem, or the dataset of a whole pool on the global device.

#include <string>

#include "backup/pools/scsipool/scsipool_export.h"
#include "backup/pools/scsipool/sub_filesystem.h"
#include "platform/zfs/zfs_dataset.h"

namespace scsi_pool {

class SCSIPOOL_Export ZFS_Sub_Filesystem : public Sub_Filesystem {
 public:
  // The filesystem <zpool>/<name>; whether it exists shows in the operations.
  ZFS_Sub_Filesystem(const char* zpool, const char* name);
  // The same, with the accessor that has found it already.
  ZFS_Sub_Filesystem(const std::string& zpool, const std::string& name, const ZFS_Dataset& found);

  // Not recursive: fails, naming them in the log, while there are snapshots or datasets inside.
  bool destroy(bool force) override;
  bool get_used_size(ACE_UINT64& size) const override;
  bool set_reservation(ACE_UINT64 size) const override;
  bool mount(const FS_Info_Item& info) override;
  bool umount() override;
  bool mounted() override;
  bool get_mount_point(std::string& mount_point) const override;
  bool set_mount_point(const std::string& mount_point) override;
  Snapshot* create_snapshot(const char* name, const FS_Info_Item& info) override;
  Snapshot* get_snapshot(const char* name) const override;
  bool snapshot_exist(const char* name) const override;
  bool get_info(FS_Info_Item& info) const override;
  // Only to the newest snapshot.
  bool rollback(const char* snapshot_name) override;
  bool receive_snapshot(const char* name, bool force, ACE_Process_Ex* proc) override;

 private:
  const std::string zpool_;
  const std::string name_;
  // Written through by set_reservation(), which the base declares const.
  mutable ZFS_Dataset dataset_;
};

}  // namespace scsi_pool
