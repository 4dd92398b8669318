#pragma once
// HTTP/1.1 messages as the clients here write and read them.

#include <string>

#include "platform/http/http_session.h"
#include "platform/http/transport.h"

namespace http_wire {

// First line and fields of a request, up to and with the empty line. `extra` goes after `headers`.
std::string request_head(const std::string& method, const std::string& target, const std::string& host,
                         const HTTP_Headers& headers, const HTTP_Headers& extra);

struct Reply_Result {
  bool lost = false;        // the connection ended or failed, as opposed to an answer that makes no sense
  bool keep_alive = false;  // the connection may be used again
  std::string error;
};

// Reads a whole answer. False, with `result` telling why, when it was cut, has no marked end, is malformed,
// or its body is longer than `max_body`.
bool read_response(http_transport::Transport& transport, std::size_t max_body, HTTP_Response& response,
                   Reply_Result& result);

// The "error"/"message" of a JSON body, or a short text of the status.
std::string refusal_text(const HTTP_Response& response);

}  // namespace http_wire
