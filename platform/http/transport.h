#pragma once
// A connected byte stream, plain or TLS, whose every wait has an end. Used by the clients and the server
// here.

#include <ace/Basic_Types.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "platform/http/http_session.h"

struct ssl_st;
struct ssl_ctx_st;

namespace http_transport {

using Clock = std::chrono::steady_clock;
using Ssl_Context = std::shared_ptr<ssl_ctx_st>;

// One connection. One thread at a time, but cut() may come from any.
class Transport {
 public:
  // Takes over the descriptor (made non-blocking). `interruptible`: waits end when clients are interrupted.
  Transport(int fd, bool interruptible);
  ~Transport();  // closes, with a TLS farewell only after farewell()
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // TLS handshakes, within the time given. False with error() set: the failed check of the certificate in
  // words, and `certificate_refused` set when it is about the certificate (another attempt would not help).
  bool connect_tls(const TLS_Settings& settings, const std::string& host, Clock::time_point deadline,
                   bool& certificate_refused);
  bool accept_tls(const Ssl_Context& context, Clock::time_point deadline);

  // What a wait may last: from now on each read or write may take `seconds` without a byte moving...
  void idle_limit(unsigned seconds) { idle_limit_ = seconds; }
  // ...and none goes on after this moment. Clock::time_point::max() = no such moment.
  void deadline(Clock::time_point when) { deadline_ = when; }

  // Reads 1 to `size` bytes. 0 when the peer has ended the stream; -1 with error() set otherwise.
  ssize_t read(void* buffer, std::size_t size);
  // Writes everything. False with error() set.
  bool write(const void* data, std::size_t size);

  // Whether something can be read (data, the end or an error), waiting at most `seconds`. TLS messages
  // without data do not count.
  bool readable(double seconds);
  // Says goodbye in TLS, and that nothing more will be sent. Errors do not matter any more.
  void farewell();
  // Ends every wait on this connection, now and later.
  void cut();

  const std::string& error() const { return error_; }
  // Whether the last failure was a wait that took too long.
  bool timed_out() const { return timed_out_; }
  bool tls() const { return ssl_ != nullptr; }
  int fd() const { return fd_; }

 private:
  bool wait_until(short events, Clock::time_point limit);
  bool handshake(const char* words, int (*step)(ssl_st*), Clock::time_point limit);
  bool fail(const std::string& text);
  // What to do after an unfinished OpenSSL call: true = it may be repeated.
  bool tls_again(const char* words, int result, Clock::time_point limit);
  ssize_t read_plain(void* buffer, std::size_t size);
  ssize_t read_tls(void* buffer, std::size_t size);
  bool write_plain(const char* data, std::size_t size);
  bool write_tls(const char* data, std::size_t size);
  Clock::time_point limit_now() const;

  int fd_;
  bool interruptible_;
  std::atomic<bool> cut_{false};
  ssl_st* ssl_ = nullptr;
  Ssl_Context context_;
  unsigned idle_limit_ = 120;
  Clock::time_point deadline_ = Clock::time_point::max();
  std::string error_;
  bool timed_out_ = false;
};

struct Connect_Options {
  std::string host;  // name or address
  ACE_UINT16 port = 0;
  bool tls = false;
  TLS_Settings tls_settings;
  std::string bind_address;
  unsigned timeout = 15;
};

// Connects, addresses of the host one after another. Null with `failure` telling the step.
std::unique_ptr<Transport> connect_tcp(const Connect_Options& options, HTTP_Failure& failure);
std::unique_ptr<Transport> connect_unix(const std::string& path, unsigned timeout, HTTP_Failure& failure);

// A server's TLS context (1.2 or newer). Null with the reason in `error`.
Ssl_Context server_context(const std::string& certificate_file, const std::string& key_file,
                           std::string& error);

// Whether certificates can be read from the file. False with the reason in `error`.
bool usable_ca_file(const std::string& path, std::string& error);

// The pending errors of OpenSSL as text, forgotten afterwards.
std::string openssl_errors();

bool clients_interrupted();
// Sleeps; false, at once, when clients are interrupted.
bool client_sleep(double seconds);

}  // namespace http_transport
