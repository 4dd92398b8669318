#pragma once
// One connection of the server: reads requests, runs the handler, writes answers.

#include <memory>
#include <string>

#include "platform/http/http_server.h"
#include "platform/http/transport.h"

class HTTP_Connection {
 public:
  struct Origin {
    bool local = false;
    http_transport::Ssl_Context tls;  // null = none
    std::string peer;
  };

  // Takes over the descriptor. `options` and `handler` outlive the connection.
  HTTP_Connection(int fd, Origin origin, const HTTP_Server_Options& options,
                  const HTTP_Server::Handler& handler);
  ~HTTP_Connection();

  // Serves the requests that have begun to arrive; one at most once `stopping` is set. True when the
  // connection may be kept for another.
  bool serve(const std::atomic<bool>& stopping);

  http_transport::Transport& transport() { return transport_; }
  bool local() const { return origin_.local; }

 private:
  class Exchange;
  class State;

  http_transport::Transport transport_;
  Origin origin_;
  const HTTP_Server_Options& options_;
  const HTTP_Server::Handler& handler_;
  bool greeted_ = false;  // the TLS handshake is done
  std::unique_ptr<State> state_;
};
