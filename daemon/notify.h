#pragma once

namespace scsipoold {

// Tells the service manager what the daemon is doing, such as "READY=1", when it has asked to be told
// (NOTIFY_SOCKET). Failures do not matter.
void notify(const char* state);

}  // namespace scsipoold
