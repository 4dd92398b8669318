#pragma once
// The parameters of a replication alert.

#include "backup/pools/scsipool/replicate_job_def.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

// Fills in "id", "name", "source_pool_uuid", "target_pool_uuid", "source_pool_name" and "target_pool_name".
// False, without a message and with what was found so far, when the storage catalog does not know one of the
// pools.
bool make_replicate_alert(const Replicate_Job_Definition& def, json_spirit::Object& params);

}  // namespace scsi_pool
