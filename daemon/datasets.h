#pragma once
// What the handlers of LUNs, sub filesystems and snapshots share.

#include <memory>
#include <string>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "daemon/context.h"
#include "daemon/router.h"
#include "platform/lio/lio_types.h"

namespace scsipoold {

inline scsi_pool::SCSI_Pool_Manager* manager() {
  return scsi_pool::SCSI_Pool_Manager::instance();
}

// Each checks that the thing is there; false with the refusal (404) in `reply`.
bool find_pool(Context& context, const std::string& pool_id, Reply& reply);
bool find_lun(Context& context, const std::string& pool_id, const std::string& lun_id, Reply& reply);
bool find_filesystem(Context& context, const std::string& pool_id, const std::string& name, Reply& reply);
bool find_snapshot(Context& context, const std::string& pool_id, const std::string& snapshot_id, bool of_lun,
                   Reply& reply);

// The turn of a dataset for a change that a snapshot that is being received into it must not meet. Null, with
// the refusal (409) in `reply`, when one is still being received after a moment.
std::unique_ptr<platform::Turns::Turn> take_turn(Context& context, const std::string& pool_id, bool is_lun,
                                                 const std::string& dataset, Reply& reply);

// How the pool's LUNs are exported; TYPE_UNKNOWN for a pool that is not known.
LIO_Target_Type pool_target_type(Context& context, const std::string& pool_id);
// "zfs" or "btrfs"; empty for a pool that is not known.
std::string pool_fs_type(Context& context, const std::string& pool_id);

// The attribute "retention_type" goes into a dataset's extended attributes; empty leaves them as they are.
// False with the refusal in `reply` for any other text than "newest" and "normal".
bool add_retention_type(const std::string& retention_type, json_spirit::Object& ext_attrs, Reply& reply);

}  // namespace scsipoold
