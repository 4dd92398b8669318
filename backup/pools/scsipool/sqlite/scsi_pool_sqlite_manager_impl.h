#pragma once
// The catalog over the database "scsi_pool_manager". Contract: see SCSI_Pool_Sqlite_Manager.

#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"

namespace scsi_pool {

class SCSIPOOL_Export SCSI_Pool_Sqlite_Manager_Impl : public SCSI_Pool_Sqlite_Manager {
 public:
  ~SCSI_Pool_Sqlite_Manager_Impl() override;

  bool open() override;
  bool close() override;
  bool add_pool(const std::string& pool_uuid, const std::string& name, const std::string& fs_type,
                const std::string& global_dev, const std::string& compression, bool dedup,
                bool thin_provision, ACE_UINT64 pool_size, const std::string& type, const std::string& target,
                ACE_UINT16 retention, const std::string& ext_attrs) override;
  bool del_pool(const std::string& pool_uuid) override;
  bool update_pool(const std::string& pool_uuid, ACE_UINT16 retention, const std::string& name,
                   const std::string& ext_attrs) override;
  bool add_volume(const Volume_Info& info) override;
  bool del_volume(const std::string& pool_uuid, const std::string& uuid) override;
  bool add_snapshot(const std::string& uuid, const std::string& volume_uuid, const std::string& pool_uuid,
                    const std::string& ctime, ACE_UINT64 seq, bool recycle, const char* ext_attrs) override;
  bool del_snapshot(const std::string& pool_uuid, const std::string& uuid) override;
  bool add_export(const std::string& uuid, const std::string& pool_uuid, ACE_UINT16 lun_num,
                  const std::string& acls, const char* ext_type, const char* ext_target) override;
  bool del_export(const std::string& pool_uuid, const std::string& uuid) override;
  bool pool_exist(const std::string& pool_uuid) override;
  bool pool_exist_by_name(const std::string& pool_name) override;
  bool snapshot_exist(const std::string& pool_uuid, const std::string& snapshot_uuid) override;
  bool lun_exist(const std::string& pool_uuid, const std::string& lun_uuid) override;
  bool list_pools(Array& pools, const char* pool_uuid) override;
  bool list_snapshots(const std::string& pool_uuid, Array& snapshots, const char* snapshot_uuid) override;
  bool list_export(const std::string& pool_uuid, Array& snapshots, const char* snapshot_uuid) override;
  bool list_lun(const std::string& pool_uuid, Array& luns, const char* lun_uuid) override;
  bool list_volume(const std::string& pool_uuid, Array& vols, const char* uuid) override;
  bool list_all_lun_snapshots(const std::string& pool_uuid, Array& snapshots,
                              const char* snapshot_uuid) override;
  bool list_lun_snapshots(const std::string& pool_uuid, const std::string& lun_uuid, Array& snapshots,
                          Snapshot_List_Mode type) override;
  bool list_export_by_snapshot(const std::string& pool_uuid, const std::string& snapshot_uuid,
                               Array& ex_snapshots) override;
  bool get_pool_info(const std::string& pool_uuid, Object& info) override;
  bool get_volume_info(const std::string& pool_uuid, const std::string& uuid, Object& info) override;
  bool get_snapshot_info(const std::string& pool_uuid, const std::string& snapshot_uuid,
                         Object& info) override;
  bool get_snapshot_info(const std::string& pool_uuid, const std::string& lun_uuid, const ACE_UINT64& seq,
                         Object& info) override;
  bool update_export_acls(const std::string& pool_uuid, const std::string& uuid,
                          const std::string& acls) override;
  bool update_volume_ctime(const std::string& pool_uuid, const std::string& uuid,
                           const std::string& ctime) override;
  bool update_snapshot_state(const std::string& pool_uuid, const std::string& snapshot_uuid,
                             const std::string& state) override;
  bool update_snapshot_standby(const std::string& pool_uuid, const std::string& snapshot_uuid,
                               ACE_UINT16 standby) override;
  bool update_snapshot_recycle(const std::string& pool_uuid, const std::string& snapshot_uuid,
                               bool recycle) override;
  bool update_snapshot_ext_attrs(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                 const char* attrs) override;
  bool get_snapshot_state_info(const std::string& pool_uuid, const std::string& snapshot_uuid,
                               Object& state_info) override;
  bool get_last_seq(const std::string& pool_uuid, const std::string& lun_uuid, ACE_UINT64& seq) override;
  bool list_acls(Array& acls, const char* pool_uuid) override;
  bool filesystem_exist(const std::string& pool_uuid, const std::string& name) override;
  bool update_filesystem_ctime(const std::string& pool_uuid, const std::string& name,
                               const std::string& ctime) override;
  bool add_filesystem(const Filesystem_Info& info) override;
  bool del_filesystem(const std::string& pool_uuid, const std::string& name) override;
  bool list_filesystem(const std::string& pool_uuid, Array& result, const char* name) override;
  bool get_filesystem_snapshot_info(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                    Object& info) override;
  bool get_filesystem_snapshot_info(const std::string& pool_uuid, const std::string& name,
                                    const ACE_UINT64& seq, Object& info) override;
  bool filesystem_snapshot_exist(const std::string& pool_uuid, const std::string& snapshot_uuid) override;
  bool list_filesystem_snapshots(const std::string& pool_uuid, const std::string& name, Array& snapshots,
                                 Snapshot_List_Mode type) override;
  bool list_all_filesystem_snapshots(const std::string& pool_uuid, Array& snapshots,
                                     const char* snapshot_uuid) override;
  bool del_filesystem_snapshot(const std::string& pool_uuid, const std::string& uuid) override;
  bool update_mounted_info(const std::string& pool_uuid, const std::string& name, bool mounted) override;
  bool get_mounted_info(const std::string& pool_uuid, const std::string& name, Array& result) override;
  bool update_mountpoint(const std::string& pool_uuid, const std::string& name,
                         const std::string& mountpoint) override;
  bool get_filesystem_snapshot_state_info(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                          Object& state_info) override;
  bool get_last_filesystem_seq(const std::string& pool_uuid, const std::string& name,
                               ACE_UINT64& seq) override;
  bool add_filesystem_snapshot(const std::string& snapshot_uuid, const std::string& name,
                               const std::string& pool_uuid, const std::string& ctime, ACE_UINT64 seq,
                               bool recycle, const char* ext_attrs) override;
  bool update_filesystem_snapshot_info(const std::string& pool_uuid, const std::string& snapshot_uuid,
                                       const Object& info) override;
  bool update_volume_ext_attrs(const std::string& pool_uuid, const std::string& uuid,
                               const std::string& attrs) override;
};

}  // namespace scsi_pool
