#include "platform/zfs/zfs_parse.h"

#include <gtest/gtest.h>

namespace {

TEST(Zfs_Parse, Unsigned_Is_Exact_And_Strict) {
  const struct {
    const char* text;
    bool good;
    ACE_UINT64 value;
  } cases[] = {
      {"0", true, 0},
      {"18446744073709551615", true, 18446744073709551615ULL},
      {"9007199254740993", true, 9007199254740993ULL},
      {"18446744073709551616", false, 0},
      {"99999999999999999999", false, 0},
      {"", false, 0},
      {"-", false, 0},
      {"-1", false, 0},
      {"1.5", false, 0},
      {"none", false, 0},
      {" 1", false, 0},
  };
  for (const auto& one : cases) {
    ACE_UINT64 value = 7;
    EXPECT_EQ(zfs::parse_unsigned(one.text, value), one.good) << one.text;
    EXPECT_EQ(value, one.good ? one.value : 7) << one.text;
  }
}

TEST(Zfs_Parse, Boolean_Knows_Four_Words) {
  const struct {
    const char* text;
    bool good, value;
  } cases[] = {{"on", true, true},  {"yes", true, true},   {"off", true, false},
               {"no", true, false}, {"-", false, false},   {"ON", false, false},
               {"", false, false},  {"lz4", false, false}, {"true", false, false}};
  for (const auto& one : cases) {
    bool value = !one.value;
    EXPECT_EQ(zfs::parse_boolean(one.text, value), one.good) << one.text;
    EXPECT_EQ(value, one.good == one.value) << one.text;
  }
}

TEST(Zfs_Parse, Properties_Keep_Blanks_And_Refuse_Garbage) {
  std::map<std::string, std::string> values;
  ASSERT_TRUE(zfs::parse_properties({"mountpoint\t/a b\tc", "my:x\t"}, values));
  EXPECT_EQ(values["mountpoint"], "/a b\tc");
  EXPECT_EQ(values["my:x"], "");
  EXPECT_FALSE(zfs::parse_properties({"used\t1", "internal error: out of memory"}, values));
  EXPECT_FALSE(zfs::parse_properties({"\tvalue"}, values));
  EXPECT_EQ(values.size(), 2u);
}

}  // namespace
