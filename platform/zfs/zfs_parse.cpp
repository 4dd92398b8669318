#include "platform/zfs/zfs_parse.h"

#include <limits>

namespace zfs {

bool parse_properties(const std::vector<std::string>& lines, std::map<std::string, std::string>& values) {
  std::map<std::string, std::string> found;
  for (const std::string& line : lines) {
    const std::size_t tab = line.find('\t');
    if (tab == std::string::npos || tab == 0) return false;
    found[line.substr(0, tab)] = line.substr(tab + 1);
  }
  values.swap(found);
  return true;
}

bool parse_boolean(const std::string& text, bool& value) {
  const bool yes = text == "on" || text == "yes";
  if (!yes && text != "off" && text != "no") return false;
  value = yes;
  return true;
}

bool parse_unsigned(const std::string& text, ACE_UINT64& value) {
  constexpr ACE_UINT64 highest = std::numeric_limits<ACE_UINT64>::max();
  if (text.empty()) return false;
  ACE_UINT64 number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    const ACE_UINT64 digit = static_cast<ACE_UINT64>(c - '0');
    if (number > (highest - digit) / 10) return false;
    number = number * 10 + digit;
  }
  value = number;
  return true;
}

}  // namespace zfs
