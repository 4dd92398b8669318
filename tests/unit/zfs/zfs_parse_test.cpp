#include "platform/zfs/zfs_parse.h"

#include <gtest/gtest.h>

namespace {

TEST(Zfs_Parse, Numbers_And_Words_Are_Exact_And_Strict) {
  ACE_UINT64 value = 7;
  for (const char* bad :
       {"18446744073709551616", "99999999999999999999", "", "-", "-1", "1.5", "none", " 1"}) {
    EXPECT_FALSE(zfs::parse_unsigned(bad, value)) << bad;
    EXPECT_EQ(value, 7u) << bad;
  }
  for (const ACE_UINT64 good : {ACE_UINT64{0}, ACE_UINT64{9007199254740993}, ~ACE_UINT64{0}}) {
    EXPECT_TRUE(zfs::parse_unsigned(std::to_string(good), value));
    EXPECT_EQ(value, good);
  }
  bool flag = false;
  EXPECT_TRUE(zfs::parse_boolean("on", flag) && flag && zfs::parse_boolean("no", flag) && !flag);
  EXPECT_TRUE(zfs::parse_boolean("yes", flag) && flag && zfs::parse_boolean("off", flag) && !flag);
  for (const char* bad : {"-", "ON", "", "lz4", "true"})
    EXPECT_FALSE(zfs::parse_boolean(bad, flag) || flag) << bad;
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
