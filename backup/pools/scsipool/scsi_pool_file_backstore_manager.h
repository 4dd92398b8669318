#pragma once
// A pool in a file of its own, sparse or fully allocated, that holds a ZFS pool or a Btrfs filesystem.

#include <string>

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"

namespace scsi_pool {

class SCSIPOOL_Export SCSI_Pool_File_Backstore_Manager : public SCSI_Pool_Backstore_Manager {
 public:
  explicit SCSI_Pool_File_Backstore_Manager(const std::string& pool_id);

  bool open(FS_TYPE fs_type) override;
  bool open(const std::string& fs_type_str) override;
  // At least 50 MiB. The file stays when formatting it fails.
  bool create(ACE_UINT64 size, bool thin) override;
  bool destroy() override;
  // Succeeds at once when mounted already.
  bool mount(const FS_Info_Item& info) override;
  bool umount() override;
  bool mounted() const override;
  // Is the backing file there?
  bool exist() const override;
  bool get_used_size(ACE_UINT64& size) const override;

 private:
  bool zpool_is_gone() const;
  bool drop_fstab_entry() const;

 protected:
  std::string backstore_;  // path of the backing file
};

}  // namespace scsi_pool
