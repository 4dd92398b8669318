#pragma once
// The facade of the module: pools, LUNs, snapshots and sub filesystems. One object for the process, opened by
// the service before other threads use it. All operations return true on success (or "yes"), log one line on
// failure and never throw. Unless said otherwise nothing that an earlier step did is undone on failure.

#include <ace/Basic_Types.h>
#include <ace/Null_Mutex.h>
#include <ace/RW_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "backup/pools/scsipool/scsipool_export.h"
#include "backup/pools/scsipool/sub_volume_exporter.h"
#include "platform/base/turns.h"
#include "platform/json/json_spirit.h"
#include "platform/lio/lio_types.h"

namespace scsi_pool {

class SCSIPOOL_Export SCSI_Pool_Manager {
 public:
  enum SNAPSHOT_STATE { IDLE_STATE = 0, SENDING_STATE = 1, DEPEND_STATE = 2, READY_TO_SEND = 3 };
  enum LUN_RETENTION_TYPE { RETENTION_TYPE_NORMAL = 0, RETENTION_TYPE_NEWEST = 1 };

  struct Pool_Option {
    ACE_UINT64 size = 0;     // of the backing store, bytes
    std::string fs_type;     // "zfs" or "btrfs"
    std::string global_dev;  // empty: a file of its own
    bool thin_provision = false;
    std::string compression;
    bool dedup = false;
    LIO_Target_Type lun_type = TYPE_UNKNOWN;
    std::string target;        // the SCSI target that the pool's LUNs are exported under
    ACE_UINT16 retention = 0;  // snapshots kept by recycling
    json_spirit::Object ext_attrs;
  };

  struct LUN_Option {
    ACE_UINT64 size = 0;  // of a new empty LUN, bytes
    LIO_ACLs acls;
    bool lun_export = false;
    ACE_UINT32 block_size = 0;  // of a new empty LUN, bytes; 0 takes the pool's
    json_spirit::Object ext_attrs;
    bool link_clone = false;  // for a LUN made from a snapshot: link clone or full copy
  };

  struct FS_Option {
    std::string mount_point;  // the last component of the mount point; empty means the name
    json_spirit::Object ext_attrs;
    bool link_clone = false;
  };

  // The process-wide object, made at first use without a lock; close_instance() destroys it.
  static SCSI_Pool_Manager* instance();
  static void close_instance();

  // Lifecycle and settings (scsi_pool_manager.cpp). Not to be called while other operations run.
  bool open(const char* fs_type, ACE_UINT32 block_size, const char* global_dev, std::string mount_point);
  void close();
  bool get_global_filesystem(std::string& type) const;
  ACE_UINT32 get_block_size() const;
  bool get_global_device(std::string& dev) const;

  // Pools (scsi_pool_manager_pool.cpp).
  bool list_pools(json_spirit::Array& pools, const char* pool_id);
  bool create_pool(std::string& pool_id, const std::string& pool_name, const Pool_Option& option);
  bool delete_pool(const std::string& pool_id, bool force);
  bool update_pool(const std::string& pool_id, ACE_UINT16 retention, const std::string& name,
                   const json_spirit::Object& ext_attrs);
  bool pool_exist(const std::string& pool_id);
  bool pool_busy(const std::string& pool_id);
  bool verify_remaing_space(const std::string& pool_id);
  bool get_pool_backstore_info(const std::string& pool_id, std::string& fs_type, std::string& global_dev);
  bool get_pool_ext_attrs(const std::string& pool_id, json_spirit::Object& info);
  SCSI_Pool_Backstore_Manager* init_backstore_mgr(const std::string& pool_id);

  // Maintenance (scsi_pool_manager_maintenance.cpp).
  bool trim_backstore(const std::string& pool_id, const std::string& lun_id);
  bool list_pools_acls(LIO_ACLs& acls, const char* pool_uuid);
  bool remove_copy(const char* pool_id, const char* snapshot_id);
  bool add_lio_fc_target(const char* target);

  // LUNs (scsi_pool_manager_lun.cpp).
  bool list_lun(const std::string& pool_id, json_spirit::Array& lun_list, const char* lun_id);
  bool create_lun(const std::string& pool_id, const LUN_Option& option, std::string& lun_id,
                  ACE_UINT16& lun_num);
  bool create_lun(const std::string& pool_id, const std::string& snapshot_id, const LUN_Option& option,
                  std::string& lun_id, ACE_UINT16& lun_num);
  bool update_lun_with_snapshot(const std::string& pool_id, const std::string& lun_id, ACE_UINT16& lun_num,
                                std::string& snapshot_id, bool force);
  bool delete_lun(const std::string& pool_id, const std::string& lun_id, bool force);
  bool export_lun(const std::string& pool_id, const std::string& lun_id,
                  Sub_Volume_Exporter::Export_Info& export_info);
  bool unexport_lun(const std::string& pool_id, const std::string& lun_id, bool force);
  bool lun_exported(const std::string& pool_id, const std::string& lun_id,
                    Sub_Volume_Exporter::Export_Info& info);
  bool lun_exist(const std::string& pool_id, const std::string& lun_id);
  bool update_lun_acls(const std::string& pool_id, const std::string& lun_id, const LIO_ACLs& acls, bool add);
  bool get_target_info(const std::string& pool_id, std::string& type, std::string& target);
  bool set_volume_ext_attrs(const std::string& pool_id, SCSI_Pool_Backstore_Manager::volume_ext_attrs& attrs);
  bool create_lun_backstore(const std::string& path, ACE_UINT64 size);

  // LUN snapshots (scsi_pool_manager_snapshot.cpp, ..._snapshot_export.cpp, ..._snapshot_state.cpp).
  bool create_snapshot(const std::string& pool_id, const std::string& lun_id, std::string& snapshot_id,
                       bool recycle);
  bool create_snapshots(const std::string& pool_id, const std::vector<std::string>& luns_id,
                        const std::string& catalog_uuid, std::map<std::string, std::string>& snapshots_id,
                        bool recycle);
  bool list_snapshot(const std::string& pool_id, json_spirit::Array& snapshot_list, const char* snapshot_id);
  bool list_lun_snapshots(const std::string& pool_id, const std::string& lun_id,
                          json_spirit::Array& snapshots);
  bool delete_snapshot(const std::string& pool_id, const std::string& snapshot_id, bool delete_empty_lun);
  bool delete_snapshot(const std::string& pool_id, const std::string& lun_id, ACE_UINT64 seq,
                       bool delete_empty_lun);
  bool export_snapshot(const std::string& pool_id, const std::string& snapshot_id, const LIO_ACLs& acls,
                       ACE_UINT16& lun_num, bool only_once, const char* new_type, const char* new_target);
  bool unexport_snapshot(const std::string& pool_id, const std::string& snapshot_id, ACE_UINT16 lun_num);
  bool snapshot_exported(const std::string& pool_id, const std::string& snapshot_id);
  // The datasets that the storage cannot keep without this snapshot, of a LUN or else of a sub filesystem
  // named `dataset`: clones that share its blocks, exports of it among them. False when the storage does not
  // tell.
  bool dependent_clones(const std::string& pool_id, const std::string& dataset,
                        const std::string& snapshot_id, bool is_lun, std::vector<std::string>& clones);
  bool update_snapshot_acls(const std::string& pool_id, const std::string& snapshot_id, int lun_num,
                            const LIO_ACLs& acls, bool add);
  bool snapshot_exist(const std::string& pool_id, const std::string& snapshot_id);
  bool snapshots_exist(const std::string& pool_id, const std::vector<std::string>& snapshots);
  bool snapshot_exist_with_seq(const std::string& pool_id, const std::string& lun_id, ACE_UINT64 seq);
  bool add_snapshot_to_db(const std::string& pool_id, const std::string& lun_id,
                          const std::string& snapshot_id, ACE_UINT64 seq, bool recycle);
  bool check_pool_replication(const std::string& pool_id, std::string& target_pool_id,
                              std::string& extended_attrs);
  bool update_snapshot_recycle(const std::string& pool_id, const std::string& snapshot_id, bool recycle);
  bool update_snapshot_state(const std::string& pool_id, const std::string& snapshot_id,
                             SNAPSHOT_STATE state);
  bool reset_snapshots_state(const std::string& pool_id);
  static std::string snapshot_state_val_to_key(SNAPSHOT_STATE state);
  bool add_snapshot_standby(const std::string& pool_id, const std::string& snapshot_id);
  bool sub_snapshot_standby(const std::string& pool_id, const std::string& snapshot_id);
  bool reset_snapshot_standby(const std::string& pool_id, const std::string& lun_id);
  bool get_snapshot_state_info(const std::string& pool_id, const std::string& snapshot_id, std::string& state,
                               ACE_UINT16& standby);
  bool get_snapshot_parent_id(const std::string& pool_id, const std::string& snapshot_id,
                              std::string& parent_id);

  // Sub filesystems (scsi_pool_manager_filesystem.cpp).
  bool list_filesystem(const std::string& pool_id, json_spirit::Array& result, const char* name);
  bool create_filesystem(const std::string& pool_id, const FS_Option& option, const std::string& name);
  bool create_filesystem(const std::string& pool_id, const std::string& snapshot_id, const FS_Option& option,
                         const std::string& name);
  bool delete_filesystem(const std::string& pool_id, const std::string& name);
  bool filesystem_exist(const std::string& pool_id, const std::string& name);
  bool mount_filesystem(const std::string& pool_id, const std::string& name);
  bool umount_filesystem(const std::string& pool_id, const std::string& name);
  bool filesystem_mounted(const std::string& pool_id, const std::string& name, bool& result);
  bool get_mounted_filesystem(const std::string& pool_id, const std::string& name,
                              json_spirit::Array& result);
  bool get_filesystem_mount_point(const std::string& pool_id, const std::string& name,
                                  std::string& mount_point);
  bool set_filesystem_mount_point(const std::string& pool_id, const std::string& name,
                                  const std::string& mount_point);
  bool rollback_filesystem_to_newest(const std::string& pool_id, const std::string& name,
                                     std::string& snapshot_id);
  bool resume_mount_points();

  // Sub filesystem snapshots (scsi_pool_manager_filesystem_snapshot.cpp).
  bool create_filesystem_snapshot(const std::string& pool_id, const std::string& name,
                                  std::string& snapshot_id, bool recycle);
  bool create_filesystem_snapshots(const std::string& pool_id, const std::vector<std::string>& names,
                                   const std::string& catalog_uuid,
                                   std::map<std::string, std::string>& snapshots_id, bool recycle);
  bool list_filesystem_snapshot(const std::string& pool_id, json_spirit::Array& snapshot_list,
                                const char* snapshot_id);
  bool list_filesystem_snapshots(const std::string& pool_id, const std::string& name,
                                 json_spirit::Array& snapshots);
  bool delete_filesystem_snapshot(const std::string& pool_id, const std::string& snapshot_id,
                                  bool delete_empty_fs);
  bool delete_filesystem_snapshot(const std::string& pool_id, const std::string& name, ACE_UINT64 seq,
                                  bool delete_empty_fs);
  bool filesystem_snapshot_exist(const std::string& pool_id, const std::string& snapshot_id);
  bool filesystem_snapshots_exist(const std::string& pool_id, const std::vector<std::string>& snapshots);
  bool filesystem_snapshot_exist_with_seq(const std::string& pool_id, const std::string& name,
                                          ACE_UINT64 seq);
  bool add_filesystem_snapshot_to_db(const std::string& pool_id, const std::string& name,
                                     const std::string& snapshot_id, ACE_UINT64 seq, bool recycle);
  bool update_filesystem_snapshot_recycle(const std::string& pool_id, const std::string& snapshot_id,
                                          bool recycle);
  bool update_filesystem_snapshot_state(const std::string& pool_id, const std::string& snapshot_id,
                                        SNAPSHOT_STATE state);
  bool reset_filesystem_snapshots_state(const std::string& pool_id);
  bool add_filesystem_snapshot_standby(const std::string& pool_id, const std::string& snapshot_id);
  bool sub_filesystem_snapshot_standby(const std::string& pool_id, const std::string& snapshot_id);
  bool reset_filesystem_snapshot_standby(const std::string& pool_id, const std::string& name);
  bool get_filesystem_snapshot_state_info(const std::string& pool_id, const std::string& snapshot_id,
                                          std::string& state, ACE_UINT16& standby);
  bool get_filesystem_snapshot_parent(const std::string& pool_id, const std::string& snapshot_id,
                                      std::string& name);

  // Retention (scsi_pool_manager_retention.cpp).
  bool lun_retention_type(const std::string& pool_id, const std::string& lun_id, LUN_RETENTION_TYPE& type);
  bool filesystem_retention_type(const std::string& pool_id, const std::string& name,
                                 LUN_RETENTION_TYPE& type);
  static bool lun_retention_valid(const std::string& type);

 private:
  // The base of ACE_Unmanaged_Singleton, which holds the object.
  friend class ACE_Singleton<SCSI_Pool_Manager, ACE_Null_Mutex>;
  SCSI_Pool_Manager();
  ~SCSI_Pool_Manager();
  SCSI_Pool_Manager(const SCSI_Pool_Manager&) = delete;
  SCSI_Pool_Manager& operator=(const SCSI_Pool_Manager&) = delete;

  // Has open() made the catalog? Logs a violation otherwise.
  bool has_catalog() const;
  // Adds the record of a listed pool to `pools`; skips a pool whose storage does not answer. Throws on a bad
  // row.
  bool append_pool(const json_spirit::Object& row, json_spirit::Array& pools);
  // Removes the pool's LUNs, last first, up to the first that cannot be removed.
  bool delete_pool_luns(const std::string& pool_id, bool force);
  // Adds the record of a listed LUN; skips one whose storage does not answer. Throws on a bad row.
  void append_lun(const std::string& pool_id, const json_spirit::Object& row,
                  const Sub_Volume_Exporter::Export_Info& target, SCSI_Pool_Backstore_Manager& backstore,
                  json_spirit::Array& lun_list);
  // Exports a new LUN when the option asks for it; `lun_num` is its number then.
  bool export_new_lun(const std::string& pool_id, const std::string& lun_id, const LUN_Option& option,
                      ACE_UINT16& lun_num);

  // list_snapshot(), or only the records of one LUN when `lun_id` is given; the storage of others is not
  // touched.
  bool list_snapshot_records(const std::string& pool_id, json_spirit::Array& snapshot_list,
                             const char* snapshot_id, const std::string* lun_id);
  void append_snapshot_record(const Snapshot_Sizes& sizes, const std::string& pool_id,
                              const json_spirit::Object& row, json_spirit::Array& snapshot_list);
  // Adds how the snapshot is exported through that clone, when it is.
  void add_export_of_snapshot(const std::string& pool_id, const std::string& clone,
                              json_spirit::Object& record);
  // Is it known that no clone lives on this snapshot? Logs which ones do.
  bool free_of_clones(const std::string& pool_id, const std::string& dataset, const std::string& snapshot_id,
                      bool is_lun);
  bool list_filesystem_snapshot_records(const std::string& pool_id, json_spirit::Array& snapshot_list,
                                        const char* snapshot_id, const std::string* filesystem);
  // The exports of one snapshot, as rows of the catalog.
  bool exports_of_snapshot(const std::string& pool_id, const std::string& snapshot_id,
                           json_spirit::Array& exports);
  // Submits a job for a pool that replicates: all its datasets when no job is pending, else the `taken` ones.
  // Each dataset becomes an object with the single key `type_key`. Only a missing job manager is a failure.
  bool submit_replication(const std::string& pool_id, const std::string& catalog_uuid, const char* type_key,
                          const std::vector<std::string>& taken);
  // The names of all LUNs or sub filesystems of the pool, as `type_key` says which.
  bool list_dataset_names(const std::string& pool_id, const char* type_key, std::vector<std::string>& names);
  // Reads state and standby count from the catalog; the caller holds lock_.
  bool read_state_info(const std::string& pool_id, const std::string& snapshot_id, bool is_lun,
                       std::string& state, ACE_UINT16& standby);
  // Where the mount point of a sub filesystem lies; makes the folders. False for a leaf that is no plain
  // name.
  bool mount_point_path(const std::string& pool_id, const std::string& leaf, std::string& path);
  std::string recorded_mount_point(const std::string& pool_id, const std::string& name);
  void remove_mount_folder(const std::string& path);

  ACE_RW_Thread_Mutex target_lock_;  // declared for target work; changes are serialised by scsi_pool::LOCK
  ACE_RW_Thread_Mutex lock_;         // sequence numbers, snapshot rows and standby counts
  // Of datasets, from taking a snapshot to its record: two at once would get their numbers in the wrong
  // order.
  platform::Turns snapshot_turns_;
  platform::Turns trim_turns_;  // of LUNs, while they are unexported to be trimmed
  std::unique_ptr<SCSI_Pool_Sqlite_Manager> sqlite_impl_;
  std::string global_filesystem_type_;
  std::string global_dev_;
  std::string mount_point_;
  ACE_UINT32 global_block_size_;
};

}  // namespace scsi_pool
