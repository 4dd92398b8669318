#pragma once
// The stored replication jobs and their definitions. No state; each call takes a connection of its own, so
// any thread may call. All operations return true on success and never throw; each failure is logged, but a
// record that is not there is not, and update_job_def leaves the log line to its caller.

#include <ace/Basic_Types.h>

#include <string>
#include <vector>

#include "backup/pools/scsipool/replicate_job.h"
#include "backup/pools/scsipool/replicate_job_def.h"
#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

class SCSIPOOL_Export Replicate_Job_Database {
 public:
  // Stores the definition and sets its id. An empty catalog UUID is stored as the all-zero one.
  bool add_job_def(Replicate_Job_Definition& def);
  // Stores the definition's extended attributes and retry count.
  bool update_job_def(const Replicate_Job_Definition& def);
  bool del_job_def(ACE_INT64 id);
  // The backup-server job fields stay as they were when the extended attributes are no JSON object.
  bool get_job_def_info(ACE_INT64 id, Replicate_Job_Definition& def);

  // Stores a new pending job of a stored definition.
  bool add_job(const Replicate_Job_Definition& def, ACE_INT64& job_id);
  bool del_job(ACE_INT64 job_id);
  // Loads the row of `job.id()`, and with it the id of the definition but not the definition.
  bool get_job_info(Replicate_Job& job);
  bool update_job(const Replicate_Job& job);

  // Appends the ids of the jobs of a source pool, newest first. Empty texts and a limit or offset below 1 do
  // not limit the list. `start_time` and `end_time` are ISO 8601 texts that the job's start lies between.
  bool list_job(const std::string& pool_uuid, std::vector<long>& ids, ACE_INT64 limit, ACE_INT64 offset,
                const std::string& state, const std::string& start_time, const std::string& end_time);
  // Counts the jobs of a source pool, to one target pool unless `target_pool_uuid` is empty.
  bool job_amount(const std::string& pool_uuid, ACE_INT64& amount, const std::string& target_pool_uuid);

  // Sets the standby count of every snapshot to 0.
  bool clear_references();
  // Turns every running job into a failed one.
  bool reset_job_state();
};

}  // namespace scsi_pool
