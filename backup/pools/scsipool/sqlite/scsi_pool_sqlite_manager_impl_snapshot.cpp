// LUN snapshots.
#include "backup/pools/scsipool/sqlite/catalog_query.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "platform/base/log.h"

namespace scsi_pool {

using namespace database::sql;

bool SCSI_Pool_Sqlite_Manager_Impl::add_snapshot(const std::string& uuid, const std::string& volume_uuid,
                                                 const std::string& pool_uuid, const std::string& ctime,
                                                 ACE_UINT64 seq, bool recycle, const char* ext_attrs) {
  Insert_SQL sql("snapshot");
  sql.value_uuid("uuid", uuid);
  sql.value_uuid("pool_uuid", pool_uuid);
  sql.value_uuid("volume_uuid", volume_uuid);
  sql.value("ctime", ctime);
  sql.value("seq", seq);
  sql.value("recycle", recycle);
  if (given(ext_attrs)) sql.value("extended_attrs", ext_attrs);
  return execute_change(sql, "Failed to add snapshot to database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::del_snapshot(const std::string& pool_uuid, const std::string& uuid) {
  Delete_SQL sql("snapshot");
  where_uuids(sql, {{"uuid", uuid}, {"pool_uuid", pool_uuid}});
  return execute_change(sql, "Failed to delete snapshot from database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::snapshot_exist(const std::string& pool_uuid,
                                                   const std::string& snapshot_uuid) {
  Select_SQL sql("snapshot");
  where_uuids(sql, {{"uuid", snapshot_uuid}, {"pool_uuid", pool_uuid}});
  return check_record_exist(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_snapshots(const std::string& pool_uuid, Array& snapshots,
                                                   const char* snapshot_uuid) {
  Select_SQL sql("snapshot");
  where_uuids(sql, {{"pool_uuid", pool_uuid}});
  if (given(snapshot_uuid)) where_uuids(sql, {{"uuid", snapshot_uuid}});
  return query_orm_rows(sql, snapshots);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_all_lun_snapshots(const std::string& pool_uuid, Array& snapshots,
                                                           const char* snapshot_uuid) {
  Select_SQL sql("snapshot", "s");
  sql.left_join("volume", "v", "s.uuid = v.snapshot_uuid and s.pool_uuid = v.pool_uuid");
  sql.left_join("export", "e", "v.uuid = e.uuid and v.pool_uuid = e.pool_uuid");
  sql.select(
      "s.pool_uuid as pool_uuid, s.uuid as snapshot_uuid, s.volume_uuid as lun_uuid, "
      "e.uuid as export_snapshot_uuid, state, recycle, seq, s.ctime ctime, lun_num, acls, ext_type, "
      "ext_target");
  sql.order_by("s.volume_uuid, seq");  // recycling takes the first ones of a LUN for its oldest
  where_uuids(sql, {{"s.pool_uuid", pool_uuid}});
  if (given(snapshot_uuid)) where_uuids(sql, {{"s.uuid", snapshot_uuid}});
  return query_orm_rows(sql, snapshots);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_lun_snapshots(const std::string& pool_uuid,
                                                       const std::string& lun_uuid, Array& snapshots,
                                                       Snapshot_List_Mode type) {
  Select_SQL sql;
  init_snapshot_info_sql(sql);
  sql.order_by("seq");
  sql.desc(false);
  where_uuids(sql, {{"p.uuid", pool_uuid}, {"volume_uuid", lun_uuid}});
  where_recycle(sql, type);
  return query_orm_rows(sql, snapshots);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_snapshot_info(const std::string& pool_uuid,
                                                      const std::string& snapshot_uuid, Object& info) {
  Select_SQL sql;
  init_snapshot_info_sql(sql);
  where_uuids(sql, {{"s.uuid", snapshot_uuid}, {"p.uuid", pool_uuid}});
  return query_first_obj(sql, info);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_snapshot_info(const std::string& pool_uuid,
                                                      const std::string& lun_uuid, const ACE_UINT64& seq,
                                                      Object& info) {
  Select_SQL sql;
  init_snapshot_info_sql(sql);
  where_uuids(sql, {{"p.uuid", pool_uuid}});
  where_value(sql, "seq", seq);
  where_uuids(sql, {{"volume_uuid", lun_uuid}});
  return query_first_obj(sql, info);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_snapshot_state(const std::string& pool_uuid,
                                                          const std::string& snapshot_uuid,
                                                          const std::string& state) {
  Update_SQL sql("snapshot");
  sql.set("state", state);
  where_uuids(sql, {{"pool_uuid", pool_uuid}});
  if (!snapshot_uuid.empty()) where_uuids(sql, {{"uuid", snapshot_uuid}});
  return execute_change(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_snapshot_standby(const std::string& pool_uuid,
                                                            const std::string& snapshot_uuid,
                                                            ACE_UINT16 standby) {
  Update_SQL sql("snapshot");
  sql.set("standby", standby);
  where_uuids(sql, {{"pool_uuid", pool_uuid}, {"uuid", snapshot_uuid}});
  return execute_change(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_snapshot_recycle(const std::string& pool_uuid,
                                                            const std::string& snapshot_uuid, bool recycle) {
  Update_SQL sql("snapshot");
  sql.set("recycle", recycle);
  where_uuids(sql, {{"pool_uuid", pool_uuid}, {"uuid", snapshot_uuid}});
  return execute_change(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_snapshot_ext_attrs(const std::string& pool_uuid,
                                                              const std::string& snapshot_uuid,
                                                              const char* attrs) {
  if (!given(attrs)) return LOG_VIOLATION("attrs is NULL or \"\"");
  Update_SQL sql("snapshot");
  sql.set("extended_attrs", attrs);
  where_uuids(sql, {{"pool_uuid", pool_uuid}, {"uuid", snapshot_uuid}});
  return execute_change(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_snapshot_state_info(const std::string& pool_uuid,
                                                            const std::string& snapshot_uuid,
                                                            Object& state_info) {
  Select_SQL sql("snapshot");
  sql.select("state, standby");
  where_uuids(sql, {{"pool_uuid", pool_uuid}, {"uuid", snapshot_uuid}});
  return query_first_obj(sql, state_info);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_last_seq(const std::string& pool_uuid, const std::string& lun_uuid,
                                                 ACE_UINT64& seq) {
  Select_SQL sql("snapshot");
  sql.select("seq");
  sql.order_by("seq");
  sql.desc(true);
  where_uuids(sql, {{"pool_uuid", pool_uuid}, {"volume_uuid", lun_uuid}});
  return query_first_seq(sql, seq);
}

}  // namespace scsi_pool
