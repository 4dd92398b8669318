#pragma once
// Runs one replication job from start to end on the calling thread: compares the local pool with the peer's,
// creates what the peer lacks, streams every missing snapshot, recycles, replicates the backup catalog and
// reports. One object for one run; takes no lock. What a failed run has changed on the peer stays.

#include <ace/Basic_Types.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "backup/pools/scsipool/dataset_manager.h"
#include "backup/pools/scsipool/peer_session.h"
#include "backup/pools/scsipool/replicate_job.h"
#include "platform/http/client_io.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class Replicate_Job_Manager;

// Is the source pool backed up without passing a network, so that no catalog is waited for? From the URL of
// its master device; false, logged, when that is not known.
bool is_lanfree_pool(const std::string& pool_uuid, bool& lanfree);

class SCSI_Pool_Replicate_Executor {
 public:
  struct snapshot_info {
    bool recycle = false;
    ACE_UINT64 seq = 0;
    std::string id;
  };

  struct dataset_info {
    Dataset_Manager::Dataset_Type type = Dataset_Manager::TYPE_UNKNOWN;
    std::string name;  // LUN UUID or sub filesystem name
    std::vector<snapshot_info> snapshots;
  };

  explicit SCSI_Pool_Replicate_Executor(Replicate_Job_var var);
  // Gives back the standby references of the job's snapshots.
  ~SCSI_Pool_Replicate_Executor();
  SCSI_Pool_Replicate_Executor(const SCSI_Pool_Replicate_Executor&) = delete;
  SCSI_Pool_Replicate_Executor& operator=(const SCSI_Pool_Replicate_Executor&) = delete;

  // 0 after a successful run, -1 after a failed one.
  int execute();

 private:
  // The run (scsi_pool_replicate_executor.cpp).
  bool init();
  bool fini();
  int handle_error(const std::string& message, int code);
  void handle_standby();
  void init_datasets(const json_spirit::Array& snapshots);
  bool load_snapshot(const Dataset_Manager& source, const std::string& id, snapshot_info& info);
  bool get_control_info();
  bool get_pool_type();
  bool check_all_catalog_ready();
  bool check_catalog_ready(const std::string& pool_uuid, const std::string& snapshot_id);
  bool recycle_dataset_snapshots(const dataset_info& ds);
  bool replicate_catalog();
  bool replicate_lanfree_catalog();
  bool replicate_scsi_pool_catalog();

  // Sending (scsi_pool_replicate_executor_send.cpp). On failure `error` is the text that ends the job.
  void init_stream_options();
  bool replicate_dataset(const dataset_info& ds, std::string& error);
  bool send_normal(const dataset_info& ds, std::vector<snapshot_info> on_target, std::string& last_sent,
                   std::string& error);
  bool read_again(const dataset_info& ds, ACE_UINT64 sent, std::vector<snapshot_info>& on_target,
                  std::string& error);
  bool send_newest(const dataset_info& ds, const std::vector<snapshot_info>& on_target,
                   std::string& last_sent, std::string& error);
  bool send_snapshot(const dataset_info& ds, const snapshot_info& snapshot,
                     const std::vector<std::string>& increments, std::string& error);
  bool remove_target_snapshots(const dataset_info& ds, const std::vector<snapshot_info>& on_target,
                               std::string& error);
  bool generate_receive_uri(URI& uri, const dataset_info& ds) const;
  static bool holds(const std::vector<snapshot_info>& list, const std::string& id);
  void store_progress(int percent);

  // The peer's pool (scsi_pool_replicate_executor_target.cpp).
  bool get_target_pool_host(const std::string& pool_uuid);
  bool init_json_session();
  bool send_request(const char* uri, json_spirit::Value& reply);
  bool compare_fs_type();
  bool get_target_datasets_and_snapshots();
  bool get_target_datasets_and_snapshots_i(const char* dataset_uri, const char* snapshot_uri,
                                           const char* dataset_key, Dataset_Manager::Dataset_Type type);
  bool create_target_dataset(Dataset_Manager::Dataset_Type type, const std::string& name);
  bool create_target_lun(const std::string& lun_uuid);
  bool create_target_filesystem(const std::string& name);
  bool unexport_target_dataset(Dataset_Manager::Dataset_Type type, const std::string& name);
  bool delete_target_dataset_snapshot(Dataset_Manager::Dataset_Type type, const std::string& name,
                                      const std::string& snapshot_id);
  bool rollback_target_dataset(const dataset_info& ds);

  Dataset_Manager source_dataset(const dataset_info& ds) const;

  SCSI_Pool_Manager* mgr_;
  std::string source_pool_uuid_;
  std::string target_pool_uuid_;
  std::vector<dataset_info> datasets_;
  std::map<std::pair<Dataset_Manager::Dataset_Type, std::string>, dataset_info> target_datasets_;
  std::set<std::string> replicated_snapshots_;
  int snapshots_amount_ = 0;
  ACE_INT64 job_id_ = 0;
  Peer_Session json_session_;
  std::string target_pool_host_;
  ACE_UINT16 target_pool_port_ = 0;
  bool target_pool_ssl_ = false;
  ACE_UINT16 max_retry_seconds_ = 0;
  std::vector<Rate_Control_Entry> rate_control_entries_;
  Replicate_Job_Manager* replicate_mgr_;
  Replicate_Job_var var_;
  bool is_lanfree_ = false;
  Client_IO_Options stream_options_;
  ACE_UINT64 total_bytes_ = 0;
  int done_ = 0;  // snapshots that are on the target
};

}  // namespace scsi_pool
