#include "platform/http/http_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>

#include "platform/base/log.h"
#include "platform/http/http_connection.h"
#include "platform/http/http_listener.h"

using http_transport::Clock;

const std::string* Server_Request::find_query(const std::string& name) const {
  for (const auto& item : query) {
    if (item.first == name) return &item.second;
  }
  return nullptr;
}

void Server_Response::json(int new_status, const json_spirit::Value& value) {
  status = new_status;
  content_type = "application/json";
  body = JSON_Dump(value);
}

void Server_Response::error(int new_status, const std::string& message) {
  json(new_status, json_spirit::Value{{"error", {{"message", message}}}});
}

namespace {

struct Waiting {
  std::shared_ptr<HTTP_Connection> connection;
  Clock::time_point until;
};

}  // namespace

class HTTP_Server::Impl {
 public:
  using Connection = std::shared_ptr<HTTP_Connection>;

  ~Impl() { stop(0); }

  bool start(const HTTP_Server_Options& options, Handler handler, std::string& error);
  void stop(unsigned grace_seconds);
  std::vector<ACE_UINT16> ports() const { return ports_; }

 private:
  void watch();
  std::vector<pollfd> entries();
  bool has_room(bool local);
  void take_returned();
  void look_at_waiting(const std::vector<pollfd>& entries);
  void accept_from(const HTTP_Listener& listener);
  void work(bool local_only);
  bool take_ready(bool local_only, Connection& connection);
  void make_ready(const Connection& connection);
  void wake();

  HTTP_Server_Options options_;
  Handler handler_;
  std::vector<HTTP_Listener> listeners_;
  std::vector<ACE_UINT16> ports_;
  int wake_fd_ = -1;
  std::thread watcher_;
  std::vector<std::thread> workers_;
  std::vector<Waiting> waiting_;  // the watcher's own

  std::atomic<bool> stopping_{false};
  std::mutex mutex_;                    // of what follows
  std::condition_variable work_;        // for the workers: a connection is ready, or closed_
  std::condition_variable local_work_;  // the same for the workers of the Unix socket
  std::condition_variable ended_;       // for stop(): a request has ended
  std::deque<Connection> ready_, local_ready_;
  std::vector<Connection> returned_;
  std::set<Connection> active_;
  bool closed_ = false;  // no more work will come
};

bool HTTP_Server::Impl::start(const HTTP_Server_Options& options, Handler handler, std::string& error) {
  if (wake_fd_ >= 0) return error = "the server runs already", false;
  std::vector<HTTP_Listener> listeners;
  ports_.clear();
  for (const HTTP_Listen_Address& address : options.addresses) {
    ACE_UINT16 port = 0;
    if (!listen_tcp(address, listeners, port, error)) return false;
    ports_.push_back(port);
  }
  if (!options.unix_socket.empty() && !listen_unix(options.unix_socket, listeners, error)) return false;
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) return error = "cannot make an event descriptor", false;
  options_ = options;
  handler_ = std::move(handler);
  listeners_ = std::move(listeners);
  stopping_ = false;
  closed_ = false;
  watcher_ = std::thread([this] { watch(); });
  for (unsigned i = 0; i < std::max(1u, options_.workers); ++i)
    workers_.emplace_back([this] { work(false); });
  // Whoever keeps the others busy from the network, the administrator still gets in.
  for (unsigned i = 0; !options_.unix_socket.empty() && i < options_.local_workers; ++i)
    workers_.emplace_back([this] { work(true); });
  return true;
}

void HTTP_Server::Impl::wake() {
  const std::uint64_t one = 1;
  if (write(wake_fd_, &one, sizeof(one)) < 0) LOG_DEBUG("The HTTP server was not woken: %m\n");
}

void HTTP_Server::Impl::accept_from(const HTTP_Listener& listener) {
  HTTP_Connection::Origin origin;
  const int fd = accept_connection(listener, origin.peer);
  if (fd < 0) return;
  origin.local = listener.local();
  origin.tls = listener.tls();
  waiting_.push_back({std::make_shared<HTTP_Connection>(fd, origin, options_, handler_),
                      Clock::now() + std::chrono::seconds(options_.header_timeout)});
}

void HTTP_Server::Impl::take_returned() {
  std::vector<Connection> returned;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    returned.swap(returned_);
  }
  for (const Connection& connection : returned)
    waiting_.push_back({connection, Clock::now() + std::chrono::seconds(options_.idle_timeout)});
}

bool HTTP_Server::Impl::has_room(bool local) {
  std::lock_guard<std::mutex> guard(mutex_);
  const std::size_t most = options_.max_connections + (local ? options_.local_workers : 0);
  return waiting_.size() + ready_.size() + local_ready_.size() + active_.size() + returned_.size() < most;
}

// The event descriptor first, the waiting connections next, the listeners last.
std::vector<pollfd> HTTP_Server::Impl::entries() {
  std::vector<pollfd> entries{{wake_fd_, POLLIN, 0}};
  for (const Waiting& one : waiting_)
    entries.push_back({one.connection->transport().fd(), POLLIN, 0});
  for (const HTTP_Listener& listener : listeners_)
    entries.push_back({listener.fd(), static_cast<short>(has_room(listener.local()) ? POLLIN : 0), 0});
  return entries;
}

void HTTP_Server::Impl::make_ready(const Connection& connection) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (connection->local()) {
    local_ready_.push_back(connection);
    local_work_.notify_one();
  } else {
    ready_.push_back(connection);
  }
  work_.notify_one();
}

// The lock is held. False when there is none.
bool HTTP_Server::Impl::take_ready(bool local_only, Connection& connection) {
  std::deque<Connection>& from = local_only || !local_ready_.empty() ? local_ready_ : ready_;
  if (from.empty()) return false;
  connection = from.front();
  from.pop_front();
  active_.insert(connection);
  return true;
}

void HTTP_Server::Impl::look_at_waiting(const std::vector<pollfd>& entries) {
  std::vector<Waiting> kept;
  const auto now = Clock::now();
  for (std::size_t i = 0; i < waiting_.size(); ++i) {
    if (entries[i + 1].revents != 0) {
      make_ready(waiting_[i].connection);
    } else if (now < waiting_[i].until) {
      kept.push_back(waiting_[i]);
    } else {
      waiting_[i].connection->transport().farewell();
    }
  }
  waiting_.swap(kept);
}

void HTTP_Server::Impl::watch() {
  while (!stopping_) {
    std::vector<pollfd> now = entries();
    const std::size_t first_listener = 1 + waiting_.size();
    if (poll(now.data(), now.size(), 1000) < 0) continue;
    std::uint64_t count = 0;
    while (read(wake_fd_, &count, sizeof(count)) > 0) {
    }
    look_at_waiting(now);
    for (std::size_t i = first_listener; i < now.size(); ++i) {
      if (now[i].revents != 0) accept_from(listeners_[i - first_listener]);
    }
    take_returned();
  }
  listeners_.clear();
  // Requests that have arrived by now are still served.
  std::vector<pollfd> last = entries();
  if (poll(last.data(), last.size(), 0) >= 0) look_at_waiting(last);
  waiting_.clear();
}

void HTTP_Server::Impl::work(bool local_only) {
  std::condition_variable& work = local_only ? local_work_ : work_;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    Connection connection;
    bool taken = false;
    work.wait(lock, [&] { return (taken = take_ready(local_only, connection)) || closed_; });
    if (!taken) return;
    lock.unlock();
    const bool keep = connection->serve(stopping_);
    lock.lock();
    active_.erase(connection);
    if (keep && !stopping_) {
      returned_.push_back(connection);
      wake();
    }
    ended_.notify_one();
  }
}

void HTTP_Server::Impl::stop(unsigned grace_seconds) {
  if (wake_fd_ < 0) return;
  stopping_ = true;
  wake();
  watcher_.join();
  {
    std::unique_lock<std::mutex> lock(mutex_);
    ended_.wait_for(lock, std::chrono::seconds(grace_seconds),
                    [this] { return active_.empty() && ready_.empty() && local_ready_.empty(); });
    for (const Connection& connection : active_)
      connection->transport().cut();
    ready_.clear();
    local_ready_.clear();
    closed_ = true;
    work_.notify_all();
    local_work_.notify_all();
  }
  for (std::thread& worker : workers_)
    worker.join();
  workers_.clear();
  returned_.clear();
  close(wake_fd_);
  wake_fd_ = -1;
}

HTTP_Server::HTTP_Server() : impl_(std::make_unique<Impl>()) {}
HTTP_Server::~HTTP_Server() {
  stop();
}

bool HTTP_Server::start(const HTTP_Server_Options& options, Handler handler, std::string& error) {
  return impl_->start(options, std::move(handler), error);
}

void HTTP_Server::stop(unsigned grace_seconds) {
  impl_->stop(grace_seconds);
}

std::vector<ACE_UINT16> HTTP_Server::ports() const {
  return impl_->ports();
}
