// Finding and connecting to the other end.

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>

#include "platform/http/transport.h"

namespace {
std::atomic<bool> interrupted{false};
std::mutex settings_mutex;
TLS_Settings process_settings;
}  // namespace

void interrupt_http_clients(bool on) {
  interrupted = on;
}

TLS_Settings TLS_Settings::get() {
  std::lock_guard<std::mutex> guard(settings_mutex);
  return process_settings;
}

void TLS_Settings::set(const TLS_Settings& settings) {
  std::lock_guard<std::mutex> guard(settings_mutex);
  process_settings = settings;
}

namespace http_transport {

bool clients_interrupted() {
  return interrupted;
}

bool client_sleep(double seconds) {
  const auto end =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  while (Clock::now() < end) {
    if (interrupted) return false;
    std::this_thread::sleep_until(std::min(end, Clock::now() + std::chrono::milliseconds(250)));
  }
  return !interrupted;
}

namespace {

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

bool failed(HTTP_Failure& failure, bool temporary, const std::string& text) {
  failure.stage = HTTP_Failure::CONNECT;
  failure.temporary = temporary;
  failure.text = text;
  return false;
}

std::string error_text(int number) {
  char text[128];
  return strerror_r(number, text, sizeof(text));
}

Addresses resolve(const std::string& host, const std::string& port, HTTP_Failure& failure) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (result != 0)
    failed(failure, result == EAI_AGAIN,
           "cannot resolve the host name '" + host + "': " + gai_strerror(result));
  return Addresses(result == 0 ? found : nullptr, &freeaddrinfo);
}

// Waits for a connection that is being made. 0 or the error number.
int wait_connected(int fd, Clock::time_point limit) {
  for (;;) {
    if (clients_interrupted()) return EINTR;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now()).count();
    if (left <= 0) return ETIMEDOUT;
    pollfd entry{fd, POLLOUT, 0};
    const int ready = poll(&entry, 1, static_cast<int>(std::min<long>(left, 250)));
    if (ready < 0 && errno != EINTR) return errno;
    if (ready <= 0) continue;
    int error = 0;
    socklen_t length = sizeof(error);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
  }
}

int bind_to(int fd, int family, const std::string& address) {
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* found = nullptr;
  if (getaddrinfo(address.c_str(), nullptr, &hints, &found) != 0) return EADDRNOTAVAIL;
  const Addresses addresses(found, &freeaddrinfo);
  return bind(fd, found->ai_addr, found->ai_addrlen) == 0 ? 0 : errno;
}

// A connected socket, or -1 with the error number in `error`.
int connect_one(const addrinfo& address, const std::string& bind_address, Clock::time_point limit,
                int& error) {
  const int fd = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return error = errno, -1;
  error = bind_address.empty() ? 0 : bind_to(fd, address.ai_family, bind_address);
  if (error == 0 && connect(fd, address.ai_addr, address.ai_addrlen) != 0) {
    error = errno == EINPROGRESS || errno == EAGAIN ? wait_connected(fd, limit) : errno;
  }
  if (error == 0) return fd;
  close(fd);
  return -1;
}

bool start_tls(Transport& transport, const Connect_Options& options, Clock::time_point limit,
               HTTP_Failure& failure) {
  if (!options.tls) return true;
  bool certificate_refused = false;
  if (transport.connect_tls(options.tls_settings, options.host, limit, certificate_refused)) return true;
  return failed(failure, !certificate_refused, transport.error());
}

}  // namespace

std::unique_ptr<Transport> connect_tcp(const Connect_Options& options, HTTP_Failure& failure) {
  const std::string port = std::to_string(options.port);
  const Addresses addresses = resolve(options.host, port, failure);
  if (addresses == nullptr) return nullptr;
  int error = 0;
  for (const addrinfo* one = addresses.get(); one != nullptr; one = one->ai_next) {
    const auto limit = Clock::now() + std::chrono::seconds(options.timeout);
    const int fd = connect_one(*one, options.bind_address, limit, error);
    if (fd < 0) continue;
    auto transport = std::make_unique<Transport>(fd, true);
    if (!start_tls(*transport, options, limit, failure)) return nullptr;
    return transport;
  }
  failed(failure, true, "cannot connect to " + options.host + " port " + port + ": " + error_text(error));
  return nullptr;
}

std::unique_ptr<Transport> connect_unix(const std::string& path, unsigned timeout, HTTP_Failure& failure) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    failed(failure, false, "'" + path + "' is no path of a Unix socket");
    return nullptr;
  }
  path.copy(address.sun_path, path.size());
  addrinfo one{};
  one.ai_family = AF_UNIX;
  one.ai_addr = reinterpret_cast<sockaddr*>(&address);
  one.ai_addrlen = sizeof(address);
  int error = 0;
  const int fd = connect_one(one, "", Clock::now() + std::chrono::seconds(timeout), error);
  if (fd < 0) {
    failed(failure, error != EACCES, "cannot connect to '" + path + "': " + error_text(error));
    return nullptr;
  }
  return std::make_unique<Transport>(fd, true);
}

}  // namespace http_transport
