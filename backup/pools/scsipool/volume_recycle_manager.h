#pragma once
// Recycling of a LUN's snapshots.

#include "backup/pools/scsipool/recycle_manager.h"
#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

class SCSIPOOL_Export Volume_Recycle_Manager : public Recycle_Manager {
 public:
  explicit Volume_Recycle_Manager(const std::string& pool_uuid);

  bool list_target_snapshots(const std::string& dataset, json_spirit::Array& snapshots) override;
  bool get_retention_type(const std::string& dataset, SCSI_Pool_Manager::LUN_RETENTION_TYPE& type) override;
  bool exist(const std::string& dataset) override;
  bool delete_snapshot(const std::string& snapshot_id) override;
  bool get_snapshot_state_info(const std::string& snapshot_id, std::string& state,
                               uint16_t& standby) override;
  bool snapshot_exported(const std::string& snapshot_id) override;
  bool get_target_pool_snapshots(const std::string& target_pool, const std::string& dataset,
                                 Snapshot_List& list) override;
  bool dependent_clones(const std::string& dataset, const std::string& snapshot_id,
                        std::vector<std::string>& clones) override;
};

}  // namespace scsi_pool
