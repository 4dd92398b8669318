#pragma once
// One run of a replication job: its state, progress, times, size and error, and the events that tell the
// backup server about them. Shared between threads by Replicate_Job_var; the fields are not locked: one
// executor at a time changes a job.

#include <ace/Basic_Types.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

#include <ctime>
#include <string>

#include "backup/pools/scsipool/replicate_job_def.h"
#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

class SCSIPOOL_Export Replicate_Job {
 public:
  enum Job_State {
    JOB_STATE_UNKNOWN = 0,
    JOB_STATE_PENDING = 1,
    JOB_STATE_RUNNING = 2,
    JOB_STATE_SUCCEEDED = 3,
    JOB_STATE_FAILED = 4
  };

  // `id`: the job's row id, fixed from here on.
  explicit Replicate_Job(ACE_INT64 id);

  ACE_INT64 id() const { return id_; }
  Replicate_Job_Definition& job_def() { return def_; }
  const Replicate_Job_Definition& job_def() const { return def_; }

  Job_State job_state() const { return state_; }
  void job_state(Job_State state) { state_ = state; }
  // The state as its key; a key that is not known sets JOB_STATE_UNKNOWN.
  std::string job_state_str() const { return state_value_to_key(state_); }
  void job_state_str(const std::string& key) { state_ = state_key_to_value(key); }
  static Job_State state_key_to_value(const std::string& key);
  static std::string state_value_to_key(Job_State state);

  // Percent, kept within 0..100. Setting it tries to send a progress event.
  int progress() const { return progress_; }
  void progress(int percent);

  // Seconds since the epoch; 0 for what has not happened.
  const std::time_t& create_time() const { return create_time_; }
  void create_time(const std::time_t& time) { create_time_ = time; }
  const std::time_t& start_time() const { return start_time_; }
  void start_time(const std::time_t& time) { start_time_ = time; }
  const std::time_t& end_time() const { return end_time_; }
  void end_time(const std::time_t& time) { end_time_ = time; }

  // Bytes transferred in this run.
  ACE_UINT64 data_size() const { return data_size_; }
  void data_size(ACE_UINT64 size) { data_size_ = size; }

  // True when none of the job's snapshots exists any more. Not stored, as the error is not.
  bool invalid() const { return invalid_; }
  void invalid(bool invalid) { invalid_ = invalid; }
  int error_code() const { return err_code_; }
  void error_code(int code) { err_code_ = code; }
  const std::string& error_message() const { return err_msg_; }
  void error_message(const std::string& message) { err_msg_ = message; }

  bool can_start() const { return state_ != JOB_STATE_RUNNING; }
  bool can_delete() const { return state_ != JOB_STATE_RUNNING; }
  bool can_redo() const { return state_ == JOB_STATE_SUCCEEDED || state_ == JOB_STATE_FAILED; }

  // Reports to the backup server: 1 started, 4 progress (both while running), 5 failed, 6 succeeded (in that
  // state). False, with nothing sent, for any other kind or state or when the backup server has no such job.
  bool notify(int kind);

 private:
  Replicate_Job_Definition def_;
  const ACE_INT64 id_;
  Job_State state_;
  int progress_;
  std::time_t create_time_;
  std::time_t start_time_;
  std::time_t end_time_;
  ACE_UINT64 data_size_;
  bool invalid_;
  int err_code_;
  std::string err_msg_;
};

using Replicate_Job_var = ACE_Refcounted_Auto_Ptr<Replicate_Job, ACE_Recursive_Thread_Mutex>;

}  // namespace scsi_pool
