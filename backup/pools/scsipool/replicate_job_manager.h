#pragma once
// The process-wide entry point for replication jobs: stores them, hands them to the daemon's queue, finds,
// lists, repeats, removes and runs them. Keeps no jobs in memory. Any thread, after open(); the first
// instance() must come before other threads use it.

#include <ace/Basic_Types.h>
#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "backup/pools/scsipool/dataset_manager.h"
#include "backup/pools/scsipool/replicate_job.h"
#include "backup/pools/scsipool/scsipool_export.h"
#include "backup/pools/scsipool/sqlite/replicate_job_database.h"

namespace scsi_pool {

class SCSIPOOL_Export Replicate_Job_Manager {
 public:
  static Replicate_Job_Manager* instance();
  static void close_instance();

  // Opens the database and fails the jobs that an earlier process left running. False only without memory.
  bool open();

  // `def` names pools, catalog, attributes and the datasets. Selects the snapshots to send, takes one standby
  // reference on each, stores definition and job and puts the job into the queue. A failure keeps the
  // references taken so far and a stored definition.
  bool submit_job(Replicate_Job_Definition& def);
  // The number of jobs of a source pool, of those to one target when `target_pool_uuid` is not empty.
  bool job_amount(const std::string& pool_uuid, ACE_INT64& amount, const std::string& target_pool_uuid) const;
  // Makes the matching job on the backup server and writes its identity into `def`; storing it is the
  // caller's step.
  bool create_replicate_job(Replicate_Job_Definition& def);
  bool update_job(Replicate_Job_var var);
  bool update_job_def(const Replicate_Job_Definition& def);
  // A job with its definition; null when it cannot be loaded.
  Replicate_Job_var find(ACE_INT64 job_id) const;
  // Appends the jobs of a source pool, newest first. Filters that are empty or 0 do not apply.
  bool list_job(const std::string& pool_uuid, std::vector<Replicate_Job_var>& jobs, ACE_INT64 limit,
                ACE_INT64 offset, const std::string& state, const std::string& start_time,
                const std::string& end_time) const;
  // Runs a finished job again, with new references on the snapshots that still exist.
  bool redo_job(Replicate_Job_var var);
  // Deletes a job that is not running; its standby references stay.
  bool remove_job(Replicate_Job_var var);
  // Mends what a crash has left, before the queue is started: a job that was cut is pending again, because
  // its message is still queued; one that is pending without a message is queued; and the standby references
  // are exactly those of the pending jobs.
  bool recover_jobs();
  // The job that a message of the queue names.
  static bool job_of_message(const std::string& text, ACE_INT64& job_id);
  // Must the job wait until a backup catalog of its source names a snapshot? `snapshot_id` is the one. Only
  // looks; a pool without catalogs, a LAN-free one and one whose catalogs cannot be read wait for nothing.
  bool waits_for_catalog(Replicate_Job_var var, std::string& snapshot_id) const;
  // Tells the administrator what the job waits for, by an event of the job.
  void tell_waiting(Replicate_Job_var var, const std::string& snapshot_id);
  // Runs the job on the calling thread. True when it succeeded; false when it failed or was running already.
  bool start_job(Replicate_Job_var var);
  // Marks a job as invalid when none of its snapshots exists any more. Always true but for a null job.
  bool set_job_invaild(Replicate_Job_var var) const;

  // Held from taking the references of a job until it is stored as pending, and from looking for pending jobs
  // until the references that are left over have been cleared.
  std::mutex& references_lock() { return references_lock_; }

 private:
  // The base of ACE_Unmanaged_Singleton, which holds the object.
  friend class ACE_Singleton<Replicate_Job_Manager, ACE_Null_Mutex>;
  Replicate_Job_Manager() = default;
  ~Replicate_Job_Manager() = default;
  Replicate_Job_Manager(const Replicate_Job_Manager&) = delete;
  Replicate_Job_Manager& operator=(const Replicate_Job_Manager&) = delete;

  bool reset_unfinished_job();
  bool recount_references(const std::vector<long>& pending);
  static void take_references(const Replicate_Job_Definition& def);
  bool get_retention(const std::string& pool_uuid, ACE_UINT64& retention) const;
  bool select_dataset(const Dataset_Manager& dataset, const std::string& pool_uuid, ACE_UINT64 retention,
                      json_spirit::Array& selected) const;
  bool enqueue(ACE_INT64 job_id) const;

  std::unique_ptr<Replicate_Job_Database> job_db_;
  std::mutex references_lock_;
};

}  // namespace scsi_pool
