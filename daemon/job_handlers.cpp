// GET, PUT and DELETE /svc/r/scsipool/job; GET /svc/r/scsipool/event and .../alert; GET
// /svc/r/scsipool/retention.

#include "backup/pools/scsipool/filesystem_recycle_manager.h"
#include "backup/pools/scsipool/replicate_job_manager.h"
#include "backup/pools/scsipool/volume_recycle_manager.h"
#include "daemon/arguments.h"
#include "daemon/datasets.h"
#include "daemon/handlers.h"
#include "daemon/replication_worker.h"
#include "platform/base/time_text.h"
#include "platform/services/alerts.h"
#include "platform/services/replication_notes.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using scsi_pool::Replicate_Job;
using scsi_pool::Replicate_Job_Manager;
using scsi_pool::Replicate_Job_var;

namespace {

constexpr std::uint64_t LARGEST = 0x7fffffffffffffffULL;

void add_time(Object& record, const char* key, std::time_t time) {
  if (time != 0) record[key] = platform::POSIX_Time_To_ISO8601(time);
}

Object job_record(Replicate_Job& job) {
  const scsi_pool::Replicate_Job_Definition& definition = job.job_def();
  Object record{{"job_id", job.id()},
                {"state", job.job_state_str()},
                {"progress", job.progress()},
                {"data_size", job.data_size()},
                {"invalid", job.invalid()},
                {"pool_id", definition.source_pool_uuid()},
                {"target_pool_id", definition.target_pool_uuid()},
                {"datasets", definition.snapshots()},
                {"retry", definition.retry()},
                {"replicate_job_id", definition.replicate_job_id()}};
  add_time(record, "create_time", job.create_time());
  add_time(record, "start_time", job.start_time());
  add_time(record, "end_time", job.end_time());
  return record;
}

// What the job's own record does not hold: why it failed, and what it waits for.
void add_reason(const Replicate_Job& job, Object& record) {
  if (job.job_state() == Replicate_Job::JOB_STATE_FAILED) {
    const std::string message = job_error(job.id());
    if (!message.empty()) record["error_message"] = message;
  } else if (job.job_state() == Replicate_Job::JOB_STATE_PENDING) {
    const std::string snapshot = awaited_snapshot(job.id());
    if (!snapshot.empty()) record["waits_for"] = "a backup catalog that names snapshot " + snapshot;
  }
}

Reply list_jobs(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, state;
  std::uint64_t job_id = 0, limit = 0, offset = 0;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).number("job_id", 1, LARGEST, job_id).text("state", state);
  arguments.number("limit", 1, LARGEST, limit).number("offset", 0, LARGEST, offset);
  if (arguments.has("pool_id") == arguments.has("job_id"))
    arguments.refuse("pool_id", "or else job_id must be given");
  if (!state.empty() && Replicate_Job::state_key_to_value(state) == Replicate_Job::JOB_STATE_UNKNOWN)
    arguments.refuse("state", "must be pending, running, succeeded or failed");
  if (!arguments.finish(reply)) return reply;
  std::vector<Replicate_Job_var> jobs;
  if (job_id != 0) {
    Replicate_Job_var job = Replicate_Job_Manager::instance()->find(static_cast<ACE_INT64>(job_id));
    if (job.null()) return refusal(404, "there is no job " + std::to_string(job_id));
    Replicate_Job_Manager::instance()->set_job_invaild(job);
    jobs.push_back(job);
  } else {
    if (!find_pool(context, pool_id, reply)) return reply;
    if (!Replicate_Job_Manager::instance()->list_job(pool_id, jobs, static_cast<ACE_INT64>(limit),
                                                     static_cast<ACE_INT64>(offset), state, "", ""))
      return failure(request, "the jobs cannot be listed");
  }
  Array list;
  for (Replicate_Job_var& job : jobs) {
    Object record = job_record(*job);
    add_reason(*job, record);
    list.push_back(std::move(record));
  }
  return {200, list};
}

bool find_job(Arguments& arguments, Replicate_Job_var& job, Reply& reply) {
  std::uint64_t job_id = 0;
  if (!arguments.number("job_id", 1, LARGEST, job_id).required("job_id").finish(reply)) return false;
  job = Replicate_Job_Manager::instance()->find(static_cast<ACE_INT64>(job_id));
  if (job.null()) reply = refusal(404, "there is no job " + std::to_string(job_id));
  return !job.null();
}

Reply redo_job(Context&, const Request& request) {
  Reply reply;
  Replicate_Job_var job;
  Arguments arguments(request);
  if (!find_job(arguments, job, reply)) return reply;
  if (!job->can_redo())
    return refusal(409, "the job is " + job->job_state_str() + ": only a finished one runs again");
  if (!Replicate_Job_Manager::instance()->redo_job(job))
    return failure(request, "the job cannot be repeated");
  return {200, job_record(*job)};
}

Reply remove_job(Context&, const Request& request) {
  Reply reply;
  Replicate_Job_var job;
  Arguments arguments(request);
  if (!find_job(arguments, job, reply)) return reply;
  if (!job->can_delete()) return refusal(409, "the job is running");
  if (!Replicate_Job_Manager::instance()->remove_job(job))
    return failure(request, "the job cannot be removed");
  return {200, Object{{"job_id", job->id()}}};
}

Reply read_events(Context&, const Request& request) {
  Reply reply;
  std::uint64_t job_id = 0, limit = 0, offset = 0;
  Arguments arguments(request);
  arguments.number("job_id", 1, LARGEST, job_id).number("limit", 1, LARGEST, limit);
  if (!arguments.number("offset", 0, LARGEST, offset).finish(reply)) return reply;
  // Events name the job by its number on the backup server.
  ACE_INT64 number = 0;
  if (job_id != 0) {
    Replicate_Job_var job = Replicate_Job_Manager::instance()->find(static_cast<ACE_INT64>(job_id));
    if (job.null()) return refusal(404, "there is no job " + std::to_string(job_id));
    number = job->job_def().replicate_job_id();
    if (number < 1) return {200, Array{}};
  }
  Array list;
  if (!list_events(list, number, static_cast<ACE_INT64>(limit), static_cast<ACE_INT64>(offset)))
    return failure(request, "the events cannot be listed");
  return {200, list};
}

Reply read_alerts(Context&, const Request& request) {
  Reply reply;
  std::uint64_t limit = 0, offset = 0;
  Arguments arguments(request);
  if (!arguments.number("limit", 1, LARGEST, limit).number("offset", 0, LARGEST, offset).finish(reply))
    return reply;
  Array list;
  if (!list_alerts(list, static_cast<ACE_INT64>(limit), static_cast<ACE_INT64>(offset)))
    return failure(request, "the alerts cannot be listed");
  return {200, list};
}

Reply explain_retention(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, lun_id, name;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").uuid("lun_id", lun_id).name("name", name);
  if (lun_id.empty() == name.empty()) arguments.refuse("lun_id", "or else name must be given");
  if (!arguments.finish(reply)) return reply;
  std::vector<scsi_pool::Recycle_Manager::Verdict> verdicts;
  bool explained = false;
  if (!lun_id.empty()) {
    if (!find_lun(context, pool_id, lun_id, reply)) return reply;
    explained = scsi_pool::Volume_Recycle_Manager(pool_id).explain(lun_id, verdicts);
  } else {
    if (!find_filesystem(context, pool_id, name, reply)) return reply;
    explained = scsi_pool::Filesystem_Recycle_Manager(pool_id).explain(name, verdicts);
  }
  if (!explained) return failure(request, "what recycling would do cannot be told");
  Array list;
  for (const auto& verdict : verdicts)
    list.push_back(
        Object{{"id", verdict.snapshot_id}, {"remove", verdict.remove}, {"reason", verdict.reason}});
  return {200, list};
}

}  // namespace

void add_job_handlers(Router& router, Context& context) {
  const auto with = [&context](Reply (*handler)(Context&, const Request&)) {
    return [&context, handler](const Request& request) { return handler(context, request); };
  };
  const char JOB[] = "/svc/r/scsipool/job";
  router.add("GET", JOB, {"pool_id", "job_id", "state", "limit", "offset"}, with(list_jobs));
  router.add("PUT", JOB, with(redo_job));
  router.add("DELETE", JOB, {"job_id"}, with(remove_job));
  router.add("GET", "/svc/r/scsipool/event", {"job_id", "limit", "offset"}, with(read_events));
  router.add("GET", "/svc/r/scsipool/alert", {"limit", "offset"}, with(read_alerts));
  router.add("GET", "/svc/r/scsipool/retention", {"pool_id", "lun_id", "name"}, with(explain_retention));
}

}  // namespace scsipoold
