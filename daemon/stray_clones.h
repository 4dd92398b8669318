#pragma once
// An exported snapshot is a clone that the catalog knows together with its export. A crash between the two
// leaves a clone that no request reaches and that keeps its snapshot from being deleted.

#include "daemon/context.h"

namespace scsipoold {

// Removes the clones of snapshots that have no export, with their records. One that the kernel or the saved
// configuration still exports stays until `export check --repair` and the next start. Only before requests
// are taken: an export that is being made looks the same. False, logged, when one could not be removed.
bool remove_stray_clones(Context& context);

}  // namespace scsipoold
