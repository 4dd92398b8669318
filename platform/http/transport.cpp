#include "platform/http/transport.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace http_transport {
namespace {

// Waits are cut into slices, so that an interruption or a cut is seen soon.
constexpr std::chrono::milliseconds SLICE(250);

std::string system_error(int number) {
  char text[128];
  return strerror_r(number, text, sizeof(text));
}

}  // namespace

Transport::Transport(int fd, bool interruptible) : fd_(fd), interruptible_(interruptible) {
  fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
  const int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));  // no effect on Unix sockets
}

Transport::~Transport() {
  SSL_free(ssl_);
  close(fd_);
}

bool Transport::fail(const std::string& text) {
  error_ = text;
  return false;
}

Clock::time_point Transport::limit_now() const {
  return std::min(deadline_, Clock::now() + std::chrono::seconds(idle_limit_));
}

bool Transport::wait_until(short events, Clock::time_point limit) {
  for (;;) {
    if (cut_) return fail("the connection was ended on this side");
    if (interruptible_ && clients_interrupted()) return fail("interrupted: the process is being stopped");
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now());
    timed_out_ = left.count() <= 0;
    if (timed_out_) return fail("timed out");
    pollfd entry{fd_, events, 0};
    const int ready =
        poll(&entry, 1, static_cast<int>(std::min(left + std::chrono::milliseconds(1), SLICE).count()));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return fail(system_error(errno));
  }
}

bool Transport::readable(double seconds) {
  const auto limit = Clock::now() + std::chrono::milliseconds(static_cast<long>(seconds * 1000));
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now()).count();
    pollfd entry{fd_, POLLIN, 0};
    if (ssl_ == nullptr || SSL_pending(ssl_) == 0) {
      if (poll(&entry, 1, static_cast<int>(std::max(left, 0L))) <= 0) return false;
    }
    if (ssl_ == nullptr) return true;
    char byte = 0;
    ERR_clear_error();
    const int got = SSL_peek(ssl_, &byte, 1);
    if (got > 0 || SSL_get_error(ssl_, got) != SSL_ERROR_WANT_READ) return true;
    if (left <= 0) return false;
  }
}

ssize_t Transport::read(void* buffer, std::size_t size) {
  return ssl_ != nullptr ? read_tls(buffer, size) : read_plain(buffer, size);
}

bool Transport::write(const void* data, std::size_t size) {
  const char* bytes = static_cast<const char*>(data);
  return ssl_ != nullptr ? write_tls(bytes, size) : write_plain(bytes, size);
}

ssize_t Transport::read_plain(void* buffer, std::size_t size) {
  const auto limit = limit_now();
  for (;;) {
    const ssize_t got = recv(fd_, buffer, size, 0);
    if (got >= 0) return got;
    if (errno == EINTR) continue;
    const bool lost = errno != EAGAIN && errno != EWOULDBLOCK;
    if (lost) fail(system_error(errno));
    if (lost || !wait_until(POLLIN, limit)) return -1;
  }
}

bool Transport::write_plain(const char* data, std::size_t size) {
  while (size > 0) {
    const auto limit = limit_now();
    const ssize_t sent = send(fd_, data, size, MSG_NOSIGNAL);
    if (sent >= 0) {
      data += sent;
      size -= static_cast<std::size_t>(sent);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return fail(system_error(errno));
    if (!wait_until(POLLOUT, limit)) return false;
  }
  return true;
}

bool Transport::tls_again(const char* words, int result, Clock::time_point limit) {
  const int saved = errno;
  switch (SSL_get_error(ssl_, result)) {
    case SSL_ERROR_WANT_READ:
      return wait_until(POLLIN, limit);
    case SSL_ERROR_WANT_WRITE:
      return wait_until(POLLOUT, limit);
    case SSL_ERROR_SYSCALL:
      return fail(std::string(words) + ": " +
                  (saved != 0 ? system_error(saved) : "the peer closed the connection"));
    default:
      return fail(std::string(words) + ": " + openssl_errors());
  }
}

ssize_t Transport::read_tls(void* buffer, std::size_t size) {
  const auto limit = limit_now();
  const int wanted = static_cast<int>(std::min<std::size_t>(size, 1 << 20));
  for (;;) {
    ERR_clear_error();
    errno = 0;
    const int got = SSL_read(ssl_, buffer, wanted);
    if (got > 0) return got;
    // Without the peer's farewell the end may be somebody else's doing; what the message says decides in the
    // end.
    if (SSL_get_error(ssl_, got) == SSL_ERROR_ZERO_RETURN) return 0;
    if (!tls_again("TLS read", got, limit)) return -1;
  }
}

bool Transport::write_tls(const char* data, std::size_t size) {
  while (size > 0) {
    const auto limit = limit_now();
    const int wanted = static_cast<int>(std::min<std::size_t>(size, 1 << 20));
    ERR_clear_error();
    errno = 0;
    const int sent = SSL_write(ssl_, data, wanted);
    if (sent > 0) {
      data += sent;
      size -= static_cast<std::size_t>(sent);
      continue;
    }
    if (!tls_again("TLS write", sent, limit)) return false;
  }
  return true;
}

bool Transport::handshake(const char* words, int (*step)(ssl_st*), Clock::time_point limit) {
  for (;;) {
    ERR_clear_error();
    errno = 0;
    const int result = step(ssl_);
    if (result == 1) return true;
    if (tls_again(words, result, limit)) continue;
    return timed_out_ ? fail(std::string(words) + ": timed out") : false;
  }
}

bool Transport::accept_tls(const Ssl_Context& context, Clock::time_point limit) {
  context_ = context;
  ssl_ = SSL_new(context.get());
  if (ssl_ == nullptr || SSL_set_fd(ssl_, fd_) != 1) return fail("TLS: " + openssl_errors());
  return handshake("TLS handshake", SSL_accept, limit);
}

void Transport::farewell() {
  if (ssl_ != nullptr) {
    ERR_clear_error();
    SSL_shutdown(ssl_);
    ERR_clear_error();
  }
  shutdown(fd_, SHUT_WR);
}

void Transport::cut() {
  cut_ = true;
  shutdown(fd_, SHUT_RDWR);
}

std::string openssl_errors() {
  std::string text;
  for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error()) {
    char line[256];
    ERR_error_string_n(code, line, sizeof(line));
    const char* reason = ERR_reason_error_string(code);
    text += (text.empty() ? "" : "; ") + std::string(reason != nullptr ? reason : line);
  }
  return text.empty() ? "unknown error" : text;
}

namespace {

// OpenSSL writes with write(2), which raises SIGPIPE on a lost connection.
void ignore_broken_pipes() {
  struct sigaction now {};
  if (sigaction(SIGPIPE, nullptr, &now) == 0 && now.sa_handler == SIG_DFL) signal(SIGPIPE, SIG_IGN);
}

Ssl_Context new_context(const SSL_METHOD* method) {
  ignore_broken_pipes();
  ERR_clear_error();
  Ssl_Context context(SSL_CTX_new(method), SSL_CTX_free);
  if (context == nullptr) return context;
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return context;
}

bool is_address(const std::string& host) {
  return host.find(':') != std::string::npos || host.find_first_not_of("0123456789.") == std::string::npos;
}

bool expect_name(SSL* ssl, const std::string& name) {
  if (is_address(name)) return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str()) == 1;
  SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return SSL_set1_host(ssl, name.c_str()) == 1 && SSL_set_tlsext_host_name(ssl, name.c_str()) == 1;
}

}  // namespace

Ssl_Context server_context(const std::string& certificate_file, const std::string& key_file,
                           std::string& error) {
  Ssl_Context context = new_context(TLS_server_method());
  if (context == nullptr) return error = "TLS: " + openssl_errors(), nullptr;
  if (SSL_CTX_use_certificate_chain_file(context.get(), certificate_file.c_str()) != 1)
    return error = "cannot use the certificate '" + certificate_file + "': " + openssl_errors(), nullptr;
  if (SSL_CTX_use_PrivateKey_file(context.get(), key_file.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context.get()) != 1)
    return error = "cannot use the key '" + key_file + "': " + openssl_errors(), nullptr;
  return context;
}

bool usable_ca_file(const std::string& path, std::string& error) {
  const Ssl_Context context = new_context(TLS_client_method());
  if (context != nullptr && SSL_CTX_load_verify_locations(context.get(), path.c_str(), nullptr) == 1)
    return true;
  error = "cannot read the certificates of '" + path + "': " + openssl_errors();
  return false;
}

bool Transport::connect_tls(const TLS_Settings& settings, const std::string& host, Clock::time_point limit,
                            bool& certificate_refused) {
  certificate_refused = false;
  context_ = new_context(TLS_client_method());
  if (context_ == nullptr) return fail("TLS: " + openssl_errors());
  const bool store = settings.ca_file.empty() ? SSL_CTX_set_default_verify_paths(context_.get()) == 1
                                              : SSL_CTX_load_verify_locations(
                                                    context_.get(), settings.ca_file.c_str(), nullptr) == 1;
  if (settings.verify && !store) {
    certificate_refused = true;
    return fail("TLS: cannot read the certificates of '" + settings.ca_file + "': " + openssl_errors());
  }
  SSL_CTX_set_verify(context_.get(), settings.verify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
  ssl_ = SSL_new(context_.get());
  if (ssl_ == nullptr || SSL_set_fd(ssl_, fd_) != 1) return fail("TLS: " + openssl_errors());
  const std::string& name = settings.server_name.empty() ? host : settings.server_name;
  if (!expect_name(ssl_, name)) return fail("TLS: '" + name + "' is no name that a certificate can hold");
  if (handshake("TLS handshake", SSL_connect, limit)) return true;
  const long checked = SSL_get_verify_result(ssl_);
  if (settings.verify && checked != X509_V_OK) {
    certificate_refused = true;
    return fail("TLS handshake: the peer's certificate was refused: " +
                std::string(X509_verify_cert_error_string(checked)) + " (expected name '" + name + "')");
  }
  return false;
}

}  // namespace http_transport
