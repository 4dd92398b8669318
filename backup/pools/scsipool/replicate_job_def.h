#pragma once
// What a replication job is to do: the two pools, the catalog, the datasets with their snapshots. A plain
// value.

#include <ace/Basic_Types.h>

#include <string>

#include "backup/pools/scsipool/scsipool_export.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class SCSIPOOL_Export Replicate_Job_Definition {
 public:
  Replicate_Job_Definition() { reset(); }

  // Every field back to its default: retry 5, backup-server job -1, all else 0 or empty.
  void reset();

  // The row id; 0 before the definition is stored.
  ACE_INT64 id() const { return id_; }
  void id(ACE_INT64 id) { id_ = id; }
  const std::string& source_pool_uuid() const { return source_pool_uuid_; }
  void source_pool_uuid(const std::string& uuid) { source_pool_uuid_ = uuid; }
  const std::string& target_pool_uuid() const { return target_pool_uuid_; }
  void target_pool_uuid(const std::string& uuid) { target_pool_uuid_ = uuid; }
  // The backup catalog that is replicated with the data; empty or the all-zero UUID means none.
  const std::string& catalog_uuid() const { return catalog_uuid_; }
  void catalog_uuid(const std::string& uuid) { catalog_uuid_ = uuid; }
  // One object for each dataset, with "lun_uuid" or "filesystem_name"; once submitted also with "snapshots",
  // the snapshot ids, oldest first.
  const json_spirit::Array& snapshots() const { return snapshots_; }
  void snapshots(const json_spirit::Array& snapshots) { snapshots_ = snapshots; }
  int retry() const { return retry_; }
  void retry(int retry) { retry_ = retry; }
  // A JSON object as text, or empty.
  const std::string& extended_attrs() const { return extended_attrs_; }
  void extended_attrs(const std::string& attrs) { extended_attrs_ = attrs; }
  // The matching job on the backup server; below 1 when it has not been made.
  ACE_INT64 replicate_job_id() const { return replicate_job_id_; }
  void replicate_job_id(ACE_INT64 id) { replicate_job_id_ = id; }
  const std::string& replicate_task_id() const { return replicate_task_id_; }
  void replicate_task_id(const std::string& id) { replicate_task_id_ = id; }

 private:
  ACE_INT64 id_;
  std::string source_pool_uuid_;
  std::string target_pool_uuid_;
  std::string catalog_uuid_;
  json_spirit::Array snapshots_;
  int retry_;
  std::string extended_attrs_;
  ACE_INT64 replicate_job_id_;
  std::string replicate_task_id_;
};

}  // namespace scsi_pool
