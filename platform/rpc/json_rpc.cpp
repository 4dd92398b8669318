#include "platform/rpc/json_rpc.h"

#include "platform/base/log.h"
#include "platform/http/transport.h"

using http_transport::Clock;
using http_transport::Transport;

namespace {

constexpr unsigned DEFAULT_TIMEOUT = 30;
constexpr std::size_t MAX_LINE = 16 * 1024 * 1024;

JSON_RPC_Object::Type classify(const json_spirit::Value& value) {
  const json_spirit::Object* object = json_spirit::get_object(value);
  std::string version;
  if (object == nullptr || !json_spirit::object_find(*object, "jsonrpc", version) || version != "2.0")
    return JSON_RPC_Object::TYPE_UNKNOWN;
  std::string method;
  const bool has_id = object->count("id") != 0;
  if (json_spirit::object_find(*object, "method", method))
    return has_id ? JSON_RPC_Object::TYPE_REQUEST : JSON_RPC_Object::TYPE_NOTIFICATION;
  const bool has_result = object->count("result") != 0;
  json_spirit::Object error;
  const bool has_error = json_spirit::object_find(*object, "error", error);
  if (!has_id || has_result == has_error) return JSON_RPC_Object::TYPE_UNKNOWN;
  return has_result ? JSON_RPC_Object::TYPE_RESPONSE : JSON_RPC_Object::TYPE_RESPONSE_ERROR;
}

// A line without its end. False with the reason in `error`.
bool read_line(Transport& transport, std::string& line, std::string& error) {
  char part[4096];
  while (line.size() < MAX_LINE) {
    const ssize_t got = transport.read(part, sizeof(part));
    if (got < 0) return error = transport.error(), false;
    if (got == 0) return error = "the service closed the connection before it answered", false;
    line.append(part, static_cast<std::size_t>(got));
    const std::size_t end = line.find('\n');
    if (end == std::string::npos) continue;
    line.resize(end);
    return true;
  }
  error = "the answer is too long";
  return false;
}

bool exchange(const std::string& path, const json_spirit::Value& request, unsigned timeout,
              json_spirit::Value& reply, std::string& error) {
  const auto deadline = Clock::now() + std::chrono::seconds(timeout);
  HTTP_Failure failure;
  const auto transport = http_transport::connect_unix(path, timeout, failure);
  if (transport == nullptr) return error = failure.text, false;
  transport->idle_limit(timeout);
  transport->deadline(deadline);
  const std::string text = JSON_Dump(request) + "\n";
  if (!transport->write(text.data(), text.size())) return error = transport->error(), false;
  std::string line;
  if (!read_line(*transport, line, error)) return false;
  if (!loads_json(line, reply)) return error = "the answer is not JSON", false;
  return true;
}

bool same_id(const json_spirit::Value& one, const json_spirit::Value& other) {
  const auto* request = json_spirit::get_object(one);
  const auto* reply = json_spirit::get_object(other);
  if (request == nullptr || reply == nullptr) return false;
  const auto wanted = request->find("id");
  const auto found = reply->find("id");
  return wanted != request->end() && found != reply->end() && wanted->second == found->second;
}

}  // namespace

JSON_RPC_Object::JSON_RPC_Object(json_spirit::Value value)
    : type_(classify(value)), value_(std::move(value)) {}

json_spirit::Value JSON_RPC_Object::result() const {
  if (type_ == TYPE_RESPONSE) return value_.at("result");
  if (type_ == TYPE_RESPONSE_ERROR) return value_.at("error");
  return nullptr;
}

std::string JSON_RPC_Object::error_message() const {
  if (type_ != TYPE_RESPONSE_ERROR) return "";
  json_spirit::Object error;
  std::string message;
  json_spirit::object_find(*json_spirit::get_object(value_), "error", error);
  json_spirit::object_find(error, "message", message);
  return message;
}

std::string JSON_RPC_Channel::socket_path() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return socket_path_;
}

void JSON_RPC_Channel::socket_path(const std::string& path) {
  std::lock_guard<std::mutex> guard(mutex_);
  socket_path_ = path;
}

unsigned long JSON_RPC_Channel::next_id() {
  std::lock_guard<std::mutex> guard(mutex_);
  return ++last_id_;
}

namespace {
std::mutex instance_mutex;
std::shared_ptr<JSON_RPC_Channel> instance_channel;
}  // namespace

std::shared_ptr<JSON_RPC_Channel> Global_JSON_RPC_Channel::instance() {
  std::lock_guard<std::mutex> guard(instance_mutex);
  if (instance_channel == nullptr) instance_channel = std::make_shared<JSON_RPC_Channel>();
  return instance_channel;
}

void Global_JSON_RPC_Channel::close_instance() {
  std::lock_guard<std::mutex> guard(instance_mutex);
  instance_channel.reset();
}

bool JSON_RPC_Session::make_rpc_request(const std::string& method, const json_spirit::Value& params,
                                        JSON_RPC_Object& request) {
  if (method.empty()) return LOG_VIOLATION("method is NULL or \"\"");
  if (!params.is_object() && !params.is_array())
    return LOG_FAILURE("Failed to make request '%s': the parameters are neither object nor array\n",
                       method.c_str());
  const auto channel = channel_.lock();
  if (channel == nullptr)
    return LOG_FAILURE("Failed to make request '%s': the channel is closed\n", method.c_str());
  json_spirit::Object object;
  object["jsonrpc"] = "2.0";
  object["method"] = method;
  object["params"] = params;
  object["id"] = channel->next_id();
  request = JSON_RPC_Object(object);
  return true;
}

bool JSON_RPC_Session::request(const JSON_RPC_Object& request, JSON_RPC_Object& response, unsigned timeout) {
  if (request.type() != JSON_RPC_Object::TYPE_REQUEST) return LOG_VIOLATION("request is no request");
  const auto channel = channel_.lock();
  if (channel == nullptr) return LOG_FAILURE("Failed to send request: the channel is closed\n");
  const std::string method = request.value().at("method").get<std::string>();
  const std::string path = channel->socket_path();
  if (path.empty())
    return LOG_FAILURE("Failed to send request '%s': no service is configured\n", method.c_str());
  json_spirit::Value reply;
  std::string error;
  if (!exchange(path, request.value(), timeout != 0 ? timeout : DEFAULT_TIMEOUT, reply, error))
    return LOG_FAILURE("Failed to send request '%s' to '%s': %s\n", method.c_str(), path.c_str(),
                       error.c_str());
  JSON_RPC_Object object(reply);
  const bool is_reply = object.type() == JSON_RPC_Object::TYPE_RESPONSE ||
                        object.type() == JSON_RPC_Object::TYPE_RESPONSE_ERROR;
  if (!is_reply || !same_id(request.value(), object.value()))
    return LOG_FAILURE("Failed to send request '%s' to '%s': the answer is no reply to it\n", method.c_str(),
                       path.c_str());
  response = object;
  return true;
}
