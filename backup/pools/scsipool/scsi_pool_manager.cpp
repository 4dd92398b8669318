#include "backup/pools/scsipool/scsi_pool_manager.h"

#include <ace/OS_NS_strings.h>

#include <cerrno>
#include <new>
#include <utility>

#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "platform/base/log.h"
#include "platform/zfs/zfs_dataset.h"

namespace scsi_pool {
namespace {

using Singleton = ACE_Unmanaged_Singleton<SCSI_Pool_Manager, ACE_Null_Mutex>;

constexpr char DEFAULT_TYPE[] = "zfs";
constexpr char DEFAULT_DEVICE[] = "orbistor";

bool supported_type(const char* type) {
  return ACE_OS::strcasecmp(type, "btrfs") == 0 || ACE_OS::strcasecmp(type, DEFAULT_TYPE) == 0;
}

}  // namespace

SCSI_Pool_Manager::SCSI_Pool_Manager() : global_block_size_(0) {}

SCSI_Pool_Manager::~SCSI_Pool_Manager() = default;

SCSI_Pool_Manager* SCSI_Pool_Manager::instance() {
  return Singleton::instance();
}

void SCSI_Pool_Manager::close_instance() {
  Singleton::close();
}

bool SCSI_Pool_Manager::open(const char* fs_type, ACE_UINT32 block_size, const char* global_dev,
                             std::string mount_point) {
  std::unique_ptr<SCSI_Pool_Sqlite_Manager> catalog(new (std::nothrow) SCSI_Pool_Sqlite_Manager_Impl);
  if (!catalog) {
    errno = ENOMEM;
    return false;
  }
  sqlite_impl_ = std::move(catalog);
  if (!sqlite_impl_->open()) return false;
  const char* const type = fs_type != nullptr ? fs_type : "";
  if (supported_type(type)) {
    global_filesystem_type_ = type;
  } else {
    global_filesystem_type_ = DEFAULT_TYPE;
    LOG_FAILURE("SCSI pool not support filesystem type '%s', set to '%s'\n", type, DEFAULT_TYPE);
  }
  global_block_size_ = block_size;
  global_dev_ = global_dev != nullptr ? global_dev : "";
  mount_point_ = std::move(mount_point);
  if (mount_point_.empty()) return LOG_FAILURE("Unknown SCSI pool mountpoint.\n");
  if (global_filesystem_type_ == DEFAULT_TYPE && global_dev_.empty() &&
      ZFS_Dataset(DEFAULT_DEVICE, false).open()) {
    global_dev_ = DEFAULT_DEVICE;
    LOG_DEBUG("SCSI pool use orbistor as global device\n");
  }
  resume_mount_points();
  return true;
}

void SCSI_Pool_Manager::close() {
  if (!sqlite_impl_) return;
  sqlite_impl_->close();
  sqlite_impl_.reset();
}

bool SCSI_Pool_Manager::has_catalog() const {
  return sqlite_impl_ != nullptr || LOG_VIOLATION("sqlite_impl_.get() is NULL");
}

bool SCSI_Pool_Manager::get_global_filesystem(std::string& type) const {
  if (global_filesystem_type_.empty()) return false;
  type = global_filesystem_type_;
  return true;
}

ACE_UINT32 SCSI_Pool_Manager::get_block_size() const {
  return global_block_size_;
}

bool SCSI_Pool_Manager::get_global_device(std::string& dev) const {
  if (global_dev_.empty()) return false;
  dev = global_dev_;
  return true;
}

}  // namespace scsi_pool
