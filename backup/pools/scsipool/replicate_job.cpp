#include "backup/pools/scsipool/replicate_job.h"

#include <cerrno>
#include <new>

#include "platform/base/key2_value.h"
#include "platform/services/pool_replicate_manager.h"

namespace scsi_pool {

namespace {

const platform::Key2_Value_T<Replicate_Job::Job_State> state_name[] = {
    {"unknown", 7, Replicate_Job::JOB_STATE_UNKNOWN}, {"pending", 7, Replicate_Job::JOB_STATE_PENDING},
    {"running", 7, Replicate_Job::JOB_STATE_RUNNING}, {"succeeded", 9, Replicate_Job::JOB_STATE_SUCCEEDED},
    {"failed", 6, Replicate_Job::JOB_STATE_FAILED},   {nullptr, 0, Replicate_Job::JOB_STATE_UNKNOWN},
};

}  // namespace

Replicate_Job::Replicate_Job(ACE_INT64 id)
    : id_(id),
      state_(JOB_STATE_UNKNOWN),
      progress_(0),
      create_time_(0),
      start_time_(0),
      end_time_(0),
      data_size_(0),
      invalid_(false),
      err_code_(0) {}

Replicate_Job::Job_State Replicate_Job::state_key_to_value(const std::string& key) {
  for (const auto* entry = state_name; entry->key != nullptr; ++entry) {
    if (key.compare(0, std::string::npos, entry->key, entry->len) == 0) return entry->value;
  }
  return JOB_STATE_UNKNOWN;
}

std::string Replicate_Job::state_value_to_key(Job_State state) {
  for (const auto* entry = state_name; entry->key != nullptr; ++entry) {
    if (entry->value == state) return std::string(entry->key, entry->len);
  }
  return state_value_to_key(JOB_STATE_UNKNOWN);
}

void Replicate_Job::progress(int percent) {
  progress_ = percent < 1 ? 0 : percent > 99 ? 100 : percent;
  notify(Replicate_Event::KIND_PROGRESS);
}

bool Replicate_Job::notify(int kind) {
  const ACE_INT64 job_id = def_.replicate_job_id();
  if (job_id < 1) return false;
  const std::string& task_id = def_.replicate_task_id();
  Replicate_Event* event = nullptr;
  if (kind == Replicate_Event::KIND_STARTED && state_ == JOB_STATE_RUNNING) {
    event = new (std::nothrow) Replicate_Event(kind, job_id, task_id, 0, start_time_, data_size_, 0);
  } else if (kind == Replicate_Event::KIND_PROGRESS && state_ == JOB_STATE_RUNNING) {
    const ACE_UINT64 total =
        progress_ != 0 ? data_size_ * 100 / static_cast<ACE_UINT64>(progress_) : data_size_;
    event = new (std::nothrow) Replicate_Progress_Event(job_id, task_id, 0, start_time_, total, data_size_,
                                                        data_size_, 0, progress_);
  } else if (kind == Replicate_Event::KIND_FAILED && state_ == JOB_STATE_FAILED) {
    event = new (std::nothrow) Replicate_End_Event(kind, job_id, task_id, 0, start_time_, data_size_, 0,
                                                   end_time_, 1, err_code_, err_msg_);
  } else if (kind == Replicate_Event::KIND_SUCCEEDED && state_ == JOB_STATE_SUCCEEDED) {
    event = new (std::nothrow) Replicate_End_Event(kind, job_id, task_id, 0, start_time_, data_size_,
                                                   data_size_, end_time_, 0, 0, "success");
  } else {
    return false;
  }
  if (event == nullptr) {
    errno = ENOMEM;
    return false;
  }
  return Pool_Replicate_Manager::instance()->putq(event);
}

}  // namespace scsi_pool
