#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"

#include <cerrno>
#include <new>
#include <utility>

#include "backup/pools/scsipool/scsi_pool_file_backstore_manager.h"
#include "backup/pools/scsipool/scsi_pool_global_backstore_manager.h"

namespace scsi_pool {
namespace {

SCSI_Pool_Backstore_Factory::Maker& replaced_maker() {
  static SCSI_Pool_Backstore_Factory::Maker maker;
  return maker;
}

}  // namespace

SCSI_Pool_Backstore_Manager* SCSI_Pool_Backstore_Factory::create(const std::string& pool_id,
                                                                 const std::string& global_dev) {
  if (replaced_maker()) return replaced_maker()(pool_id, global_dev);
  SCSI_Pool_Backstore_Manager* made = nullptr;
  if (global_dev.empty()) {
    made = new (std::nothrow) SCSI_Pool_File_Backstore_Manager(pool_id);
  } else {
    made = new (std::nothrow) SCSI_Pool_Global_Backstore_Manager(pool_id, global_dev);
  }
  if (made == nullptr) errno = ENOMEM;
  return made;
}

void SCSI_Pool_Backstore_Factory::replace_maker(Maker maker) {
  replaced_maker() = std::move(maker);
}

}  // namespace scsi_pool
