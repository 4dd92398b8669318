#pragma once
// Maps the paths of subvolumes to their ids.

#include <ace/Basic_Types.h>

#include <map>
#include <string>

#include "backup/pools/scsipool/fs_info.h"

namespace scsi_pool {

// Path below the filesystem's top, without a leading slash, to the low 16 bits of the id.
using Name_ID_Map = std::map<std::string, ACE_UINT16>;

class Btrfs_Qgroup_ID_Getter {
 public:
  // `list_read_only`: only read-only subvolumes, that is finished snapshots.
  Btrfs_Qgroup_ID_Getter(const std::string& mount_point, bool list_read_only)
      : mount_point_(mount_point), list_read_only_(list_read_only) {}

  bool get_ids(Name_ID_Map& maps);
  // 0 when there is none of exactly that path or the listing fails.
  ACE_UINT16 get_id(const std::string& name);
  // The same with all bits: ids only grow and pass 65535 with the years, and a cut id names another
  // subvolume. What is destroyed or changed is addressed with this one.
  ACE_UINT64 get_full_id(const std::string& name);

 private:
  bool list(FS_Info_List& records);

  std::string mount_point_;
  bool list_read_only_;
};

}  // namespace scsi_pool
