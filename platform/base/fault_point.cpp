#include "platform/base/fault_point.h"

#ifdef SCSIPOOL_FAULT_POINTS

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace platform {

void fault_point(const char* name) {
  const char* wanted = std::getenv("SCSIPOOL_FAULT");
  if (wanted != nullptr && std::strcmp(wanted, name) == 0) std::raise(SIGKILL);
}

}  // namespace platform

#endif
