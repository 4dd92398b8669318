#include "backup/pools/scsipool/scsi_pool_global_backstore_manager.h"

#include "backup/pools/scsipool/filesystem_factory.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/base/names.h"

namespace scsi_pool {
namespace {

// A dataset path ("tank/backup") or a mount point ("/mnt/tank").
bool usable_device(const std::string& device) {
  const bool mount_point = !device.empty() && device.front() == '/';
  std::string why;
  return (mount_point ? platform::valid_path(device, why) : platform::valid_dataset_path(device, why)) ||
         LOG_FAILURE("Failed to use the global device '%s': %s\n", device.c_str(), why.c_str());
}

}  // namespace

SCSI_Pool_Global_Backstore_Manager::SCSI_Pool_Global_Backstore_Manager(const std::string& pool_id,
                                                                       const std::string& global_dev)
    : sub_fs_mountpoint_(global_dev) {
  pool_id_ = pool_id;
  mount_point_ = global_dev + "/" + pool_id;
}

bool SCSI_Pool_Global_Backstore_Manager::device_driver_present() const {
  return sub_fs_mgr_ != nullptr || LOG_VIOLATION("sub_fs_mgr_.get() is NULL");
}

bool SCSI_Pool_Global_Backstore_Manager::open(FS_TYPE fs_type) {
  if (!usable({&pool_id_}) || !usable_device(sub_fs_mountpoint_)) return false;
  sub_fs_mgr_.reset(Filesystem_Factory::create(fs_type, "", sub_fs_mountpoint_.c_str()));
  fs_mgr_.reset(Filesystem_Factory::create(fs_type, "", mount_point_.c_str()));
  if (!sub_fs_mgr_ || !fs_mgr_) return LOG_FAILURE("Failed to create sub Filesystem manager object\n");
  load_config();
  return true;
}

bool SCSI_Pool_Global_Backstore_Manager::open(const std::string& fs_type_str) {
  return open(fs_type_to_value(fs_type_str.c_str(), -1));
}

bool SCSI_Pool_Global_Backstore_Manager::create(ACE_UINT64 size, bool thin) {
  if (!device_driver_present()) return false;
  const Sub_Filesystem_var made(sub_fs_mgr_->create_sub_filesystem(pool_id_.c_str(), {{"size", size}}));
  if (!made) return LOG_FAILURE("Failed to create backstore: failed to create sub filesystem\n");
  FAULT_POINT("create_pool.sub_filesystem");
  if (!thin && !made->set_reservation(size)) {
    return LOG_FAILURE("Failed to create backstore: failed to set reservation\n");
  }
  return true;
}

bool SCSI_Pool_Global_Backstore_Manager::destroy() {
  if (!device_driver_present()) return false;
  const Sub_Filesystem_var found(sub_fs_mgr_->get_sub_filesystem(pool_id_.c_str()));
  return (found && found->destroy(true)) ||
         LOG_FAILURE("Failed to delete backstore: delete sub filesystem error\n");
}

bool SCSI_Pool_Global_Backstore_Manager::mount(const FS_Info_Item&) {
  return device_driver_present();
}

bool SCSI_Pool_Global_Backstore_Manager::umount() {
  return device_driver_present();
}

bool SCSI_Pool_Global_Backstore_Manager::mounted() const {
  return device_driver_present();
}

bool SCSI_Pool_Global_Backstore_Manager::exist() const {
  return device_driver_present();
}

bool SCSI_Pool_Global_Backstore_Manager::get_used_size(ACE_UINT64& size) const {
  if (!device_driver_present()) return false;
  const Sub_Filesystem_var found(sub_fs_mgr_->get_sub_filesystem(pool_id_.c_str()));
  return (found && found->get_used_size(size)) ||
         LOG_FAILURE("Failed to get global backstore size: get sub filesystem size error\n");
}

}  // namespace scsi_pool
