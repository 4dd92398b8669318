#pragma once
// JSON-RPC 2.0 calls to a service on this host: one JSON object a line over a Unix socket.

#include <memory>
#include <mutex>
#include <string>

#include "platform/json/json_spirit.h"

// One request or reply. A plain value.
class JSON_RPC_Object {
 public:
  enum Type : int {
    TYPE_UNKNOWN = 0,
    TYPE_REQUEST = 1,
    TYPE_NOTIFICATION = 2,
    TYPE_RESPONSE = 3,
    TYPE_RESPONSE_ERROR = 4
  };

  JSON_RPC_Object() = default;
  // Takes an object apart: TYPE_UNKNOWN when it is no valid JSON-RPC 2.0 message.
  explicit JSON_RPC_Object(json_spirit::Value value);

  Type type() const { return type_; }
  const json_spirit::Value& value() const { return value_; }
  // The result of a reply, or the error object of an error reply; null otherwise.
  json_spirit::Value result() const;
  // The error reply's "message", empty otherwise.
  std::string error_message() const;

 private:
  Type type_ = TYPE_UNKNOWN;
  json_spirit::Value value_;
};

// Where the service listens. Any thread.
class JSON_RPC_Channel {
 public:
  explicit JSON_RPC_Channel(std::string socket_path = "") : socket_path_(std::move(socket_path)) {}

  // The Unix socket of the service; empty = none is configured, and every request fails.
  std::string socket_path() const;
  void socket_path(const std::string& path);
  // A number for the next request.
  unsigned long next_id();

 private:
  mutable std::mutex mutex_;
  std::string socket_path_;
  unsigned long last_id_ = 0;
};

// The process-wide channel, made at the first call. After close_instance() sessions made before fail.
class Global_JSON_RPC_Channel {
 public:
  static std::shared_ptr<JSON_RPC_Channel> instance();
  static void close_instance();
};

// Calls over a channel, which it does not keep alive. One connection for each request. One thread at a time.
class JSON_RPC_Session {
 public:
  explicit JSON_RPC_Session(std::weak_ptr<JSON_RPC_Channel> channel) : channel_(std::move(channel)) {}

  // Builds a request. False, logged, when the method is empty, the parameters are neither object nor array,
  // or the channel is gone.
  bool make_rpc_request(const std::string& method, const json_spirit::Value& params,
                        JSON_RPC_Object& request);

  // Sends the request and waits for its reply, at most `timeout` seconds in all (0 = 30). True when a valid
  // reply with the request's id came: its type says whether it is a result or an error. False, with the
  // reason logged, when no service is configured, it cannot be reached, or it does not answer in time or not
  // with a reply.
  bool request(const JSON_RPC_Object& request, JSON_RPC_Object& response, unsigned timeout);

 private:
  std::weak_ptr<JSON_RPC_Channel> channel_;
};
