#include "platform/http/http_connection.h"

#include <ctime>
#include <exception>
#include <limits>

#include "platform/base/log.h"
#include "platform/http/beast_stream.h"

namespace beast = boost::beast;
namespace http = boost::beast::http;
using http_transport::Clock;

namespace {

constexpr std::size_t BUFFER = 128 * 1024;
constexpr unsigned LINGER_SECONDS = 2;

Clock::time_point in_seconds(unsigned seconds) {
  return Clock::now() + std::chrono::seconds(seconds);
}

std::string http_date() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[64];
  return std::string(text, std::strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &utc));
}

// The status that a header which cannot be read is answered with; 0 = not at all.
int refusal_status(const beast::error_code& error, const http_transport::Transport& transport) {
  if (error == http::error::end_of_stream || error == http::error::partial_message) return 0;
  if (error == beast::errc::io_error) return transport.timed_out() ? 408 : 0;
  if (error == http::error::header_limit || error == http::error::buffer_overflow) return 431;
  return 400;
}

}  // namespace

// Bytes that were read beyond a request belong to the next one.
class HTTP_Connection::State {
 public:
  State() { buffer.reserve(BUFFER); }
  beast::flat_buffer buffer;
};

// One request and its answer.
class HTTP_Connection::Exchange : public Body_Reader {
 public:
  explicit Exchange(HTTP_Connection& connection) : connection_(connection), stream_(connection.transport_) {}

  // True when the connection can serve another request.
  bool run(const std::atomic<bool>& stopping);

  ssize_t read(void* buffer, std::size_t size) override;
  const std::string& error() const override { return error_; }
  void cut() override { connection_.transport_.cut(); }

 private:
  bool read_header();
  bool fill_request();
  bool take_target(const std::string& target);
  bool admitted();
  std::size_t take_along(char* bytes, std::size_t size);
  bool take_body();
  void go_ahead();
  void handle();
  bool answer(bool keep);
  bool refuse(int status, const std::string& message);
  void linger();

  HTTP_Connection& connection_;
  http_transport::Beast_Stream stream_;
  http::request_parser<http::buffer_body> parser_;
  Server_Request request_;
  Server_Response response_;
  std::string error_;
  bool waits_ = false;  // the client sends the body only when told to go ahead
};

bool HTTP_Connection::Exchange::refuse(int status, const std::string& message) {
  response_ = Server_Response();
  response_.error(status, message);
  answer(false);
  return false;
}

bool HTTP_Connection::Exchange::read_header() {
  auto& transport = connection_.transport_;
  transport.deadline(in_seconds(connection_.options_.header_timeout));
  transport.idle_limit(connection_.options_.header_timeout);
  parser_.header_limit(64 * 1024);
  parser_.body_limit(
      std::numeric_limits<std::uint64_t>::max());  // limits are looked after where the body is read
  beast::error_code error;
  http::read_header(stream_, connection_.state_->buffer, parser_, error);
  transport.deadline(Clock::time_point::max());
  if (!error) return true;
  const int status = refusal_status(error, transport);
  if (status == 0) return false;
  return refuse(
      status, status == 408 ? "the request did not arrive in time" : "malformed request: " + error.message());
}

bool HTTP_Connection::Exchange::take_target(const std::string& target) {
  const std::size_t mark = target.find('?');
  const std::string path = target.substr(0, mark);
  if (path.empty() || path[0] != '/' || !URI::unescape(path, request_.path)) return false;
  for (std::size_t begin = 1; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    std::string segment;
    if (!URI::unescape(path.substr(begin, end - begin), segment)) return false;
    request_.segments.push_back(segment);
    begin = end + 1;
  }
  return mark == std::string::npos || URI::parse_query(target.substr(mark + 1), request_.query);
}

bool HTTP_Connection::Exchange::fill_request() {
  const auto& message = parser_.get();
  request_.method = std::string(message.method_string());
  if (!take_target(std::string(message.target()))) return refuse(400, "malformed request target");
  for (const auto& field : message) {
    const std::string name(field.name_string());
    if (!request_.headers.put(name, std::string(field.value()), false))
      return refuse(400, "malformed header field");
  }
  const std::string* expect = request_.headers.find("Expect");
  if (expect != nullptr && !beast::iequals(*expect, "100-continue"))
    return refuse(417, "unknown expectation");
  waits_ = expect != nullptr;
  request_.local = connection_.origin_.local;
  request_.tls = connection_.transport_.tls();
  request_.peer = connection_.origin_.peer;
  return true;
}

bool HTTP_Connection::Exchange::admitted() {
  const auto& admit = connection_.options_.admit;
  if (!admit || admit(request_, response_)) return true;
  answer(parser_.is_done());
  return false;
}

void HTTP_Connection::Exchange::go_ahead() {
  static const char text[] = "HTTP/1.1 100 Continue\r\n\r\n";
  if (waits_ && !parser_.is_done()) connection_.transport_.write(text, sizeof(text) - 1);
  waits_ = false;
}

ssize_t HTTP_Connection::Exchange::read(void* buffer, std::size_t size) {
  if (!error_.empty()) return -1;
  go_ahead();
  char* bytes = static_cast<char*>(buffer);
  auto& body = parser_.get().body();
  while (!parser_.is_done()) {
    body.data = bytes;
    body.size = size;
    body.more = true;
    beast::error_code error;
    http::read_some(stream_, connection_.state_->buffer, parser_, error);
    if (error && error != http::error::need_buffer) {
      const bool io = error == beast::errc::io_error;
      error_ = "the body was cut: " + (io ? connection_.transport_.error() : error.message());
      return -1;
    }
    const std::size_t taken = size - body.size;
    if (taken > 0) return static_cast<ssize_t>(taken + take_along(bytes + taken, size - taken));
  }
  return 0;
}

// What else has arrived already: the borders of chunks would make small pieces otherwise.
std::size_t HTTP_Connection::Exchange::take_along(char* bytes, std::size_t size) {
  auto& arrived = connection_.state_->buffer;
  auto& body = parser_.get().body();
  std::size_t taken = 0, used = 1;
  while (used > 0 && taken < size && arrived.size() > 0 && !parser_.is_done()) {
    body.data = bytes + taken;
    body.size = size - taken;
    beast::error_code error;  // comes again when more is read
    used = parser_.put(arrived.data(), error);
    arrived.consume(used);
    taken = size - body.size;
  }
  return taken;
}

bool HTTP_Connection::Exchange::take_body() {
  const std::size_t limit = connection_.options_.max_body;
  const auto length = parser_.content_length();
  if (length && *length > limit)
    return refuse(413, "the body is longer than " + std::to_string(limit) + " bytes");
  auto& transport = connection_.transport_;
  transport.idle_limit(connection_.options_.body_timeout);
  transport.deadline(in_seconds(connection_.options_.body_timeout));
  std::string part(64 * 1024, '\0');
  ssize_t got = 0;
  while (request_.body.size() <= limit && (got = read(&part[0], part.size())) > 0) {
    request_.body.append(part, 0, static_cast<std::size_t>(got));
  }
  transport.deadline(Clock::time_point::max());
  if (request_.body.size() > limit)
    return refuse(413, "the body is longer than " + std::to_string(limit) + " bytes");
  if (got == 0) return true;
  return transport.timed_out() ? refuse(408, "the body did not arrive in time") : refuse(400, error_);
}

void HTTP_Connection::Exchange::handle() {
  try {
    connection_.handler_(request_, response_);
  } catch (const std::exception& error) {
    LOG_FAILURE("Failed to serve %s %s: %s\n", request_.method.c_str(), request_.path.c_str(), error.what());
    response_ = Server_Response();
    response_.error(500, std::string("internal error: ") + error.what());
  }
}

bool HTTP_Connection::Exchange::answer(bool keep) {
  const auto reason = http::obsolete_reason(http::int_to_status(static_cast<unsigned>(response_.status)));
  std::string text = "HTTP/1.1 " + std::to_string(response_.status) + " " + std::string(reason) + "\r\n";
  text += "Date: " + http_date() + "\r\n";
  if (!response_.body.empty()) text += "Content-Type: " + response_.content_type + "\r\n";
  text += "Content-Length: " + std::to_string(response_.body.size()) + "\r\n";
  text += keep ? "Connection: keep-alive\r\n" : "Connection: close\r\n";
  for (const auto& [name, value] : response_.headers.all())
    text += name + ": " + value + "\r\n";
  text += "\r\n";
  if (request_.method != "HEAD") text += response_.body;
  auto& transport = connection_.transport_;
  transport.idle_limit(connection_.options_.write_timeout);
  if (!transport.write(text.data(), text.size())) return false;
  if (!keep) linger();
  return keep;
}

// Closing while the client still sends would reset the connection and take the answer from it.
void HTTP_Connection::Exchange::linger() {
  auto& transport = connection_.transport_;
  transport.farewell();
  if (parser_.is_done()) return;
  transport.deadline(in_seconds(LINGER_SECONDS));
  std::string waste(64 * 1024, '\0');
  while (transport.read(&waste[0], waste.size()) > 0) {
  }
}

bool HTTP_Connection::Exchange::run(const std::atomic<bool>& stopping) {
  if (!read_header() || !fill_request() || !admitted()) return false;
  const auto& streams = connection_.options_.streams;
  if (streams && streams(request_)) {
    connection_.transport_.idle_limit(connection_.options_.stream_timeout);
    request_.stream = this;
  } else if (!take_body()) {
    return false;
  }
  handle();
  return answer(parser_.is_done() && parser_.get().keep_alive() && !stopping);
}

HTTP_Connection::HTTP_Connection(int fd, Origin origin, const HTTP_Server_Options& options,
                                 const HTTP_Server::Handler& handler)
    : transport_(fd, false), origin_(std::move(origin)), options_(options), handler_(handler) {}

HTTP_Connection::~HTTP_Connection() = default;

bool HTTP_Connection::serve(const std::atomic<bool>& stopping) {
  if (!greeted_ && origin_.tls != nullptr &&
      !transport_.accept_tls(origin_.tls, in_seconds(options_.header_timeout))) {
    LOG_DEBUG("TLS with %s failed: %s\n", origin_.peer.c_str(), transport_.error().c_str());
    return false;
  }
  greeted_ = true;
  if (state_ == nullptr) state_ = std::make_unique<State>();
  do {
    if (!Exchange(*this).run(stopping)) return false;
  } while (state_->buffer.size() > 0 || transport_.readable(0));
  state_.reset();  // an idle connection keeps no buffers
  return true;
}
