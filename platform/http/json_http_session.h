#pragma once
// JSON requests to one host with retries.

#include <memory>
#include <string>

#include "platform/http/http_session.h"
#include "platform/json/json_spirit.h"

// Requests that send and receive JSON. A request is repeated, at most `retries` times and not later than
// `retry_timeout` seconds after it began, when its connection could not be made or was lost; one that may
// have been carried out already is repeated only when it is a GET, PUT or DELETE. Answers, whatever their
// status, are never asked for again. Failures are logged with the step that failed. Copies share the
// connection. One thread at a time.
class JSON_HTTP_Session {
 public:
  explicit JSON_HTTP_Session(unsigned retries = 5, unsigned retry_timeout = 300);
  explicit JSON_HTTP_Session(std::shared_ptr<HTTP_Session> session, unsigned retries = 5,
                             unsigned retry_timeout = 300);

  // Usable: it has a session.
  explicit operator bool() const { return session_ != nullptr; }
  void session(std::shared_ptr<HTTP_Session> session) { session_ = std::move(session); }
  const std::shared_ptr<HTTP_Session>& session() const { return session_; }
  unsigned retries() const { return retries_; }
  unsigned retry_timeout() const { return retry_timeout_; }

  // Fields sent with every request, such as put(48, key, true). Only on a usable session.
  HTTP_Headers& headers() { return session_->headers(); }

  // One request each. `path` is plain text. True when an answer came and its body, if any, was JSON (for a
  // status other than 200 any body will do): `status` is the HTTP status and `reply` the body (null without
  // one). False, with status 0 and the reason in error(), otherwise.
  bool get(const std::string& path, const Query& query, json_spirit::Value& reply, int& status);
  bool post(const std::string& path, const json_spirit::Value& body, json_spirit::Value& reply, int& status);
  bool put(const std::string& path, const json_spirit::Value& body, json_spirit::Value& reply, int& status);
  bool del(const std::string& path, const Query& query, json_spirit::Value& reply, int& status);
  // `body` may be null.
  bool request(const std::string& method, const std::string& path, const Query& query,
               const json_spirit::Value* body, json_spirit::Value& reply, int& status);

  // Why the last request failed, or the message that came with a status other than 200 ("error"/"message").
  const std::string& error() const { return error_; }

 private:
  bool send_with_retries(const HTTP_Request& request, HTTP_Response& response);
  bool take_reply(const HTTP_Response& response, json_spirit::Value& reply);

  std::shared_ptr<HTTP_Session> session_;
  unsigned retries_;
  unsigned retry_timeout_;
  std::string error_;
};
