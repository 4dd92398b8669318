#include "platform/services/pool_replicate_manager.h"

#include <mutex>

Replicate_Event::Replicate_Event(int kind, ACE_INT64 job_id, const std::string& task_id, int copy,
                                 std::time_t start_time, ACE_UINT64 source_size, ACE_UINT64 data_size)
    : kind_(kind),
      job_id_(job_id),
      task_id_(task_id),
      copy_(copy),
      start_time_(start_time),
      source_size_(source_size),
      data_size_(data_size) {}

json_spirit::Object Replicate_Event::to_object() const {
  json_spirit::Object object;
  object["kind"] = kind_;
  object["job_id"] = job_id_;
  object["task_id"] = task_id_;
  object["copy"] = copy_;
  object["start_time"] = start_time_;
  object["source_size"] = source_size_;
  object["data_size"] = data_size_;
  return object;
}

Replicate_Progress_Event::Replicate_Progress_Event(ACE_INT64 job_id, const std::string& task_id, int copy,
                                                   std::time_t start_time, ACE_UINT64 source_size,
                                                   ACE_UINT64 data_size, ACE_UINT64 transfer_size,
                                                   ACE_UINT64 speed, int progress)
    : Replicate_Event(KIND_PROGRESS, job_id, task_id, copy, start_time, source_size, data_size),
      transfer_size_(transfer_size),
      speed_(speed),
      progress_(progress) {}

json_spirit::Object Replicate_Progress_Event::to_object() const {
  json_spirit::Object object = Replicate_Event::to_object();
  object["transfer_size"] = transfer_size_;
  object["speed"] = speed_;
  object["progress"] = progress_;
  return object;
}

Replicate_End_Event::Replicate_End_Event(int kind, ACE_INT64 job_id, const std::string& task_id, int copy,
                                         std::time_t start_time, ACE_UINT64 source_size, ACE_UINT64 data_size,
                                         std::time_t end_time, int result, int error_code,
                                         const std::string& message)
    : Replicate_Event(kind, job_id, task_id, copy, start_time, source_size, data_size),
      end_time_(end_time),
      result_(result),
      error_code_(error_code),
      message_(message) {}

json_spirit::Object Replicate_End_Event::to_object() const {
  json_spirit::Object object = Replicate_Event::to_object();
  object["end_time"] = end_time_;
  object["result"] = result_;
  object["error_code"] = error_code_;
  object["message"] = message_;
  return object;
}

Pool_Replicate_Manager* Pool_Replicate_Manager::instance() {
  static Pool_Replicate_Manager manager;
  return &manager;
}

void Pool_Replicate_Manager::set_sink(Event_Sink* sink) {
  const std::unique_lock<std::shared_mutex> guard(mutex_);
  sink_ = sink;
}

bool Pool_Replicate_Manager::putq(Replicate_Event* event) {
  const std::unique_ptr<Replicate_Event> owned(event);
  const std::shared_lock<std::shared_mutex> guard(mutex_);
  return owned && sink_ && sink_->put_event(*owned);
}

bool Pool_Replicate_Manager::put_alert(ACE_UINT64 id, const json_spirit::Object& params, const char* source,
                                       const char* detail) {
  const std::shared_lock<std::shared_mutex> guard(mutex_);
  return sink_ && sink_->put_alert(id, params, source, detail);
}

bool Pool_Replicate_Manager::create_replicate_job(json_spirit::Value& request) {
  const std::shared_lock<std::shared_mutex> guard(mutex_);
  return sink_ && sink_->create_job(request);
}

bool send_pool_replicate_alert(ACE_UINT64 id, const json_spirit::Object& params, const char* source,
                               const char* detail) {
  return Pool_Replicate_Manager::instance()->put_alert(id, params, source, detail);
}
