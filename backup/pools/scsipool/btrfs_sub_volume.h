#pragma once
// A volume on Btrfs: a subvolume directly below the pool's mount point that holds one image file. Same rules
// as Sub_Volume. destroy and rollback also succeed while somebody has the image open, who goes on with the
// old one: the caller ends all exports first.

#include <string>

#include "backup/pools/scsipool/sub_volume.h"

namespace scsi_pool {

class Btrfs_Sub_Volume : public Sub_Volume {
 public:
  // Touches nothing on disk.
  Btrfs_Sub_Volume(const char* mount_point, const char* name) : mount_point_(mount_point), name_(name) {}

  bool destroy() override;
  // ctime, name, flags.
  bool get_info(FS_Info_Item& info) const override;
  // There are no named properties: true, and nothing changes.
  bool get_info(const char* name, std::string& val) const override;
  bool set_info(const char* key, const char* value) override;
  // When it fails after the volume was deleted, the volume is gone (the snapshot is not).
  bool rollback(const char* snapshot) override;
  bool get_used_size(ACE_UINT64& size) const override;
  // The image file; it need not exist yet.
  bool get_dataset(std::string& path) const override;
  Snapshot* create_snapshot(const char* name, const FS_Info_Item& info) override;
  Snapshot* get_snapshot(const char* name) const override;
  // Any subvolume of that name in the pool counts.
  bool snapshot_exist(const char* name) const override;
  bool receive_snapshot(const char* name, bool force, ACE_Process_Ex* proc) override;

 private:
  const std::string mount_point_;
  const std::string name_;
};

}  // namespace scsi_pool
