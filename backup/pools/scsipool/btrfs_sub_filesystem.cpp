#include "backup/pools/scsipool/btrfs_sub_filesystem.h"

#include "backup/pools/scsipool/btrfs_sub_volume.h"
#include "platform/base/log.h"

namespace scsi_pool {

bool Btrfs_Sub_Filesystem::destroy(bool) {
  if (Btrfs_Sub_Volume(base_fs_.c_str(), name_.c_str()).destroy()) return true;
  return LOG_FAILURE("Failed to delete Btrfs sub filesystem\n");
}

bool Btrfs_Sub_Filesystem::get_used_size(ACE_UINT64& size) const {
  if (Btrfs_Sub_Volume(base_fs_.c_str(), name_.c_str()).get_used_size(size)) return true;
  return LOG_FAILURE("Failed to get Btrfs sub filesystem used size\n");
}

bool Btrfs_Sub_Filesystem::set_reservation(ACE_UINT64) const {
  return true;
}

bool Btrfs_Sub_Filesystem::mount(const FS_Info_Item&) {
  return false;
}

bool Btrfs_Sub_Filesystem::umount() {
  return false;
}

bool Btrfs_Sub_Filesystem::mounted() {
  return false;
}

bool Btrfs_Sub_Filesystem::get_mount_point(std::string&) const {
  return false;
}

bool Btrfs_Sub_Filesystem::set_mount_point(const std::string&) {
  return false;
}

Snapshot* Btrfs_Sub_Filesystem::create_snapshot(const char*, const FS_Info_Item&) {
  return nullptr;
}

Snapshot* Btrfs_Sub_Filesystem::get_snapshot(const char*) const {
  return nullptr;
}

bool Btrfs_Sub_Filesystem::snapshot_exist(const char*) const {
  return false;
}

bool Btrfs_Sub_Filesystem::get_info(FS_Info_Item&) const {
  return false;
}

bool Btrfs_Sub_Filesystem::rollback(const char*) {
  return false;
}

bool Btrfs_Sub_Filesystem::receive_snapshot(const char*, bool, ACE_Process_Ex*) {
  return false;
}

}  // namespace scsi_pool
