#pragma once
// What every command works with: the connection to the daemon and the terminal.

#include <istream>
#include <ostream>
#include <string>

#include "platform/http/json_http_session.h"
#include "platform/json/json_spirit.h"

namespace ctl {

constexpr int DONE = 0;    // exit status: done
constexpr int FAILED = 1;  // refused or failed
constexpr int USAGE = 2;   // wrong usage

class Session {
 public:
  Session(std::istream& in, std::ostream& out, std::ostream& err, bool terminal)
      : in(in), out(out), err(err), terminal(terminal) {}

  // Options of the command line.
  std::string socket = "/run/scsipool/scsipoold.sock";
  std::string url;  // empty: the Unix socket
  std::string key_file;
  std::string ca_file;
  bool json = false;

  std::istream& in;
  std::ostream& out;
  std::ostream& err;
  const bool terminal;  // a person can be asked

  // Sends one request. False, with the cause written to `err`, when there was no answer or its status was not
  // 200.
  bool request(const std::string& method, const std::string& path, const Query& query,
               const json_spirit::Object* body, json_spirit::Value& answer);
  // Writes the cause to `err` and returns FAILED.
  int failed(const std::string& cause);
  // The answer as it came.
  int print_json(const json_spirit::Value& answer);
  // Asks on a terminal; elsewhere, or without a "yes", false with the reason written to `err`.
  bool confirm(const std::string& question);

 private:
  bool connect(std::string& why);
  bool connect_url(std::string& why);
  bool send_key(std::string& why);
  void print_details(const json_spirit::Value& answer);

  JSON_HTTP_Session http_;
};

}  // namespace ctl
