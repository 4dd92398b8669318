#pragma once
// One LUN or sub filesystem behind one face, so that replication treats both alike. A copyable value, used by
// one thread at a time; every operation is forwarded to the pool manager.

#include <ace/Basic_Types.h>

#include <string>
#include <vector>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/scsipool_export.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class SCSIPOOL_Export Dataset_Manager {
 public:
  enum Dataset_Type { TYPE_UNKNOWN = 0, TYPE_VOLUME = 1, TYPE_FILESYSTEM = 2 };

  Dataset_Manager();
  explicit Dataset_Manager(std::string pool_uuid);

  // Takes the dataset from "lun_uuid" or else from "filesystem_name"; without either the type becomes
  // unknown.
  void reset(const json_spirit::Object& obj);
  void reset(Dataset_Type type, std::string dataset);
  void pool_uuid(std::string pool_uuid) { pool_uuid_ = std::move(pool_uuid); }

  Dataset_Type type() const { return type_; }
  const std::string& dataset() const { return dataset_; }
  // "lun_uuid" or "filesystem_name"; null for an unknown type.
  const char* type_key() const;
  // "lun" or "filesystem"; null for an unknown type.
  const char* type_name() const { return type_to_name(type_); }
  static const char* type_to_name(Dataset_Type type);

  // Is the type known and, when asked for, the dataset named?
  bool inited(bool with_dataset) const;

  // These need the type and the dataset.
  bool get_snapshots(json_spirit::Array& snapshots) const;
  bool snapshot_exist_with_seq(ACE_UINT64 seq) const;
  bool delete_snapshot(ACE_UINT64 seq) const;
  bool dataset_exist() const;
  bool add_snapshot_to_db(const std::string& snapshot_id, ACE_UINT64 seq, bool recycle) const;
  bool retention_type(SCSI_Pool_Manager::LUN_RETENTION_TYPE& type) const;

  // These need the type only.
  bool get_snapshot(const char* snapshot_uuid, json_spirit::Array& snapshots) const;
  bool add_snapshot_standby(const std::string& snapshot_id) const;
  bool sub_snapshot_standby(const std::string& snapshot_id) const;
  bool reset_snapshot_standby() const;
  bool update_snapshot_state(const std::string& snapshot_id, SCSI_Pool_Manager::SNAPSHOT_STATE state) const;
  // Of every snapshot of this kind in the pool.
  bool reset_snapshot_state() const;
  bool snapshot_exist(const std::string& snapshot_id) const;
  // True when at least one of them is recorded.
  bool snapshot_exist(const std::vector<std::string>& snapshot_ids) const;

 private:
  bool is_lun() const { return type_ == TYPE_VOLUME; }

  SCSI_Pool_Manager* mgr_;
  Dataset_Type type_ = TYPE_UNKNOWN;
  std::string dataset_;
  std::string pool_uuid_;
};

}  // namespace scsi_pool
