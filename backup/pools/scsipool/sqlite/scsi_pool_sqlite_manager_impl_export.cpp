// Exports of volumes as LUNs.
#include "backup/pools/scsipool/sqlite/catalog_query.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"

namespace scsi_pool {

using namespace database::sql;

bool SCSI_Pool_Sqlite_Manager_Impl::add_export(const std::string& uuid, const std::string& pool_uuid,
                                               ACE_UINT16 lun_num, const std::string& acls,
                                               const char* ext_type, const char* ext_target) {
  Insert_SQL sql("export");
  sql.value_uuid("uuid", uuid);
  sql.value_uuid("pool_uuid", pool_uuid);
  sql.value("lun_num", lun_num);
  sql.value("acls", acls);
  if (given(ext_type) && given(ext_target)) {
    sql.value("ext_type", ext_type);
    sql.value("ext_target", ext_target);
  }
  return execute_change(sql, "Failed to add export snapshot to database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::del_export(const std::string& pool_uuid, const std::string& uuid) {
  Delete_SQL sql("export");
  where_uuids(sql, {{"uuid", uuid}, {"pool_uuid", pool_uuid}});
  return execute_change(sql, "Failed to delete export snapshots from database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_export(const std::string& pool_uuid, Array& snapshots,
                                                const char* snapshot_uuid) {
  Select_SQL sql("export");
  where_uuids(sql, {{"pool_uuid", pool_uuid}});
  if (given(snapshot_uuid)) where_uuids(sql, {{"uuid", snapshot_uuid}});
  return query_orm_rows(sql, snapshots);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_export_by_snapshot(const std::string& pool_uuid,
                                                            const std::string& snapshot_uuid,
                                                            Array& ex_snapshots) {
  Select_SQL sql("export", "e");
  sql.left_join("volume", "v", "v.uuid = e.uuid and v.pool_uuid = e.pool_uuid");
  sql.select(
      "e.uuid as export_snapshot_uuid, ctime, lun_num, acls, ext_type, ext_target, v.pool_uuid as pool_uuid");
  where_uuids(sql, {{"v.snapshot_uuid", snapshot_uuid}, {"v.pool_uuid", pool_uuid}});
  return query_orm_rows(sql, ex_snapshots);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_export_acls(const std::string& pool_uuid, const std::string& uuid,
                                                       const std::string& acls) {
  Update_SQL sql("export");
  sql.set("acls", acls);
  where_uuids(sql, {{"uuid", uuid}, {"pool_uuid", pool_uuid}});
  return execute_change(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_acls(Array& acls, const char* pool_uuid) {
  Select_SQL sql("export", "e");
  sql.select("acls");
  if (given(pool_uuid)) where_uuids(sql, {{"e.pool_uuid", pool_uuid}});
  return query_orm_rows(sql, acls);
}

}  // namespace scsi_pool
