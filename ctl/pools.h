#pragma once
// Pools as commands name them: by id or by name.

#include <string>

#include "ctl/session.h"

namespace ctl {

// The record of the one pool of that id or name. False, with the cause written, when there is none or the
// name is not unique.
bool find_pool(Session& session, const std::string& id_or_name, json_spirit::Object& pool);

// The id of the one pool of that id or name; an id is taken as it is, for the daemon to judge. (A pool whose
// storage is missing is not listed: its name is looked up in the health report.)
bool find_pool_id(Session& session, const std::string& id_or_name, std::string& id);

// The same for the pools that the storage catalog knows, peers' and own.
bool find_known_pool_id(Session& session, const std::string& id_or_name, std::string& id);

}  // namespace ctl
