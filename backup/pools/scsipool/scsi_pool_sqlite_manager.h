#pragma once
// The catalog of pools, volumes (LUNs and clones), snapshots, exports and sub filesystems: who exists, under
// which identity, with which numbers, marks and extended attributes. The storage holds the data, the catalog
// the names.
//
// An instance has no state but an error code; each call takes a connection of its own and runs one statement,
// so any thread may call any instance. Nothing is cached and there are no transactions: callers that need two
// calls to belong together hold their own lock.
//
// All operations return true on success or "found" and never throw. UUIDs go in and come out as text; a UUID
// argument that is no UUID makes the operation fail. Reads leave their result argument alone unless they
// succeed (get_last_seq and get_last_filesystem_seq always write it). A read of one record that finds none is
// false without a log line; a list that is empty is a success. An optional `const char*` filter applies when
// it is neither null nor empty. Records come back as objects keyed by column, with booleans and UUID text;
// sizes are bytes.

#include <ace/Basic_Types.h>

#include <memory>
#include <string>

#include "backup/pools/scsipool/scsipool_export.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class SCSIPOOL_Export SCSI_Pool_Sqlite_Manager {
 public:
  using Object = json_spirit::Object;
  using Array = json_spirit::Array;

  enum Error_Code { E_OK = 0, E_INPUT_INVALID = 1, E_SQL_COMMAND_FAILED = 2, E_UNKNOWN = 3 };
  enum Snapshot_List_Mode { SNAPSHOT_LIST_ALL = 0, SNAPSHOT_LIST_RECYCLE = 1, SNAPSHOT_LIST_NOT_RECYCLE = 2 };

  struct Volume_Info {
    std::string uuid;
    std::string snapshot_uuid;  // the snapshot that a clone came from; the all-zero UUID for a LUN
    std::string pool_uuid;
    ACE_UINT64 size = 0;
    std::string ctime;
    std::string extended_attrs;  // a JSON object as text
  };

  struct Filesystem_Info {
    std::string name;
    std::string snapshot_uuid;  // as in Volume_Info
    std::string pool_uuid;
    std::string ctime;
    std::string extended_attrs;
    std::string mountpoint;
    bool mounted = false;
  };

  SCSI_Pool_Sqlite_Manager() : error_(E_OK) {}
  virtual ~SCSI_Pool_Sqlite_Manager() = default;

  // Always E_OK with the shipped implementation, which reports by result and log.
  Error_Code get_err_code() const { return error_; }

  virtual bool open() = 0;
  virtual bool close() = 0;

  virtual bool add_pool(const std::string& pool_uuid, const std::string& name, const std::string& fs_type,
                        const std::string& global_dev, const std::string& compression, bool dedup,
                        bool thin_provision, ACE_UINT64 pool_size, const std::string& type,
                        const std::string& target, ACE_UINT16 retention, const std::string& ext_attrs) = 0;
  // True as well when there is no such pool.
  virtual bool del_pool(const std::string& pool_uuid) = 0;
  virtual bool update_pool(const std::string& pool_uuid, ACE_UINT16 retention, const std::string& name,
                           const std::string& ext_attrs) = 0;
  virtual bool add_volume(const Volume_Info& info) = 0;
  virtual bool del_volume(const std::string& pool_uuid, const std::string& uuid) = 0;
  // Starts with state "idle" and standby 0. `ext_attrs` may be null.
  virtual bool add_snapshot(const std::string& uuid, const std::string& volume_uuid,
                            const std::string& pool_uuid, const std::string& ctime, ACE_UINT64 seq,
                            bool recycle, const char* ext_attrs) = 0;
  virtual bool del_snapshot(const std::string& pool_uuid, const std::string& uuid) = 0;
  // `ext_type` and `ext_target` are stored only when both are given.
  virtual bool add_export(const std::string& uuid, const std::string& pool_uuid, ACE_UINT16 lun_num,
                          const std::string& acls, const char* ext_type, const char* ext_target) = 0;
  virtual bool del_export(const std::string& pool_uuid, const std::string& uuid) = 0;

  virtual bool pool_exist(const std::string& pool_uuid) = 0;
  virtual bool pool_exist_by_name(const std::string& pool_name) = 0;
  virtual bool snapshot_exist(const std::string& pool_uuid, const std::string& snapshot_uuid) = 0;
  // True for a clone as well.
  virtual bool lun_exist(const std::string& pool_uuid, const std::string& lun_uuid) = 0;

  virtual bool list_pools(Array& pools, const char* pool_uuid) = 0;
  virtual bool list_snapshots(const std::string& pool_uuid, Array& snapshots, const char* snapshot_uuid) = 0;
  virtual bool list_export(const std::string& pool_uuid, Array& snapshots, const char* snapshot_uuid) = 0;
  // LUNs only, no clones; the export columns of a LUN that is not exported are null.
  virtual bool list_lun(const std::string& pool_uuid, Array& luns, const char* lun_uuid) = 0;
  virtual bool list_volume(const std::string& pool_uuid, Array& vols, const char* uuid) = 0;
  // One row for each snapshot and clone of it.
  virtual bool list_all_lun_snapshots(const std::string& pool_uuid, Array& snapshots,
                                      const char* snapshot_uuid) = 0;
  // Oldest first.
  virtual bool list_lun_snapshots(const std::string& pool_uuid, const std::string& lun_uuid, Array& snapshots,
                                  Snapshot_List_Mode type) = 0;
  virtual bool list_export_by_snapshot(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                       Array& ex_snapshots) = 0;

  virtual bool get_pool_info(const std::string& pool_uuid, Object& info) = 0;
  virtual bool get_volume_info(const std::string& pool_uuid, const std::string& uuid, Object& info) = 0;
  virtual bool get_snapshot_info(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                 Object& info) = 0;
  virtual bool get_snapshot_info(const std::string& pool_uuid, const std::string& lun_uuid,
                                 const ACE_UINT64& seq, Object& info) = 0;

  virtual bool update_export_acls(const std::string& pool_uuid, const std::string& uuid,
                                  const std::string& acls) = 0;
  virtual bool update_volume_ctime(const std::string& pool_uuid, const std::string& uuid,
                                   const std::string& ctime) = 0;
  // An empty `snapshot_uuid` changes every snapshot of the pool.
  virtual bool update_snapshot_state(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                     const std::string& state) = 0;
  virtual bool update_snapshot_standby(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                       ACE_UINT16 standby) = 0;
  virtual bool update_snapshot_recycle(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                       bool recycle) = 0;
  // `attrs` must be neither null nor empty.
  virtual bool update_snapshot_ext_attrs(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                         const char* attrs) = 0;
  // "state" and "standby".
  virtual bool get_snapshot_state_info(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                       Object& state_info) = 0;
  // The highest sequence number among the LUN's snapshots, 0 when it has none. Always true.
  virtual bool get_last_seq(const std::string& pool_uuid, const std::string& lun_uuid, ACE_UINT64& seq) = 0;
  // One object with the member "acls" for each export of the pool, or of all pools.
  virtual bool list_acls(Array& acls, const char* pool_uuid) = 0;

  virtual bool filesystem_exist(const std::string& pool_uuid, const std::string& name) = 0;
  virtual bool update_filesystem_ctime(const std::string& pool_uuid, const std::string& name,
                                       const std::string& ctime) = 0;
  virtual bool add_filesystem(const Filesystem_Info& info) = 0;
  virtual bool del_filesystem(const std::string& pool_uuid, const std::string& name) = 0;
  virtual bool list_filesystem(const std::string& pool_uuid, Array& result, const char* name) = 0;
  virtual bool get_filesystem_snapshot_info(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                            Object& info) = 0;
  virtual bool get_filesystem_snapshot_info(const std::string& pool_uuid, const std::string& name,
                                            const ACE_UINT64& seq, Object& info) = 0;
  virtual bool filesystem_snapshot_exist(const std::string& pool_uuid, const std::string& snapshot_uuid) = 0;
  // Oldest first.
  virtual bool list_filesystem_snapshots(const std::string& pool_uuid, const std::string& name,
                                         Array& snapshots, Snapshot_List_Mode type) = 0;
  // Lists snapshots whose filesystem is gone as well; one row for each snapshot and clone of it.
  virtual bool list_all_filesystem_snapshots(const std::string& pool_uuid, Array& snapshots,
                                             const char* snapshot_uuid) = 0;
  virtual bool del_filesystem_snapshot(const std::string& pool_uuid, const std::string& uuid) = 0;
  virtual bool update_mounted_info(const std::string& pool_uuid, const std::string& name, bool mounted) = 0;
  // The filesystems marked as mounted; an empty `pool_uuid` or `name` does not limit the list.
  virtual bool get_mounted_info(const std::string& pool_uuid, const std::string& name, Array& result) = 0;
  virtual bool update_mountpoint(const std::string& pool_uuid, const std::string& name,
                                 const std::string& mountpoint) = 0;
  virtual bool get_filesystem_snapshot_state_info(const std::string& pool_uuid,
                                                  const std::string& snapshot_uuid, Object& state_info) = 0;
  virtual bool get_last_filesystem_seq(const std::string& pool_uuid, const std::string& name,
                                       ACE_UINT64& seq) = 0;
  virtual bool add_filesystem_snapshot(const std::string& snapshot_uuid, const std::string& name,
                                       const std::string& pool_uuid, const std::string& ctime, ACE_UINT64 seq,
                                       bool recycle, const char* ext_attrs) = 0;
  // Changes those of "recycle" (boolean), "standby" (16 bit) and "state" (text) that `info` holds; false when
  // it holds none. An empty `snapshot_uuid` changes every filesystem snapshot of the pool.
  virtual bool update_filesystem_snapshot_info(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                               const Object& info) = 0;

  // Replaces the extended attributes (a JSON object as text) of a volume.
  virtual bool update_volume_ext_attrs(const std::string& pool_uuid, const std::string& uuid,
                                       const std::string& attrs) = 0;

 protected:
  Error_Code error_;

 private:
  SCSI_Pool_Sqlite_Manager(const SCSI_Pool_Sqlite_Manager&) = delete;
  SCSI_Pool_Sqlite_Manager& operator=(const SCSI_Pool_Sqlite_Manager&) = delete;
};

}  // namespace scsi_pool
