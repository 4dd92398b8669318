// Pools.
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"

#include "backup/pools/scsipool/sqlite/catalog_query.h"

namespace scsi_pool {

using namespace database::sql;

SCSI_Pool_Sqlite_Manager_Impl::~SCSI_Pool_Sqlite_Manager_Impl() {
  close();
}

bool SCSI_Pool_Sqlite_Manager_Impl::open() {
  return true;
}

bool SCSI_Pool_Sqlite_Manager_Impl::close() {
  return true;
}

bool SCSI_Pool_Sqlite_Manager_Impl::add_pool(const std::string& pool_uuid, const std::string& name,
                                             const std::string& fs_type, const std::string& global_dev,
                                             const std::string& compression, bool dedup, bool thin_provision,
                                             ACE_UINT64 pool_size, const std::string& type,
                                             const std::string& target, ACE_UINT16 retention,
                                             const std::string& ext_attrs) {
  Insert_SQL sql("scsi_pool");
  sql.value_uuid("uuid", pool_uuid);
  sql.value("name", name);
  sql.value("fs_type", fs_type);
  sql.value("global_dev", global_dev);
  sql.value("compression", compression);
  sql.value("dedup", dedup);
  sql.value("size", pool_size);
  sql.value("thin_provision", thin_provision);
  sql.value("type", type);
  sql.value("target", target);
  sql.value("retention", retention);
  sql.value("extended_attrs", ext_attrs);
  return execute_change(sql, "Failed to add SCSI pool to database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::del_pool(const std::string& pool_uuid) {
  if (!pool_exist(pool_uuid)) return true;
  Delete_SQL sql("scsi_pool");
  sql.where("uuid = :uuid");
  sql.bind_uuid(":uuid", pool_uuid);
  return execute_change(sql, "Failed to delete SCSI pool from database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::update_pool(const std::string& pool_uuid, ACE_UINT16 retention,
                                                const std::string& name, const std::string& ext_attrs) {
  Update_SQL sql("scsi_pool");
  sql.set("retention", retention);
  sql.set("name", name);
  sql.set("extended_attrs", ext_attrs);
  sql.where("uuid = :uuid");
  sql.bind_uuid(":uuid", pool_uuid);
  return execute_change(sql, "Failed to update SCSI pool in database\n");
}

bool SCSI_Pool_Sqlite_Manager_Impl::pool_exist(const std::string& pool_uuid) {
  Select_SQL sql("scsi_pool");
  sql.where("uuid = :uuid", false);
  sql.bind_uuid(":uuid", pool_uuid);
  return check_record_exist(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::pool_exist_by_name(const std::string& pool_name) {
  Select_SQL sql("scsi_pool");
  sql.where("name = :name", false);
  sql.bind(":name", pool_name);
  return check_record_exist(sql);
}

bool SCSI_Pool_Sqlite_Manager_Impl::list_pools(Array& pools, const char* pool_uuid) {
  Select_SQL sql("scsi_pool");
  if (given(pool_uuid)) {
    sql.where("uuid = :uuid", false);
    sql.bind_uuid(":uuid", pool_uuid);
  }
  return query_orm_rows(sql, pools);
}

bool SCSI_Pool_Sqlite_Manager_Impl::get_pool_info(const std::string& pool_uuid, Object& info) {
  Select_SQL sql("scsi_pool");
  where_uuids(sql, {{"uuid", pool_uuid}});
  return query_first_obj(sql, info);
}

}  // namespace scsi_pool
