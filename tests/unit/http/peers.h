#pragma once
// Other ends for the tests: a server of the library, a peer that speaks raw bytes, and a raw client.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/http/http_server.h"

// A server on a free loopback port with one handler.
class Test_Server {
 public:
  explicit Test_Server(HTTP_Server::Handler handler, HTTP_Server_Options options = {}) {
    if (options.addresses.empty()) options.addresses.push_back({"127.0.0.1", 0, false, "", ""});
    std::string error;
    if (!server_.start(options, std::move(handler), error)) ADD_FAILURE() << error;
  }
  ACE_UINT16 port() const { return server_.ports().at(0); }
  HTTP_Server& server() { return server_; }

 private:
  HTTP_Server server_;
};

inline std::string read_to_end(int fd, int timeout_ms = 5000) {
  std::string text;
  char part[4096];
  for (pollfd entry{fd, POLLIN, 0}; poll(&entry, 1, timeout_ms) > 0;) {
    const ssize_t got = recv(fd, part, sizeof(part), 0);
    if (got <= 0) break;
    text.append(part, static_cast<std::size_t>(got));
  }
  return text;
}

inline int dial(ACE_UINT16 port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
    ADD_FAILURE() << "cannot connect";
  return fd;
}

inline void say(int fd, const std::string& text) {
  ASSERT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

// Sends bytes, ends the sending side, and returns all that comes back.
inline std::string converse(ACE_UINT16 port, const std::string& text) {
  const int fd = dial(port);
  say(fd, text);
  shutdown(fd, SHUT_WR);
  const std::string reply = read_to_end(fd);
  close(fd);
  return reply;
}

// A peer that takes one connection after another, hands each to the next function, and closes it.
class Raw_Peer {
 public:
  using Talk = std::function<void(int fd)>;

  explicit Raw_Peer(std::vector<Talk> talks) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd_, 8) != 0) ADD_FAILURE();
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, talks = std::move(talks)] { run(talks); });
  }
  ~Raw_Peer() {
    stop_ = true;
    thread_.join();
  }
  ACE_UINT16 port() const { return port_; }
  int connections() const { return connections_; }

 private:
  void run(const std::vector<Talk>& talks) {
    for (const Talk& talk : talks) {
      pollfd entry{fd_, POLLIN, 0};
      while (!stop_ && poll(&entry, 1, 50) <= 0) {
      }
      if (stop_) break;
      const int fd = accept(fd_, nullptr, nullptr);
      ++connections_;
      talk(fd);
      shutdown(fd, SHUT_WR);
      read_to_end(fd, 100);  // closing with unread bytes would reset the connection
      close(fd);
    }
    close(fd_);
  }

  int fd_;
  ACE_UINT16 port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  std::thread thread_;
};

// Reads a request up to its empty line.
inline std::string read_head(int fd) {
  std::string text;
  char c = 0;
  while (text.find("\r\n\r\n") == std::string::npos && recv(fd, &c, 1, 0) == 1)
    text += c;
  return text;
}

// A talk that reads a request's head and answers with these bytes.
inline Raw_Peer::Talk answers(const std::string& text) {
  return [text](int fd) {
    read_head(fd);
    say(fd, text);
  };
}
