#pragma once
// A snapshot on Btrfs: a read-only subvolume directly below the pool's mount point. Same rules as Snapshot.

#include <string>
#include <vector>

#include "backup/pools/scsipool/snapshot.h"

namespace scsi_pool {

class Btrfs_Snapshot : public Snapshot {
 public:
  // Touches nothing on disk.
  Btrfs_Snapshot(const char* mount_point, const char* name) : mount_point_(mount_point), name_(name) {}

  bool destroy() override;
  bool is_readonly(bool& readonly) const override;
  // ctime, name, flags.
  bool get_info(FS_Info_Item& info) const override;
  bool size(ACE_UINT64& size) const override;
  bool size(ACE_UINT64& excl, ACE_UINT64& rfer) const override;
  bool send(const std::vector<std::string>& increment, ACE_Process_Ex* proc) override;
  bool received_uuid(std::string& uuid) const override;

 private:
  const std::string mount_point_;
  const std::string name_;
};

}  // namespace scsi_pool
