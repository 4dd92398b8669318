#include "platform/base/natoi.h"

#include <limits>

namespace platform {

std::uint64_t natoi(const char* text, std::size_t len) {
  constexpr std::uint64_t highest = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t number = 0;
  for (std::size_t i = 0; text != nullptr && i < len && text[i] >= '0' && text[i] <= '9'; ++i) {
    const unsigned digit = static_cast<unsigned>(text[i] - '0');
    if (number > (highest - digit) / 10) return highest;
    number = number * 10 + digit;
  }
  return number;
}

}  // namespace platform
