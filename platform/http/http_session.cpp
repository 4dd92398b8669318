#include "platform/http/http_session.h"

#include <algorithm>

#include "platform/base/log.h"
#include "platform/http/http_wire.h"
#include "platform/http/transport.h"

namespace {

using http_transport::Clock;
using http_transport::Transport;

// A kept connection is not used again after this time: the peer may be about to close it.
constexpr std::chrono::seconds KEEP(20);
constexpr unsigned CONNECT_TIMEOUT = 15;
constexpr std::size_t MAX_REPLY = 256UL * 1024 * 1024;

// Where and how to connect: either of the two.
struct Target {
  http_transport::Connect_Options tcp;
  std::string unix_path;
  unsigned read_timeout = 120;
  unsigned write_timeout = 120;
  bool close_after = false;
  std::size_t max_reply = MAX_REPLY;
};

class Session : public HTTP_Session {
 public:
  explicit Session(Target target) : target_(std::move(target)) {
    const URI uri("http", target_.tcp.host, target_.tcp.port, "");
    host_ = target_.unix_path.empty() ? uri.authority() : "localhost";
    peer_ = target_.unix_path.empty() ? host_ : target_.unix_path;
  }

  bool send(const HTTP_Request& request, HTTP_Response& response, HTTP_Failure& failure) override;
  void disconnect() override { transport_.reset(); }
  const std::string& peer() const override { return peer_; }

  bool connect(HTTP_Failure& failure);

 private:
  bool write(const HTTP_Request& request, HTTP_Failure& failure);
  bool read(HTTP_Response& response, HTTP_Failure& failure);
  bool answered_early(HTTP_Response& response);

  Target target_;
  std::string host_;
  std::string peer_;
  std::unique_ptr<Transport> transport_;
  Clock::time_point last_used_;
};

bool Session::connect(HTTP_Failure& failure) {
  transport_ = target_.unix_path.empty()
                   ? http_transport::connect_tcp(target_.tcp, failure)
                   : http_transport::connect_unix(target_.unix_path, target_.tcp.timeout, failure);
  last_used_ = Clock::now();
  return transport_ != nullptr;
}

bool Session::write(const HTTP_Request& request, HTTP_Failure& failure) {
  HTTP_Headers extra = request.headers;
  const bool has_body = !request.body.empty();
  if (has_body) extra.put("Content-Type", request.content_type);
  if (has_body || request.method == "POST" || request.method == "PUT")
    extra.put("Content-Length", std::to_string(request.body.size()));
  if (target_.close_after) extra.put("Connection", "close");
  URI uri;
  uri.path(request.path);
  uri.query(request.query);
  transport_->idle_limit(target_.write_timeout);
  const std::string head = http_wire::request_head(request.method, uri.target(), host_, headers(), extra);
  if (transport_->write((head + request.body).data(), head.size() + request.body.size())) return true;
  failure = {HTTP_Failure::SEND, !transport_->timed_out(), "cannot send the request: " + transport_->error()};
  return false;
}

bool Session::read(HTTP_Response& response, HTTP_Failure& failure) {
  transport_->idle_limit(target_.read_timeout);
  http_wire::Reply_Result result;
  if (!http_wire::read_response(*transport_, target_.max_reply, response, result)) {
    failure = {HTTP_Failure::REPLY, result.lost && !transport_->timed_out(), result.error};
    return false;
  }
  if (!result.keep_alive || target_.close_after) {
    transport_->farewell();
    disconnect();
  }
  last_used_ = Clock::now();
  return true;
}

// A peer that refuses a request may answer before it has read it all, and close.
bool Session::answered_early(HTTP_Response& response) {
  HTTP_Failure ignored;
  return transport_->readable(0.5) && read(response, ignored);
}

bool Session::send(const HTTP_Request& request, HTTP_Response& response, HTTP_Failure& failure) {
  failure = HTTP_Failure();
  if (http_transport::clients_interrupted()) {
    failure.stage = HTTP_Failure::CONNECT;
    failure.text = "interrupted: the process is being stopped";
    return false;
  }
  // Whatever can be read before anything was asked is the end of the connection, or of its use.
  const bool stale = transport_ != nullptr && (Clock::now() - last_used_ > KEEP || transport_->readable(0));
  if (stale) disconnect();
  if (transport_ == nullptr && !connect(failure)) return false;
  const bool sent = write(request, failure) ? read(response, failure) : answered_early(response);
  if (!sent) disconnect();
  return sent;
}

void wait_or_interrupt(unsigned attempt) {
  http_transport::client_sleep(std::min(0.5 * (1 << attempt), 8.0));
}

}  // namespace

std::shared_ptr<HTTP_Session> HTTP_Session_Factory::create(const std::string& host, ACE_UINT16 port, bool tls,
                                                           const TLS_Settings* tls_settings,
                                                           unsigned connect_retries, const char* bind_address,
                                                           bool close_after, unsigned read_timeout,
                                                           unsigned write_timeout, unsigned connect_timeout,
                                                           std::size_t max_reply_bytes) {
  Target target;
  target.tcp = {host,
                port,
                tls,
                tls_settings != nullptr ? *tls_settings : TLS_Settings::get(),
                bind_address != nullptr ? bind_address : "",
                connect_timeout != 0 ? connect_timeout : CONNECT_TIMEOUT};
  target.read_timeout = read_timeout;
  target.write_timeout = write_timeout;
  target.close_after = close_after;
  if (max_reply_bytes != 0) target.max_reply = max_reply_bytes;
  const auto session = std::make_shared<Session>(target);
  HTTP_Failure failure;
  for (unsigned attempt = 0; !session->connect(failure); ++attempt) {
    if (!failure.temporary || attempt >= connect_retries || http_transport::clients_interrupted()) {
      LOG_FAILURE("Failed to connect to %s: %s\n", session->peer().c_str(), failure.text.c_str());
      return nullptr;
    }
    wait_or_interrupt(attempt);
  }
  return session;
}

std::shared_ptr<HTTP_Session> HTTP_Session_Factory::create_unix(const std::string& path, unsigned timeout,
                                                                std::string* error) {
  Target target;
  target.unix_path = path;
  target.read_timeout = target.write_timeout = timeout;
  const auto session = std::make_shared<Session>(target);
  HTTP_Failure failure;
  if (session->connect(failure)) return session;
  LOG_FAILURE("Failed to connect to %s: %s\n", path.c_str(), failure.text.c_str());
  if (error != nullptr) *error = failure.text;
  return nullptr;
}

std::shared_ptr<HTTP_Session> HTTP_Session_Factory::try_create(const std::string& host, ACE_UINT16 port,
                                                               bool tls, const TLS_Settings* tls_settings,
                                                               unsigned timeout, HTTP_Failure& failure) {
  Target target;
  target.tcp = {host, port, tls, tls_settings != nullptr ? *tls_settings : TLS_Settings::get(), "", timeout};
  target.read_timeout = target.write_timeout = timeout;
  const auto session = std::make_shared<Session>(target);
  failure = HTTP_Failure();
  if (!session->connect(failure)) return nullptr;
  return session;
}
