#pragma once
// What replication reports to the backup server: events of a job's life, alerts, and the record of the job
// there. The manager only passes these on, to the sink that is installed; who keeps them is decided there.
// Any thread may call. Nothing throws unless the sink does.

#include <ace/Basic_Types.h>

#include <ctime>
#include <memory>
#include <shared_mutex>
#include <string>

#include "platform/json/json_spirit.h"

inline constexpr ACE_UINT64 STORAGED_REPLICATE_INFO_COMPLETED = 0x3000002040800003ULL;
inline constexpr ACE_UINT64 STORAGED_REPLICATE_ERROR_FAILED = 0x7000002040800004ULL;

// An event of a replication job. Immutable.
class Replicate_Event {
 public:
  enum Kind { KIND_STARTED = 1, KIND_PROGRESS = 4, KIND_FAILED = 5, KIND_SUCCEEDED = 6 };

  // `job_id` and `task_id` name the job on the backup server; `copy` tells apart the copies of one job (0:
  // the only one); `source_size` is what is to be transferred and `data_size` what has been, in bytes.
  Replicate_Event(int kind, ACE_INT64 job_id, const std::string& task_id, int copy, std::time_t start_time,
                  ACE_UINT64 source_size, ACE_UINT64 data_size);
  virtual ~Replicate_Event() = default;

  int kind() const { return kind_; }
  ACE_INT64 job_id() const { return job_id_; }
  const std::string& task_id() const { return task_id_; }
  int copy() const { return copy_; }
  std::time_t start_time() const { return start_time_; }
  ACE_UINT64 source_size() const { return source_size_; }
  ACE_UINT64 data_size() const { return data_size_; }

  // The event as a record: "kind", "job_id", "task_id", "copy", "start_time" (seconds since the epoch),
  // "source_size", "data_size", and the members that the derived events add under their accessors' names.
  virtual json_spirit::Object to_object() const;

 private:
  int kind_;
  ACE_INT64 job_id_;
  std::string task_id_;
  int copy_;
  std::time_t start_time_;
  ACE_UINT64 source_size_;
  ACE_UINT64 data_size_;
};

class Replicate_Progress_Event : public Replicate_Event {
 public:
  // `transfer_size`: bytes that went over the wire; `speed`: bytes a second, 0 when not measured; `progress`:
  // percent.
  Replicate_Progress_Event(ACE_INT64 job_id, const std::string& task_id, int copy, std::time_t start_time,
                           ACE_UINT64 source_size, ACE_UINT64 data_size, ACE_UINT64 transfer_size,
                           ACE_UINT64 speed, int progress);

  ACE_UINT64 transfer_size() const { return transfer_size_; }
  ACE_UINT64 speed() const { return speed_; }
  int progress() const { return progress_; }
  json_spirit::Object to_object() const override;

 private:
  ACE_UINT64 transfer_size_;
  ACE_UINT64 speed_;
  int progress_;
};

class Replicate_End_Event : public Replicate_Event {
 public:
  // `result`: 0 for success, 1 for failure, with the code and text of the error.
  Replicate_End_Event(int kind, ACE_INT64 job_id, const std::string& task_id, int copy,
                      std::time_t start_time, ACE_UINT64 source_size, ACE_UINT64 data_size,
                      std::time_t end_time, int result, int error_code, const std::string& message);

  std::time_t end_time() const { return end_time_; }
  int result() const { return result_; }
  int error_code() const { return error_code_; }
  const std::string& message() const { return message_; }
  json_spirit::Object to_object() const override;

 private:
  std::time_t end_time_;
  int result_;
  int error_code_;
  std::string message_;
};

// Who keeps events, alerts and job records. Called by any thread, several at a time.
class Event_Sink {
 public:
  virtual ~Event_Sink() = default;
  virtual bool put_event(const Replicate_Event& event) = 0;
  // `source` and `detail` may be null.
  virtual bool put_alert(ACE_UINT64 id, const json_spirit::Object& params, const char* source,
                         const char* detail) = 0;
  // Makes the backup server's record of a job and adds its identity to `request`: "job_id" (integer) and
  // "task_id" (text).
  virtual bool create_job(json_spirit::Value& request) = 0;
};

class Pool_Replicate_Manager {
 public:
  static Pool_Replicate_Manager* instance();

  // Installs the sink, or none (null). Waits for calls into the sink before to end, so that it may be
  // destroyed afterwards; must not be called from inside a sink.
  void set_sink(Event_Sink* sink);

  // Takes the event over, whatever the result. False when there is no event, no sink, or the sink refused it.
  bool putq(Replicate_Event* event);
  bool put_alert(ACE_UINT64 id, const json_spirit::Object& params, const char* source, const char* detail);
  bool create_replicate_job(json_spirit::Value& request);

 private:
  Pool_Replicate_Manager() = default;

  std::shared_mutex mutex_;
  Event_Sink* sink_ = nullptr;
};

// Raises an alert through Pool_Replicate_Manager. `source` and `detail` may be null. False when nobody keeps
// it.
bool send_pool_replicate_alert(ACE_UINT64 id, const json_spirit::Object& params, const char* source,
                               const char* detail);
