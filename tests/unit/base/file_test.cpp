#include "platform/base/file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/base/fault_point.h"
#include "tests/support/temp_dir.h"

namespace platform {
namespace {

mode_t mode_of(const std::string& path) {
  struct stat info {};
  ::stat(path.c_str(), &info);
  return info.st_mode & 07777;
}

TEST(File, atomic_write_replaces_whole_content_with_the_mode_given) {
  const Temp_Dir dir;
  const std::string path = dir / "f";
  const mode_t old = ::umask(077);
  ASSERT_TRUE(write_file_atomically(path, std::string(100000, 'x'), 0644));
  ::umask(old);
  EXPECT_EQ(mode_of(path), 0644u);
  ASSERT_TRUE(write_file_atomically(path, "short", 0600));
  std::string text;
  ASSERT_TRUE(read_file(path, text));
  EXPECT_EQ(text, "short");
  EXPECT_EQ(mode_of(path), 0600u);
}

TEST(File, failed_atomic_write_leaves_nothing_behind) {
  const Temp_Dir dir;
  ASSERT_TRUE(mkdir_p(dir / "target/inside", 0700));
  EXPECT_FALSE(write_file_atomically(dir / "target", "x", 0600));
  EXPECT_EQ(::rmdir((dir / "target/inside").c_str()), 0);
  EXPECT_EQ(::rmdir((dir / "target").c_str()), 0);
  EXPECT_EQ(::rmdir(dir.path().c_str()), 0) << "a temporary file stayed";
}

TEST(Lock_File, second_holder_is_refused_until_the_first_lets_go) {
  const Temp_Dir dir;
  Lock_File first;
  Lock_File second;
  ASSERT_TRUE(first.lock(dir / "lock"));
  EXPECT_FALSE(second.lock(dir / "lock", false));
  EXPECT_EQ(errno, EWOULDBLOCK);
  first.unlock();
  EXPECT_TRUE(second.lock(dir / "lock", false));
}

#ifdef SCSIPOOL_FAULT_POINTS
TEST(Fault_Point, kills_only_where_it_is_named) {
  ::setenv("SCSIPOOL_FAULT", "here", 1);
  FAULT_POINT("elsewhere");
  EXPECT_EXIT(FAULT_POINT("here"), ::testing::KilledBySignal(SIGKILL), "");
  ::unsetenv("SCSIPOOL_FAULT");
}
#endif

}  // namespace
}  // namespace platform
