#pragma once
// A read-only point-in-time copy of a volume or sub filesystem. Same rules as Filesystem.

#include <ace/Basic_Types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "backup/pools/scsipool/fs_info.h"

class ACE_Process_Ex;

namespace scsi_pool {

class Snapshot {
 public:
  virtual ~Snapshot() = default;

  virtual bool destroy() = 0;
  virtual bool is_readonly(bool& readonly) const = 0;
  virtual bool get_info(FS_Info_Item& info) const = 0;
  virtual bool size(ACE_UINT64& size) const = 0;
  // Exclusive and referenced bytes.
  virtual bool size(ACE_UINT64& excl, ACE_UINT64& rfer) const = 0;
  // Spawns the sending tool in `proc`, whose standard output carries the stream; the caller reads and waits.
  // `increment` names the snapshots that the receiver holds already, oldest first; empty for a full stream.
  virtual bool send(const std::vector<std::string>& increment, ACE_Process_Ex* proc) = 0;
  // Which snapshot of the sending side it was received from, as the filesystem has it; empty when it was not
  // received or the filesystem does not say. Only a whole one has it.
  virtual bool received_uuid(std::string& uuid) const {
    uuid.clear();
    return true;
  }
};

using Snapshot_var = std::unique_ptr<Snapshot>;

struct Snapshot_Size {
  ACE_UINT64 excl = 0;
  ACE_UINT64 rfer = 0;
};
using Snapshot_Sizes = std::map<std::string, Snapshot_Size>;  // by the snapshot's name

// How a driver measured all snapshots of a dataset at once: it has no tool for that, the tool ran (and told
// what it could), or the tool did not answer, so that nothing is known of any.
enum class Sizes_Read { NO_TOOL, TOLD, NO_ANSWER };

}  // namespace scsi_pool
