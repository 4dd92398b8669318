#pragma once
// A sub filesystem on Btrfs: a subvolume that can be created, measured and removed, and nothing else. The
// operations that Btrfs does not offer fail without a message. Same rules as Sub_Filesystem.

#include <string>

#include "backup/pools/scsipool/sub_filesystem.h"

namespace scsi_pool {

class Btrfs_Sub_Filesystem : public Sub_Filesystem {
 public:
  Btrfs_Sub_Filesystem(const char* base_fs, const char* name) : base_fs_(base_fs), name_(name) {}

  bool destroy(bool force) override;
  bool get_used_size(ACE_UINT64& size) const override;
  // Btrfs keeps no reservation: true, and nothing changes.
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
  bool rollback(const char* snapshot_name) override;
  bool receive_snapshot(const char* name, bool force, ACE_Process_Ex* proc) override;

 private:
  const std::string base_fs_;
  const std::string name_;
};

}  // namespace scsi_pool
