#pragma once
// Bounded decimal parser.

#include <cstddef>
#include <cstdint>

namespace platform {

// The decimal number that the first `len` characters of `text` begin with. Stops at the first character that
// is no digit; 0 when there is none or `text` is null; the largest value when the number does not fit 64
// bits.
std::uint64_t natoi(const char* text, std::size_t len);

}  // namespace platform
