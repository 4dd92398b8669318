#pragma once
// From HTTP requests to handlers: fixed paths, JSON in and out. Handlers see a checked request and give a
// reply; everything about HTTP stays here.

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "daemon/request_log.h"
#include "platform/http/http_server.h"
#include "platform/json/json_spirit.h"

namespace scsipoold {

struct Request {
  std::string method;
  std::string path;
  Query query;
  json_spirit::Object body;    // of POST and PUT; empty otherwise
  bool local = false;          // over the Unix socket
  Request_Log* log = nullptr;  // what was logged on this thread since the request began

  // The value of the query parameter, or null. Each may come once only.
  const std::string* find_query(const std::string& name) const;
};

struct Reply {
  int status = 200;
  json_spirit::Value body;
};

// {"error": {"message": message}}
Reply refusal(int status, const std::string& message);
// The same with the failure that the libraries logged for this request, or `otherwise` when they logged none,
// and with all their lines as "details" when there is more than one.
Reply failure(const Request& request, const std::string& otherwise, int status = 500);

using Handler = std::function<Reply(const Request&)>;

// add() before the server starts; dispatch() on any thread.
class Router {
 public:
  void add(const std::string& method, const std::string& path, Handler handler);
  // Query parameters that the handler of this method and path takes; others are refused.
  void add(const std::string& method, const std::string& path, std::vector<std::string> parameters,
           Handler handler);
  // Never throws: unknown paths get 404, other methods 405, a body that is no JSON object 400, an exception
  // 500.
  void dispatch(const Server_Request& incoming, Server_Response& outgoing) const;
  // Every "METHOD path" with the query parameters that it takes.
  std::map<std::string, std::vector<std::string>> routes() const;

 private:
  struct Route {
    std::vector<std::string> parameters;
    Handler handler;
  };
  Reply route(const Server_Request& incoming) const;

  std::map<std::string, std::map<std::string, Route>> paths_;  // path, then method
};

}  // namespace scsipoold
