#pragma once
// Feeds one incoming snapshot stream into the filesystem's receiving tool. Calls come in the order open,
// receive (any number of times), close, from one thread. Afterwards, whatever came of it, the caller removes
// the entry of Receiver_Process_Manager. What a cut transfer has left in the storage is destroyed by the next
// open() of the snapshot.

#include <ace/Basic_Types.h>
#include <ace/Time_Value.h>

#include <cstddef>
#include <string>

#include "backup/pools/scsipool/dataset_manager.h"
#include "backup/pools/scsipool/receive_process_manager.h"
#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

class SCSIPOOL_Export SCSI_Pool_Receiver {
 public:
  SCSI_Pool_Receiver(const std::string& pool_id, const Dataset_Manager& dataset);

  // An existing snapshot of this id is destroyed first.
  bool open(const std::string& snapshot, bool force);
  // Writes all of the data or fails.
  bool receive(const void* data, std::size_t size);
  // Waits, no longer than end_limit, until the tool has ended by itself at the end of the stream. True when
  // it succeeded and what it wrote is on disk.
  bool close();

  static ACE_Time_Value end_limit;  // 60 seconds; shorter in tests

 private:
  bool dataset_exist();
  bool snapshot_exist();
  bool destroy_snapshot();

  std::string pool_id_;
  Dataset_Manager dataset_;
  std::string snapshot_;
  SCSI_Pool_Backstore_Manager_var backstore_;
  // The registry's, and held here as well: whoever ends this transfer removes the entry from another thread.
  Receiver_Process_Manager::Process_var proc_;
  ACE_HANDLE receive_stdin_ = ACE_INVALID_HANDLE;
};

}  // namespace scsi_pool
