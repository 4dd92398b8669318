#pragma once
// What the handlers share. Made by main() before the server starts and alive until it has stopped.

#include <mutex>

#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "daemon/config.h"
#include "daemon/health.h"
#include "daemon/lio_restorer.h"
#include "platform/base/turns.h"

namespace scsipoold {

struct Context {
  const Config& config;
  scsi_pool::SCSI_Pool_Sqlite_Manager& catalog;
  Health health{};
  // Held while a pool is created, renamed or deleted: the manager leaves it to its callers that two requests
  // do not both find a name free.
  std::mutex pools_changing{};
  LIO_Restorer restorer{};
  // Of datasets: a snapshot that is received into one, or what must not meet that (take_turn()).
  platform::Turns turns{};
};

}  // namespace scsipoold
