#include "ctl/size_text.h"

#include <cctype>
#include <cstring>
#include <limits>

namespace ctl {

namespace {

__extension__ using Wide = unsigned __int128;

constexpr std::uint64_t LARGEST = std::numeric_limits<std::int64_t>::max();
constexpr int MOST_DECIMALS = 18;  // 10^18 times the largest unit still fits the wide type
const char PREFIXES[] = "KMGTPE";

bool digit(char c) {
  return c >= '0' && c <= '9';
}

// The bytes of a unit as it is written in lower case; 0 for none that is known.
std::uint64_t unit_bytes(const std::string& unit) {
  if (unit.empty() || unit == "b") return 1;
  const char* prefix = std::strchr(PREFIXES, std::toupper(static_cast<unsigned char>(unit[0])));
  const std::string rest = unit.substr(1);
  if (prefix == nullptr || (!rest.empty() && rest != "ib" && rest != "b")) return 0;
  std::uint64_t bytes = 1;
  for (const char* p = PREFIXES; p <= prefix; ++p)
    bytes *= rest == "b" ? 1000 : 1024;
  return bytes;
}

struct Decimal {
  Wide whole = 0;
  Wide decimals = 0;  // what stands after the point ...
  Wide divisor = 1;   // ... divided by this
};

// Reads digits with at most one point; `at` ends after them.
bool read_decimal(const std::string& text, std::size_t& at, Decimal& number) {
  const std::size_t begin = at;
  for (; at < text.size() && digit(text[at]); ++at) {
    number.whole = number.whole * 10 + static_cast<unsigned>(text[at] - '0');
    if (number.whole > LARGEST) number.whole = Wide(LARGEST) + 1;  // stays too large
  }
  if (at == begin) return false;
  if (at == text.size() || text[at] != '.') return true;
  const std::size_t point = at++;
  for (; at < text.size() && digit(text[at]); ++at) {
    if (at - point > MOST_DECIMALS) return false;
    number.decimals = number.decimals * 10 + static_cast<unsigned>(text[at] - '0');
    number.divisor *= 10;
  }
  return at > point + 1;
}

bool refuse(std::string& why, const std::string& text, const char* reason) {
  why = "'" + text + "' " + reason;
  return false;
}

}  // namespace

bool parse_size(const std::string& text, std::uint64_t& bytes, std::string& why) {
  std::size_t at = 0;
  Decimal number;
  if (!text.empty() && text[0] == '-') return refuse(why, text, "is negative");
  if (!read_decimal(text, at, number)) return refuse(why, text, "is no size such as 10G or 512MiB");
  while (at < text.size() && text[at] == ' ')
    ++at;
  std::string unit = text.substr(at);
  for (char& c : unit)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const Wide scale = unit_bytes(unit);
  if (scale == 0) return refuse(why, text, "has an unknown unit (K, M, G, T, P, E, KiB, KB, ...)");
  const Wide part = number.decimals * scale;
  if (part % number.divisor != 0) return refuse(why, text, "is no whole number of bytes");
  const Wide total = number.whole * scale + part / number.divisor;
  if (total == 0) return refuse(why, text, "is zero");
  if (total > LARGEST) return refuse(why, text, "is too large (9223372036854775807 bytes at most)");
  bytes = static_cast<std::uint64_t>(total);
  return true;
}

std::string print_size(std::uint64_t bytes) {
  const char* const UNITS[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  Wide unit = 1;
  std::size_t which = 0;
  // The next unit is taken when rounding to two decimals would already give 1024.
  while (which < 6 && Wide(bytes) * 200 + unit >= unit * 1024 * 200) {
    unit *= 1024;
    ++which;
  }
  const auto hundredths = static_cast<std::uint64_t>((Wide(bytes) * 200 + unit) / (unit * 2));
  std::string text = std::to_string(hundredths / 100);
  if (hundredths % 100 != 0) {
    text += "." + std::to_string(hundredths % 100 / 10);
    if (hundredths % 10 != 0) text += std::to_string(hundredths % 10);
  }
  return text + " " + UNITS[which];
}

}  // namespace ctl
