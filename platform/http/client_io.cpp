#include "platform/http/client_io.h"

#include <algorithm>
#include <cstdio>

#include "platform/http/http_wire.h"
#include "platform/http/transport.h"

namespace {

using http_transport::Clock;
using http_transport::Transport;

constexpr std::size_t CHUNK = 64 * 1024;
constexpr std::size_t HEAD = 16;  // room for the size of a chunk in hexadecimal digits, and CRLF
constexpr std::size_t MAX_REPLY = 1024 * 1024;

double seconds_now() {
  return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

}  // namespace

class Client_IO::Impl {
 public:
  bool connect(const URI& uri, const Client_IO_Options& options);
  bool open(const std::string& name);
  bool write(const char* data, std::size_t size);
  bool close();
  bool remove(const std::string& name);

  void cut() {
    transport_.reset();
    open_ = false;
    chunk_.clear();
  }

  bool fail(const std::string& text) {
    error_ = text;
    cut();
    return false;
  }

  std::string error_;

 private:
  std::unique_ptr<Transport> dial(std::string& error);
  bool send_chunk();
  bool send(const char* data, std::size_t size);
  bool send(const std::string& bytes) { return send(bytes.data(), bytes.size()); }
  bool wait_for_rate();
  bool answered_early();
  URI address_of(const std::string& name) const;

  URI uri_;
  Client_IO_Options options_;
  Rate_Limiter limiter_;
  std::unique_ptr<Transport> transport_;
  bool open_ = false;
  std::string chunk_;  // the next one, after the room for its head; empty while no file is open
};

// One connection, tried for as long as the options allow.
std::unique_ptr<Transport> Client_IO::Impl::dial(std::string& error) {
  http_transport::Connect_Options target;
  target.host = uri_.host();
  target.port = uri_.port();
  target.tls = uri_.is_ssl();
  target.tls_settings = TLS_Settings::get();
  const double end = seconds_now() + options_.max_seconds_retry;
  for (double delay = 1;; delay = std::min(delay * 2, 30.0)) {
    HTTP_Failure failure;
    auto transport = http_transport::connect_tcp(target, failure);
    if (transport != nullptr) {
      transport->idle_limit(options_.socket_timeout_seconds);
      return transport;
    }
    error = failure.text;
    const double left = end - seconds_now();
    if (!failure.temporary || left <= 0 || !http_transport::client_sleep(std::min(delay, left)))
      return nullptr;
  }
}

bool Client_IO::Impl::connect(const URI& uri, const Client_IO_Options& options) {
  cut();
  error_.clear();
  uri_ = uri;
  options_ = options;
  limiter_ = Rate_Limiter(options.rate_control_entries);
  std::string error;
  transport_ = dial(error);
  return transport_ != nullptr || fail(error);
}

URI Client_IO::Impl::address_of(const std::string& name) const {
  URI address = uri_;
  address.append_path(name);
  return address;
}

bool Client_IO::Impl::open(const std::string& name) {
  if (open_) return fail("a remote file is open already");
  if (transport_ == nullptr) return fail("not connected");
  // An unused connection is closed by the peer after some time.
  std::string error;
  if (transport_->readable(0) && (transport_ = dial(error)) == nullptr) return fail(error);
  HTTP_Headers extra;
  extra.put("Content-Type", "application/octet-stream");
  extra.put("Transfer-Encoding", "chunked");
  extra.put("Connection", "close");
  if (!options_.overwrite) extra.put("If-None-Match", "*");
  const URI address = address_of(name);
  if (!send(http_wire::request_head("POST", address.target(), address.authority(), options_.headers, extra)))
    return false;
  open_ = true;
  chunk_.reserve(HEAD + CHUNK + 2);
  chunk_.assign(HEAD, '\0');
  return true;
}

bool Client_IO::Impl::send(const char* data, std::size_t size) {
  if (transport_->write(data, size)) return true;
  const std::string error = transport_->error();
  if (transport_->readable(0.5) && answered_early()) return false;
  return fail("the connection was lost: " + error);
}

// Takes an answer that came before the end of the file: a refusal. False when there is none.
bool Client_IO::Impl::answered_early() {
  HTTP_Response response;
  http_wire::Reply_Result result;
  if (!http_wire::read_response(*transport_, MAX_REPLY, response, result)) return false;
  fail(response.status == 200 ? "the peer answered before the end of the data"
                              : http_wire::refusal_text(response));
  return true;
}

bool Client_IO::Impl::wait_for_rate() {
  for (;;) {
    const double delay = limiter_.delay(seconds_now(), current_second_of_day());
    if (transport_->readable(std::min(delay, 0.25)))
      return answered_early() ? false : fail("the peer closed the connection");
    if (http_transport::clients_interrupted()) return fail("interrupted: the process is being stopped");
    if (delay <= 0) return true;
  }
}

bool Client_IO::Impl::send_chunk() {
  if (!wait_for_rate()) return false;
  const std::size_t size = chunk_.size() - HEAD;
  char head[HEAD + 1];
  const auto length = static_cast<std::size_t>(std::snprintf(head, sizeof(head), "%zx\r\n", size));
  const std::size_t begin = HEAD - length;
  chunk_.replace(begin, length, head, length).append("\r\n");
  if (!send(chunk_.data() + begin, chunk_.size() - begin)) return false;
  limiter_.charge(size);
  chunk_.resize(HEAD);
  return true;
}

bool Client_IO::Impl::write(const char* data, std::size_t size) {
  if (!open_) return error_.empty() ? fail("no remote file is open") : false;
  while (size > 0) {
    const std::size_t part = std::min(size, HEAD + CHUNK - chunk_.size());
    chunk_.append(data, part);
    data += part;
    size -= part;
    if (chunk_.size() == HEAD + CHUNK && !send_chunk()) return false;
  }
  return true;
}

bool Client_IO::Impl::close() {
  if (!open_) return error_.empty() ? fail("no remote file is open") : false;
  if (chunk_.size() > HEAD && !send_chunk()) return false;
  if (!send("0\r\n\r\n")) return false;
  HTTP_Response response;
  http_wire::Reply_Result result;
  if (!http_wire::read_response(*transport_, MAX_REPLY, response, result)) return fail(result.error);
  transport_->farewell();
  cut();
  return response.status == 200 || fail(http_wire::refusal_text(response));
}

bool Client_IO::Impl::remove(const std::string& name) {
  cut();
  if (uri_.host().empty()) return fail("not connected");
  std::string error;
  const std::unique_ptr<Transport> transport = dial(error);
  if (transport == nullptr) return fail(error);
  HTTP_Headers extra;
  extra.put("Connection", "close");
  const URI address = address_of(name);
  const std::string head =
      http_wire::request_head("DELETE", address.target(), address.authority(), options_.headers, extra);
  if (!transport->write(head.data(), head.size()))
    return fail("the connection was lost: " + transport->error());
  HTTP_Response response;
  http_wire::Reply_Result result;
  if (!http_wire::read_response(*transport, MAX_REPLY, response, result)) return fail(result.error);
  return response.status == 200 || response.status == 404 || fail(http_wire::refusal_text(response));
}

Client_IO::Client_IO() : impl_(std::make_unique<Impl>()) {}
Client_IO::~Client_IO() = default;

bool Client_IO::connect(const URI& uri, const Client_IO_Options& options) {
  return impl_->connect(uri, options);
}

bool Client_IO::open(const std::string& remote_name, int mode) {
  if (mode != WRITE) return impl_->fail("a remote file can only be written");
  return impl_->open(remote_name);
}

bool Client_IO::write(const void* data, std::size_t size) {
  return impl_->write(static_cast<const char*>(data), size);
}
bool Client_IO::close() {
  return impl_->close();
}
bool Client_IO::remove(const std::string& remote_name) {
  return impl_->remove(remote_name);
}
void Client_IO::disconnect() {
  impl_->cut();
}
const std::string& Client_IO::last_error() const {
  return impl_->error_;
}
