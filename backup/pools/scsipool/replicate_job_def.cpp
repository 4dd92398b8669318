#include "backup/pools/scsipool/replicate_job_def.h"

namespace scsi_pool {

namespace {

constexpr int DEFAULT_RETRY = 5;

}  // namespace

void Replicate_Job_Definition::reset() {
  id_ = 0;
  source_pool_uuid_.clear();
  target_pool_uuid_.clear();
  catalog_uuid_.clear();
  snapshots_.clear();
  retry_ = DEFAULT_RETRY;
  extended_attrs_.clear();
  replicate_job_id_ = -1;
  replicate_task_id_.clear();
}

}  // namespace scsi_pool
