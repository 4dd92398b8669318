// What the Btrfs drivers read out of recorded tool output, whole, cut off and replaced by garbage.

#include <gtest/gtest.h>

#include <algorithm>

#include "backup/pools/scsipool/btrfs_line_handler.h"
#include "tests/support/scripted_tools.h"

namespace scsi_pool {
namespace {

template <typename Handler>
void feed(Handler& handler, const std::string& text) {
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    const std::string line = text.substr(begin, end - begin);
    EXPECT_EQ(handler.handle_stdout_line(line.c_str(), line.size()), 0);
    begin = end + 1;
  }
}

const char* const GARBAGE =
    "\n:\n/\n0/\nID\n: : :\n,:total=,used=\n\xff\xfe/\x01\nID x gen y parent z top level\n";

FS_Info_List groups_of(const std::string& text) {
  FS_Info_List groups;
  QuotaGroup_Line_Handler handler(groups);
  feed(handler, text);
  return groups;
}

TEST(Btrfs_Parser, quota_groups) {
  const FS_Info_Item only = {{"level", "0"}, {"qgroupid", "256"}, {"rfer", "20992491"}, {"excl", "16384"}};
  EXPECT_EQ(groups_of(recording("btrfs-6.2/qgroup-show.txt")), FS_Info_List{only});
  EXPECT_EQ(groups_of(recording("btrfs-6.2/qgroup-show-all.txt")).size(), 4u);
  const FS_Info_Item empty = {{"level", "0"}, {"qgroupid", "300"}, {"rfer", "0.00B"}, {"excl", "0.00B"}};
  EXPECT_EQ(groups_of("0/300 0.00B 0.00B - - v\n"), FS_Info_List{empty});
  EXPECT_TRUE(groups_of("0/300 1.00XiB 16.00KiB - - v\n").empty());
}

FS_Info_List volumes_of(const std::string& text) {
  FS_Info_List volumes;
  List_Subvolume_Line_Handler handler(volumes);
  feed(handler, text);
  return volumes;
}

TEST(Btrfs_Parser, subvolumes) {
  const std::string text = recording("btrfs-6.2/subvolume-list.txt");
  const FS_Info_List all = volumes_of(text);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[2], (FS_Info_Item{{"subvol_id", "258"}, {"path", "snap1"}}));
  EXPECT_EQ(volumes_of(text.substr(0, text.find(" path snap1"))).size(), 2u)
      << "a line cut off before its path";
  EXPECT_TRUE(volumes_of(GARBAGE).empty());
}

struct Shown {
  std::string ctime, flags, name;
};

Shown shown(const std::string& text) {
  Shown values;
  Btrfs_Show_Line_Handler handler(values.ctime, values.flags, values.name);
  feed(handler, text);
  return values;
}

TEST(Btrfs_Parser, one_subvolume) {
  const Shown volume = shown(recording("btrfs-6.2/subvolume-show.txt"));
  EXPECT_EQ(volume.ctime, "2026-11-22 23:21:07 +0000");
  EXPECT_EQ(volume.flags, "-");
  EXPECT_EQ(volume.name, "vol1");
  EXPECT_EQ(shown(recording("btrfs-6.2/subvolume-show-readonly.txt")).flags, "readonly");
  const Shown garbage = shown(GARBAGE);
  EXPECT_EQ(garbage.ctime + garbage.flags + garbage.name, "");
}

ACE_UINT64 used_in(const std::string& text) {
  ACE_UINT64 size = 0;
  Btrfs_Df_Line_Handler handler(size);
  feed(handler, text);
  return size;
}

TEST(Btrfs_Parser, used_space) {
  constexpr ACE_UINT64 MIB = 1024 * 1024;
  EXPECT_EQ(used_in(recording("btrfs-6.2/filesystem-df.txt")),
            20 * MIB + 16 * MIB + 2 * 53676605ull + 5767168);
  EXPECT_EQ(used_in(recording("btrfs-6.2/filesystem-df-mixed.txt")), 4 * MIB + 32 * 1024 + 1447034);
  EXPECT_EQ(used_in("Data, single: total=8.00MiB, used=256.00KiB\nSystem, DUP: total=8.00MiB, used=16.00KiB\n"
                    "Metadata, DUP: total=102.38MiB, used=112.00KiB\n"
                    "GlobalReserve, single: total=16.00MiB, used=0.00B\n"),
            262144u + 2 * 8388608u + 2 * 107353210u + 16777216u);
  EXPECT_EQ(
      used_in("Data, single: total=8.00MiB, used=0.00B\nunknown, single: total=1.00MiB, used=1.00MiB\n"), 0u);
  EXPECT_EQ(used_in(GARBAGE), 0u);
}

TEST(Size_Convert, takes_what_the_tool_prints_and_nothing_else) {
  const std::pair<const char*, ACE_UINT64> rows[] = {{"1.50GiB", 1610612736},
                                                     {"16.00KiB", 16384},
                                                     {"2.00PiB", 1ull << 51},
                                                     {"1.15GiB", 1224065679},
                                                     {"0.00MiB", 0}};
  ACE_UINT64 size = 7;
  for (const auto& row : rows) {
    EXPECT_TRUE(size_convert(std::string(row.first), size));
    EXPECT_EQ(size, row.second) << row.first;
  }
  for (const char* bad : {"1.5B", "KiB", "", "1.00EiB", "-1.00KiB", "99999.00PiB"}) {
    EXPECT_FALSE(size_convert(std::string(bad), size)) << bad;
    EXPECT_EQ(size, 0u) << bad;
  }
  std::string text;
  EXPECT_TRUE(size_convert(std::string("4096"), text));
  EXPECT_EQ(text, "4096");
  EXPECT_FALSE(size_convert(std::string("1.00XiB"), text));
}

}  // namespace
}  // namespace scsi_pool
