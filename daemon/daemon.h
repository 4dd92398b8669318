#pragma once
// The daemon's life: start in order, serve until a signal, stop in the reverse order.

#include "daemon/config.h"

namespace scsipoold {

// Runs until SIGTERM or SIGINT and returns the process's exit status: 0 after a clean stop, 1 with the reason
// in the log when it could not start.
int run_daemon(const Config& config);

}  // namespace scsipoold
