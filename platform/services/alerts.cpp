#include "platform/services/alerts.h"

#include <cinttypes>
#include <cstdio>

#include "platform/base/log.h"
#include "platform/base/time_text.h"
#include "platform/base/uuid.h"
#include "platform/services/daemon_database.h"

using namespace database::sql;

namespace {

constexpr long KEPT = 10000;

std::string now_text() {
  return platform::POSIX_Time_To_ISO8601(std::time(nullptr));
}

const char* kind_word(int kind) {
  switch (kind) {
    case Replicate_Event::KIND_STARTED:
      return "started";
    case Replicate_Event::KIND_PROGRESS:
      return "progress";
    case Replicate_Event::KIND_FAILED:
      return "failed";
    case Replicate_Event::KIND_SUCCEEDED:
      return "succeeded";
    default:
      return "unknown";
  }
}

bool store_event(const std::string& kind, ACE_INT64 job_id, const std::string& message,
                 const json_spirit::Object& params) {
  Insert_SQL statement("event");
  statement.value("time", now_text());
  statement.value("kind", kind);
  statement.value("job_id", static_cast<long>(job_id));
  statement.value("message", message);
  statement.value("params", JSON_Dump(params));
  std::int64_t id = 0;
  if (!daemon_database::insert(statement, id, "store an event")) return false;
  Delete_SQL old("event");
  old.where("id <= :oldest");
  old.bind(":oldest", static_cast<long>(id) - KEPT);
  return daemon_database::run(old, "drop old events");
}

// Turns the JSON text of a column into the value.
void parse_params(json_spirit::Array& rows) {
  for (json_spirit::Value& row : rows) {
    row["params"] = daemon_database::object_of(row.get<json_spirit::Object>(), "params");
  }
}

void page(Select_SQL& statement, ACE_INT64 limit, ACE_INT64 offset) {
  statement.order_by("id");
  statement.desc(true);
  // SQLite knows an offset only together with a limit.
  statement.limit(limit > 0 ? limit : (offset > 0 ? KEPT : 0));
  statement.offset(offset);
}

}  // namespace

bool Database_Event_Sink::put_event(const Replicate_Event& event) {
  if (event.kind() == Replicate_Event::KIND_PROGRESS) {
    Delete_SQL former("event");
    former.where("job_id = :job AND kind = 'progress'");
    former.bind(":job", static_cast<long>(event.job_id()));
    if (!daemon_database::run(former, "replace an event")) return false;
  }
  const json_spirit::Object params = event.to_object();
  return store_event(kind_word(event.kind()), event.job_id(), daemon_database::text_of(params, "message"),
                     params);
}

bool Database_Event_Sink::put_alert(ACE_UINT64 id, const json_spirit::Object& params, const char* source,
                                    const char* detail) {
  const bool is_error = id == STORAGED_REPLICATE_ERROR_FAILED;
  char identifier[32];
  std::snprintf(identifier, sizeof(identifier), "0x%" PRIx64, static_cast<std::uint64_t>(id));
  std::string message = daemon_database::text_of(params, "message");
  if (message.empty()) message = is_error ? "replication failed" : "replication completed";
  Insert_SQL statement("alert");
  statement.value("time", now_text());
  statement.value("alert", std::string(identifier));
  statement.value("severity", std::string(is_error ? "error" : "info"));
  statement.value("message", message);
  statement.value("params", JSON_Dump(params));
  statement.value("source", std::string(source != nullptr ? source : ""));
  statement.value("detail", std::string(detail != nullptr ? detail : ""));
  std::int64_t row = 0;
  if (!daemon_database::insert(statement, row, "store an alert")) return false;
  Delete_SQL old("alert");
  old.where("id <= :oldest");
  old.bind(":oldest", static_cast<long>(row) - KEPT);
  return daemon_database::run(old, "drop old alerts");
}

bool Database_Event_Sink::create_job(json_spirit::Value& request) {
  std::string task_id;
  if (!request.is_object() || !platform::uuid_string(task_id, false)) return false;
  Insert_SQL statement("replicate_task");
  statement.value("task_id", task_id);
  statement.value("request", JSON_Dump(request));
  statement.value("time", now_text());
  std::int64_t id = 0;
  if (!daemon_database::insert(statement, id, "store a replication task")) return false;
  request["job_id"] = id;
  request["task_id"] = task_id;
  return true;
}

bool add_event(const std::string& kind, const std::string& message, const json_spirit::Object& params,
               ACE_INT64 job_id) {
  return store_event(kind, job_id, message, params);
}

bool list_events(json_spirit::Array& events, ACE_INT64 job_id, ACE_INT64 limit, ACE_INT64 offset) {
  Select_SQL statement("event");
  if (job_id != 0) statement.and_filter()->add_kv_eq_item("job_id", static_cast<long>(job_id));
  page(statement, limit, offset);
  if (!daemon_database::rows(statement, events, "list events")) return false;
  parse_params(events);
  return true;
}

bool list_alerts(json_spirit::Array& alerts, ACE_INT64 limit, ACE_INT64 offset) {
  Select_SQL statement("alert");
  page(statement, limit, offset);
  if (!daemon_database::rows(statement, alerts, "list alerts")) return false;
  parse_params(alerts);
  return true;
}
