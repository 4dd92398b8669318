#pragma once
// A ZFS volume, the storage of one LUN. Each operation is one `zfs` command or one property access.

#include <string>

#include "backup/pools/scsipool/scsipool_export.h"
#include "backup/pools/scsipool/sub_volume.h"
#include "platform/zfs/zfs_dataset.h"

namespace scsi_pool {

class SCSIPOOL_Export ZFS_Sub_Volume : public Sub_Volume {
 public:
  // The volume <zpool>/<name>; whether it exists shows in the operations.
  ZFS_Sub_Volume(const char* zpool, const char* name);

  // Fails for a volume with snapshots or clones. One that is busy only because somebody reads its device is
  // tried again for five seconds; one that is exported or mounted fails at once, with the holder logged.
  // Returns when the device link is gone, too (two seconds at most).
  bool destroy() override;
  bool get_info(FS_Info_Item& info) const override;
  bool get_info(const char* name, std::string& val) const override;
  bool set_info(const char* key, const char* value) override;
  // Only to the newest snapshot. Refused while the volume is exported or mounted: its user would go on with
  // what it has cached.
  bool rollback(const char* snapshot) override;
  bool get_used_size(ACE_UINT64& size) const override;
  bool get_dataset(std::string& path) const override;
  Snapshot* create_snapshot(const char* name, const FS_Info_Item& info) override;
  Snapshot* get_snapshot(const char* name) const override;
  bool snapshot_exist(const char* name) const override;
  bool receive_snapshot(const char* name, bool force, ACE_Process_Ex* proc) override;

 private:
  const std::string zpool_;
  const std::string name_;
  ZFS_Dataset dataset_;
};

}  // namespace scsi_pool
