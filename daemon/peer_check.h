#pragma once
// Connects to the host of a peer's pool and says what is wrong, step by step.

#include <string>

#include "daemon/router.h"
#include "platform/json/json_spirit.h"

namespace scsipoold {

// Looks at "address", "connection", "access key", "pool" and "filesystem type" (compared with `wanted_fs`
// unless that is empty). Objects with "step", "ok" and "message"; the first that fails is the last.
json_spirit::Array check_peer(const std::string& pool_id, const std::string& wanted_fs);

// Deletion takes the target's refusal for absence there, so that a wrong key would leave copies behind that
// nobody knows of. False, with the refusal in `reply`, when the host that the pool replicates to refuses the
// key; true for a pool that does not replicate, and when the host does not answer.
bool target_takes_key(const std::string& pool_id, Reply& reply);

}  // namespace scsipoold
