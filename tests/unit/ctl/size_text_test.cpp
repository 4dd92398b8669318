#include "ctl/size_text.h"

#include <gtest/gtest.h>

namespace {

struct Parse_Case {
  const char* text;
  std::uint64_t bytes;  // 0: refused
  const char* why;      // part of the reason
};

const Parse_Case PARSE_CASES[] = {
    {"1", 1, ""},
    {"2G", 2147483648, ""},
    {"512MiB", 536870912, ""},
    {"512 mib", 536870912, ""},
    {"1KB", 1000, ""},
    {"1.5K", 1536, ""},
    {"1.1T", 0, "no whole number of bytes"},
    {"1.1TB", 1100000000000, ""},
    {"0.0000000000000000001E", 0, "no size"},
    {"0.000000000000000001EB", 1, ""},
    {"9223372036854775807", 9223372036854775807u, ""},
    {"9223372036854775808", 0, "too large"},
    {"8E", 0, "too large"},
    {"7.999999999E", 0, "no whole number"},
    {"99999999999999999999999999999999999999999G", 0, "too large"},
    {"0", 0, "zero"},
    {"-1G", 0, "negative"},
    {"0.5", 0, "no whole number of bytes"},
    {"1.", 0, "no size"},
    {".5G", 0, "no size"},
    {"", 0, "no size"},
    {"1X", 0, "unknown unit"},
    {"1G 2", 0, "unknown unit"},
    {"0x10", 0, "unknown unit"},
    {" 1G", 0, "no size"},
};

TEST(Size_Text, ReadsExactlyOrRefuses) {
  for (const Parse_Case& one : PARSE_CASES) {
    SCOPED_TRACE(one.text);
    std::uint64_t bytes = 77;
    std::string why;
    EXPECT_EQ(one.bytes != 0, ctl::parse_size(one.text, bytes, why)) << why;
    EXPECT_EQ(one.bytes != 0 ? one.bytes : 77, bytes);
    EXPECT_NE(std::string::npos, why.find(one.why)) << why;
  }
}

TEST(Size_Text, PrintsWithTheFittingUnit) {
  const struct {
    std::uint64_t bytes;
    const char* text;
  } cases[] = {
      {0, "0 B"},
      {1023, "1023 B"},
      {1024, "1 KiB"},
      {1536, "1.5 KiB"},
      {2147483648, "2 GiB"},
      {2093796557, "1.95 GiB"},
      {1048575, "1 MiB"},  // 1023.999 KiB: rounding carries into the unit
      {1049600, "1 MiB"},
      {10485760 + 104857, "10.1 MiB"},
      {18446744073709551615u, "16 EiB"},
  };
  for (const auto& one : cases)
    EXPECT_EQ(one.text, ctl::print_size(one.bytes)) << one.bytes;
}

}  // namespace
