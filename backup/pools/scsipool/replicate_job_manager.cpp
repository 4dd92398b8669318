#include "backup/pools/scsipool/replicate_job_manager.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <set>

#include "backup/pools/scsipool/replicate_alert.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/scsi_pool_replicate_executor.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/services/alerts.h"
#include "platform/services/pool_replicate_manager.h"
#include "platform/services/queue_manager.h"
#include "platform/services/replication_notes.h"
#include "platform/services/storage_catalog.h"

// Each operation that reads or writes jobs begins with this.
#define REQUIRE_DATABASE(RESULT)            \
  if (!job_db_) {                           \
    LOG_VIOLATION("job_db_.get() is NULL"); \
    return RESULT;                          \
  }
#define REQUIRE_JOB(VAR) \
  if (VAR.null()) return LOG_VIOLATION("var.get() is NULL")

namespace scsi_pool {

namespace {

using Singleton = ACE_Unmanaged_Singleton<Replicate_Job_Manager, ACE_Null_Mutex>;

const char QUEUE[] = "scsi_pool_replicate";

// Calls visit(dataset, snapshot ids) for each element of a stored definition, until one says false.
template <typename Visit>
void each_dataset(const Replicate_Job_Definition& def, Visit visit) {
  for (const json_spirit::Value& value : def.snapshots()) {
    const json_spirit::Object* element = json_spirit::get_object(value);
    if (element == nullptr) continue;
    Dataset_Manager dataset(def.source_pool_uuid());
    dataset.reset(*element);
    json_spirit::Array listed;
    if (dataset.type() == Dataset_Manager::TYPE_UNKNOWN ||
        !json_spirit::object_find(*element, "snapshots", listed))
      continue;
    std::vector<std::string> ids;
    for (const json_spirit::Value& id : listed)
      if (id.is_string()) ids.push_back(id.get<std::string>());
    if (!visit(dataset, ids)) return;
  }
}

}  // namespace

Replicate_Job_Manager* Replicate_Job_Manager::instance() {
  return Singleton::instance();
}

void Replicate_Job_Manager::close_instance() {
  Singleton::close();
}

bool Replicate_Job_Manager::open() {
  job_db_.reset(new (std::nothrow) Replicate_Job_Database);
  if (!job_db_) {
    errno = ENOMEM;
    return false;
  }
  reset_unfinished_job();
  return true;
}

bool Replicate_Job_Manager::submit_job(Replicate_Job_Definition& def) {
  REQUIRE_DATABASE(false);
  ACE_UINT64 retention = 0;
  if (!get_retention(def.source_pool_uuid(), retention))
    return LOG_FAILURE("Failed to add SCSI pool replicate job: list source pool datasets error\n");
  const std::lock_guard<std::mutex> guard(references_lock_);
  json_spirit::Array selected;
  Dataset_Manager dataset(def.source_pool_uuid());
  for (const json_spirit::Value& value : def.snapshots()) {
    const json_spirit::Object* element = json_spirit::get_object(value);
    if (element == nullptr) continue;
    dataset.reset(*element);
    if (dataset.type() == Dataset_Manager::TYPE_UNKNOWN) continue;
    if (!select_dataset(dataset, def.source_pool_uuid(), retention, selected)) return false;
  }
  def.snapshots(selected);
  if (selected.empty())
    return LOG_FAILURE("Failed to add SCSI pool replicate job: no dataset to replicate\n");
  ACE_INT64 job_id = 0;
  if (!job_db_->add_job_def(def) || !job_db_->add_job(def, job_id))
    return LOG_FAILURE("Failed to add SCSI pool replicate job\n");
  FAULT_POINT("job.stored");
  if (!enqueue(job_id)) return LOG_FAILURE("Failed to enqueue to SCSI pool replicate queue.\n");
  LOG_INFO("Submit SCSI pool replicate job successfully.\n");
  return true;
}

bool Replicate_Job_Manager::get_retention(const std::string& pool_uuid, ACE_UINT64& retention) const {
  json_spirit::Array pools;
  if (!SCSI_Pool_Manager::instance()->list_pools(pools, pool_uuid.c_str()) || pools.empty()) return false;
  const json_spirit::Object* pool = json_spirit::get_object(pools.front());
  return pool != nullptr && json_spirit::object_find(*pool, "retention", retention);
}

// Appends the dataset with the ids of the snapshots to send, oldest first. False only when the submission
// must end; a dataset that is not there or has no snapshots is passed over.
bool Replicate_Job_Manager::select_dataset(const Dataset_Manager& dataset, const std::string& pool_uuid,
                                           ACE_UINT64 retention, json_spirit::Array& selected) const {
  if (!dataset.dataset_exist()) {
    LOG_FAILURE("Failed to add %s/%s to replicate job: %s not exist\n", pool_uuid.c_str(),
                dataset.dataset().c_str(), dataset.type_name());
    return true;
  }
  json_spirit::Array snapshots;
  if (!dataset.get_snapshots(snapshots))
    return LOG_FAILURE("Failed to add SCSI pool replicate job: list source pool snapshots error\n");
  if (snapshots.empty()) return true;

  json_spirit::Array ids;
  ACE_UINT64 count = 1;
  for (auto value = snapshots.rbegin(); value != snapshots.rend(); ++value) {
    const json_spirit::Object* snapshot = json_spirit::get_object(*value);
    if (snapshot == nullptr) continue;
    std::string id;
    bool recycle = false;
    try {
      id = json_spirit::object_get<std::string>(*snapshot, "id");
      recycle = json_spirit::object_get<bool>(*snapshot, "recycle");
    } catch (const std::exception& error) {
      LOG_FAILURE("Skip replicating an invalid snapshot of %s %s, %s\n", dataset.type_name(),
                  dataset.dataset().c_str(), error.what());
      continue;
    }
    // One that is exported several times is listed as often.
    if (std::find(ids.begin(), ids.end(), id) != ids.end()) continue;
    if (count++ > retention && recycle) continue;
    ids.insert(ids.begin(), id);
    if (!dataset.add_snapshot_standby(id))
      return LOG_FAILURE("Failed to add SCSI pool replicate job: handle standby error\n");
  }
  selected.push_back(json_spirit::Object{{dataset.type_key(), dataset.dataset()}, {"snapshots", ids}});
  return true;
}

bool Replicate_Job_Manager::enqueue(ACE_INT64 job_id) const {
  const std::string text = JSON_Dump(json_spirit::Object{{"job_id", job_id}, {"type", QUEUE}}, false);
  return Queue_Manager::instance()->enqueue(QUEUE, QUEUE, text.c_str(), text.size(), nullptr);
}

bool Replicate_Job_Manager::job_of_message(const std::string& text, ACE_INT64& job_id) {
  json_spirit::Value value;
  return loads_json(text, value) && value.is_object() &&
         json_spirit::object_find(*json_spirit::get_object(value), "job_id", job_id);
}

bool Replicate_Job_Manager::recover_jobs() {
  REQUIRE_DATABASE(false);
  std::vector<std::string> texts;
  if (!Queue_Manager::instance()->texts(QUEUE, texts))
    return LOG_FAILURE("Failed to recover SCSI pool replicate jobs: the queue cannot be read\n");
  std::set<ACE_INT64> queued;
  ACE_INT64 job_id = 0;
  for (const std::string& text : texts)
    if (job_of_message(text, job_id)) queued.insert(job_id);
  bool good = true;
  for (const ACE_INT64 id : queued) {
    Replicate_Job_var job = find(id);
    if (job.null() || job->job_state() != Replicate_Job::JOB_STATE_FAILED) continue;
    job->job_state(Replicate_Job::JOB_STATE_PENDING);
    good = update_job(job) && good;
  }
  std::vector<long> pending;
  if (!job_db_->list_job("", pending, 0, 0, "pending", "", ""))
    return LOG_FAILURE("Failed to list SCSI pool replicate job.\n");
  std::reverse(pending.begin(), pending.end());  // the oldest first
  for (const long id : pending) {
    if (queued.count(id) != 0) continue;
    LOG_NOTICE("Replication job %q was stored but not queued: it is queued now\n",
               static_cast<ACE_INT64>(id));
    good = (enqueue(id) || LOG_FAILURE("Failed to enqueue to SCSI pool replicate queue.\n")) && good;
  }
  return recount_references(pending) && good;
}

bool Replicate_Job_Manager::recount_references(const std::vector<long>& pending) {
  const std::lock_guard<std::mutex> guard(references_lock_);
  if (!job_db_->clear_references())
    return LOG_FAILURE("Failed to recover SCSI pool replicate jobs: handle standby error\n");
  for (const long id : pending) {
    Replicate_Job_var job = find(id);
    if (!job.null()) take_references(job->job_def());
  }
  return true;
}

// On the snapshots that still exist.
void Replicate_Job_Manager::take_references(const Replicate_Job_Definition& def) {
  each_dataset(def, [](const Dataset_Manager& dataset, const std::vector<std::string>& ids) {
    for (const std::string& id : ids)
      if (dataset.snapshot_exist(id)) dataset.add_snapshot_standby(id);
    return true;
  });
}

bool Replicate_Job_Manager::waits_for_catalog(Replicate_Job_var var, std::string& snapshot_id) const {
  REQUIRE_JOB(var);
  const std::string& pool = var->job_def().source_pool_uuid();
  bool lanfree = false;
  if (!is_lanfree_pool(pool, lanfree) || lanfree) return false;
  bool waits = false;
  each_dataset(var->job_def(), [&](const Dataset_Manager& dataset, const std::vector<std::string>& ids) {
    const auto newest = std::find_if(ids.rbegin(), ids.rend(),
                                     [&](const std::string& id) { return dataset.snapshot_exist(id); });
    std::set<std::string> found;
    unsigned count = 0;
    if (newest == ids.rend() || !dataset.dataset_exist() ||
        !Storage_Catalog_Utils::collect_snapshots_id_from_catalog(pool, {*newest}, found, 0, count))
      return true;
    waits = found.empty();
    if (waits) snapshot_id = *newest;
    return !waits;
  });
  return waits;
}

void Replicate_Job_Manager::tell_waiting(Replicate_Job_var var, const std::string& snapshot_id) {
  if (var.null()) return;
  Replicate_Job_Definition& def = var->job_def();
  // Events name a job by its number on the backup server.
  if (def.replicate_job_id() < 1 && create_replicate_job(def)) update_job_def(def);
  LOG_NOTICE("Replication job %q waits until a backup catalog of pool '%s' names snapshot '%s'\n", var->id(),
             def.source_pool_uuid().c_str(), snapshot_id.c_str());
  add_event("waiting", "the job waits until a backup catalog names snapshot " + snapshot_id,
            {{"id", var->id()}, {"pool_id", def.source_pool_uuid()}, {"snapshot_id", snapshot_id}},
            std::max<ACE_INT64>(def.replicate_job_id(), 0));
}

bool Replicate_Job_Manager::job_amount(const std::string& pool_uuid, ACE_INT64& amount,
                                       const std::string& target_pool_uuid) const {
  REQUIRE_DATABASE(false);
  return job_db_->job_amount(pool_uuid, amount, target_pool_uuid) ||
         LOG_FAILURE("Failed to get SCSI pool replicate job amount.\n");
}

bool Replicate_Job_Manager::create_replicate_job(Replicate_Job_Definition& def) {
  json_spirit::Value request = json_spirit::Object{{"type", QUEUE},
                                                   {"source_pool_uuid", def.source_pool_uuid()},
                                                   {"target_pool_uuid", def.target_pool_uuid()},
                                                   {"snapshots", def.snapshots()},
                                                   {"schedule", false},
                                                   {"state", "queueing"},
                                                   {"source_size", 0}};
  if (!Pool_Replicate_Manager::instance()->create_replicate_job(request) || !request.is_object())
    return LOG_FAILURE("Failed to create replicate job on backup server.\n");
  const json_spirit::Object& answer = *json_spirit::get_object(request);
  ACE_INT64 id = -1;
  std::string task_id;
  json_spirit::object_find(answer, "job_id", id);
  json_spirit::object_find(answer, "task_id", task_id);
  if (id < 0) return false;

  json_spirit::Value attrs;
  if (!loads_json(def.extended_attrs(), attrs) || !attrs.is_object()) attrs = json_spirit::Object{};
  attrs["replicate_job_id"] = id;
  attrs["replicate_task_id"] = task_id;
  def.replicate_job_id(id);
  def.replicate_task_id(task_id);
  def.extended_attrs(JSON_Dump(attrs, false));
  return true;
}

bool Replicate_Job_Manager::update_job(Replicate_Job_var var) {
  REQUIRE_DATABASE(false);
  REQUIRE_JOB(var);
  return job_db_->update_job(*var) || LOG_FAILURE("Failed to update sCSI pool replicate job.\n");
}

bool Replicate_Job_Manager::update_job_def(const Replicate_Job_Definition& def) {
  REQUIRE_DATABASE(false);
  return job_db_->update_job_def(def) || LOG_FAILURE("Failed to update SCSI pool replicate job(%Q) define.\n",
                                                     static_cast<ACE_UINT64>(def.id()));
}

Replicate_Job_var Replicate_Job_Manager::find(ACE_INT64 job_id) const {
  REQUIRE_DATABASE(Replicate_Job_var());
  Replicate_Job_var job(new (std::nothrow) Replicate_Job(job_id));
  if (job.null()) {
    errno = ENOMEM;
    return job;
  }
  // The row comes before the definition: loading a job sends no progress event.
  if (job_db_->get_job_info(*job) && job_db_->get_job_def_info(job->job_def().id(), job->job_def()))
    return job;
  LOG_FAILURE("Failed to get SCSI pool replicate job.\n");
  return Replicate_Job_var();
}

bool Replicate_Job_Manager::list_job(const std::string& pool_uuid, std::vector<Replicate_Job_var>& jobs,
                                     ACE_INT64 limit, ACE_INT64 offset, const std::string& state,
                                     const std::string& start_time, const std::string& end_time) const {
  REQUIRE_DATABASE(false);
  if (pool_uuid.empty()) return LOG_FAILURE("Failed to list SCSI pool replicate job: pool uuid is empty\n");
  std::vector<long> ids;
  if (!job_db_->list_job(pool_uuid, ids, limit, offset, state, start_time, end_time))
    return LOG_FAILURE("Failed to list SCSI pool replicate job.\n");
  for (const long id : ids) {
    Replicate_Job_var job = find(id);
    if (job.null()) continue;
    set_job_invaild(job);
    jobs.push_back(job);
  }
  return true;
}

bool Replicate_Job_Manager::set_job_invaild(Replicate_Job_var var) const {
  REQUIRE_JOB(var);
  bool valid = false;
  each_dataset(var->job_def(), [&](const Dataset_Manager& dataset, const std::vector<std::string>& ids) {
    valid = dataset.snapshot_exist(ids);
    return !valid;
  });
  var->invalid(!valid);
  return true;
}

bool Replicate_Job_Manager::redo_job(Replicate_Job_var var) {
  REQUIRE_DATABASE(false);
  REQUIRE_JOB(var);
  if (!var->can_redo())
    return LOG_FAILURE("Failed to redo SCSI pool replicate job: job state is not success or error.\n");
  const std::lock_guard<std::mutex> guard(references_lock_);
  take_references(var->job_def());
  var->job_state(Replicate_Job::JOB_STATE_PENDING);
  if (!update_job(var)) return LOG_FAILURE("Failed to redo SCSI pool replicate job: reset state error\n");
  if (!enqueue(var->id())) return LOG_FAILURE("Failed to enqueue to SCSI pool redo replicate queue.\n");
  LOG_INFO("Submit SCSI pool redo replicate job successfully.\n");
  return true;
}

bool Replicate_Job_Manager::remove_job(Replicate_Job_var var) {
  REQUIRE_DATABASE(false);
  REQUIRE_JOB(var);
  if (!var->can_delete()) return LOG_FAILURE("Failed to delete SCSI pool replicate job: job is running\n");
  if (!job_db_->del_job(var->id()) || !job_db_->del_job_def(var->job_def().id()))
    return LOG_FAILURE("Failed to delete SCSI pool replicate job.\n");
  keep_job_error(var->id(), "");
  return true;
}

bool Replicate_Job_Manager::start_job(Replicate_Job_var var) {
  REQUIRE_JOB(var);
  if (!var->can_start()) return LOG_FAILURE("Failed to start SCSI pool replicate job: job is running\n");
  SCSI_Pool_Replicate_Executor executor(var);
  return executor.execute() == 0;
}

bool Replicate_Job_Manager::reset_unfinished_job() {
  REQUIRE_DATABASE(false);
  std::vector<long> ids;
  job_db_->list_job("", ids, 0, 0, "running", "", "");
  for (const long id : ids) {
    Replicate_Job job(id);
    if (!job_db_->get_job_info(job) || !job_db_->get_job_def_info(job.job_def().id(), job.job_def())) {
      LOG_FAILURE("Failed to get job definition on reset_unfinished_job, id=%q\n",
                  static_cast<ACE_INT64>(id));
      continue;
    }
    keep_job_error(id, "Job abort");
    json_spirit::Object params;
    if (!make_replicate_alert(job.job_def(), params)) continue;
    params["message"] = "Job abort";
    send_pool_replicate_alert(STORAGED_REPLICATE_ERROR_FAILED, params, nullptr, nullptr);
  }
  return job_db_->reset_job_state() || LOG_FAILURE("Failed to reset SCSI pool replicate job state\n");
}

}  // namespace scsi_pool
