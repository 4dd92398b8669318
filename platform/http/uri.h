#pragma once
// Addresses of HTTP requests: building them from plain text and taking them apart. Plain values, no locks.

#include <ace/Basic_Types.h>

#include <string>
#include <utility>
#include <vector>

// Names and values of a query in plain text, in the order in which they are sent.
using Query = std::vector<std::pair<std::string, std::string>>;

class URI {
 public:
  URI() = default;
  // `path` is plain text as in path(const std::string&). An IPv6 host is given with or without its brackets.
  URI(const std::string& scheme, const std::string& host, ACE_UINT16 port, const std::string& path);

  // Takes an address apart: "http://host:8080/a%20b?x=1", "https://[::1]/". False, with the object unchanged
  // and the reason in `why`, when the scheme is neither http nor https, the host is empty or holds characters
  // no host has, the port is not 1 to 65535, an escape is malformed or user information is given.
  bool parse(const std::string& text, std::string& why);

  const std::string& scheme() const { return scheme_; }
  void scheme(const std::string& scheme) { scheme_ = scheme; }
  // Without the brackets of an IPv6 address.
  const std::string& host() const { return host_; }
  void host(const std::string& host);
  // The port given, otherwise 443 for https and 80 for http.
  ACE_UINT16 port() const;
  void port(ACE_UINT16 port) { port_ = port; }
  bool is_ssl() const { return scheme_ == "https"; }

  // The path as plain text. Setting it escapes each segment; only '/' keeps its meaning, so a '?', '%' or
  // blank in a name arrives as that name.
  std::string path() const;
  void path(const std::string& plain);
  // Adds one segment; a '/' in it is escaped.
  void append_segment(const std::string& plain);
  // Adds several segments, separated by '/'.
  void append_path(const std::string& plain);

  // Queries are kept in the order in which they are added; a name may come more than once.
  const Query& query() const { return query_; }
  void query(const Query& query) { query_ = query; }
  void add_query(const std::string& name, const std::string& value) { query_.emplace_back(name, value); }

  // Path and query as they stand in the first line of a request ("/" when both are empty).
  std::string target() const;
  // "host:port", an IPv6 host in brackets.
  std::string authority() const;
  // The whole address; the port is left out when it is the scheme's own.
  std::string str() const;

  // Percent-escapes everything but letters, digits and "-._~"; escape_path also leaves '/'.
  static std::string escape(const std::string& plain);
  static std::string escape_path(const std::string& plain);
  static std::string escape_query(const Query& query);
  // Undoes escapes (with `form`, '+' is a blank). False, with `plain` untouched, on a malformed escape or an
  // escaped NUL.
  static bool unescape(const std::string& escaped, std::string& plain, bool form = false);
  // Takes "a=1&b=%20" apart, in order. False, with `query` untouched, on a malformed escape.
  static bool parse_query(const std::string& escaped, Query& query);

 private:
  std::string scheme_ = "http";
  std::string host_;
  ACE_UINT16 port_ = 0;
  std::string escaped_path_;
  Query query_;
};
