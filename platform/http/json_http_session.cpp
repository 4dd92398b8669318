#include "platform/http/json_http_session.h"

#include <algorithm>
#include <chrono>

#include "platform/base/log.h"
#include "platform/http/http_wire.h"
#include "platform/http/transport.h"

namespace {

// Whether a request may be sent again after this failure without a chance of being carried out twice to a
// different end.
bool repeatable(const std::string& method, const HTTP_Failure& failure) {
  if (!failure.temporary) return false;
  return failure.stage == HTTP_Failure::CONNECT || method == "GET" || method == "PUT" || method == "DELETE";
}

}  // namespace

JSON_HTTP_Session::JSON_HTTP_Session(unsigned retries, unsigned retry_timeout)
    : retries_(retries), retry_timeout_(retry_timeout) {}

JSON_HTTP_Session::JSON_HTTP_Session(std::shared_ptr<HTTP_Session> session, unsigned retries,
                                     unsigned retry_timeout)
    : session_(std::move(session)), retries_(retries), retry_timeout_(retry_timeout) {}

bool JSON_HTTP_Session::get(const std::string& path, const Query& query, json_spirit::Value& reply,
                            int& status) {
  return request("GET", path, query, nullptr, reply, status);
}

bool JSON_HTTP_Session::post(const std::string& path, const json_spirit::Value& body,
                             json_spirit::Value& reply, int& status) {
  return request("POST", path, {}, &body, reply, status);
}

bool JSON_HTTP_Session::put(const std::string& path, const json_spirit::Value& body,
                            json_spirit::Value& reply, int& status) {
  return request("PUT", path, {}, &body, reply, status);
}

bool JSON_HTTP_Session::del(const std::string& path, const Query& query, json_spirit::Value& reply,
                            int& status) {
  return request("DELETE", path, query, nullptr, reply, status);
}

bool JSON_HTTP_Session::send_with_retries(const HTTP_Request& request, HTTP_Response& response) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(retry_timeout_);
  HTTP_Failure failure;
  for (unsigned attempt = 0;; ++attempt) {
    if (session_->send(request, response, failure)) return true;
    error_ = failure.text;
    const double delay = std::min(1u << attempt, 30u);
    const bool in_time = std::chrono::steady_clock::now() + std::chrono::duration<double>(delay) < end;
    if (attempt >= retries_ || !in_time || !repeatable(request.method, failure)) return false;
    LOG_NOTICE("%s %s of %s failed, trying again: %s\n", request.method.c_str(), request.path.c_str(),
               session_->peer().c_str(), error_.c_str());
    if (!http_transport::client_sleep(delay)) return false;
  }
}

bool JSON_HTTP_Session::take_reply(const HTTP_Response& response, json_spirit::Value& reply) {
  json_spirit::Value value;
  const bool is_json = response.body.empty() || loads_json(response.body, value);
  if (response.status != 200) error_ = http_wire::refusal_text(response);
  if (!is_json && response.status == 200) {
    error_ = "the answer is not JSON";
    return false;
  }
  reply = std::move(value);
  return true;
}

bool JSON_HTTP_Session::request(const std::string& method, const std::string& path, const Query& query,
                                const json_spirit::Value* body, json_spirit::Value& reply, int& status) {
  status = 0;
  error_.clear();
  if (!session_) return LOG_VIOLATION("session_ is NULL");
  HTTP_Request request;
  request.method = method;
  request.path = path;
  request.query = query;
  if (body != nullptr) request.body = JSON_Dump(*body);
  HTTP_Response response;
  if (!send_with_retries(request, response) || !take_reply(response, reply))
    return LOG_FAILURE("Failed to request %s %s of %s: %s\n", method.c_str(), path.c_str(),
                       session_->peer().c_str(), error_.c_str());
  status = response.status;
  // Callers look at the status alone: what the peer said would be lost.
  if (status != 200)
    LOG_NOTICE("%s %s of %s answered %d: %s\n", method.c_str(), path.c_str(), session_->peer().c_str(),
               status, error_.c_str());
  return true;
}
