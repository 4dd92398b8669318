#pragma once
// Checks the bodies of pool requests at the door and turns them into the manager's options. Members are those
// of the pool record.

#include <string>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "platform/json/json_spirit.h"

namespace scsipoold {

struct Pool_Creation {
  std::string id;  // lower case; empty lets the manager choose
  std::string name;
  scsi_pool::SCSI_Pool_Manager::Pool_Option option;
  bool replace_orphan = false;  // remove a backing file of that id that a crash left behind
};

struct Pool_Change {
  std::string id;
  std::string name;          // empty: unchanged
  ACE_UINT16 retention = 0;  // 0: unchanged
  json_spirit::Object ext_attrs;
};

// False, with a message that names the member, when the body is not as it must be. `default_fs` is the
// filesystem type of pools that name none.
bool read_pool_creation(const json_spirit::Object& body, const std::string& default_fs,
                        Pool_Creation& creation, std::string& error);
bool read_pool_change(const json_spirit::Object& body, Pool_Change& change, std::string& error);

// Sets `id` to the lower-case form of a UUID. False for any other text.
bool read_pool_id(const std::string& text, std::string& id);

// The name of the iSCSI target of a pool that is given none: "iqn.2003-01.<host, reversed>:<pool name>".
std::string default_target(const std::string& host_name, const std::string& pool_name);

}  // namespace scsipoold
