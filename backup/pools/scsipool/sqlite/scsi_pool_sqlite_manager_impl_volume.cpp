// Volumes: LUNs, and clones made from snapshots.
#include "backup/pools/scsipool/sqlite/catalog_query.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "platform/base/uuid.h"

namespace scsi_pool {

using namespace database::sql;

bool SCSI_Pool_Sqlite_Manager_Impl::add_volume(const Volume_Info& info) {
  Insert_SQL sql("volume");
  sql.value_uuid("uuid", info.uuid);
  sql.value_uuid("snapshot_uuid", info.snapshot_uuid);
  sql.value_uuid("pool_uuid", info.pool_uuid);
  sql.value("size", info.size);
  sql.value("ctime", info.ctime);
  sql.value("extended_attrs", info.extended_attrs);
  return execute_change(sql, "Failed to add volume to database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::del_volume(const std::string& pool_uuid, const std::string& uuid) {
  Delete_SQL sql("volume");
  where_uuids(sql, {{"uuid", uuid}, {"pool_uuid", pool_uuid}});
  return execute_change(sql, "Failed to remove volume from database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::lun_exist(const std::string& pool_uuid, const std::string& lun_uuid) {
  Select_SQL sql("volume");
  where_uuids(sql, {{"uuid", lun_uuid}, {"pool_uuid", pool_uuid}});
  return check_record_exist(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_lun(const std::string& pool_uuid, Array& luns,
                                             const char* lun_uuid) {
  Select_SQL sql("volume", "v");
  sql.left_join("export", "e", "v.pool_uuid = e.pool_uuid and v.uuid = e.uuid");
  sql.distinct(true);
  sql.select(
      "v.uuid as lun_uuid, e.uuid as export_snapshot_uuid, v.pool_uuid as pool_uuid, size, lun_num, acls, "
      "v.extended_attrs as extended_attrs, ext_type, ext_target");
  where_uuids(sql, {{"v.snapshot_uuid", platform::zero_uuid()}, {"v.pool_uuid", pool_uuid}});
  if (given(lun_uuid)) where_uuids(sql, {{"lun_uuid", lun_uuid}});
  return query_orm_rows(sql, luns);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_volume(const std::string& pool_uuid, Array& vols, const char* uuid) {
  Select_SQL sql("volume", "v");
  where_uuids(sql, {{"pool_uuid", pool_uuid}});
  if (given(uuid)) where_uuids(sql, {{"uuid", uuid}});
  return query_orm_rows(sql, vols);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_volume_info(const std::string& pool_uuid, const std::string& uuid,
                                                    Object& info) {
  Select_SQL sql("volume");
  where_uuids(sql, {{"uuid", uuid}, {"pool_uuid", pool_uuid}});
  return query_first_obj(sql, info);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_volume_ctime(const std::string& pool_uuid, const std::string& uuid,
                                                        const std::string& ctime) {
  Update_SQL sql("volume");
  sql.set("ctime", ctime);
  where_uuids(sql, {{"pool_uuid", pool_uuid}, {"uuid", uuid}});
  return execute_change(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_volume_ext_attrs(const std::string& pool_uuid,
                                                            const std::string& uuid,
                                                            const std::string& attrs) {
  Update_SQL sql("volume");
  sql.set("extended_attrs", attrs);
  where_uuids(sql, {{"pool_uuid", pool_uuid}, {"uuid", uuid}});
  return execute_change(sql);
}

}  // namespace scsi_pool
