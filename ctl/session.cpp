#include "ctl/session.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ctl/table.h"
#include "platform/base/file.h"
#include "platform/http/uri.h"

namespace ctl {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

// Making or deleting a large pool takes its time, and nothing is sent meanwhile.
constexpr unsigned ANSWER_SECONDS = 3600;
constexpr unsigned CONNECT_SECONDS = 15;

std::string trimmed(const std::string& text) {
  const char* const blanks = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(blanks);
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

}  // namespace

bool Session::send_key(std::string& why) {
  if (key_file.empty()) return true;
  std::string key;
  if (!platform::read_file(key_file, key)) {
    why = key_file + ": " + std::strerror(errno);
    return false;
  }
  if (http_.headers().put(HTTP_Headers::ACCESS_KEY, trimmed(key))) return true;
  why = key_file + ": holds no access key";
  return false;
}

bool Session::connect_url(std::string& why) {
  URI uri;
  if (!uri.parse(url, why)) {
    why = "the address '" + url + "' is not https://host:port: " + why;
    return false;
  }
  if (!send_key(why)) return false;
  TLS_Settings tls;
  tls.ca_file = ca_file;
  // Only this form of connecting tells what failed; its short time-out would hold for answers as well.
  HTTP_Failure failure;
  if (HTTP_Session_Factory::try_create(uri.host(), uri.port(), uri.is_ssl(), &tls, CONNECT_SECONDS,
                                       failure) == nullptr) {
    why = failure.text;
    return false;
  }
  http_.session(HTTP_Session_Factory::create(uri.host(), uri.port(), uri.is_ssl(), &tls, 0, nullptr, false,
                                             ANSWER_SECONDS, CONNECT_SECONDS, CONNECT_SECONDS));
  why = "the connection to " + uri.authority() + " was lost";
  return static_cast<bool>(http_);
}

bool Session::connect(std::string& why) {
  if (http_) return true;
  http_ = JSON_HTTP_Session(0, 0);
  if (!url.empty()) return connect_url(why);
  http_.session(HTTP_Session_Factory::create_unix(socket, ANSWER_SECONDS, &why));
  if (http_) return true;
  const bool forbidden = ::access(socket.c_str(), W_OK) != 0 && errno == EACCES;
  why += forbidden ? " (only root may use it)" : " (is scsipoold running?)";
  return false;
}

bool Session::request(const std::string& method, const std::string& path, const Query& query,
                      const Object* body, Value& answer) {
  std::string why;
  int status = 0;
  if (!connect(why)) {
    failed(why);
    return false;
  }
  const Value value = body == nullptr ? Value() : Value(*body);
  if (!http_.request(method, path, query, body == nullptr ? nullptr : &value, answer, status)) {
    failed(http_.error());
    return false;
  }
  if (status == 200) return true;
  if (json) {
    print_json(answer);
  }
  failed(http_.error().empty() ? "the daemon answered " + std::to_string(status) : http_.error());
  print_details(answer);
  return false;
}

void Session::print_details(const Value& answer) {
  const Object* object = json_spirit::get_object(answer);
  Object error;
  Array details;
  std::string left;
  if (object == nullptr || !json_spirit::object_find(*object, "error", error)) return;
  if (json_spirit::object_find(error, "details", details)) {
    for (const Value& line : details) {
      if (line.is_string()) err << "  " << printable(line.get<std::string>()) << "\n";
    }
  }
  if (json_spirit::object_find(error, "left_behind", left))
    err << "  left behind: " << printable(left) << "\n";
}

int Session::failed(const std::string& cause) {
  err << "scsipoolctl: " << printable(cause) << "\n";
  return FAILED;
}

int Session::print_json(const Value& answer) {
  out << JSON_Dump(answer, true) << "\n";
  return DONE;
}

bool Session::confirm(const std::string& question) {
  if (!terminal) {
    failed("not asked on a terminal: --yes is needed");
    return false;
  }
  out << printable(question) << " [yes/no] " << std::flush;
  std::string answer;
  if (std::getline(in, answer) && answer == "yes") return true;
  failed("not confirmed: nothing was done");
  return false;
}

}  // namespace ctl
