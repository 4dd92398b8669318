#include "platform/http/uri.h"

#include <cctype>

namespace {

bool is_plain(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string escape_but(const std::string& plain, const char* kept) {
  static const char digits[] = "0123456789ABCDEF";
  std::string escaped;
  for (const char c : plain) {
    const auto byte = static_cast<unsigned char>(c);
    if (is_plain(byte) || (c != '\0' && std::string(kept).find(c) != std::string::npos)) {
      escaped += c;
    } else {
      escaped += {'%', digits[byte >> 4], digits[byte & 15]};
    }
  }
  return escaped;
}

std::string lower(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool parse_port(const std::string& text, ACE_UINT16& port) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  const unsigned long number = std::stoul(text);
  if (number == 0 || number > 65535) return false;
  port = static_cast<ACE_UINT16>(number);
  return true;
}

bool refused(std::string& why, const std::string& text) {
  why = text;
  return false;
}

// "host", "host:port", "[::1]" or "[::1]:port".
bool parse_authority(const std::string& text, std::string& host, ACE_UINT16& port, std::string& why) {
  std::string rest;
  if (text.find('@') != std::string::npos) return refused(why, "a user's name before the host is not taken");
  if (!text.empty() && text[0] == '[') {
    const std::size_t end = text.find(']');
    if (end == std::string::npos) return refused(why, "the address's bracket is not closed");
    host = text.substr(1, end - 1);
    rest = text.substr(end + 1);
    if (host.find_first_not_of("0123456789abcdefABCDEF:.") != std::string::npos ||
        host.find(':') == std::string::npos)
      return refused(why, "'" + host + "' is no IPv6 address");
  } else {
    const std::size_t colon = text.find(':');
    host = text.substr(0, colon);
    rest = colon == std::string::npos ? "" : text.substr(colon);
    for (const char c : host) {
      if (!is_plain(static_cast<unsigned char>(c))) return refused(why, "'" + host + "' is no host name");
    }
  }
  if (host.empty()) return refused(why, "the host is missing");
  if (rest.empty()) return true;
  if (rest[0] != ':' || !parse_port(rest.substr(1), port)) return refused(why, "the port is not 1 to 65535");
  return true;
}

}  // namespace

URI::URI(const std::string& scheme, const std::string& host, ACE_UINT16 port, const std::string& path)
    : scheme_(scheme), port_(port) {
  this->host(host);
  this->path(path);
}

void URI::host(const std::string& host) {
  const bool brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
  host_ = brackets ? host.substr(1, host.size() - 2) : host;
}

ACE_UINT16 URI::port() const {
  if (port_ != 0) return port_;
  return is_ssl() ? 443 : 80;
}

bool URI::parse(const std::string& text, std::string& why) {
  const std::size_t colon = text.find("://");
  if (colon == std::string::npos) return refused(why, "the scheme is missing");
  URI found;
  found.scheme_ = lower(text.substr(0, colon));
  if (found.scheme_ != "http" && found.scheme_ != "https")
    return refused(why, "the scheme '" + found.scheme_ + "' is neither http nor https");
  const std::string rest = text.substr(colon + 3, text.find('#') - colon - 3);
  const std::size_t end = rest.find_first_of("/?");
  if (!parse_authority(rest.substr(0, end), found.host_, found.port_, why)) return false;
  const std::string target = end == std::string::npos ? "" : rest.substr(end);
  const std::size_t mark = target.find('?');
  std::string plain;
  if (!unescape(target.substr(0, mark), plain)) return refused(why, "malformed escape in the path");
  // Escaped anew segment by segment: one spelling for each path, and nothing unescaped is left in it.
  for (std::size_t begin = 0; begin < target.substr(0, mark).size();) {
    const std::size_t next = std::min(target.find('/', begin + 1), std::min(mark, target.size()));
    unescape(target.substr(begin + 1, next - begin - 1), plain);
    found.escaped_path_ += "/" + escape(plain);
    begin = next;
  }
  if (mark != std::string::npos && !parse_query(target.substr(mark + 1), found.query_))
    return refused(why, "malformed escape in the query");
  *this = found;
  return true;
}

std::string URI::path() const {
  std::string plain;
  unescape(escaped_path_, plain);
  return plain;
}

void URI::path(const std::string& plain) {
  escaped_path_ = (plain.empty() || plain[0] == '/' ? "" : "/") + escape_path(plain);
}

void URI::append_segment(const std::string& plain) {
  if (escaped_path_.empty() || escaped_path_.back() != '/') escaped_path_ += '/';
  escaped_path_ += escape(plain);
}

void URI::append_path(const std::string& plain) {
  if (escaped_path_.empty() || escaped_path_.back() != '/') escaped_path_ += '/';
  escaped_path_ += escape_path(plain[0] == '/' ? plain.substr(1) : plain);
}

std::string URI::target() const {
  std::string text = escaped_path_.empty() ? "/" : escaped_path_;
  if (!query_.empty()) text += "?" + escape_query(query_);
  return text;
}

std::string URI::authority() const {
  const bool brackets = host_.find(':') != std::string::npos;
  return (brackets ? "[" + host_ + "]" : host_) + ":" + std::to_string(port());
}

std::string URI::str() const {
  std::string place = authority();
  if (port() == (is_ssl() ? 443 : 80)) place.resize(place.rfind(':'));
  return scheme_ + "://" + place + target();
}

std::string URI::escape(const std::string& plain) {
  return escape_but(plain, "");
}

std::string URI::escape_path(const std::string& plain) {
  return escape_but(plain, "/");
}

std::string URI::escape_query(const Query& query) {
  std::string text;
  for (const auto& [name, value] : query) {
    if (!text.empty()) text += '&';
    text += escape(name) + "=" + escape(value);
  }
  return text;
}

bool URI::unescape(const std::string& escaped, std::string& plain, bool form) {
  std::string text;
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] != '%') {
      text += form && escaped[i] == '+' ? ' ' : escaped[i];
      continue;
    }
    const int high = i + 2 < escaped.size() ? hex_value(escaped[i + 1]) : -1;
    const int low = high >= 0 ? hex_value(escaped[i + 2]) : -1;
    if (low < 0 || high * 16 + low == 0) return false;
    text += static_cast<char>(high * 16 + low);
    i += 2;
  }
  plain = text;
  return true;
}

bool URI::parse_query(const std::string& escaped, Query& query) {
  Query found;
  for (std::size_t begin = 0; begin < escaped.size();) {
    const std::size_t end = std::min(escaped.find('&', begin), escaped.size());
    const std::string item = escaped.substr(begin, end - begin);
    begin = end + 1;
    if (item.empty()) continue;
    const std::size_t equals = std::min(item.find('='), item.size());
    std::string name, value;
    if (!unescape(item.substr(0, equals), name, true)) return false;
    if (equals < item.size() && !unescape(item.substr(equals + 1), value, true)) return false;
    found.emplace_back(name, value);
  }
  query = found;
  return true;
}
