#include "platform/http/http_listener.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/base/log.h"

namespace {

constexpr int BACKLOG = 128;

std::string error_text(int number) {
  char text[128];
  return strerror_r(number, text, sizeof(text));
}

int open_socket(int family) {
  return socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

void set_port(sockaddr* address, ACE_UINT16 port) {
  if (address->sa_family == AF_INET) reinterpret_cast<sockaddr_in*>(address)->sin_port = htons(port);
  if (address->sa_family == AF_INET6) reinterpret_cast<sockaddr_in6*>(address)->sin6_port = htons(port);
}

ACE_UINT16 port_of(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
  return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
}

// A socket bound to the address and listening, or -1 with the error number in `error`.
int listen_at(const addrinfo& address, int& error) {
  const int fd = open_socket(address.ai_family);
  if (fd < 0) return error = errno, -1;
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (address.ai_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
  if (bind(fd, address.ai_addr, address.ai_addrlen) == 0 && listen(fd, BACKLOG) == 0) return fd;
  error = errno;
  close(fd);
  return -1;
}

// A family that this host does not have is no failure as long as another address works.
bool is_absent_family(int error) {
  return error == EAFNOSUPPORT || error == EADDRNOTAVAIL;
}

bool is_served(const sockaddr_un& address) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool served = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return served;
}

std::string peer_words(const HTTP_Listener& listener, int fd, const sockaddr_storage& address,
                       socklen_t length) {
  if (listener.local()) {
    ucred who{};
    socklen_t size = sizeof(who);
    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &size);
    return "unix process " + std::to_string(who.pid);
  }
  char host[NI_MAXHOST] = "", port[NI_MAXSERV] = "";
  getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, sizeof(host), port, sizeof(port),
              NI_NUMERICHOST | NI_NUMERICSERV);
  const bool brackets = address.ss_family == AF_INET6;
  return (brackets ? "[" + std::string(host) + "]" : host) + ":" + port;
}

bool is_allowed(const HTTP_Listener& listener, int fd) {
  if (!listener.local()) return true;
  ucred who{};
  socklen_t size = sizeof(who);
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &size) == 0 && (who.uid == 0 || who.uid == geteuid());
}

}  // namespace

HTTP_Listener::HTTP_Listener(int fd, http_transport::Ssl_Context tls, std::string unix_path)
    : fd_(fd), tls_(std::move(tls)), unix_path_(std::move(unix_path)) {
  struct stat info {};
  if (!unix_path_.empty() && lstat(unix_path_.c_str(), &info) == 0) inode_ = info.st_ino;
}

HTTP_Listener::HTTP_Listener(HTTP_Listener&& other) noexcept
    : fd_(other.fd_),
      tls_(std::move(other.tls_)),
      unix_path_(std::move(other.unix_path_)),
      inode_(other.inode_) {
  other.fd_ = -1;
  other.unix_path_.clear();
}

HTTP_Listener::~HTTP_Listener() {
  struct stat info {};
  if (!unix_path_.empty() && lstat(unix_path_.c_str(), &info) == 0 && info.st_ino == inode_)
    unlink(unix_path_.c_str());
  if (fd_ >= 0) close(fd_);
}

bool listen_tcp(const HTTP_Listen_Address& address, std::vector<HTTP_Listener>& listeners, ACE_UINT16& port,
                std::string& error) {
  const std::string where = "'" + address.host + "' port " + std::to_string(address.port);
  http_transport::Ssl_Context tls;
  if (address.tls) tls = http_transport::server_context(address.certificate_file, address.key_file, error);
  if (address.tls && tls == nullptr) return false;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  const bool all = address.host.empty() || address.host == "*";
  addrinfo* found = nullptr;
  const int result =
      getaddrinfo(all ? nullptr : address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found);
  if (result != 0) return error = "cannot listen on " + where + ": " + gai_strerror(result), false;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, &freeaddrinfo);
  port = address.port;
  int number = 0;
  bool opened = false;
  for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
    set_port(one->ai_addr, port);
    const int fd = listen_at(*one, number);
    if (fd < 0 && is_absent_family(number)) continue;
    if (fd < 0) return error = "cannot listen on " + where + ": " + error_text(number), false;
    listeners.emplace_back(fd, tls);
    opened = true;
    sockaddr_storage bound{};
    socklen_t length = sizeof(bound);
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    port = port_of(bound);
  }
  if (!opened) error = "cannot listen on " + where + ": " + error_text(number);
  return opened;
}

bool listen_unix(const std::string& path, std::vector<HTTP_Listener>& listeners, std::string& error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path))
    return error = "'" + path + "' is too long for a Unix socket", false;
  path.copy(address.sun_path, path.size());
  if (is_served(address)) return error = "another process serves the socket '" + path + "'", false;
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode)) unlink(path.c_str());
  const int fd = open_socket(AF_UNIX);
  // Nobody can connect before listen(), when the mode is set already.
  const bool listening = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                         chmod(path.c_str(), 0600) == 0 && listen(fd, BACKLOG) == 0;
  if (!listening) {
    error = "cannot listen on '" + path + "': " + error_text(errno);
    if (fd >= 0) close(fd);
    return false;
  }
  listeners.emplace_back(fd, nullptr, path);
  return true;
}

int accept_connection(const HTTP_Listener& listener, std::string& peer) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  const int fd =
      accept4(listener.fd(), reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    const bool exhausted = errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS;
    if (!exhausted) return -1;
    LOG_FAILURE("Failed to accept a connection: %m\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the connection stays ready: no busy loop
    return -1;
  }
  peer = peer_words(listener, fd, address, length);
  if (is_allowed(listener, fd)) return fd;
  LOG_NOTICE("A connection from %s was refused: it is not root\n", peer.c_str());
  close(fd);
  return -1;
}
