#include "backup/pools/scsipool/scsi_pool_file_backstore_manager.h"

#include <unistd.h>

#include <cerrno>

#include "backup/pools/scsipool/btrfs_filesystem.h"
#include "backup/pools/scsipool/filesystem_factory.h"
#include "backup/pools/scsipool/utils.h"
#include "backup/pools/scsipool/zfs_filesystem.h"
#include "platform/base/fault_point.h"
#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/zfs/zfs_host.h"

namespace scsi_pool {
namespace {

constexpr char BACKSTORE_FOLDER[] = "/orbistor/scsipool_backstore/";
constexpr char MOUNT_FOLDER[] = "/orbistor/scsipool/";
constexpr int MINIMUM_SIZE = 52428800;

}  // namespace

SCSI_Pool_File_Backstore_Manager::SCSI_Pool_File_Backstore_Manager(const std::string& pool_id)
    : backstore_(BACKSTORE_FOLDER + pool_id) {
  pool_id_ = pool_id;
  mount_point_ = MOUNT_FOLDER + pool_id;
}

bool SCSI_Pool_File_Backstore_Manager::open(FS_TYPE fs_type) {
  if (!usable({&pool_id_})) return false;
  fs_mgr_.reset(Filesystem_Factory::create(fs_type, pool_id_.c_str()));
  if (!fs_mgr_) return LOG_FAILURE("Failed to create Filesystem manager object\n");
  load_config();
  return true;
}

bool SCSI_Pool_File_Backstore_Manager::open(const std::string& fs_type_str) {
  return open(fs_type_to_value(fs_type_str.c_str(), -1));
}

bool SCSI_Pool_File_Backstore_Manager::create(ACE_UINT64 size, bool thin) {
  if (!driver_present()) return false;
  if (exist()) {
    return LOG_FAILURE("Failed to create SCSI pool backstore: backstore '%s' is exist\n", backstore_.c_str());
  }
  if (size < MINIMUM_SIZE) {
    return LOG_FAILURE("Failed to create SCSI pool backstore: backstore must bigger than %d\n", MINIMUM_SIZE);
  }
  if (!create_and_pad_file(backstore_.c_str(), size, thin)) {
    return LOG_FAILURE("Failed to create SCSI pool backstore '%s'\n", backstore_.c_str());
  }
  FAULT_POINT("create_pool.file");
  if (!fs_mgr_->make({{"Label", pool_id_}, {"pool_name", pool_id_}})) {
    return LOG_FAILURE("Failed to create SCSI pool backstore: mkfs '%s' error\n", backstore_.c_str());
  }
  FAULT_POINT("create_pool.make");
  return true;
}

bool SCSI_Pool_File_Backstore_Manager::destroy() {
  if (!driver_present()) return false;
  if (!exist()) {
    return LOG_FAILURE("Failed to delete %s SCSI pool backstore: backstore does not exist\n",
                       pool_id_.c_str());
  }
  if ((!umount() && !zpool_is_gone()) || !drop_fstab_entry()) {
    return LOG_FAILURE("Failed to delete %s SCSI pool backstore: umount backstore error\n", pool_id_.c_str());
  }
  // A pool that is gone already must not keep its file from being removed, but the file of one that is still
  // there, because somebody uses it, must stay.
  if (!fs_mgr_->destroy() && fs_mgr_->mounted()) {
    return LOG_FAILURE("Failed to delete %s SCSI pool backstore: the filesystem is busy\n", pool_id_.c_str());
  }
  FAULT_POINT("delete_pool.destroy");
  if (::unlink(backstore_.c_str()) != 0) {
    return LOG_FAILURE("Failed to delete %s SCSI pool backstore: %d, %m\n", pool_id_.c_str(), errno);
  }
  if (platform::is_directory(mount_point_)) ::rmdir(mount_point_.c_str());
  return true;
}

// A pool that the kernel does not have cannot be asked where it is mounted.
bool SCSI_Pool_File_Backstore_Manager::zpool_is_gone() const {
  return dynamic_cast<const ZFS_Filesystem*>(fs_mgr_.get()) != nullptr &&
         zfs::pool_presence(pool_id_) == zfs::Pool_Presence::absent;
}

// That of a pool which could not be mounted is still there, and the next boot would stop at it.
bool SCSI_Pool_File_Backstore_Manager::drop_fstab_entry() const {
  auto* const btrfs = dynamic_cast<Btrfs_Filesystem*>(fs_mgr_.get());
  return btrfs == nullptr || btrfs->edit_fstab(true, nullptr);
}

bool SCSI_Pool_File_Backstore_Manager::mount(const FS_Info_Item& info) {
  if (!driver_present()) return false;
  if (!exist()) {
    return LOG_FAILURE("Failed to mount scsi pool backstore: '%s' does not exist\n", backstore_.c_str());
  }
  if (fs_mgr_->mounted()) return true;
  return fs_mgr_->mount(info) || LOG_FAILURE("Failed to mount '%s' scsi pool backstore to '%s'\n",
                                             backstore_.c_str(), mount_point_.c_str());
}

bool SCSI_Pool_File_Backstore_Manager::umount() {
  return driver_present() && fs_mgr_->umount();
}

bool SCSI_Pool_File_Backstore_Manager::mounted() const {
  return driver_present() && fs_mgr_->mounted();
}

bool SCSI_Pool_File_Backstore_Manager::exist() const {
  return platform::is_regular_file(backstore_);
}

bool SCSI_Pool_File_Backstore_Manager::get_used_size(ACE_UINT64& size) const {
  return driver_present() && fs_mgr_->get_used_size(size);
}

}  // namespace scsi_pool
