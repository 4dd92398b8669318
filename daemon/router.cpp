#include "daemon/router.h"

#include <algorithm>
#include <exception>

#include "daemon/members.h"
#include "platform/base/log.h"

namespace scsipoold {

using json_spirit::Object;
using json_spirit::Value;

namespace {

bool has_body(const std::string& method) {
  return method == "POST" || method == "PUT";
}

bool read_body(const std::string& text, Object& body, std::string& why) {
  Value value;
  if (!loads_json(text, value)) {
    why = text.empty() ? "the request needs a JSON body" : "the request's body is not JSON";
    return false;
  }
  const Object* object = json_spirit::get_object(value);
  if (object == nullptr) {
    why = "the request's body must be a JSON object";
    return false;
  }
  body = *object;
  return true;
}

bool check_query(const Query& query, const std::vector<std::string>& known, std::string& why) {
  for (std::size_t i = 0; i < query.size(); ++i) {
    const std::string& name = query[i].first;
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      why = "query parameter " + quoted_name(name) + ": is unknown";
      return false;
    }
    for (std::size_t other = 0; other < i; ++other) {
      if (query[other].first != name) continue;
      why = "query parameter " + quoted_name(name) + ": is given twice";
      return false;
    }
  }
  return true;
}

}  // namespace

const std::string* Request::find_query(const std::string& name) const {
  for (const auto& one : query) {
    if (one.first == name) return &one.second;
  }
  return nullptr;
}

Reply refusal(int status, const std::string& message) {
  return {status, Value{{"error", Value{{"message", message}}}}};
}

Reply failure(const Request& request, const std::string& otherwise, int status) {
  const std::string logged = request.log->failure();
  Reply reply = refusal(status, logged.empty() ? otherwise : logged);
  const std::vector<std::string> lines = request.log->lines();
  if (lines.size() > 1) reply.body["error"]["details"] = lines;
  return reply;
}

void Router::add(const std::string& method, const std::string& path, Handler handler) {
  add(method, path, {}, std::move(handler));
}

void Router::add(const std::string& method, const std::string& path, std::vector<std::string> parameters,
                 Handler handler) {
  paths_[path][method] = Route{std::move(parameters), std::move(handler)};
}

std::map<std::string, std::vector<std::string>> Router::routes() const {
  std::map<std::string, std::vector<std::string>> all;
  for (const auto& [path, methods] : paths_) {
    for (const auto& [method, route] : methods)
      all[method + " " + path] = route.parameters;
  }
  return all;
}

Reply Router::route(const Server_Request& incoming) const {
  const auto path = paths_.find(incoming.path);
  if (path == paths_.end()) return refusal(404, "there is no " + quoted_name(incoming.path));
  const auto found = path->second.find(incoming.method);
  if (found == path->second.end()) {
    return refusal(405, quoted_name(incoming.path) + " does not take " + quoted_name(incoming.method));
  }
  Request_Log log;
  Request request{incoming.method, incoming.path, incoming.query, {}, incoming.local, &log};
  std::string why;
  if (!check_query(request.query, found->second.parameters, why)) return refusal(400, why);
  if (has_body(request.method) && !read_body(incoming.body, request.body, why)) return refusal(400, why);
  return found->second.handler(request);
}

void Router::dispatch(const Server_Request& incoming, Server_Response& outgoing) const {
  Reply reply;
  try {
    reply = route(incoming);
  } catch (const std::exception& e) {
    LOG_FAILURE("Failed to handle a request: %s\n", e.what());
    reply = refusal(500, std::string("internal error: ") + e.what());
  }
  outgoing.json(reply.status, reply.body);
}

}  // namespace scsipoold
