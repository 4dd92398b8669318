#pragma once
// Writes a remote file over HTTP, piece by piece, as it is produced.
//
// On the wire: connected to the address <U> with the path <P>,
//   open("<id>/<recycle|norecycle>/<seq>", WRITE) begins   POST <P>/<id>/<recycle|norecycle>/<seq>
// with chunked transfer coding; each segment of the name is percent-escaped. write() sends chunks, close()
// the last chunk, which alone marks a complete file: a body that ends without it was cut. The answer 200
// means that the peer has taken and kept the file; any other is a failure, its text being "error"/"message"
// of a JSON body. The peer may answer (and so refuse) before the body has ended. Without `overwrite` the
// request carries "If-None-Match: *".
//   remove("<id>") sends   DELETE <P>/<id>
// which asks the peer to end and drop a half-received file.

#include <memory>
#include <string>
#include <vector>

#include "platform/http/http_session.h"
#include "platform/http/rate_control.h"
#include "platform/http/uri.h"

struct Client_IO_Options {
  bool overwrite = true;
  unsigned socket_timeout_seconds = 300;  // without progress in sending, or without the answer after close()
  unsigned max_seconds_retry = 0;         // how long connect() goes on trying; 0 = one attempt
  HTTP_Headers headers;                   // such as the access key
  std::vector<Rate_Control_Entry> rate_control_entries;
};

// One remote file at a time: connect, open, write..., close. Destroying it, or disconnect(), before close()
// cuts the connection without the last chunk, so that the peer sees an incomplete file. Data is sent in
// chunks of 64 KiB; write() waits as the rate limits ask. One thread at a time.
class Client_IO {
 public:
  using Options = Client_IO_Options;
  enum Mode : int { READ = 1, WRITE = 2 };

  Client_IO();
  ~Client_IO();
  Client_IO(const Client_IO&) = delete;
  Client_IO& operator=(const Client_IO&) = delete;

  // Connects to the address's host. Attempts are repeated with growing delays (1 to 30 seconds) within
  // max_seconds_retry, but not when the name or the certificate is wrong. False, with last_error() set and
  // nothing logged, otherwise.
  bool connect(const URI& uri, const Client_IO_Options& options);

  // Begins the remote file. Only WRITE is possible. Connects again when the peer has closed the unused
  // connection.
  bool open(const std::string& remote_name, int mode);

  // Sends `size` bytes (buffered). False when the connection is lost, the peer answered already (last_error()
  // is then its text) or nothing could be sent for socket_timeout_seconds. After a failure only remove() is
  // of use.
  bool write(const void* data, std::size_t size);

  // Ends the file and waits for the answer; true only for 200. The connection is closed in any case. Closing
  // after a failed write, or without an open file, is false and sends nothing.
  bool close();

  // Asks the peer to drop what it has of this file, over a connection of its own. An open file is cut first.
  // True when the answer is 200 or 404 (there is nothing left). Keeps last_error() of the transfer when it
  // succeeds.
  bool remove(const std::string& remote_name);

  // Cuts the connection.
  void disconnect();

  // The text of the last failure; empty when there was none.
  const std::string& last_error() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};
