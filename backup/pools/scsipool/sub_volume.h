#pragma once
// A block volume inside a pool, the storage of one LUN. Same rules as Filesystem.

#include <ace/Basic_Types.h>

#include <memory>
#include <string>

#include "backup/pools/scsipool/fs_info.h"
#include "backup/pools/scsipool/snapshot.h"

class ACE_Process_Ex;

namespace scsi_pool {

class Sub_Volume {
 public:
  virtual ~Sub_Volume() = default;

  virtual bool destroy() = 0;
  virtual bool get_info(FS_Info_Item& info) const = 0;
  // One named property.
  virtual bool get_info(const char* name, std::string& val) const = 0;
  virtual bool set_info(const char* key, const char* value) = 0;
  virtual bool rollback(const char* snapshot) = 0;
  // Bytes in use, not the nominal size.
  virtual bool get_used_size(ACE_UINT64& size) const = 0;
  // The path by which the volume's data is reached.
  virtual bool get_dataset(std::string& path) const = 0;
  virtual Snapshot* create_snapshot(const char* name, const FS_Info_Item& info) = 0;
  virtual Snapshot* get_snapshot(const char* name) const = 0;
  virtual bool snapshot_exist(const char* name) const = 0;
  // Spawns the receiving tool in `proc`, whose standard input takes the stream; the caller feeds and waits.
  virtual bool receive_snapshot(const char* name, bool force, ACE_Process_Ex* proc) = 0;
};

using Sub_Volume_var = std::unique_ptr<Sub_Volume>;

}  // namespace scsi_pool
