#pragma once
// Quota groups of a mounted Btrfs filesystem: every subvolume has the group 0/<its id> with its sizes.

#include <ace/Basic_Types.h>

#include <string>

#include "backup/pools/scsipool/fs_info.h"

namespace scsi_pool {

class Btrfs_Quota {
 public:
  explicit Btrfs_Quota(const char* mount_point) : mount_point_(mount_point ? mount_point : "") {}

  bool enable(bool val);
  // Makes or destroys the group <level>/<id>. Logs nothing when the tool refuses.
  bool create_qgroup(bool create, ACE_UINT16 qgroup_level, ACE_UINT16 qgroup_id);
  // {level, rfer, excl} of the subvolume's group, decimal texts. When the tool says that the figures are
  // inconsistent, a rescan is started in the background, at most once in ten minutes for a filesystem; the
  // figures are returned as they are.
  bool show_qgroup(const char* sub_path, FS_Info_Item& info) const;

  enum class Removal { REMOVED, NOTHING_THERE, REFUSED, FAILED };
  // Destroys the group 0/<id> of a subvolume that is about to be deleted, with the full id. REFUSED: the
  // kernel keeps groups of living subvolumes (all kernels since early 2024); sweep with clear_stale once the
  // subvolume is gone.
  Removal remove_subvolume_qgroup(ACE_UINT64 id);
  // Removes the groups that deleted subvolumes left. Groups whose subvolume is not fully dropped stay,
  // silently.
  void clear_stale();

 private:
  void rescan_if_advised(const std::string& errors) const;

  std::string mount_point_;
};

}  // namespace scsi_pool
