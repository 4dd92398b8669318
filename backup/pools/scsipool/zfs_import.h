#pragma once
// Bringing file pools back after a boot, and their state for the health report.

#include <string>

#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

// Imports the ZFS pool of `pool_id` from the folder of backing files unless it is imported already, mounts
// nothing (`-N`), and waits up to 30 seconds for the device links of its volumes. To be called before mounts
// are resumed and exports restored: driver objects made before see the pool as absent. True when the pool is
// there; a link that has not come is an error in the log. Any thread; one call at a time for a pool.
SCSIPOOL_Export bool import_pool(const std::string& pool_id);
// The same with another folder.
SCSIPOOL_Export bool import_pool(const std::string& pool_id, const std::string& backing_folder);

// The pool's state in the tool's words: "ONLINE", "DEGRADED", "SUSPENDED", "FAULTED", ... False, with `state`
// "absent" for a pool that is not imported and "unknown" when the tool does not answer.
SCSIPOOL_Export bool pool_health(const std::string& zpool, std::string& state);

}  // namespace scsi_pool
