#pragma once
// Events and alerts of replication, and the records of its jobs, kept in the daemon's database. Any thread.

#include <ace/Basic_Types.h>

#include "platform/json/json_spirit.h"
#include "platform/services/pool_replicate_manager.h"

// The sink to install with Pool_Replicate_Manager::set_sink. What it keeps is read with the functions below.
// Progress events of a job replace the one before. The newest 10000 events and alerts each are kept.
class Database_Event_Sink : public Event_Sink {
 public:
  bool put_event(const Replicate_Event& event) override;
  // `source` is the host or pool that the alert is about.
  bool put_alert(ACE_UINT64 id, const json_spirit::Object& params, const char* source,
                 const char* detail) override;
  // Numbers the job: "job_id" from 1 upwards, never used twice, and "task_id", a UUID.
  bool create_job(json_spirit::Value& request) override;
};

// Keeps an event that the replication manager does not send, such as a snapshot that went with a rollback:
// `kind` is a word and `message` a sentence for the administrator; `job_id` as in the events of that job, 0
// for none. False, logged, when it cannot be kept.
bool add_event(const std::string& kind, const std::string& message, const json_spirit::Object& params,
               ACE_INT64 job_id = 0);

// The kept events, newest first: "id" (the record's number), "time" (ISO 8601), "kind" ("started",
// "progress", "failed", "succeeded", or a word of add_event), "job_id" (0 = none), "message", "params" (the
// event as an object). `job_id` 0 = of all jobs, `limit` 0 = no limit. False, logged, when the database
// cannot be read.
bool list_events(json_spirit::Array& events, ACE_INT64 job_id = 0, ACE_INT64 limit = 0, ACE_INT64 offset = 0);

// The kept alerts, newest first: "id", "time", "alert" (the identifier as hexadecimal text), "severity"
// ("info" or "error"), "message", "params", "source" and "detail" (empty when not given).
bool list_alerts(json_spirit::Array& alerts, ACE_INT64 limit = 0, ACE_INT64 offset = 0);
