#pragma once
// What the saved target configuration and the kernel hold, and where they differ.

#include <string>
#include <vector>

#include "platform/lio/lio_backstore.h"
#include "platform/lio/lio_types.h"

// One LUN with all that matters about it.
struct LIO_Export {
  LIO_Target_Type type = TYPE_UNKNOWN;
  std::string target;
  bool demo_mode = false;  // every initiator may write
  bool enabled = false;
  unsigned short number = 0;
  LIO_Backstore::Type backstore_type = LIO_Backstore::file;
  std::string path;
  unsigned long size = 0;  // bytes; 0 for a block device
  std::string serial;
  LIO_ACLs acls;        // the kernel's have no host_uuid
  bool settled = true;  // false: an export that was not finished
};

struct LIO_Finding {
  enum Kind {
    MISSING_TARGET,     // saved, with LUNs; not in the kernel
    MISSING_LUN,        // saved, not in the kernel
    OTHER_LUN,          // the saved number holds another backstore
    WRONG_SERIAL,       // the kernel's serial number is not the saved one
    WRONG_MODE,         // demo or ACL mode is not as saved, or ACL mode is not clean
    WRONG_ENABLE,       // the group is not enabled, or enabled against the saved state
    MISSING_PORTAL,     // the group does not listen as saved
    MISSING_ACL,        // an initiator that may see a LUN cannot
    EXTRA_ACL,          // an initiator sees a LUN that it should not
    UNFINISHED_LUN,     // an export stopped in the middle
    LEFTOVER_LUN,       // a LUN of this system in the kernel, not saved
    LEFTOVER_FOLDER,    // an empty LUN, ACL or mapping folder, or a mapping of a LUN that is gone
    LEFTOVER_TARGET,    // a target or port group of this system without LUNs
    LEFTOVER_BACKSTORE  // a backstore of this system that no LUN uses
  };
  Kind kind = MISSING_LUN;
  LIO_Target_Type type = TYPE_UNKNOWN;
  std::string target;
  int number = -1;   // LUN number; -1 where none is meant
  std::string path;  // of the backstore, if known
  std::string initiator;
  std::string folder;  // of a leftover, below the configfs root's target folder
  std::string text;    // for people: what is wrong, and after a failed repair why it stayed
  bool mended = false;
};

// "missing_lun" and so on.
const char* lio_finding_name(LIO_Finding::Kind kind);

using LIO_Report = std::vector<LIO_Finding>;
