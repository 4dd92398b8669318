#pragma once
// What is wrong, for GET /svc/r/health: what went wrong at start, and the state of each pool now.

#include <mutex>
#include <string>
#include <vector>

#include "platform/json/json_spirit.h"

namespace scsi_pool {
class SCSI_Pool_Sqlite_Manager;
}

namespace scsipoold {

// Any thread.
class Health {
 public:
  // Notes something that an administrator should know; it stays until the daemon is started again.
  void problem(const std::string& text);
  std::vector<std::string> problems() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> problems_;
};

struct Pool_State {
  std::string id;
  std::string name;
  std::string fs_type;
  std::string state;    // "ok", "not mounted", "missing", or a ZFS pool's own word such as "DEGRADED"
  std::string message;  // what to do about it; empty for "ok"
};

// The state of each pool of the catalog. False when the catalog cannot be read.
bool pool_states(scsi_pool::SCSI_Pool_Sqlite_Manager& catalog, std::vector<Pool_State>& states);

// {"status": "ok" or "degraded", "version", "pools": [...], "orphans": [...], "problems": [...]}
json_spirit::Value health_report(const Health& health, scsi_pool::SCSI_Pool_Sqlite_Manager& catalog);

}  // namespace scsipoold
