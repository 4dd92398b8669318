#pragma once
// Deletes the snapshots of one dataset that are marked for recycling and no longer needed, by the dataset's
// retention type. Built for one call of recycle() and dropped; takes no lock: the snapshots' states, standby
// counts and exports in the catalog protect what is in use.

#include <ace/Basic_Types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/scsipool_export.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class SCSIPOOL_Export Recycle_Manager {
 public:
  using Snapshot_List = std::vector<std::string>;

  // What would become of one candidate, for explain().
  struct Verdict {
    std::string snapshot_id;
    bool remove = false;
    std::string reason;
  };

  explicit Recycle_Manager(const std::string& pool_uuid);

  // The dataset's snapshots as records, oldest first.
  virtual bool list_target_snapshots(const std::string& dataset, json_spirit::Array& snapshots) = 0;
  virtual bool get_retention_type(const std::string& dataset,
                                  SCSI_Pool_Manager::LUN_RETENTION_TYPE& type) = 0;
  virtual bool exist(const std::string& dataset) = 0;
  // Here and on the replication target.
  virtual bool delete_snapshot(const std::string& snapshot_id) = 0;
  virtual bool get_snapshot_state_info(const std::string& snapshot_id, std::string& state,
                                       uint16_t& standby) = 0;
  virtual bool snapshot_exported(const std::string& snapshot_id) = 0;
  // The ids of the dataset's snapshots that the replication target holds.
  virtual bool get_target_pool_snapshots(const std::string& target_pool, const std::string& dataset,
                                         Snapshot_List& list) = 0;
  // What the storage would lose with the snapshot, which is why it will not delete it. False when the storage
  // does not tell.
  virtual bool dependent_clones(const std::string& dataset, const std::string& snapshot_id,
                                std::vector<std::string>& clones);
  virtual ~Recycle_Manager() = default;

  // The entry point; `dataset` is a LUN's UUID or a sub filesystem's name. A snapshot that cannot be removed
  // is passed over; false only when it cannot be told what to remove.
  bool recycle(const std::string& dataset);

  // What recycle() would do now with each candidate, and why; changes nothing.
  bool explain(const std::string& dataset, std::vector<Verdict>& verdicts);

 private:
  bool recycle_default(const std::string& dataset);
  bool recycle_newest(const std::string& dataset);
  bool get_recycle_snapshot_list(const std::string& dataset, Snapshot_List& list);
  bool check_and_remove(const std::string& snapshot_id);
  bool get_snapshot_catalog_info(const std::string& pool_uuid, const std::string& snapshot_id,
                                 std::string& catalog_uuid);

  void remove_all(const Snapshot_List& snapshots);
  bool target_reachable();
  bool get_pool_retention(ACE_UINT64& retention);
  // Why the snapshot is in use; empty when it may be removed. False when its state cannot be read.
  bool in_use(const std::string& snapshot_id, std::string& why);
  // Splits the candidates of each retention type into those to remove, oldest first, and those that stay.
  bool select_default(const std::string& dataset, Snapshot_List& remove, Snapshot_List& keep);
  bool select_newest(const std::string& dataset, Snapshot_List& remove, Snapshot_List& keep);
  // Why a snapshot that retention does not keep stays all the same; empty when it goes.
  std::string obstacle(const std::string& dataset, const std::string& snapshot_id);

 protected:
  std::string pool_uuid_;
  SCSI_Pool_Manager* mgr_;

 private:
  bool target_away_ = false;
};

}  // namespace scsi_pool
