#include "platform/http/http_wire.h"

#include "platform/http/beast_stream.h"
#include "platform/json/json_spirit.h"

namespace http_wire {

namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

using Parser = http::response_parser<http::string_body>;

bool failed(Reply_Result& result, bool lost, const std::string& text) {
  result.lost = lost;
  result.error = text;
  return false;
}

bool explain(const beast::error_code& error, http_transport::Transport& transport, std::size_t max_body,
             Reply_Result& result) {
  if (error == beast::errc::io_error) return failed(result, true, "no answer: " + transport.error());
  if (error == http::error::end_of_stream)
    return failed(result, true, "the peer closed the connection without an answer");
  if (error == http::error::partial_message) return failed(result, true, "the answer was cut");
  if (error == http::error::body_limit)
    return failed(result, false, "the answer is longer than " + std::to_string(max_body) + " bytes");
  return failed(result, false, "malformed answer: " + error.message());
}

void take(Parser& parser, HTTP_Response& response) {
  response.status = static_cast<int>(parser.get().result_int());
  response.headers = HTTP_Headers();
  for (const auto& field : parser.get()) {
    response.headers.put(std::string(field.name_string()), std::string(field.value()), false);
  }
  response.body = std::move(parser.get().body());
}

}  // namespace

std::string request_head(const std::string& method, const std::string& target, const std::string& host,
                         const HTTP_Headers& headers, const HTTP_Headers& extra) {
  std::string head = method + " " + target + " HTTP/1.1\r\nHost: " + host + "\r\n";
  for (const HTTP_Headers* fields : {&headers, &extra}) {
    for (const auto& [name, value] : fields->all()) {
      head += name;
      head += ": ";
      head += value;
      head += "\r\n";
    }
  }
  return head + "\r\n";
}

bool read_response(http_transport::Transport& transport, std::size_t max_body, HTTP_Response& response,
                   Reply_Result& result) {
  http_transport::Beast_Stream stream(transport);
  beast::flat_buffer buffer;
  buffer.reserve(64 * 1024);
  for (;;) {
    Parser parser;
    parser.body_limit(max_body);
    parser.header_limit(64 * 1024);
    beast::error_code error;
    http::read(stream, buffer, parser, error);
    if (error) return explain(error, transport, max_body, result);
    if (parser.get().result_int() / 100 == 1) continue;  // interim answers
    // Such a body ends where the connection ends, and a cut would look the same.
    if (parser.need_eof() && !parser.get().has_content_length() && !parser.chunked() &&
        parser.get().result_int() != 204 && parser.get().result_int() != 304)
      return failed(result, false, "the answer has no marked end");
    result.keep_alive = parser.keep_alive();
    take(parser, response);
    return true;
  }
}

std::string refusal_text(const HTTP_Response& response) {
  json_spirit::Value value;
  if (loads_json(response.body, value)) {
    const json_spirit::Object* body = json_spirit::get_object(value);
    json_spirit::Object error;
    std::string message;
    if (body != nullptr && json_spirit::object_find(*body, "error", error) &&
        json_spirit::object_find(error, "message", message))
      return message;
  }
  const auto reason = http::obsolete_reason(http::int_to_status(static_cast<unsigned>(response.status)));
  return "status " + std::to_string(response.status) + " " + std::string(reason);
}

}  // namespace http_wire
