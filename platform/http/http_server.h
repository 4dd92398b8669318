#pragma once
// An HTTP/1.1 server with blocking handlers on a bounded pool of threads.
//
// One thread accepts connections and watches those that wait for their next request; a worker takes a
// connection when its request begins to arrive and gives it back after the answer. Time limits: 30 seconds
// for the TLS handshake and the header, a limit for the whole body, 60 seconds between requests. A malformed
// request gets 400, a header above 64 KiB 431, a body above the limit 413, an exception of a handler 500.

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/http/http_session.h"
#include "platform/http/uri.h"
#include "platform/json/json_spirit.h"

// Reads a body as it arrives. Used only until the handler returns, and but for cut() by its thread alone.
class Body_Reader {
 public:
  virtual ~Body_Reader() = default;
  // The number of bytes read (1 to `size`); 0 at the end that the sender has marked as such (Content-Length
  // reached or the last chunk read), again at each further call; -1, with error() set, when the connection
  // ended before that, stalled, was malformed, or the server is being stopped. A body that was cut never ends
  // with 0.
  virtual ssize_t read(void* buffer, std::size_t size) = 0;
  virtual const std::string& error() const = 0;
  // Ends the connection: read() gives -1, also one that waits. Any thread.
  virtual void cut() = 0;
};

struct Server_Request {
  std::string method;
  std::string path;  // plain text, without the query
  std::vector<std::string>
      segments;  // the path's segments in plain text; an escaped '/' stays inside its segment
  Query query;   // in order
  HTTP_Headers headers;
  std::string body;               // the whole body; empty while admit() runs and for streamed bodies
  Body_Reader* stream = nullptr;  // not null for streamed bodies, otherwise null
  bool local = false;             // came over the Unix socket
  bool tls = false;
  std::string peer;  // "address:port" of the client, or "unix" with its process id

  // The first value of that name in the query, or null.
  const std::string* find_query(const std::string& name) const;
};

struct Server_Response {
  int status = 200;
  HTTP_Headers headers;  // Content-Length, Connection, Date and Content-Type are the server's
  std::string content_type = "application/json";
  std::string body;

  // Sets status and a JSON body.
  void json(int new_status, const json_spirit::Value& value);
  // Sets {"error": {"message": message}}.
  void error(int new_status, const std::string& message);
};

struct HTTP_Listen_Address {
  std::string host = "127.0.0.1";  // a name or an IPv4 or IPv6 address; "" or "*" = all, "::" = all of IPv6
  ACE_UINT16 port = 0;             // 0 = any free port, see ports()
  bool tls = false;
  std::string certificate_file;  // PEM, with the chain
  std::string key_file;          // PEM
};

struct HTTP_Server_Options {
  std::vector<HTTP_Listen_Address> addresses;
  std::string unix_socket;  // path; empty = none. Mode 0600; peers other than root and the server's own user
                            // are refused
  unsigned workers = 64;
  unsigned local_workers = 4;      // further ones, and as much further room, for the Unix socket alone
  unsigned max_connections = 512;  // further ones wait unaccepted
  std::size_t max_body = 16 * 1024 * 1024;  // bytes of a body that is taken whole
  unsigned header_timeout = 30;             // seconds, for handshake and header each
  unsigned body_timeout = 120;              // seconds, for a body that is taken whole
  unsigned stream_timeout = 300;            // seconds without a byte of a streamed body
  unsigned idle_timeout = 60;               // seconds between requests
  unsigned write_timeout = 120;             // seconds without progress in sending the answer
  // Called when the header has been read, before the body: false refuses the request with the response it has
  // filled in (such as 401), and the body is not taken. Null = all are admitted.
  std::function<bool(const Server_Request&, Server_Response&)> admit;
  // Whether the body of this request is read by the handler itself through Server_Request::stream. Null =
  // none is.
  std::function<bool(const Server_Request&)> streams;
};

// Start and stop are for one thread; handlers run on many at once.
class HTTP_Server {
 public:
  using Handler = std::function<void(const Server_Request&, Server_Response&)>;

  HTTP_Server();
  ~HTTP_Server();  // stop()
  HTTP_Server(const HTTP_Server&) = delete;
  HTTP_Server& operator=(const HTTP_Server&) = delete;

  // Opens every listening socket and starts the threads. False, with the reason in `error` and nothing left
  // open, when one of them cannot be opened (address in use, another server on the Unix socket, unreadable
  // certificate, ...).
  bool start(const HTTP_Server_Options& options, Handler handler, std::string& error);

  // Stops accepting, closes idle connections, lets requests in flight end, and joins all threads. Requests
  // that still run after `grace_seconds` have their connections cut, so that streamed bodies end with an
  // error; handlers that go on nevertheless are waited for.
  void stop(unsigned grace_seconds = 30);

  // The ports that are listened on, in the order of the options' addresses (an address may resolve to several
  // sockets; they share the port).
  std::vector<ACE_UINT16> ports() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};
