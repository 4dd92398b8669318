#pragma once
// A mountable dataset inside a pool. Same rules as Filesystem.

#include <ace/Basic_Types.h>

#include <memory>
#include <string>

#include "backup/pools/scsipool/fs_info.h"
#include "backup/pools/scsipool/snapshot.h"

class ACE_Process_Ex;

namespace scsi_pool {

class Sub_Filesystem {
 public:
  virtual ~Sub_Filesystem() = default;

  // `force` skips the check that it is not mounted.
  virtual bool destroy(bool force) = 0;
  virtual bool get_used_size(ACE_UINT64& size) const = 0;
  virtual bool set_reservation(ACE_UINT64 size) const = 0;
  virtual bool mount(const FS_Info_Item& info) = 0;
  virtual bool umount() = 0;
  virtual bool mounted() = 0;
  virtual bool get_mount_point(std::string& mount_point) const = 0;
  virtual bool set_mount_point(const std::string& mount_point) = 0;
  virtual Snapshot* create_snapshot(const char* name, const FS_Info_Item& info) = 0;
  virtual Snapshot* get_snapshot(const char* name) const = 0;
  virtual bool snapshot_exist(const char* name) const = 0;
  virtual bool get_info(FS_Info_Item& info) const = 0;
  virtual bool rollback(const char* snapshot_name) = 0;
  virtual bool receive_snapshot(const char* name, bool force, ACE_Process_Ex* proc) = 0;
};

using Sub_Filesystem_var = std::unique_ptr<Sub_Filesystem>;

}  // namespace scsi_pool
