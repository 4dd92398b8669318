#include "backup/pools/scsipool/sqlite/catalog_query.h"

#include "platform/base/log.h"

namespace scsi_pool {

using namespace database::sql;

namespace {

constexpr char DATABASE[] = "scsi_pool_manager";
constexpr int SCHEMA_VERSION = 1;  // the last section of scsi_pool_manager.sql

using Handler = Query_Result_Handler;

constexpr Handler::Val_Tran_Entry entry(const char* key, std::size_t length, Handler::Val_Tran_Type type) {
  return {key, length, {type, 0}};
}

template <std::size_t N>
constexpr Handler::Val_Tran_Entry entry(const char (&key)[N], Handler::Val_Tran_Type type) {
  return entry(key, N - 1, type);
}

// Runs a query and reads once. A value that a missing row leaves is null.
bool query(const Connection_var& connection, const Select_SQL& sql, Legacy_Cursor::Get_Mode mode,
           json_spirit::Value& value) {
  Legacy_Cursor cursor(connection, sql, mode, 0);
  cursor.val_trans(pool_val_trans);
  return cursor.fetch(value);
}

}  // namespace

const Handler::Val_Tran_Entry pool_val_trans[] = {
    entry("pool_uuid", Handler::VTT_UUID_STR),
    entry("snapshot_uuid", Handler::VTT_UUID_STR),
    entry("uuid", Handler::VTT_UUID_STR),
    entry("lun_uuid", Handler::VTT_UUID_STR),
    entry("export_snapshot_uuid", Handler::VTT_UUID_STR),
    entry("volume_uuid", Handler::VTT_UUID_STR),
    entry("dedup", Handler::VTT_BOOL),
    entry("thin_provision", Handler::VTT_BOOL),
    entry("recycle", Handler::VTT_BOOL),
    entry("mounted", Handler::VTT_BOOL),
    {nullptr, 0, {Handler::VTT_NONE, ~ACE_UINT32(0)}},
};

Connection_var catalog_connection(const char* file, int line) {
  static const bool registered =
      Legacy_Manager::instance()->register_database(DATABASE, CATALOG_SCHEMA, SCHEMA_VERSION);
  Connection_var connection;
  if (registered) connection = Legacy_Manager::instance()->get_connection_r(DATABASE);
  if (connection.get() == nullptr)
    platform::log_at(file, line, LM_ERROR, "Failed to connect to database '%s' at %N:%l\n", DATABASE);
  return connection;
}

bool execute_change(const SQL& sql, const char* failure, const char* file, int line) {
  const Connection_var connection = catalog_connection(file, line);
  if (connection.get() == nullptr) return false;
  if (connection->execute(sql)) return true;
  return failure != nullptr && platform::log_at(file, line, LM_ERROR, "%s", failure);
}

bool query_first_obj(const Select_SQL& sql, json_spirit::Object& obj, const char* file, int line) {
  const Connection_var connection = catalog_connection(file, line);
  json_spirit::Value value;
  if (connection.get() == nullptr || !query(connection, sql, Legacy_Cursor::GM_ORM_FIRST_ROW, value) ||
      !value.is_object())
    return false;
  obj = std::move(value.get_ref<json_spirit::Object&>());
  return true;
}

bool query_orm_rows(const Select_SQL& sql, json_spirit::Array& arr, const char* file, int line) {
  const Connection_var connection = catalog_connection(file, line);
  json_spirit::Value value;
  if (connection.get() == nullptr || !query(connection, sql, Legacy_Cursor::GM_ORM_ROWS, value) ||
      !value.is_array())
    return false;
  arr = std::move(value.get_ref<json_spirit::Array&>());
  return true;
}

bool check_record_exist(const Select_SQL& sql, const char* file, int line) {
  const Connection_var connection = catalog_connection(file, line);
  if (connection.get() == nullptr) return false;
  const Legacy_Cursor cursor(connection, sql, Legacy_Cursor::GM_ORM_FIRST_ROW, 0);
  return cursor.ok() && !cursor.eof();
}

bool query_first_seq(const Select_SQL& sql, ACE_UINT64& seq, const char* file, int line) {
  seq = 0;
  const Connection_var connection = catalog_connection(file, line);
  if (connection.get() == nullptr) return false;
  json_spirit::Value value;
  if (query(connection, sql, Legacy_Cursor::GM_ORM_FIRST_ROW, value) && value.is_object())
    json_spirit::object_find(value.get_ref<const json_spirit::Object&>(), "seq", seq);
  return true;
}

void init_snapshot_info_sql(Select_SQL& sql) {
  sql.table("scsi_pool", "p");
  sql.join("snapshot", "s", "p.uuid = s.pool_uuid");
  sql.join("volume", "v", "s.volume_uuid = v.uuid and v.pool_uuid = p.uuid");
  sql.select(
      "s.id snapshot_id, s.uuid snapshot_uuid, v.size as snapshot_size, volume_uuid, p.uuid pool_uuid, "
      "volume_uuid lun_uuid, s.ctime ctime, type, target, recycle, seq");
}

void init_filesystem_snapshot_info_sql(Select_SQL& sql) {
  sql.table("scsi_pool", "p");
  sql.join("filesystem_snapshot", "s", "p.uuid = s.pool_uuid");
  sql.join("filesystem", "v", "s.filesystem_name = v.name and s.pool_uuid = v.pool_uuid");
  sql.select(
      "s.id snapshot_id, s.uuid snapshot_uuid, filesystem_name, p.uuid pool_uuid, s.ctime ctime, recycle, "
      "seq");
}

void where_uuids(Where_SQL& sql, std::initializer_list<std::pair<const char*, std::string>> items) {
  Filter_SQL* filter = sql.and_filter();
  if (filter == nullptr) return;
  for (const auto& [column, uuid] : items)
    filter->add_key_uuid_eq_item(column, uuid);
}

void where_value(Where_SQL& sql, const char* column, const Binding_Value& value) {
  if (Filter_SQL* filter = sql.and_filter()) filter->add_kv_eq_item(column, value);
}

void where_recycle(Where_SQL& sql, SCSI_Pool_Sqlite_Manager::Snapshot_List_Mode mode) {
  if (mode == SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_RECYCLE) where_value(sql, "recycle", 1);
  if (mode == SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_NOT_RECYCLE) where_value(sql, "recycle", 0);
}

}  // namespace scsi_pool
