#include "platform/lio/lio_names.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include "platform/base/uuid.h"

namespace lio {

const char* const BACKSTORE_MARK = "scsipool-";

namespace {

constexpr std::size_t LONGEST_NAME = 223;            // the kernel refuses longer targets
constexpr std::size_t LONGEST_BACKSTORE_PATH = 255;  // the kernel cuts longer ones, and exports another file
constexpr std::size_t IDENTITY_DIGITS = 25;          // what the kernel takes from a serial into the NAA name

bool all_hex(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c); });
}

bool all_digits(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

std::string lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

bool starts(const std::string& text, const char* prefix) {
  return text.rfind(prefix, 0) == 0;
}

bool domain_byte(unsigned char c) {
  return std::isalnum(c) || c == '.' || c == '-';
}

// iqn.YYYY-MM.domain[:text]
bool valid_iqn(const std::string& name) {
  if (name.size() < 13 || !all_digits(name.substr(4, 4)) || name[8] != '-' ||
      !all_digits(name.substr(9, 2)) || name[11] != '.')
    return false;
  const std::string month = name.substr(9, 2);
  if (month < "01" || month > "12") return false;
  const std::size_t colon = name.find(':');
  if (colon != std::string::npos && (colon == 12 || colon + 1 == name.size())) return false;
  const std::string domain = name.substr(12, colon == std::string::npos ? colon : colon - 12);
  return std::isalnum(static_cast<unsigned char>(domain[0])) &&
         std::all_of(domain.begin(), domain.end(), domain_byte);
}

bool hex_after(const std::string& name, const char* prefix, std::initializer_list<std::size_t> lengths) {
  if (!starts(name, prefix)) return false;
  const std::string rest = name.substr(std::char_traits<char>::length(prefix));
  return all_hex(rest) && std::count(lengths.begin(), lengths.end(), rest.size()) > 0;
}

bool normal_iscsi(const std::string& name) {
  if (starts(name, "iqn.")) return valid_iqn(name);
  return hex_after(name, "eui.", {16}) || hex_after(name, "naa.", {16, 32});
}

// A port name as the fabric's folder has it: eight pairs with colons.
bool normal_port_name(std::string& name) {
  std::string digits = starts(name, "naa.") ? name.substr(4) : name;
  if (digits.size() == 23) {
    for (std::size_t i = 2; i < digits.size(); i += 3)
      if (digits[i] != ':') return false;
    digits.erase(std::remove(digits.begin(), digits.end(), ':'), digits.end());
  }
  if (digits.size() != 16 || !all_hex(digits)) return false;
  name.clear();
  for (std::size_t i = 0; i < digits.size(); i += 2)
    name += (i ? ":" : "") + digits.substr(i, 2);
  return true;
}

bool plain_byte(unsigned char c) {
  return c > ' ' && c != 0x7f && c != '/' && c != ',' && c != '"';
}

}  // namespace

bool normal_name(Name_Form form, const std::string& given, std::string& normal, std::string& why) {
  if (given.empty() || given.size() > LONGEST_NAME) {
    why = "it must have 1 to 223 bytes";
    return false;
  }
  if (!std::all_of(given.begin(), given.end(), plain_byte)) {
    why = "spaces, control characters, slash, comma and quotes are not allowed";
    return false;
  }
  std::string name = lower(given);
  if (form == Name_Form::iscsi && !normal_iscsi(name)) {
    why = "it must be iqn.YYYY-MM.domain[:text], eui. and 16 or naa. and 16 or 32 hexadecimal digits";
    return false;
  }
  if (form == Name_Form::fibre_channel && !normal_port_name(name)) {
    why = "it must be a port name of 16 hexadecimal digits, with or without colons";
    return false;
  }
  if (form == Name_Form::loopback && !hex_after(name, "naa.", {16})) {
    why = "it must be naa. and 16 hexadecimal digits";
    return false;
  }
  normal = name;
  return true;
}

bool valid_backstore_path(const std::string& path, std::string& why) {
  why.clear();
  if (path.empty() || path[0] != '/') why = "it is not absolute";
  if (path.size() > LONGEST_BACKSTORE_PATH) why = "it is longer than 255 bytes";
  const auto unwanted = [](unsigned char c) { return c < ' ' || c == 0x7f || c == ','; };
  if (std::any_of(path.begin(), path.end(), unwanted)) why = "it holds a comma or a control character";
  if ((path + "/").find("/../") != std::string::npos) why = "it holds '..'";
  return why.empty();
}

std::string path_serial(const std::string& path) {
  static const std::string NAMESPACE = "c9be3c3a-5c0f-4c5c-9d0e-7a4f0a6f3b11";
  return lower(platform::uuid_v5(NAMESPACE, path));
}

std::string serial_of_path(const std::string& path) {
  std::string rest = path;
  for (int component = 0; component < 2; ++component) {
    const std::size_t slash = rest.rfind('/');
    if (slash == std::string::npos) break;
    const std::string last = rest.substr(slash + 1);
    if (platform::is_uuid(last)) return lower(last);
    rest.erase(slash);
  }
  return path_serial(path);
}

std::string device_identity(const std::string& serial) {
  std::string digits;
  for (const char c : lower(serial))
    if (std::isxdigit(static_cast<unsigned char>(c)) && digits.size() < IDENTITY_DIGITS) digits += c;
  return digits;
}

bool numbered_name(const std::string& name, const char* prefix, unsigned& number) {
  const char* at = name.c_str();
  while (*prefix != '\0')
    if (*at++ != *prefix++) return false;
  if (*at == '\0' || (*at == '0' && at[1] != '\0')) return false;
  unsigned read = 0;
  for (; *at != '\0'; ++at) {
    if (*at < '0' || *at > '9') return false;
    read = read * 10 + static_cast<unsigned>(*at - '0');
    if (read > 65535) return false;
  }
  number = read;
  return true;
}

}  // namespace lio
