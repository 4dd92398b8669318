#pragma once
// The receiving tools that run in this process, by pool, dataset and snapshot. The registry owns them: an
// entry lives until remove(), which its user calls after the transfer, whatever came of it. Any thread; the
// first instance() must come before other threads use it.

#include <ace/Basic_Types.h>
#include <ace/Null_Mutex.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Singleton.h>

#include <map>
#include <mutex>
#include <string>

#include "backup/pools/scsipool/dataset_manager.h"
#include "backup/pools/scsipool/scsipool_export.h"
#include "platform/process/process_ex.h"

namespace scsi_pool {

class SCSIPOOL_Export Receiver_Process_Manager {
 public:
  using Process_var = ACE_Refcounted_Auto_Ptr<ACE_Process_Ex, ACE_Recursive_Thread_Mutex>;

  static Receiver_Process_Manager* instance();
  // Terminates what still runs.
  static void close_instance();

  // The entry's process when it still runs, else a new one (with its byte count at 0). Null on failure. The
  // process belongs to the registry.
  ACE_Process_Ex* get(const std::string& pool_id, const Dataset_Manager& dataset,
                      const std::string& snapshot_id, bool force);
  // The same, shared: the object stays when another thread removes the entry meanwhile, its tool does not.
  Process_var share(const std::string& pool_id, const Dataset_Manager& dataset,
                    const std::string& snapshot_id, bool force);
  // Terminates the process when it still runs and forgets the entry; true also without one.
  bool remove(const std::string& pool_id, const Dataset_Manager& dataset, const std::string& snapshot_id);
  // Bytes written to the entry's process; 0 without an entry.
  ACE_UINT64 receive_size(const std::string& pool_id, const Dataset_Manager& dataset,
                          const std::string& snapshot_id);
  // Adds to them; false without an entry.
  bool receive_size(const std::string& pool_id, const Dataset_Manager& dataset,
                    const std::string& snapshot_id, ACE_UINT64 size);

 private:
  struct entry_type {
    Process_var process;
    ACE_UINT64 size = 0;
  };

  // The base of ACE_Unmanaged_Singleton, which holds the object.
  friend class ACE_Singleton<Receiver_Process_Manager, ACE_Null_Mutex>;
  Receiver_Process_Manager() = default;
  ~Receiver_Process_Manager();

  ACE_Process_Ex* spawn(const std::string& pool_id, const Dataset_Manager& dataset,
                        const std::string& snapshot_id, bool force);
  static bool generate_key(const std::string& pool_id, const Dataset_Manager& dataset,
                           const std::string& snapshot_id, std::string& key);

  std::recursive_mutex mutex_;  // transfers of several datasets come on several threads
  std::map<std::string, entry_type> process_;
};

}  // namespace scsi_pool
