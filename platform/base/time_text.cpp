#include "platform/base/time_text.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <limits>

namespace platform {

namespace {

std::string date_and_time(const std::tm& parts) {
  char text[80];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", parts.tm_year + 1900, parts.tm_mon + 1,
                parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  return text;
}

// Reads exactly `count` digits.
bool take_number(const char*& at, int count, int& number) {
  int value = 0;
  for (int i = 0; i < count; ++i, ++at) {
    if (!std::isdigit(static_cast<unsigned char>(*at))) return false;
    value = value * 10 + (*at - '0');
  }
  number = value;
  return true;
}

bool take(const char*& at, char wanted) {
  if (*at != wanted) return false;
  ++at;
  return true;
}

void skip_fraction(const char*& at) {
  if (*at != '.' || !std::isdigit(static_cast<unsigned char>(at[1]))) return;
  ++at;
  while (std::isdigit(static_cast<unsigned char>(*at)))
    ++at;
}

// "Z", "+01:00" or "+0100", to the end of the text.
bool take_offset(const char*& at, long& seconds) {
  seconds = 0;
  if (take(at, 'Z')) return *at == '\0';
  const bool west = *at == '-';
  if (*at != '+' && *at != '-') return false;
  ++at;
  int hours = 0;
  int minutes = 0;
  if (!take_number(at, 2, hours)) return false;
  take(at, ':');
  if (!take_number(at, 2, minutes) || hours > 23 || minutes > 59 || *at != '\0') return false;
  seconds = (west ? -1 : 1) * (hours * 3600L + minutes * 60L);
  return true;
}

// 0 for a character that is no unit.
unsigned unit_seconds(char unit) {
  switch (unit) {
    case 's':
      return 1;
    case 'm':
      return 60;
    case 'h':
      return 3600;
    case 'd':
      return 86400;
    case 'w':
      return 7 * 86400;
    default:
      return 0;
  }
}

// "08:30" or "08:30:15".
bool clock_to_seconds(const std::string& text, unsigned& seconds) {
  const char* at = text.c_str();
  int hours = 0;
  int minutes = 0;
  int rest = 0;
  if (!take_number(at, 2, hours) || !take(at, ':') || !take_number(at, 2, minutes)) return false;
  if (take(at, ':') && !take_number(at, 2, rest)) return false;
  const unsigned total = static_cast<unsigned>(hours * 3600 + minutes * 60 + rest);
  if (at != text.c_str() + text.size() || minutes > 59 || rest > 59 || total > 86400) return false;
  seconds = total;
  return true;
}

}  // namespace

std::string POSIX_Time_To_ISO8601(std::time_t time) {
  std::tm parts{};
  gmtime_r(&time, &parts);
  return date_and_time(parts) + 'Z';
}

std::string POSIX_Time_To_ISO8601_Local(std::time_t time) {
  std::tm parts{};
  localtime_r(&time, &parts);
  const long offset = parts.tm_gmtoff;
  const long minutes = (offset < 0 ? -offset : offset) / 60;
  char zone[32];
  std::snprintf(zone, sizeof zone, "%c%02ld:%02ld", offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
  return date_and_time(parts) + zone;
}

bool ISO8601_To_POSIX_Time(const std::string& text, std::time_t& time) {
  std::tm parts{};
  const char* at = text.c_str();
  if (!take_number(at, 4, parts.tm_year) || !take(at, '-') || !take_number(at, 2, parts.tm_mon) ||
      !take(at, '-') || !take_number(at, 2, parts.tm_mday) || !take(at, 'T') ||
      !take_number(at, 2, parts.tm_hour) || !take(at, ':') || !take_number(at, 2, parts.tm_min) ||
      !take(at, ':') || !take_number(at, 2, parts.tm_sec)) {
    return false;
  }
  skip_fraction(at);
  long offset = 0;
  if (!take_offset(at, offset) || at != text.c_str() + text.size()) return false;
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  std::tm normal = parts;
  const std::time_t moment = timegm(&normal);
  // timegm turns the 30th of February into the 2nd of March; such texts are refused.
  if (date_and_time(normal) != date_and_time(parts)) return false;
  time = moment - offset;
  return true;
}

bool relative_time_to_seconds(const std::string& text, unsigned& seconds) {
  if (text.find(':') != std::string::npos) return clock_to_seconds(text, seconds);
  constexpr std::uint64_t highest = std::numeric_limits<unsigned>::max();
  std::uint64_t number = 0;
  std::size_t at = 0;
  for (; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); ++at) {
    number = number * 10 + static_cast<unsigned>(text[at] - '0');
    if (number > highest) return false;
  }
  if (at == 0 || text.size() > at + 1) return false;
  const unsigned unit = at < text.size() ? unit_seconds(text[at]) : 1;
  if (unit == 0 || number > highest / unit) return false;
  seconds = static_cast<unsigned>(number * unit);
  return true;
}

}  // namespace platform
