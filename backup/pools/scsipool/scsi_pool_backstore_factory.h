#pragma once
// Makes the backstore manager that fits a pool.

#include <functional>
#include <string>

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"

namespace scsi_pool {

class SCSIPOOL_Export SCSI_Pool_Backstore_Factory {
 public:
  using Maker =
      std::function<SCSI_Pool_Backstore_Manager*(const std::string& pool_id, const std::string& global_dev)>;

  // A file pool when `global_dev` is empty, else a pool on that device. The caller owns the result and opens
  // it; null, with errno ENOMEM, when it cannot be allocated.
  static SCSI_Pool_Backstore_Manager* create(const std::string& pool_id, const std::string& global_dev);

  // Replaces how managers are made, so that tests can run on drivers of their own; an empty maker restores
  // the default. Not while other threads use the factory.
  static void replace_maker(Maker maker);
};

}  // namespace scsi_pool
