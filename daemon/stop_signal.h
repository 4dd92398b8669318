#pragma once
// SIGTERM and SIGINT ask the daemon to stop. Caught by handlers, not blocked: tools that are started inherit
// blocked signals and could then not be ended.

namespace scsipoold {

// Installs the handlers and ignores SIGPIPE. False, with errno set, when that fails.
bool catch_stop_signals();

// Waits for one of the signals and returns its number. They are kept when they come before this is called.
int wait_for_stop_signal();

}  // namespace scsipoold
