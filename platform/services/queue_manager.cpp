#include "platform/services/queue_manager.h"

#include <atomic>
#include <condition_variable>
#include <ctime>
#include <exception>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/base/log.h"
#include "platform/services/daemon_database.h"

using namespace database::sql;

class Queue_Manager::Impl {
 public:
  ~Impl() { stop(); }

  bool enqueue(const Queue_Message& message, std::time_t ready_time);
  bool start(const std::string& queue, Handler handler, unsigned slots);
  void stop();

 private:
  struct Queue {
    Handler handler;
    std::set<ACE_INT64> taken;  // being worked on, or kept until the queue is started anew
  };

  void work(const std::string& name, Queue& queue);
  bool settle(const Queue_Message& message, Outcome outcome);
  bool next(const std::string& name, Queue& queue, Queue_Message& message);
  Outcome handle(const Queue& queue, const Queue_Message& message);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, Queue> queues_;
  std::vector<std::thread> threads_;
  bool stopping_ = false;
};

bool Queue_Manager::Impl::enqueue(const Queue_Message& message, std::time_t ready_time) {
  Insert_SQL statement("queue_message");
  statement.value("queue", message.queue);
  statement.value("type", message.type);
  statement.value("text", message.text);
  statement.value("ready_time", static_cast<long>(ready_time));
  if (!daemon_database::run(statement, "store a queue message")) return false;
  const std::lock_guard<std::mutex> guard(mutex_);
  changed_.notify_all();
  return true;
}

// Takes the oldest message that is ready and that nobody has. Called with the lock held, so no two threads
// get it.
bool Queue_Manager::Impl::next(const std::string& name, Queue& queue, Queue_Message& message) {
  Select_SQL statement("queue_message");
  statement.where("queue = :queue AND ready_time <= :now");
  statement.bind(":queue", name);
  statement.bind(":now", static_cast<long>(std::time(nullptr)));
  statement.order_by("id");
  statement.limit(static_cast<std::int64_t>(queue.taken.size()) + 1);  // one of these is free, if any is
  json_spirit::Array rows;
  if (!daemon_database::rows(statement, rows, "read the queue")) return false;
  for (const json_spirit::Value& value : rows) {
    const json_spirit::Object row = value.get<json_spirit::Object>();
    if (!json_spirit::object_find(row, "id", message.id) || !queue.taken.insert(message.id).second) continue;
    message.queue = name;
    message.type = daemon_database::text_of(row, "type");
    message.text = daemon_database::text_of(row, "text");
    return true;
  }
  return false;
}

Queue_Manager::Outcome Queue_Manager::Impl::handle(const Queue& queue, const Queue_Message& message) {
  try {
    return queue.handler(message);
  } catch (const std::exception& error) {
    LOG_FAILURE("Failed to handle message %q of queue '%s': %s\n", message.id, message.queue.c_str(),
                error.what());
    return DONE;
  }
}

// Stores what became of a message; false when it stays with this process.
bool Queue_Manager::Impl::settle(const Queue_Message& message, Outcome outcome) {
  const auto store = [&message](SQL& statement, const char* what) {
    statement.bind(":id", static_cast<long>(message.id));
    return daemon_database::run(statement, what);
  };
  if (outcome == KEPT) return false;
  if (outcome == DONE) {
    Delete_SQL statement("queue_message");
    statement.where("id = :id");
    return store(statement, "delete a queue message");
  }
  Update_SQL statement("queue_message");
  statement.set("ready_time", static_cast<long>(std::time(nullptr) + LATER_SECONDS));
  statement.where("id = :id");
  return store(statement, "put a queue message off");
}

void Queue_Manager::Impl::work(const std::string& name, Queue& queue) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    Queue_Message message;
    if (!next(name, queue, message)) {
      changed_.wait_for(lock, std::chrono::seconds(1));  // delayed messages become ready without notice
      continue;
    }
    lock.unlock();
    // A message that cannot be deleted or put off stays taken: it is not run twice by this process.
    const bool settled = settle(message, handle(queue, message));
    lock.lock();
    if (settled) queue.taken.erase(message.id);
  }
}

bool Queue_Manager::Impl::start(const std::string& queue, Handler handler, unsigned slots) {
  if (!handler || slots == 0)
    return LOG_FAILURE("Failed to start queue '%s': no handler or no slots\n", queue.c_str());
  const std::lock_guard<std::mutex> guard(mutex_);
  if (queues_.count(queue) != 0)
    return LOG_FAILURE("Failed to start queue '%s': it runs already\n", queue.c_str());
  stopping_ = false;
  Queue& entry = queues_[queue];  // map entries stay where they are
  entry.handler = std::move(handler);
  for (unsigned i = 0; i < slots; ++i)
    threads_.emplace_back([this, queue, &entry] { work(queue, entry); });
  return true;
}

void Queue_Manager::Impl::stop() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
    threads.swap(threads_);
    changed_.notify_all();
  }
  for (std::thread& thread : threads)
    thread.join();
  queues_.clear();
}

namespace {
std::mutex instance_mutex;
std::unique_ptr<Queue_Manager> instance_manager;
}  // namespace

Queue_Manager* Queue_Manager::instance() {
  const std::lock_guard<std::mutex> guard(instance_mutex);
  if (instance_manager == nullptr) instance_manager = std::make_unique<Queue_Manager>();
  return instance_manager.get();
}

void Queue_Manager::close_instance() {
  const std::lock_guard<std::mutex> guard(instance_mutex);
  instance_manager.reset();
}

Queue_Manager::Queue_Manager() : impl_(std::make_unique<Impl>()) {}
Queue_Manager::~Queue_Manager() = default;

bool Queue_Manager::enqueue(const std::string& queue, const std::string& type, const char* text,
                            std::size_t length, const ACE_Time_Value* delay) {
  if (queue.empty()) return LOG_VIOLATION("queue is NULL or \"\"");
  if (text == nullptr) return LOG_VIOLATION("text is NULL");
  const std::time_t ready_time = std::time(nullptr) + (delay != nullptr ? delay->sec() : 0);
  return impl_->enqueue({0, queue, type, std::string(text, length)}, delay != nullptr ? ready_time : 0);
}

bool Queue_Manager::start(const std::string& queue, Handler handler, unsigned slots) {
  return impl_->start(queue, std::move(handler), slots);
}

void Queue_Manager::stop() {
  impl_->stop();
}

bool Queue_Manager::length(const std::string& queue, ACE_UINT64& messages) {
  Select_SQL statement("queue_message");
  statement.add_key("count(*)", "messages");
  statement.where("queue = :queue");
  statement.bind(":queue", queue);
  json_spirit::Array rows;
  return daemon_database::rows(statement, rows, "count the queue's messages") && rows.size() == 1 &&
         json_spirit::object_find(rows[0].get<json_spirit::Object>(), "messages", messages);
}

bool Queue_Manager::texts(const std::string& queue, std::vector<std::string>& texts) {
  Select_SQL statement("queue_message");
  statement.where("queue = :queue");
  statement.bind(":queue", queue);
  statement.order_by("id");
  json_spirit::Array rows;
  if (!daemon_database::rows(statement, rows, "list the queue's messages")) return false;
  for (const json_spirit::Value& row : rows)
    texts.push_back(daemon_database::text_of(row.get<json_spirit::Object>(), "text"));
  return true;
}
