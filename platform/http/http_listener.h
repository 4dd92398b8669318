#pragma once
// The server's listening sockets.

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/http/http_server.h"
#include "platform/http/transport.h"

// One listening socket. Closed, and a Unix socket's file removed, when it is destroyed.
class HTTP_Listener {
 public:
  HTTP_Listener(int fd, http_transport::Ssl_Context tls, std::string unix_path = "");
  ~HTTP_Listener();
  HTTP_Listener(HTTP_Listener&& other) noexcept;
  HTTP_Listener& operator=(HTTP_Listener&&) = delete;

  int fd() const { return fd_; }
  bool local() const { return !unix_path_.empty(); }
  const http_transport::Ssl_Context& tls() const { return tls_; }

 private:
  int fd_;
  http_transport::Ssl_Context tls_;
  std::string unix_path_;
  ino_t inode_ = 0;  // of the socket's file: one that another server has put in its place is not removed
};

// Appends the sockets of an address; all have one port, which comes back. False with the reason in `error`.
bool listen_tcp(const HTTP_Listen_Address& address, std::vector<HTTP_Listener>& listeners, ACE_UINT16& port,
                std::string& error);
// Takes the place of a socket that nobody listens on any more.
bool listen_unix(const std::string& path, std::vector<HTTP_Listener>& listeners, std::string& error);

// The next connection and its name in words, or -1 when there is none or it was refused.
int accept_connection(const HTTP_Listener& listener, std::string& peer);
