#include "platform/services/replication_notes.h"

#include "platform/services/daemon_database.h"

using namespace database::sql;

bool keep_job_error(ACE_INT64 job_id, const std::string& message) {
  Delete_SQL former("job_error");
  former.where("job_id = :job");
  former.bind(":job", static_cast<long>(job_id));
  if (!daemon_database::run(former, "drop a job's error")) return false;
  if (message.empty()) return true;
  Insert_SQL statement("job_error");
  statement.value("job_id", static_cast<long>(job_id));
  statement.value("message", message);
  return daemon_database::run(statement, "store a job's error");
}

std::string job_error(ACE_INT64 job_id) {
  Select_SQL statement("job_error");
  statement.where("job_id = :job");
  statement.bind(":job", static_cast<long>(job_id));
  json_spirit::Array rows;
  if (!daemon_database::rows(statement, rows, "read a job's error") || rows.empty()) return "";
  return daemon_database::text_of(rows.front().get<json_spirit::Object>(), "message");
}

bool forget_unsettled(const Unsettled_Snapshot& snapshot) {
  Delete_SQL statement("unsettled_snapshot");
  statement.where("pool_uuid = :pool AND lun = :lun AND dataset = :dataset AND snapshot_id = :snapshot");
  statement.bind(":pool", snapshot.pool_id);
  statement.bind(":lun", snapshot.lun ? 1L : 0L);
  statement.bind(":dataset", snapshot.dataset);
  statement.bind(":snapshot", snapshot.snapshot_id);
  return daemon_database::run(statement, "forget a snapshot's note");
}

bool note_unsettled(const Unsettled_Snapshot& snapshot) {
  Insert_SQL statement("unsettled_snapshot");
  statement.value("pool_uuid", snapshot.pool_id);
  statement.value("lun", snapshot.lun ? 1L : 0L);
  statement.value("dataset", snapshot.dataset);
  statement.value("snapshot_id", snapshot.snapshot_id);
  return daemon_database::run(statement, "note a snapshot");
}

bool list_unsettled(std::vector<Unsettled_Snapshot>& snapshots) {
  Select_SQL statement("unsettled_snapshot");
  json_spirit::Array rows;
  if (!daemon_database::rows(statement, rows, "list the unsettled snapshots")) return false;
  for (const json_spirit::Value& value : rows) {
    const json_spirit::Object row = value.get<json_spirit::Object>();
    Unsettled_Snapshot one;
    ACE_INT64 lun = 0;
    json_spirit::object_find(row, "lun", lun);
    one.pool_id = daemon_database::text_of(row, "pool_uuid");
    one.lun = lun != 0;
    one.dataset = daemon_database::text_of(row, "dataset");
    one.snapshot_id = daemon_database::text_of(row, "snapshot_id");
    snapshots.push_back(std::move(one));
  }
  return true;
}
