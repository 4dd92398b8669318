#pragma once
// Asks running replications to end: transfers are cut and waits are left. Set by the daemon when it stops;
// the jobs are run again by the queue after the next start. Any thread.

#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

SCSIPOOL_Export void stop_replication(bool stop);
SCSIPOOL_Export bool replication_stopping();

}  // namespace scsi_pool
