#pragma once
// HTTP and HTTPS requests to one host, or to a Unix socket.

#include <ace/Basic_Types.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/http/uri.h"

// Header fields in the order in which they were put. Names are compared without regard to case.
class HTTP_Headers {
 public:
  enum Known : int { ACCESS_KEY = 48 };  // "X-Access-Key"

  // Puts one field; with `replace` fields of that name are dropped first. False, with nothing changed, for an
  // unknown number, a name that is no header name, or a value with control characters.
  bool put(int known, const std::string& value, bool replace = true);
  bool put(const std::string& name, const std::string& value, bool replace = true);
  void remove(const std::string& name);
  // The first value of that name, or null.
  const std::string* find(const std::string& name) const;
  const std::string* find(int known) const;
  const std::vector<std::pair<std::string, std::string>>& all() const { return fields_; }

  static const char* name_of(int known);  // null for an unknown number

 private:
  std::vector<std::pair<std::string, std::string>> fields_;
};

struct HTTP_Request {
  std::string method = "GET";
  std::string path = "/";  // plain text, escaped when it is sent
  Query query;
  HTTP_Headers headers;
  std::string body;
  std::string content_type = "application/json";  // sent when there is a body
};

struct HTTP_Response {
  int status = 0;
  HTTP_Headers headers;
  std::string body;
};

// How TLS connections are made and peers verified. The process-wide record is used by every session that is
// not given one of its own; it may be read and changed on any thread, and sessions keep the one they began
// with.
struct TLS_Settings {
  bool verify = true;       // check the peer's certificate, its dates and its name
  std::string ca_file;      // certificates of the authorities to trust; empty = the system's store
  std::string server_name;  // name to expect in the certificate; empty = the host that is connected to

  static TLS_Settings get();
  static void set(const TLS_Settings& settings);
};

// Why a request failed, and how far it had come: what decides whether it may be sent again.
struct HTTP_Failure {
  enum Stage {
    NONE,
    CONNECT,  // name, connection or TLS handshake: nothing of the request was sent
    SEND,     // part of the request was sent
    REPLY     // the request was sent; the answer did not come, was cut or was malformed
  };
  Stage stage = NONE;
  bool temporary =
      false;         // another attempt may help (refused, reset, time-out; not a wrong certificate or name)
  std::string text;  // names the step that failed
};

// A session to one host: one connection, kept between requests and made again when it was lost. One thread at
// a time.
class HTTP_Session {
 public:
  virtual ~HTTP_Session() = default;

  // Sends the request with the session's headers and reads the whole answer. True when an answer came,
  // whatever its status. Sends at most once: a failure is not repeated here. A body that ends early is a
  // failure.
  virtual bool send(const HTTP_Request& request, HTTP_Response& response, HTTP_Failure& failure) = 0;

  // Closes the connection; the next request makes a new one.
  virtual void disconnect() = 0;

  // What the session is connected to, for messages: "host:port" or the socket's path.
  virtual const std::string& peer() const = 0;

  // Fields sent with every request.
  HTTP_Headers& headers() { return headers_; }
  const HTTP_Headers& headers() const { return headers_; }

 private:
  HTTP_Headers headers_;
};

class HTTP_Session_Factory {
 public:
  // Opens a session and connects it. Null, with the failing step logged, when there is no connection after
  // 1 + `connect_retries` attempts (a wrong name or certificate is not tried again).
  //   tls_settings    null = the process-wide record
  //   bind_address    address of this host to connect from; null = any
  //   close_after     every request uses a connection of its own
  //   read_timeout    seconds without a byte of the answer; write_timeout seconds without progress in sending
  //   connect_timeout seconds for one attempt (each address of the host, TLS handshake included); 0 = 15
  //   max_reply_bytes longest answer taken; 0 = 256 MiB
  static std::shared_ptr<HTTP_Session> create(const std::string& host, ACE_UINT16 port, bool tls,
                                              const TLS_Settings* tls_settings = nullptr,
                                              unsigned connect_retries = 3,
                                              const char* bind_address = nullptr, bool close_after = false,
                                              unsigned read_timeout = 120, unsigned write_timeout = 120,
                                              unsigned connect_timeout = 0, std::size_t max_reply_bytes = 0);

  // The same over a Unix socket, with one attempt. Null, with the reason logged and in `error` when that is
  // given.
  static std::shared_ptr<HTTP_Session> create_unix(const std::string& path, unsigned timeout = 120,
                                                   std::string* error = nullptr);

  // create() with one attempt, nothing logged: the failure is in `failure`. For checks that name the failing
  // step.
  static std::shared_ptr<HTTP_Session> try_create(const std::string& host, ACE_UINT16 port, bool tls,
                                                  const TLS_Settings* tls_settings, unsigned timeout,
                                                  HTTP_Failure& failure);
};

// While on, every client request and transfer of this process fails within a second, the ones under way too.
// For stopping a process whose threads wait for peers. Any thread.
void interrupt_http_clients(bool on);
