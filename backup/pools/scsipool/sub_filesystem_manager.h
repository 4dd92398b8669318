#pragma once
// Creates, clones, rolls back, mounts and removes the sub filesystems of one pool and keeps their catalog
// records in step. Built for one request and dropped; takes no lock. Nothing is undone on failure, except
// that mount() unmounts again when its record cannot be written.

#include <memory>
#include <string>

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class SCSI_Pool_Manager;

class Sub_Filesystem_Manager {
 public:
  struct Filesystem_Opts {
    std::string mount_point;  // may be empty
    json_spirit::Object ext_attrs;
  };

  explicit Sub_Filesystem_Manager(const std::string& pool_uuid);
  Sub_Filesystem_Manager(const Sub_Filesystem_Manager&) = delete;
  Sub_Filesystem_Manager& operator=(const Sub_Filesystem_Manager&) = delete;

  // Must come before every other call.
  bool open();

  bool create(const Filesystem_Opts& opts, const std::string& name);
  // Destroys a sub filesystem that has no snapshots; `force` skips the mounted check.
  bool remove(const std::string& name, bool force);
  // In the catalog and in the pool?
  bool exist(const std::string& name);
  // Appends the record of one sub filesystem.
  bool list(json_spirit::Array& result, const char* name);
  // To the newest snapshot, which is returned.
  bool rollback(const std::string& name, std::string& snapshot_id);
  bool clone(const std::string& snapshot_id, bool link_clone, const Filesystem_Opts& option,
             const std::string& target_name, bool record_relation);
  bool mount(const std::string& name);
  bool umount(const std::string& name);
  // Mounted, and recorded as mounted?
  bool mounted(const std::string& name);

  bool add_database_entry(const std::string& name, const std::string& snapshot_uuid, const char* ext_attrs);
  bool delete_database_entry(const std::string& name);

 private:
  bool newest_snapshot(const std::string& name, std::string& snapshot_id);

  std::string pool_uuid_;
  std::unique_ptr<SCSI_Pool_Sqlite_Manager> sqlite_impl_;
  SCSI_Pool_Manager* pool_mgr_;
  SCSI_Pool_Backstore_Manager_var back_mgr_;
};

}  // namespace scsi_pool
