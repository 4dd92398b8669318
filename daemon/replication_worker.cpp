#include "daemon/replication_worker.h"

#include <map>
#include <mutex>

#include "backup/pools/scsipool/replicate_job_manager.h"
#include "backup/pools/scsipool/replicate_stop.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/http/http_session.h"
#include "platform/services/queue_manager.h"

namespace scsipoold {

using scsi_pool::Replicate_Job;
using scsi_pool::Replicate_Job_Manager;
using scsi_pool::Replicate_Job_var;

namespace {

const char QUEUE[] = "scsi_pool_replicate";

std::mutex waiting_lock;
std::map<ACE_INT64, std::string> waiting;  // job, the snapshot that it waits for

void forget_waiting(ACE_INT64 job_id) {
  const std::lock_guard<std::mutex> guard(waiting_lock);
  waiting.erase(job_id);
}

// A job that waits for its backup may do so for hours: the others go on, and the administrator is told once.
bool must_wait(Replicate_Job_var job) {
  std::string snapshot_id;
  if (!Replicate_Job_Manager::instance()->waits_for_catalog(job, snapshot_id)) {
    forget_waiting(job->id());
    return false;
  }
  {
    const std::lock_guard<std::mutex> guard(waiting_lock);
    std::string& known = waiting[job->id()];
    if (known == snapshot_id) return true;
    known = snapshot_id;
  }
  Replicate_Job_Manager::instance()->tell_waiting(job, snapshot_id);
  return true;
}

// The message is done whatever became of the job, a failed one waits for its administrator; but a job that
// was cut by the end of the daemon runs again.
Queue_Manager::Outcome run_message(const Queue_Message& message) {
  ACE_INT64 job_id = 0;
  if (!Replicate_Job_Manager::job_of_message(message.text, job_id)) {
    LOG_FAILURE("Failed to run a message of the queue %s: it names no job\n", QUEUE);
    return Queue_Manager::DONE;
  }
  Replicate_Job_var job = Replicate_Job_Manager::instance()->find(job_id);
  if (job.null()) {  // removed meanwhile
    forget_waiting(job_id);
    return Queue_Manager::DONE;
  }
  // Killed between the end of the job and that of its message: it is not run again, which could fail it.
  if (job->job_state() == Replicate_Job::JOB_STATE_SUCCEEDED) return Queue_Manager::DONE;
  if (must_wait(job)) return Queue_Manager::LATER;
  FAULT_POINT("job.start");
  const bool done = Replicate_Job_Manager::instance()->start_job(job);
  FAULT_POINT("job.end");
  return done || !scsi_pool::replication_stopping() ? Queue_Manager::DONE : Queue_Manager::KEPT;
}

}  // namespace

std::string awaited_snapshot(ACE_INT64 job_id) {
  const std::lock_guard<std::mutex> guard(waiting_lock);
  const auto found = waiting.find(job_id);
  return found == waiting.end() ? "" : found->second;
}

bool start_replication_worker() {
  scsi_pool::stop_replication(false);
  interrupt_http_clients(false);
  const bool recovered = Replicate_Job_Manager::instance()->recover_jobs();
  return Queue_Manager::instance()->start(QUEUE, run_message, 1) && recovered;
}

void stop_replication_worker() {
  scsi_pool::stop_replication(true);
  interrupt_http_clients(true);
  Queue_Manager::instance()->stop();
}

}  // namespace scsipoold
