// SCSI_Pool_Replicate_Executor: which snapshots of a dataset are sent, in which order and on which bases.

#include <algorithm>
#include <cstdio>

#include "backup/pools/scsipool/replicate_job_manager.h"
#include "backup/pools/scsipool/replicate_stop.h"
#include "backup/pools/scsipool/scsi_pool_replicate_executor.h"
#include "backup/pools/scsipool/scsi_pool_sender.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/services/host_manager.h"

namespace scsi_pool {

namespace {

using snapshot_info = SCSI_Pool_Replicate_Executor::snapshot_info;

ACE_UINT64 lowest_seq(const std::vector<snapshot_info>& list) {
  ACE_UINT64 lowest = 0;
  for (const snapshot_info& one : list)
    if (lowest == 0 || one.seq < lowest) lowest = one.seq;
  return lowest;
}

}  // namespace

bool SCSI_Pool_Replicate_Executor::holds(const std::vector<snapshot_info>& list, const std::string& id) {
  return std::any_of(list.begin(), list.end(), [&](const snapshot_info& one) { return one.id == id; });
}

void SCSI_Pool_Replicate_Executor::init_stream_options() {
  stream_options_.overwrite = true;
  stream_options_.socket_timeout_seconds = 300;
  stream_options_.max_seconds_retry = max_retry_seconds_;
  stream_options_.headers.put(HTTP_Headers::ACCESS_KEY, Host_Manager::instance()->access_key(), true);
  if (!rate_control_entries_.empty()) stream_options_.rate_control_entries = rate_control_entries_;
}

bool SCSI_Pool_Replicate_Executor::generate_receive_uri(URI& uri, const dataset_info& ds) const {
  char path[1024];
  const int length =
      std::snprintf(path, sizeof path, "/svc/scsipool/receive/%s/%d/%s", target_pool_uuid_.c_str(),
                    ds.type == Dataset_Manager::TYPE_VOLUME ? 1 : 0, ds.name.c_str());
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof path) return false;
  uri = URI(target_pool_ssl_ ? "https" : "http", target_pool_host_, target_pool_port_, path);
  return true;
}

bool SCSI_Pool_Replicate_Executor::replicate_dataset(const dataset_info& ds, std::string& error) {
  const Dataset_Manager source = source_dataset(ds);
  if (!source.dataset_exist()) return true;
  std::vector<snapshot_info> on_target;
  const auto target = target_datasets_.find({ds.type, ds.name});
  if (target != target_datasets_.end()) {
    error = "Failed to execute scsi pool replicate:unexport target pool dataset error\n";
    if (!unexport_target_dataset(ds.type, ds.name)) return false;
    on_target = target->second.snapshots;
  } else {
    error = "Failed to execute scsi pool replicate:create target dataset error\n";
    if (!create_target_dataset(ds.type, ds.name)) return false;
  }

  SCSI_Pool_Manager::LUN_RETENTION_TYPE retention = SCSI_Pool_Manager::RETENTION_TYPE_NORMAL;
  if (!source.retention_type(retention)) retention = SCSI_Pool_Manager::RETENTION_TYPE_NORMAL;
  std::string last_sent;
  if (retention == SCSI_Pool_Manager::RETENTION_TYPE_NEWEST) {
    if (ds.snapshots.empty() || snapshots_amount_ == 0) return true;
    if (!send_newest(ds, on_target, last_sent, error)) return false;
  } else if (!send_normal(ds, on_target, last_sent, error)) {
    return false;
  }
  FAULT_POINT("replicate.sent");
  if (!last_sent.empty() && !rollback_target_dataset(ds))
    LOG_FAILURE("Failed to execute scsi pool replicate: rollback target dataset error\n");
  source.reset_snapshot_state();
  recycle_dataset_snapshots(ds);
  return true;
}

bool SCSI_Pool_Replicate_Executor::send_normal(const dataset_info& ds, std::vector<snapshot_info> on_target,
                                               std::string& last_sent, std::string& error) {
  const Dataset_Manager source = source_dataset(ds);
  const ACE_UINT64 lowest = lowest_seq(on_target);
  std::vector<std::string> increments;
  for (const snapshot_info& snapshot : ds.snapshots) {
    if (!source.snapshot_exist(snapshot.id) || (lowest != 0 && snapshot.seq < lowest)) continue;
    if (holds(on_target, snapshot.id)) {
      increments.push_back(snapshot.id);
      source.update_snapshot_state(snapshot.id, SCSI_Pool_Manager::DEPEND_STATE);
      store_progress(++done_ * 100 / snapshots_amount_);
      continue;
    }
    source.update_snapshot_state(snapshot.id, SCSI_Pool_Manager::SENDING_STATE);
    if (increments.empty()) {
      if (!remove_target_snapshots(ds, on_target, error)) return false;
      on_target.clear();
    }
    if (!send_snapshot(ds, snapshot, increments, error) || !read_again(ds, snapshot.seq, on_target, error))
      return false;
    store_progress(++done_ * 100 / snapshots_amount_);
    increments.push_back(snapshot.id);
    replicated_snapshots_.insert(snapshot.id);
    last_sent = snapshot.id;
  }
  return true;
}

// A stream on an older base may have replaced the target's newer snapshots, which are missing then.
bool SCSI_Pool_Replicate_Executor::read_again(const dataset_info& ds, ACE_UINT64 sent,
                                              std::vector<snapshot_info>& on_target, std::string& error) {
  const auto newer = [sent](const snapshot_info& one) { return one.seq > sent; };
  if (std::none_of(on_target.begin(), on_target.end(), newer)) return true;
  error = "Failed to execute scsi pool replicate:get target pool datasets error\n";
  target_datasets_.clear();
  if (!get_target_datasets_and_snapshots()) return false;
  on_target = target_datasets_[{ds.type, ds.name}].snapshots;
  return true;
}

bool SCSI_Pool_Replicate_Executor::send_newest(const dataset_info& ds,
                                               const std::vector<snapshot_info>& on_target,
                                               std::string& last_sent, std::string& error) {
  const Dataset_Manager source = source_dataset(ds);
  std::vector<snapshot_info> pending = ds.snapshots;
  const snapshot_info newest = pending.back();
  pending.pop_back();
  std::vector<std::string> increments;
  for (auto older = pending.rbegin(); older != pending.rend() && increments.empty(); ++older) {
    if (!holds(on_target, older->id)) continue;
    increments.push_back(older->id);
    source.update_snapshot_state(older->id, SCSI_Pool_Manager::DEPEND_STATE);
  }
  // One that was deleted meanwhile must not cost the target what it has.
  if (!source.snapshot_exist(newest.id)) return true;
  if (increments.empty() && !remove_target_snapshots(ds, on_target, error)) return false;
  source.update_snapshot_state(newest.id, SCSI_Pool_Manager::SENDING_STATE);
  if (!send_snapshot(ds, newest, increments, error)) return false;
  store_progress(static_cast<int>((done_ + pending.size()) * 100 / static_cast<unsigned>(snapshots_amount_)));
  replicated_snapshots_.insert(newest.id);
  last_sent = newest.id;
  return true;
}

// Without a common base the first stream is a full one, which only fits a dataset without snapshots.
bool SCSI_Pool_Replicate_Executor::remove_target_snapshots(const dataset_info& ds,
                                                           const std::vector<snapshot_info>& on_target,
                                                           std::string& error) {
  error = "Failed to execute scsi pool replicate:failed to remove target snapshot\n";
  for (const snapshot_info& snapshot : on_target)
    if (!delete_target_dataset_snapshot(ds.type, ds.name, snapshot.id)) return false;
  return true;
}

bool SCSI_Pool_Replicate_Executor::send_snapshot(const dataset_info& ds, const snapshot_info& snapshot,
                                                 const std::vector<std::string>& increments,
                                                 std::string& error) {
  const Dataset_Manager source = source_dataset(ds);
  URI uri;
  // The remote file's name carries 16 bits of the number; this header carries all of it.
  Client_IO_Options options = stream_options_;
  options.headers.put("X-Snapshot-Seq", std::to_string(snapshot.seq), true);
  for (int attempt = 0; attempt < var_->job_def().retry() && !replication_stopping(); ++attempt) {
    Client_IO io;
    if (!generate_receive_uri(uri, ds) || !io.connect(uri, options)) {
      LOG_NOTICE("Failed to connect to %s: %s\n", uri.str().c_str(), io.last_error().c_str());
      error = "Failed to execute scsi pool replicate: connect to target error\n";
      return false;
    }
    SCSI_Pool_Sender sender(source_pool_uuid_, source);
    if (sender.send(io, snapshot.id, increments)) {
      total_bytes_ += sender.data_size();
      var_->data_size(total_bytes_);
      return true;
    }
    io.remove(snapshot.id);
  }
  source.reset_snapshot_state();
  error = "Failed to execute scsi pool replicate:send snapshot data error\n";
  return false;
}

void SCSI_Pool_Replicate_Executor::store_progress(int percent) {
  var_->progress(percent);
  replicate_mgr_->update_job(var_);
}

}  // namespace scsi_pool
