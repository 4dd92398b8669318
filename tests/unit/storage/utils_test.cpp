#include "backup/pools/scsipool/utils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/base/file.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace scsi_pool {
namespace {

struct stat info_of(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return info;
}

TEST(Create_And_Pad_File, rounds_up_and_reserves_only_when_thick) {
  const Temp_Dir dir;
  Log_Capture log;
  const off_t page = ::sysconf(_SC_PAGESIZE);
  EXPECT_TRUE(create_and_pad_file((dir / "a/b/one").c_str(), 1, false)) << log.dump();
  EXPECT_EQ(info_of(dir / "a/b/one").st_size % page, 0);
  EXPECT_GT(info_of(dir / "a/b/one").st_blocks, 0);
  EXPECT_EQ(info_of(dir / "a/b/one").st_mode & 07777, 0600u);
  EXPECT_EQ(info_of(dir / "a").st_mode & 07777, 0750u);
  EXPECT_TRUE(create_and_pad_file((dir / "thin").c_str(), 1ull << 40, true)) << log.dump();
  EXPECT_EQ(info_of(dir / "thin").st_size, off_t(1) << 40);
  EXPECT_EQ(info_of(dir / "thin").st_blocks, 0);
  EXPECT_TRUE(log.contains(LM_INFO, "bytes alignment\n"));
}

TEST(Create_And_Pad_File, failures) {
  const Temp_Dir dir;
  Log_Capture log;
  EXPECT_FALSE(create_and_pad_file("", 1, true));
  EXPECT_TRUE(log.contains(LM_EMERGENCY, "fname is NULL or \"\":"));
  EXPECT_FALSE(create_and_pad_file((dir / "big").c_str(), 1ull << 60, false));
  EXPECT_TRUE(log.has(LM_ERROR, "Failed to create file " + (dir / "big") +
                                    " with size 1152921504606846976, not enough space\n"))
      << log.dump();
  EXPECT_FALSE(platform::path_exists(dir / "big"));
  EXPECT_FALSE(create_and_pad_file((dir / "huge").c_str(), ~0ull, true));
  EXPECT_TRUE(log.contains(LM_ERROR, "Failed to allocate file ")) << log.dump();
  ASSERT_TRUE(platform::write_file_atomically(dir / "file", "", 0600));
  EXPECT_FALSE(create_and_pad_file((dir / "file/x").c_str(), 1, true));
  EXPECT_TRUE(log.contains(LM_ERROR, "Failed to mkdir ")) << log.dump();
}

}  // namespace
}  // namespace scsi_pool
