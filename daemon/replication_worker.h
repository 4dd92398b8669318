#pragma once
// Runs the replication jobs of the queue, one at a time: jobs of one pool share the snapshots' states. A job
// that waits for its backup catalog stays pending and lets the others pass.

#include <ace/Basic_Types.h>

#include <string>

namespace scsipoold {

// After the module's service has opened; what a crash has left of the jobs is mended first. False, logged,
// when that fails or the queue cannot be worked on.
bool start_replication_worker();
// Ends a running job (it is run again after the next start) and waits for it.
void stop_replication_worker();
// The snapshot that a pending job waits for in the backup catalogs; empty when it waits for none. Any thread.
std::string awaited_snapshot(ACE_INT64 job_id);

}  // namespace scsipoold
