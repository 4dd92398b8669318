#pragma once
// A snapshot of a ZFS volume or filesystem.

#include <string>
#include <vector>

#include "backup/pools/scsipool/scsipool_export.h"
#include "backup/pools/scsipool/snapshot.h"
#include "platform/zfs/zfs_dataset.h"

namespace scsi_pool {

class SCSIPOOL_Export ZFS_Snapshot : public Snapshot {
 public:
  // The snapshot <zpool>/<name>@<snap_name>; whether it exists shows in the operations.
  ZFS_Snapshot(const char* zpool, const char* name, const char* snap_name);
  // The same, with the accessor that has found it already.
  ZFS_Snapshot(const std::string& zpool, const std::string& name, const std::string& snap_name,
               const ZFS_Dataset& found);

  // Fails while a clone depends on it.
  bool destroy() override;
  bool is_readonly(bool& readonly) const override;
  bool get_info(FS_Info_Item& info) const override;
  bool size(ACE_UINT64& size) const override;
  bool size(ACE_UINT64& excl, ACE_UINT64& rfer) const override;
  bool send(const std::vector<std::string>& increment, ACE_Process_Ex* proc) override;

 private:
  const std::string zpool_;
  const std::string name_;
  const std::string snap_name_;
  std::string fullname_;
  ZFS_Dataset dataset_;
};

}  // namespace scsi_pool
