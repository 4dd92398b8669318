#pragma once
// Creates, clones, rolls back, lists and removes the sub volumes (the storage of LUNs) of one pool and keeps
// their catalog records in step. Built for one request and dropped; takes no lock. Nothing is undone on
// failure.

#include <ace/Basic_Types.h>

#include <memory>
#include <string>

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class SCSI_Pool_Manager;

class Sub_Volume_Manager {
 public:
  struct Volume_Opts {
    ACE_UINT64 size = 0;        // bytes
    ACE_UINT32 block_size = 0;  // bytes; 0 takes the pool's
    bool link_clone = false;    // carried for callers; clone() takes its own argument
    json_spirit::Object ext_attrs;
  };

  explicit Sub_Volume_Manager(const std::string& pool_uuid);
  Sub_Volume_Manager(const Sub_Volume_Manager&) = delete;
  Sub_Volume_Manager& operator=(const Sub_Volume_Manager&) = delete;

  // Must come before every other call.
  bool open();

  // A new, empty sub volume. An empty `vol_uuid` is replaced by a new UUID.
  bool create(const Volume_Opts& opt, std::string& vol_uuid);
  // A sub volume from a snapshot, of the size of the snapshot's LUN; linked to it or a full copy. With
  // `record_relation` the catalog names the snapshot as its origin.
  bool clone(const std::string& snapshot_uuid, bool link_clone, const Volume_Opts& option,
             std::string& vol_uuid, bool record_relation);
  // Destroys a sub volume that has no snapshots, and its record.
  bool remove(const std::string& vol_uuid);
  // In the catalog and in the pool?
  bool exist(const std::string& vol_uuid);
  // Appends the records of all sub volumes of the pool, or of one. Those that the pool does not hold are left
  // out.
  bool list(json_spirit::Array& vols, const char* vol_uuid);
  // To the newest snapshot, which is returned.
  bool rollback(const std::string& vol_uuid, std::string& snapshot_uuid);
  // The attributes of the pool's new volumes. All of them must be there.
  bool get_attr_from_pool(SCSI_Pool_Backstore_Manager::volume_ext_attrs& attrs);

  // Records the volume; refreshes only the creation time of one that is recorded already.
  bool add_database_entry(const std::string& vol_uuid, const std::string& snapshot_uuid, ACE_UINT64 size,
                          const char* ext_attrs);
  bool delete_database_entry(const std::string& vol_uuid);

 private:
  // Appends one record; skips a volume that the pool does not hold. Throws on a bad row.
  void append_volume(const json_spirit::Object& row, json_spirit::Array& vols);

  std::string pool_uuid_;
  std::unique_ptr<SCSI_Pool_Sqlite_Manager> sqlite_impl_;
  SCSI_Pool_Manager* pool_mgr_;
  SCSI_Pool_Backstore_Manager_var back_mgr_;
};

// The LUN's newest snapshot in the catalog; false, without a message, when it has none.
bool newest_lun_snapshot(SCSI_Pool_Sqlite_Manager& catalog, const std::string& pool_id,
                         const std::string& lun_id, std::string& snapshot_id);

}  // namespace scsi_pool
