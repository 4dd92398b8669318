#include "platform/services/daemon_database.h"

#include <mutex>

#include "platform/base/log.h"

using namespace database::sql;

namespace daemon_database {
namespace {

const char NAME[] = "scsipoold";

const char SCHEMA[] = R"(
CREATE TABLE peer_pool (uuid TEXT PRIMARY KEY, name TEXT NOT NULL, url TEXT NOT NULL, extended_attrs TEXT NOT NULL);
CREATE TABLE pool_replicate (pool_uuid TEXT PRIMARY KEY, target_uuid TEXT NOT NULL, extended_attrs TEXT NOT NULL);
CREATE TABLE pool_catalog (id INTEGER PRIMARY KEY AUTOINCREMENT, uuid TEXT UNIQUE NOT NULL, pool_uuid TEXT NOT NULL,
                           snapshot_id TEXT NOT NULL, extended_attrs TEXT NOT NULL, ctime INTEGER NOT NULL);
CREATE INDEX pool_catalog_pool ON pool_catalog (pool_uuid, snapshot_id);
CREATE TABLE queue_message (id INTEGER PRIMARY KEY AUTOINCREMENT, queue TEXT NOT NULL, type TEXT NOT NULL,
                            text TEXT NOT NULL, ready_time INTEGER NOT NULL);
CREATE INDEX queue_message_queue ON queue_message (queue, id);
CREATE TABLE replicate_task (id INTEGER PRIMARY KEY AUTOINCREMENT, task_id TEXT NOT NULL, request TEXT NOT NULL,
                             time TEXT NOT NULL);
CREATE TABLE event (id INTEGER PRIMARY KEY AUTOINCREMENT, time TEXT NOT NULL, kind TEXT NOT NULL, job_id INTEGER NOT NULL,
                    message TEXT NOT NULL, params TEXT NOT NULL);
CREATE INDEX event_job ON event (job_id, kind);
CREATE TABLE alert (id INTEGER PRIMARY KEY AUTOINCREMENT, time TEXT NOT NULL, alert TEXT NOT NULL, severity TEXT NOT NULL,
                    message TEXT NOT NULL, params TEXT NOT NULL, source TEXT NOT NULL, detail TEXT NOT NULL);
-- version 2
CREATE TABLE job_error (job_id INTEGER PRIMARY KEY, message TEXT NOT NULL);
CREATE TABLE unsettled_snapshot (pool_uuid TEXT NOT NULL, lun INTEGER NOT NULL, dataset TEXT NOT NULL,
                                 snapshot_id TEXT NOT NULL);
-- version 3
CREATE TABLE new_catalog (id INTEGER PRIMARY KEY AUTOINCREMENT, uuid TEXT NOT NULL, pool_uuid TEXT NOT NULL,
                          snapshot_id TEXT NOT NULL, extended_attrs TEXT NOT NULL, ctime INTEGER NOT NULL,
                          UNIQUE (uuid, pool_uuid));
INSERT INTO new_catalog SELECT id, uuid, pool_uuid, lower(snapshot_id),
  replace(extended_attrs, snapshot_id, lower(snapshot_id)), ctime FROM pool_catalog WHERE length(snapshot_id) = 36;
INSERT INTO new_catalog SELECT id, uuid, pool_uuid, snapshot_id, extended_attrs, ctime
  FROM pool_catalog WHERE length(snapshot_id) <> 36;
DROP TABLE pool_catalog;
ALTER TABLE new_catalog RENAME TO pool_catalog;
CREATE INDEX pool_catalog_pool ON pool_catalog (pool_uuid, snapshot_id);
)";

bool failed(const char* what) {
  return LOG_FAILURE("Failed to %s in the daemon's database\n", what);
}

}  // namespace

Connection_var connect() {
  static std::once_flag declared;
  std::call_once(declared, [] { Legacy_Manager::instance()->register_database(NAME, SCHEMA, 3); });
  return Legacy_Manager::instance()->get_connection_r(NAME);
}

bool run(const SQL& statement, const char* what) {
  const Connection_var connection = connect();
  return (connection.get() != nullptr && connection->execute(statement)) || failed(what);
}

bool rows(const SQL& statement, json_spirit::Array& rows, const char* what) {
  const Connection_var connection = connect();
  if (connection.get() == nullptr) return failed(what);
  Legacy_Cursor cursor(connection, statement, Legacy_Cursor::GM_ORM_ROWS);
  json_spirit::Value value;
  if (!cursor.fetch(value)) return failed(what);
  rows = value.get<json_spirit::Array>();
  return true;
}

bool insert(const SQL& statement, std::int64_t& id, const char* what) {
  const Connection_var connection = connect();
  if (connection.get() == nullptr || !connection->execute(statement)) return failed(what);
  id = connection->last_insert_row_id();
  return true;
}

std::string text_of(const json_spirit::Object& row, const char* column) {
  std::string text;
  json_spirit::object_find(row, column, text);
  return text;
}

json_spirit::Object object_of(const json_spirit::Object& row, const char* column) {
  json_spirit::Value value;
  const bool parsed = loads_json(text_of(row, column), value);
  const json_spirit::Object* object = parsed ? json_spirit::get_object(value) : nullptr;
  return object != nullptr ? *object : json_spirit::Object();
}

}  // namespace daemon_database
