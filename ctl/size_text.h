#pragma once
// Sizes as people write them. Whole-number arithmetic only: "1.1T" is that many bytes or refused.

#include <cstdint>
#include <string>

namespace ctl {

// "4096", "10G", "512MiB", "1.5 TB". K, M, G, T, P, E and KiB, MiB, ... are powers of 1024; KB, MB, ...
// powers of 1000; "B" or nothing is bytes; case does not matter. False, with the reason in `why`, for
// anything else, for a size that is no whole number of bytes, for zero and for more than 2^63-1.
bool parse_size(const std::string& text, std::uint64_t& bytes, std::string& why);

// "10 GiB", "1.95 GiB", "512 B": at most two decimals, rounded to the nearest.
std::string print_size(std::uint64_t bytes);

}  // namespace ctl
