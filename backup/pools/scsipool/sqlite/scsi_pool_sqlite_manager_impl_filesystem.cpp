// Sub filesystems and their snapshots. A filesystem is known by its name within its pool.
#include "backup/pools/scsipool/sqlite/catalog_query.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"

namespace scsi_pool {

using namespace database::sql;

namespace {

void where_pool_and_name(Where_SQL& sql, const std::string& pool_uuid, const std::string& name) {
  where_uuids(sql, {{"pool_uuid", pool_uuid}});
  where_value(sql, "name", name);
}

void where_name_and_pool(Where_SQL& sql, const std::string& pool_uuid, const std::string& name) {
  where_value(sql, "name", name);
  where_uuids(sql, {{"pool_uuid", pool_uuid}});
}

}  // namespace

bool SCSI_Pool_Sqlite_Manager_Impl::filesystem_exist(const std::string& pool_uuid, const std::string& name) {
  Select_SQL sql("filesystem");
  where_name_and_pool(sql, pool_uuid, name);
  return check_record_exist(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_filesystem_ctime(const std::string& pool_uuid,
                                                            const std::string& name,
                                                            const std::string& ctime) {
  Update_SQL sql("filesystem");
  sql.set("ctime", ctime);
  where_pool_and_name(sql, pool_uuid, name);
  return execute_change(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::add_filesystem(const Filesystem_Info& info) {
  Insert_SQL sql("filesystem");
  sql.value("name", info.name);
  sql.value_uuid("snapshot_uuid", info.snapshot_uuid);
  sql.value_uuid("pool_uuid", info.pool_uuid);
  sql.value("ctime", info.ctime);
  sql.value("mountpoint", info.mountpoint);
  sql.value("mounted", info.mounted);
  sql.value("extended_attrs", info.extended_attrs);
  return execute_change(sql, "Failed to add filesystem to database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::del_filesystem(const std::string& pool_uuid, const std::string& name) {
  Delete_SQL sql("filesystem");
  where_name_and_pool(sql, pool_uuid, name);
  return execute_change(sql, "Failed to remove filesystem from database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_filesystem(const std::string& pool_uuid, Array& result,
                                                    const char* name) {
  Select_SQL sql("filesystem");
  sql.select("name, mountpoint, snapshot_uuid, mounted, pool_uuid, extended_attrs");
  where_uuids(sql, {{"pool_uuid", pool_uuid}});
  if (given(name)) where_value(sql, "name", name);
  return query_orm_rows(sql, result);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_mounted_info(const std::string& pool_uuid, const std::string& name,
                                                        bool mounted) {
  Update_SQL sql("filesystem");
  sql.set("mounted", mounted);
  where_pool_and_name(sql, pool_uuid, name);
  return execute_change(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_mounted_info(const std::string& pool_uuid, const std::string& name,
                                                     Array& result) {
  Select_SQL sql("filesystem");
  sql.select("name, mountpoint, pool_uuid");
  where_value(sql, "mounted", true);
  if (!pool_uuid.empty()) where_uuids(sql, {{"pool_uuid", pool_uuid}});
  if (!name.empty()) where_value(sql, "name", name);
  return query_orm_rows(sql, result);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_mountpoint(const std::string& pool_uuid, const std::string& name,
                                                      const std::string& mountpoint) {
  Update_SQL sql("filesystem");
  sql.set("mountpoint", mountpoint);
  where_pool_and_name(sql, pool_uuid, name);
  return execute_change(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::add_filesystem_snapshot(const std::string& snapshot_uuid,
                                                            const std::string& name,
                                                            const std::string& pool_uuid,
                                                            const std::string& ctime, ACE_UINT64 seq,
                                                            bool recycle, const char* ext_attrs) {
  Insert_SQL sql("filesystem_snapshot");
  sql.value_uuid("uuid", snapshot_uuid);
  sql.value_uuid("pool_uuid", pool_uuid);
  sql.value("filesystem_name", name);
  sql.value("ctime", ctime);
  sql.value("seq", seq);
  sql.value("recycle", recycle);
  if (given(ext_attrs)) sql.value("extended_attrs", ext_attrs);
  return execute_change(sql, "Failed to add snapshot to database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::del_filesystem_snapshot(const std::string& pool_uuid,
                                                            const std::string& uuid) {
  Delete_SQL sql("filesystem_snapshot");
  where_uuids(sql, {{"uuid", uuid}, {"pool_uuid", pool_uuid}});
  return execute_change(sql, "Failed to delete snapshot from database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::filesystem_snapshot_exist(const std::string& pool_uuid,
                                                              const std::string& snapshot_uuid) {
  Select_SQL sql("filesystem_snapshot");
  where_uuids(sql, {{"uuid", snapshot_uuid}, {"pool_uuid", pool_uuid}});
  return check_record_exist(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_filesystem_snapshots(const std::string& pool_uuid,
                                                              const std::string& name, Array& snapshots,
                                                              Snapshot_List_Mode type) {
  Select_SQL sql;
  init_filesystem_snapshot_info_sql(sql);
  sql.order_by("seq");
  sql.desc(false);
  where_uuids(sql, {{"p.uuid", pool_uuid}});
  where_value(sql, "filesystem_name", name);
  where_recycle(sql, type);
  return query_orm_rows(sql, snapshots);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_all_filesystem_snapshots(const std::string& pool_uuid,
                                                                  Array& snapshots,
                                                                  const char* snapshot_uuid) {
  Select_SQL sql("filesystem_snapshot", "s");
  sql.left_join("filesystem", "v", "s.uuid = v.snapshot_uuid and s.pool_uuid = v.pool_uuid");
  sql.select(
      "s.pool_uuid as pool_uuid, s.uuid as snapshot_uuid, s.filesystem_name as name, recycle, seq, s.ctime "
      "ctime");
  sql.order_by("s.filesystem_name, seq");
  where_uuids(sql, {{"s.pool_uuid", pool_uuid}});
  if (given(snapshot_uuid)) where_uuids(sql, {{"s.uuid", snapshot_uuid}});
  return query_orm_rows(sql, snapshots);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_filesystem_snapshot_info(const std::string& pool_uuid,
                                                                 const std::string& snapshot_uuid,
                                                                 Object& info) {
  Select_SQL sql;
  init_filesystem_snapshot_info_sql(sql);
  where_uuids(sql, {{"s.uuid", snapshot_uuid}, {"p.uuid", pool_uuid}});
  return query_first_obj(sql, info);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_filesystem_snapshot_info(const std::string& pool_uuid,
                                                                 const std::string& name,
                                                                 const ACE_UINT64& seq, Object& info) {
  Select_SQL sql;
  init_filesystem_snapshot_info_sql(sql);
  where_uuids(sql, {{"p.uuid", pool_uuid}});
  where_value(sql, "seq", seq);
  where_value(sql, "filesystem_name", name);
  return query_first_obj(sql, info);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_filesystem_snapshot_state_info(const std::string& pool_uuid,
                                                                       const std::string& snapshot_uuid,
                                                                       Object& state_info) {
  Select_SQL sql("filesystem_snapshot");
  sql.select("state, standby");
  where_uuids(sql, {{"pool_uuid", pool_uuid}, {"uuid", snapshot_uuid}});
  return query_first_obj(sql, state_info);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_last_filesystem_seq(const std::string& pool_uuid,
                                                            const std::string& name, ACE_UINT64& seq) {
  Select_SQL sql("filesystem_snapshot");
  sql.select("seq");
  sql.order_by("seq");
  sql.desc(true);
  where_uuids(sql, {{"pool_uuid", pool_uuid}});
  where_value(sql, "filesystem_name", name);
  return query_first_seq(sql, seq);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_filesystem_snapshot_info(const std::string& pool_uuid,
                                                                    const std::string& snapshot_uuid,
                                                                    const Object& info) {
  Update_SQL sql("filesystem_snapshot");
  bool recycle = false;
  if (json_spirit::object_find(info, "recycle", recycle)) sql.set("recycle", recycle);
  ACE_UINT16 standby = 0;
  if (json_spirit::object_find(info, "standby", standby)) sql.set("standby", standby);
  std::string state;
  if (json_spirit::object_find(info, "state", state)) sql.set("state", state);
  where_uuids(sql, {{"pool_uuid", pool_uuid}});
  if (!snapshot_uuid.empty()) where_uuids(sql, {{"uuid", snapshot_uuid}});
  return execute_change(sql);
}

}  // namespace scsi_pool
