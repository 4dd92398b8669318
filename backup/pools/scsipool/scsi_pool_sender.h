#pragma once
// Sends one snapshot of a local dataset to a peer: what the filesystem's send tool prints goes unchanged into
// a remote file. One object for one attempt, used by one thread.

#include <ace/Basic_Types.h>

#include <string>
#include <vector>

#include "backup/pools/scsipool/dataset_manager.h"
#include "platform/process/auto_handle.h"
#include "platform/process/process_ex.h"

class Client_IO;

namespace scsi_pool {

class SCSI_Pool_Backstore_Manager;

class SCSI_Pool_Sender {
 public:
  SCSI_Pool_Sender(const std::string& pool_id, const Dataset_Manager& dataset);

  // `io` is connected to the peer's receive address, `name` the snapshot, `increments` the snapshots that the
  // peer holds already, oldest first. On failure the peer may hold a part of the snapshot; `io` can still
  // remove() it. Whether the stream was whole is for the peer to say: its receiving tool fails on a stream
  // that was cut.
  bool send(Client_IO& io, const std::string& name, const std::vector<std::string>& increments);

  // Bytes copied so far.
  ACE_UINT64 data_size() const { return size_; }

 private:
  bool get_snapshot_info(const std::string& name, ACE_UINT16& seq, bool& recycle);
  bool spawn(SCSI_Pool_Backstore_Manager& backstore, const std::string& name,
             const std::vector<std::string>& increments);
  bool wait_for_output();
  bool copy(Client_IO& io);
  void log_end_of_tool();

  std::string pool_id_;
  Dataset_Manager dataset_mgr_;
  ACE_Process_Ex proc_;
  Auto_Handle stderr_handle_;
  ACE_UINT64 size_ = 0;
};

}  // namespace scsi_pool
