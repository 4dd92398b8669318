#include "platform/zfs/zfs_host.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace {

constexpr std::size_t KIB = 1024;

class Zfs_Host : public testing::Test {
 protected:
  Zfs_Host() {
    zfs::host_paths().dev = dir_.path();
    zfs::host_paths().proc = dir_.path();
  }
  ~Zfs_Host() override { zfs::host_paths() = zfs::Host_Paths(); }

  void shell(const std::string& command) const {
    ASSERT_EQ(std::system(("cd '" + dir_.path() + "' && " + command).c_str()), 0) << command;
  }

  Temp_Dir dir_;
};

// The start of a label's configuration as the tool writes it, with "state" set.
std::string label_config(char state) {
  std::string text(
      "\1\1\0\0\0\0\0\0\0\0\0\1\0\0\0\x24\0\0\0\x20\0\0\0\7version\0\0\0\0\10\0\0\0\1\0\0\0\0\0\0\x13\x88",
      48);
  text += std::string("\0\0\0\x24\0\0\0\x20\0\0\0\5state\0\0\0\0\0\0\10\0\0\0\1\0\0\0\0\0\0\0", 35);
  return text + state;
}

TEST_F(Zfs_Host, Labels_Of_Living_Pools_Are_Seen) {
  const struct {
    const char* what;
    std::size_t offset;  // of the configuration
    std::string config;
    bool live;
  } cases[] = {
      {"active, first label", 16 * KIB, label_config(0), true},
      {"exported, last label of four", (1024 - 256 + 16) * KIB, label_config(1), true},
      {"destroyed", 16 * KIB, label_config(2), false},
      {"empty", 16 * KIB, "", false},
      {"no configuration", 16 * KIB, std::string(64, 'x'), false},
      {"cut off", 16 * KIB, label_config(0).substr(0, 60), false},
      {"not where a label is", 20 * KIB, label_config(0), false},
  };
  for (const auto& one : cases) {
    std::string image(1024 * KIB, '\0');
    image.replace(one.offset, one.config.size(), one.config);
    std::ofstream(dir_ / "image", std::ios::binary | std::ios::trunc) << image;
    EXPECT_EQ(zfs::carries_pool_label(dir_ / "image"), one.live) << one.what;
  }
  EXPECT_FALSE(zfs::carries_pool_label(dir_ / "none"));
}

TEST_F(Zfs_Host, Mounts_Of_One_Pool_Innermost_First) {
  shell("mkdir self");
  std::ofstream(dir_ / "self/mounts") << "pa/fs /m zfs rw 0 0\n"
                                         "pa/fs\\040b /m/b zfs rw 0 0\n"
                                         "pa2/fs /x zfs rw 0 0\n"
                                         "pa/none /y tmpfs rw 0 0\n"
                                         "pa/fs/sub /m/b/c zfs rw 0 0\n";
  const std::vector<std::string> expected = {"pa/fs/sub", "pa/fs b", "pa/fs"};
  EXPECT_EQ(zfs::mounted_datasets("pa"), expected);
}

TEST_F(Zfs_Host, Links_Of_Partitions_Are_No_Volumes) {
  shell(
      "mkdir -p zvol/pa/sub && cd zvol/pa && ln -s zd0 b && ln -s zd1 a-part && ln -s zd2 b-part12 && touch "
      "file");
  const std::vector<std::string> expected = {"a-part", "b"};
  EXPECT_EQ(zfs::linked_volumes("pa"), expected);
  EXPECT_TRUE(zfs::linked_volumes("none").empty());
}

TEST_F(Zfs_Host, A_Plain_File_Is_No_Device) {
  shell("touch plain && ln -s plain link");
  EXPECT_FALSE(zfs::is_volume_device(dir_ / "link"));
  EXPECT_TRUE(zfs::exclusive_open_succeeds(dir_ / "none")) << "nobody holds what is not there";
}

}  // namespace
