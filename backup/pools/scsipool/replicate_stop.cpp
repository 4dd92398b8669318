#include "backup/pools/scsipool/replicate_stop.h"

#include <atomic>

namespace scsi_pool {

namespace {

std::atomic<bool> stopping{false};

}  // namespace

void stop_replication(bool stop) {
  stopping = stop;
}

bool replication_stopping() {
  return stopping;
}

}  // namespace scsi_pool
