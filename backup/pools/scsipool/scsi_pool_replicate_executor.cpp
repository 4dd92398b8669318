#include "backup/pools/scsipool/scsi_pool_replicate_executor.h"

#include <ace/OS_NS_unistd.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <mutex>

#include "backup/pools/scsipool/filesystem_recycle_manager.h"
#include "backup/pools/scsipool/replicate_alert.h"
#include "backup/pools/scsipool/replicate_job_manager.h"
#include "backup/pools/scsipool/replicate_stop.h"
#include "backup/pools/scsipool/volume_recycle_manager.h"
#include "platform/base/backoff.h"
#include "platform/base/log.h"
#include "platform/base/time_text.h"
#include "platform/base/uuid.h"
#include "platform/services/pool_replicate_manager.h"
#include "platform/services/replication_notes.h"
#include "platform/services/storage_catalog.h"

namespace scsi_pool {

namespace {

bool snapshot_info_compare(const SCSI_Pool_Replicate_Executor::snapshot_info& a,
                           const SCSI_Pool_Replicate_Executor::snapshot_info& b) {
  return a.seq < b.seq;
}

// A time of the day as seconds; an unreadable one is 0.
unsigned seconds_of(const json_spirit::Object& window, const char* key) {
  unsigned seconds = 0;
  if (!platform::relative_time_to_seconds(json_spirit::object_get<std::string>(window, key), seconds))
    return 0;
  return seconds;
}

}  // namespace

bool is_lanfree_pool(const std::string& pool_uuid, bool& lanfree) {
  json_spirit::Object device;
  std::string url;
  if (!Storage_Catalog_Utils::get_master_device(pool_uuid, device) ||
      !json_spirit::object_find(device, "url", url))
    return LOG_FAILURE("Repcalite SCSI pool catalog error: failed to get master device\n");
  lanfree = url.compare(0, 10, "lanfree://") == 0 || url.compare(0, 11, "lanfrees://") == 0;
  return true;
}

SCSI_Pool_Replicate_Executor::SCSI_Pool_Replicate_Executor(Replicate_Job_var var)
    : mgr_(SCSI_Pool_Manager::instance()), replicate_mgr_(Replicate_Job_Manager::instance()), var_(var) {}

SCSI_Pool_Replicate_Executor::~SCSI_Pool_Replicate_Executor() {
  handle_standby();
}

int SCSI_Pool_Replicate_Executor::execute() {
  if (var_.null()) {
    LOG_VIOLATION("var_.get() is NULL");
    return 0;
  }
  if (!init()) return handle_error("Failed to init scsi pool replicate.\n", -1);
  std::string target, attrs;
  if (!mgr_->check_pool_replication(source_pool_uuid_, target, attrs) || target != target_pool_uuid_)
    return handle_error("Failed to execute scsi pool replicate: replication info is remove\n", -1);
  if (!get_target_pool_host(target_pool_uuid_))
    return handle_error("Failed to execute scsi pool replicate:get target pool host error\n", -1);
  if (!init_json_session())
    return handle_error("Failed to execute scsi pool replicate:init session error\n", -1);
  if (!compare_fs_type())
    return handle_error("Failed to execute scsi pool replicate:filesystem is different\n", -1);
  if (!get_target_datasets_and_snapshots())
    return handle_error("Failed to execute scsi pool replicate:get target pool datasets error\n", -1);
  init_stream_options();
  for (const dataset_info& ds : datasets_) {
    std::string error;
    if (!replicate_dataset(ds, error)) return handle_error(error, -1);
  }
  if (!replicate_catalog())
    return handle_error("Failed to execute scsi pool replicate:replicate catalog error\n", -1);
  if (!fini()) return handle_error("Failed to finish scsi pool replicate_data\n", -1);
  json_spirit::Object params;
  if (make_replicate_alert(var_->job_def(), params))
    send_pool_replicate_alert(STORAGED_REPLICATE_INFO_COMPLETED, params, nullptr, nullptr);
  var_->notify(Replicate_Event::KIND_SUCCEEDED);
  return 0;
}

bool SCSI_Pool_Replicate_Executor::init() {
  Replicate_Job_Definition& def = var_->job_def();
  source_pool_uuid_ = def.source_pool_uuid();
  target_pool_uuid_ = def.target_pool_uuid();
  init_datasets(def.snapshots());
  if (!get_control_info())
    return LOG_FAILURE("Failed to execute scsi pool replicate: failed to get control info\n");
  if (!get_pool_type())
    return LOG_FAILURE("Failed to execute scsi pool replicate: failed to get pool type\n");
  if (!check_all_catalog_ready())
    return LOG_FAILURE("Failed to execute scsi pool replicate: failed to check catalog state\n");
  // Without a job on the backup server the run goes on, it only sends no events.
  if (def.replicate_job_id() < 1 && replicate_mgr_->create_replicate_job(def))
    replicate_mgr_->update_job_def(def);
  var_->job_state(Replicate_Job::JOB_STATE_RUNNING);
  var_->start_time(std::time(nullptr));
  var_->data_size(0);
  var_->notify(Replicate_Event::KIND_STARTED);
  var_->progress(0);
  return replicate_mgr_->update_job(var_);
}

bool SCSI_Pool_Replicate_Executor::fini() {
  var_->job_state(Replicate_Job::JOB_STATE_SUCCEEDED);
  var_->end_time(std::time(nullptr));
  var_->progress(100);
  return replicate_mgr_->update_job(var_);
}

int SCSI_Pool_Replicate_Executor::handle_error(const std::string& message, int code) {
  if (var_.null()) return code;
  var_->job_state(Replicate_Job::JOB_STATE_FAILED);
  var_->error_code(code);
  var_->error_message(message);
  var_->end_time(std::time(nullptr));
  keep_job_error(var_->id(), message);  // first: who sees that the job has failed finds out why
  replicate_mgr_->update_job(var_);
  json_spirit::Object params;
  if (!make_replicate_alert(var_->job_def(), params)) {
    LOG_FAILURE("Failed to make scsi pool replicate alert params.\n");
    return code;
  }
  params["message"] = message;
  send_pool_replicate_alert(STORAGED_REPLICATE_ERROR_FAILED, params, nullptr, nullptr);
  var_->notify(Replicate_Event::KIND_FAILED);
  LOG_FAILURE("%s", message.c_str());
  return code;
}

void SCSI_Pool_Replicate_Executor::handle_standby() {
  if (var_.null()) return;
  // Cut by the end of the service: the queue runs the job again, which needs its references until then.
  if (replication_stopping() && var_->job_state() != Replicate_Job::JOB_STATE_SUCCEEDED) return;
  // No submission between looking for pending jobs and clearing the counts: its references would be lost.
  const std::lock_guard<std::mutex> guard(replicate_mgr_->references_lock());
  std::vector<Replicate_Job_var> pending;
  const bool none_pending =
      replicate_mgr_->list_job(source_pool_uuid_, pending, 0, 0, "pending", "", "") && pending.empty();
  for (const dataset_info& ds : datasets_) {
    const Dataset_Manager source = source_dataset(ds);
    for (const snapshot_info& snapshot : ds.snapshots)
      source.sub_snapshot_standby(snapshot.id);
    if (none_pending) source.reset_snapshot_standby();
  }
}

Dataset_Manager SCSI_Pool_Replicate_Executor::source_dataset(const dataset_info& ds) const {
  Dataset_Manager source(source_pool_uuid_);
  source.reset(ds.type, ds.name);
  return source;
}

void SCSI_Pool_Replicate_Executor::init_datasets(const json_spirit::Array& snapshots) {
  snapshots_amount_ = 0;
  for (const json_spirit::Value& value : snapshots) {
    const json_spirit::Object* element = json_spirit::get_object(value);
    if (element == nullptr) continue;
    Dataset_Manager source(source_pool_uuid_);
    source.reset(*element);
    if (source.type() == Dataset_Manager::TYPE_UNKNOWN || !source.dataset_exist()) continue;
    json_spirit::Array ids;
    if (!json_spirit::object_find(*element, "snapshots", ids)) continue;
    dataset_info ds;
    ds.type = source.type();
    ds.name = source.dataset();
    for (const json_spirit::Value& id : ids) {
      snapshot_info info;
      if (id.is_string() && load_snapshot(source, id.get_ref<const std::string&>(), info))
        ds.snapshots.push_back(info);
    }
    snapshots_amount_ += static_cast<int>(ds.snapshots.size());
    std::sort(ds.snapshots.begin(), ds.snapshots.end(), snapshot_info_compare);
    datasets_.push_back(std::move(ds));
  }
}

bool SCSI_Pool_Replicate_Executor::load_snapshot(const Dataset_Manager& source, const std::string& id,
                                                 snapshot_info& info) {
  json_spirit::Array records;
  if (id.empty() || !source.get_snapshot(id.c_str(), records) || records.size() != 1) return false;
  const json_spirit::Object* record = json_spirit::get_object(records.front());
  info.id = id;
  return record != nullptr && json_spirit::object_find(*record, "recycle", info.recycle) &&
         json_spirit::object_find(*record, "seq", info.seq);
}

bool SCSI_Pool_Replicate_Executor::get_control_info() {
  const std::string& text = var_->job_def().extended_attrs();
  json_spirit::Value parsed = json_spirit::Object{};
  if (!text.empty() && (!loads_json(text, parsed) || !parsed.is_object()))
    return LOG_FAILURE("Failed to get pool '%s' extended replicate info\n", source_pool_uuid_.c_str());
  const json_spirit::Object& attrs = *json_spirit::get_object(parsed);
  ACE_INT64 max_retry = 0;
  json_spirit::object_find(attrs, "max_seconds_retry", max_retry);
  max_retry_seconds_ =
      static_cast<ACE_UINT16>(std::clamp<ACE_INT64>(max_retry, 0, std::numeric_limits<ACE_UINT16>::max()));
  json_spirit::Array windows;
  json_spirit::object_find(attrs, "rate_limiting", windows);
  try {
    for (const json_spirit::Value& value : windows) {
      const json_spirit::Object* window = json_spirit::get_object(value);
      if (window == nullptr) continue;
      const auto bytes = json_spirit::object_get<ACE_UINT64>(*window, "max_bytes_per_second");
      const unsigned start = seconds_of(*window, "start_time");
      rate_control_entries_.emplace_back(start, seconds_of(*window, "end_time"), bytes);
    }
  } catch (const std::exception& error) {
    LOG_FAILURE("Failed to get pool '%s' rate limiting info: %s\n", source_pool_uuid_.c_str(), error.what());
  }
  return true;
}

bool SCSI_Pool_Replicate_Executor::get_pool_type() {
  return is_lanfree_pool(source_pool_uuid_, is_lanfree_);
}

bool SCSI_Pool_Replicate_Executor::check_all_catalog_ready() {
  for (const dataset_info& ds : datasets_)
    if (!ds.snapshots.empty() && !check_catalog_ready(source_pool_uuid_, ds.snapshots.back().id))
      return false;
  return true;
}

bool SCSI_Pool_Replicate_Executor::check_catalog_ready(const std::string& pool_uuid,
                                                       const std::string& snapshot_id) {
  if (is_lanfree_) return true;
  if (snapshot_id.empty()) return LOG_FAILURE("Failed to check catalog status: snapshot uuid is empty\n");
  unsigned last_count = 0;
  bool told = false;
  for (const unsigned delay :
       platform::exponential_backoff(1, 10, std::numeric_limits<ACE_UINT32>::max(), false)) {
    std::set<std::string> found;
    unsigned count = 0;
    if (!Storage_Catalog_Utils::collect_snapshots_id_from_catalog(pool_uuid, {snapshot_id}, found, 0, count))
      return LOG_FAILURE("Failed to check catalog status: failed to collect catalog\n");
    if (!found.empty() && count == last_count) return true;
    if (found.empty() && !told) {
      replicate_mgr_->tell_waiting(var_, snapshot_id);
      told = true;
    }
    last_count = count;
    for (unsigned second = 0; second < delay; ++second) {
      if (replication_stopping())
        return LOG_FAILURE("Failed to check catalog status: the service is stopping\n");
      ACE_OS::sleep(1);
    }
  }
  return false;
}

bool SCSI_Pool_Replicate_Executor::recycle_dataset_snapshots(const dataset_info& ds) {
  if (ds.type == Dataset_Manager::TYPE_VOLUME)
    return Volume_Recycle_Manager(source_pool_uuid_).recycle(ds.name);
  return Filesystem_Recycle_Manager(source_pool_uuid_).recycle(ds.name);
}

bool SCSI_Pool_Replicate_Executor::replicate_catalog() {
  return is_lanfree_ ? replicate_lanfree_catalog() : replicate_scsi_pool_catalog();
}

bool SCSI_Pool_Replicate_Executor::replicate_lanfree_catalog() {
  const std::string& catalog = var_->job_def().catalog_uuid();
  if (catalog.empty() || catalog == platform::zero_uuid()) return true;
  return Storage_Catalog_Utils::replicate_lanfree_metadata(catalog, job_id_, source_pool_uuid_,
                                                           target_pool_uuid_) ||
         LOG_FAILURE("Replicate SCSI pool catalog error: replicate lanfree metadata error\n");
}

bool SCSI_Pool_Replicate_Executor::replicate_scsi_pool_catalog() {
  if (replicated_snapshots_.empty()) return true;
  return Storage_Catalog_Utils::replicate_scsi_metadata(source_pool_uuid_, replicated_snapshots_) ||
         LOG_FAILURE("Replicate SCSI pool catalog error: replicate scsi pool metadata error\n");
}

}  // namespace scsi_pool
