#include "backup/pools/scsipool/sqlite/replicate_job_database.h"

#include <exception>

#include "backup/pools/scsipool/sqlite/catalog_query.h"
#include "platform/base/log.h"
#include "platform/base/time_text.h"
#include "platform/base/uuid.h"

namespace scsi_pool {

using namespace database::sql;
using json_spirit::object_get;
using json_spirit::object_get_time_t;
using platform::POSIX_Time_To_ISO8601;

namespace {

using Handler = Query_Result_Handler;

const Handler::Val_Tran_Entry job_val_trans[] = {
    {"source_pool_uuid", 16, {Handler::VTT_UUID_STR, 0}},
    {"target_pool_uuid", 16, {Handler::VTT_UUID_STR, 0}},
    {"catalog_uuid", 12, {Handler::VTT_UUID_STR, 0}},
    {nullptr, 0, {Handler::VTT_NONE, ~ACE_UINT32(0)}},
};

// Runs an insert; `id` is the new row's.
bool insert_row(const Insert_SQL& sql, const char* failure, ACE_INT64& id, int line = __builtin_LINE()) {
  const Connection_var connection = catalog_connection(__FILE__, line);
  if (connection.get() == nullptr) return false;
  if (!connection->execute(sql)) return platform::log_at(__FILE__, line, LM_ERROR, "%s", failure);
  id = connection->last_insert_row_id();
  return true;
}

// The row with that id of a table. False without a log line when there is none.
bool read_row(const char* table, ACE_INT64 id, json_spirit::Object& row, int line = __builtin_LINE()) {
  const Connection_var connection = catalog_connection(__FILE__, line);
  if (connection.get() == nullptr) return false;
  Select_SQL sql(table);
  sql.where("id = :id", false);
  sql.bind(":id", id);
  Legacy_Cursor cursor(connection, sql, Legacy_Cursor::GM_ORM_FIRST_ROW, 0);
  cursor.val_trans(job_val_trans);
  json_spirit::Value value;
  if (!cursor.fetch(value) || !value.is_object()) return false;
  row = std::move(value.get_ref<json_spirit::Object&>());
  return true;
}

void read_backup_server_job(const std::string& extended_attrs, Replicate_Job_Definition& def) {
  json_spirit::Value value;
  if (extended_attrs.empty() || !loads_json(extended_attrs, value) || !value.is_object()) return;
  const auto& attrs = value.get_ref<const json_spirit::Object&>();
  ACE_INT64 job_id = -1;
  std::string task_id;
  json_spirit::object_find(attrs, "replicate_job_id", job_id);
  json_spirit::object_find(attrs, "replicate_task_id", task_id);
  def.replicate_job_id(job_id);
  def.replicate_task_id(task_id);
}

bool read_definition(const json_spirit::Object& row, ACE_INT64 id, Replicate_Job_Definition& def) {
  json_spirit::Value snapshots;
  if (!loads_json(object_get<std::string>(row, "snapshots"), snapshots) || !snapshots.is_array())
    return LOG_FAILURE(
        "Failed to get SCSI pool replicate job definition from database: get snapshots error\n");
  def.source_pool_uuid(object_get<std::string>(row, "source_pool_uuid"));
  def.target_pool_uuid(object_get<std::string>(row, "target_pool_uuid"));
  def.catalog_uuid(object_get<std::string>(row, "catalog_uuid"));
  def.retry(static_cast<int>(object_get<ACE_INT64>(row, "retry")));
  def.snapshots(snapshots.get_ref<const json_spirit::Array&>());
  def.extended_attrs(object_get<std::string>(row, "extended_attrs"));
  def.id(id);
  read_backup_server_job(def.extended_attrs(), def);
  return true;
}

bool read_job(const json_spirit::Object& row, Replicate_Job& job) {
  std::time_t created = 0;
  std::time_t started = 0;
  std::time_t finished = 0;
  if (!object_get_time_t(row, "creation_time", created) || !object_get_time_t(row, "start_time", started) ||
      !object_get_time_t(row, "finish_time", finished))
    return LOG_FAILURE("Failed get SCSI pool replicate job info: get job time error\n");
  job.job_def().id(object_get<ACE_INT64>(row, "def_id"));
  job.job_state_str(object_get<std::string>(row, "state"));
  job.progress(object_get<int>(row, "progress"));
  job.create_time(created);
  job.start_time(started);
  job.end_time(finished);
  job.data_size(object_get<ACE_UINT64>(row, "data_size"));
  return true;
}

}  // namespace

bool Replicate_Job_Database::add_job_def(Replicate_Job_Definition& def) {
  Insert_SQL sql("replicate_job_def");
  sql.value_uuid("source_pool_uuid", def.source_pool_uuid());
  sql.value_uuid("target_pool_uuid", def.target_pool_uuid());
  sql.value_uuid("catalog_uuid", def.catalog_uuid().empty() ? platform::zero_uuid() : def.catalog_uuid());
  sql.value("retry", def.retry());
  sql.value("extended_attrs", def.extended_attrs());
  sql.value("snapshots", JSON_Dump(def.snapshots(), false));
  ACE_INT64 id = 0;
  if (!insert_row(sql, "Failed to add SCSI pool replicate job definition to database\n", id)) return false;
  def.id(id);
  return true;
}

bool Replicate_Job_Database::update_job_def(const Replicate_Job_Definition& def) {
  Update_SQL sql("replicate_job_def");
  sql.set("extended_attrs", def.extended_attrs());
  sql.set("retry", def.retry());
  sql.where("id=:id");
  sql.bind(":id", def.id());
  return execute_change(sql);
}

bool Replicate_Job_Database::del_job_def(ACE_INT64 id) {
  Delete_SQL sql("replicate_job_def");
  sql.where("id = :id");
  sql.bind(":id", id);
  return execute_change(sql, "Failed to delete SCSI pool replicate job definition from database\n");
}

bool Replicate_Job_Database::get_job_def_info(ACE_INT64 id, Replicate_Job_Definition& def) {
  json_spirit::Object row;
  if (!read_row("replicate_job_def", id, row)) return false;
  try {
    return read_definition(row, id, def);
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get SCSI pool replicate job definition from database: %s\n", error.what());
  }
}

bool Replicate_Job_Database::add_job(const Replicate_Job_Definition& def, ACE_INT64& job_id) {
  Insert_SQL sql("replicate_job");
  sql.value("def_id", def.id());
  sql.value("state", Replicate_Job::state_value_to_key(Replicate_Job::JOB_STATE_PENDING));
  sql.value("creation_time", POSIX_Time_To_ISO8601(std::time(nullptr)));
  sql.value("start_time", POSIX_Time_To_ISO8601(0));
  sql.value("finish_time", POSIX_Time_To_ISO8601(0));
  return insert_row(sql, "Failed to add SCSI pool replicate job to database\n", job_id);
}

bool Replicate_Job_Database::del_job(ACE_INT64 job_id) {
  Delete_SQL sql("replicate_job");
  sql.where("id = :id");
  sql.bind(":id", job_id);
  return execute_change(sql, "Failed to delete SCSI pool replicate job from database\n");
}

bool Replicate_Job_Database::get_job_info(Replicate_Job& job) {
  json_spirit::Object row;
  if (!read_row("replicate_job", job.id(), row)) return false;
  try {
    return read_job(row, job);
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get SCSI pool replicate job info from database: %s\n", error.what());
  }
}

bool Replicate_Job_Database::list_job(const std::string& pool_uuid, std::vector<long>& ids, ACE_INT64 limit,
                                      ACE_INT64 offset, const std::string& state,
                                      const std::string& start_time, const std::string& end_time) {
  const Connection_var connection = catalog_connection();
  if (connection.get() == nullptr) return false;
  Select_SQL sql;
  sql.table("replicate_job", "j");
  sql.join("replicate_job_def", "d", "j.def_id=d.id");
  sql.add_key("j.id", "id");
  Filter_SQL* filter = sql.and_filter();
  if (filter == nullptr) return LOG_VIOLATION("filter is NULL");
  if (!pool_uuid.empty()) filter->add_key_uuid_eq_item("source_pool_uuid", pool_uuid);
  if (!start_time.empty()) filter->add_kv_item("start_time", start_time, Filter_SQL::OP_GREATER_OR_EQUAL);
  if (!end_time.empty()) filter->add_kv_item("start_time", end_time, Filter_SQL::OP_LESS_OR_EQUAL);
  if (!state.empty()) filter->add_kv_eq_item("j.state", state);
  // Times have a resolution of a second; among jobs of the same second the higher id is the newer one.
  sql.order_by("creation_time DESC, j.id");
  sql.desc(true);
  sql.limit(limit);
  sql.offset(offset);

  Legacy_Cursor cursor(connection, sql, Legacy_Cursor::GM_ORM_ROW, 0);
  json_spirit::Value row;
  while (cursor.fetch(row)) {
    long id = 0;
    if (json_spirit::object_find(row.get_ref<const json_spirit::Object&>(), "id", id)) ids.push_back(id);
  }
  return cursor.eof();
}

bool Replicate_Job_Database::update_job(const Replicate_Job& job) {
  Update_SQL sql("replicate_job");
  sql.set("state", job.job_state_str());
  sql.set("progress", job.progress());
  sql.set("creation_time", POSIX_Time_To_ISO8601(job.create_time()));
  sql.set("start_time", POSIX_Time_To_ISO8601(job.start_time()));
  sql.set("finish_time", POSIX_Time_To_ISO8601(job.end_time()));
  sql.set("data_size", job.data_size());
  sql.where("id = :id");
  sql.bind(":id", job.id());
  return execute_change(sql, "Failed to update SCSI pool replicate job info in database.\n");
}

bool Replicate_Job_Database::job_amount(const std::string& pool_uuid, ACE_INT64& amount,
                                        const std::string& target_pool_uuid) {
  const Connection_var connection = catalog_connection();
  if (connection.get() == nullptr) return false;
  Select_SQL sql;
  sql.table("replicate_job", "j");
  sql.join("replicate_job_def", "d", "j.def_id = d.id");
  sql.add_key("count(*)", "amount");
  where_uuids(sql, {{"source_pool_uuid", pool_uuid}});
  if (!target_pool_uuid.empty()) where_uuids(sql, {{"target_pool_uuid", target_pool_uuid}});
  Legacy_Cursor cursor(connection, sql, Legacy_Cursor::GM_ORM_ROW, 0);
  if (cursor.eof()) return LOG_FAILURE("Failed to get replicate job amount in database.\n");
  json_spirit::Value row;
  return cursor.fetch(row) &&
         json_spirit::object_find(row.get_ref<const json_spirit::Object&>(), "amount", amount);
}

bool Replicate_Job_Database::clear_references() {
  for (const char* table : {"snapshot", "filesystem_snapshot"}) {
    Update_SQL sql(table);
    sql.set("standby", 0);
    sql.where("standby <> 0");
    if (!execute_change(sql)) return false;
  }
  return true;
}

bool Replicate_Job_Database::reset_job_state() {
  Update_SQL sql("replicate_job");
  sql.set("state", Replicate_Job::state_value_to_key(Replicate_Job::JOB_STATE_FAILED));
  sql.where("state = :state");
  sql.bind(":state", Replicate_Job::state_value_to_key(Replicate_Job::JOB_STATE_RUNNING));
  return execute_change(sql, "Failed to reset job state in database.\n");
}

}  // namespace scsi_pool
