#include "platform/base/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/base/fault_point.h"
#include "platform/base/path_conf.h"
#include "tests/support/temp_dir.h"

namespace platform {
namespace {

mode_t mode_of(const std::string& path) {
  struct stat info {};
  ::stat(path.c_str(), &info);
  return info.st_mode & 07777;
}

TEST(File, mkdir_p_makes_parents_and_tells_a_file_from_a_folder) {
  const Temp_Dir dir;
  EXPECT_TRUE(mkdir_p(dir / "a/b/c", 0750));
  EXPECT_EQ(mode_of(dir / "a/b"), 0750u);
  EXPECT_TRUE(mkdir_p(dir / "a/b/c/", 0700));
  ASSERT_TRUE(write_file_atomically(dir / "file", "x", 0600));
  for (const char* path : {"file", "file/below"}) {
    EXPECT_FALSE(mkdir_p(dir / path, 0750)) << path;
    EXPECT_EQ(errno, ENOTDIR) << path;
  }
}

TEST(File, dirname) {
  EXPECT_EQ(dirname_string("/a/b"), "/a");
  EXPECT_EQ(dirname_string("/a"), "/");
  EXPECT_EQ(dirname_string("a"), ".");
}

TEST(File, kinds) {
  const Temp_Dir dir;
  EXPECT_TRUE(is_directory(dir.path()));
  EXPECT_FALSE(is_regular_file(dir.path()));
  ASSERT_EQ(::symlink("nowhere", (dir / "link").c_str()), 0);
  EXPECT_FALSE(is_regular_file(dir / "link"));
  EXPECT_TRUE(path_exists(dir / "link"));
  EXPECT_FALSE(path_exists(dir / "nothing"));
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

TEST(File, handles_are_close_on_exec) {
  const Temp_Dir dir;
  const int handle = open_cloexec(dir / "f", O_WRONLY | O_CREAT, 0600);
  ASSERT_NE(handle, -1);
  EXPECT_TRUE((::fcntl(handle, F_GETFD) & FD_CLOEXEC) != 0);
  ::close(handle);
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

TEST(Path_Conf, expands_the_component_below_the_root_and_joins_with_single_slashes) {
  const Temp_Dir dir;
  Path_Conf::root(dir.path());
  EXPECT_EQ(Path_Conf("/etc/opt/$COMPONENT").path("x.conf"), dir / "etc/opt/scsipool/x.conf");
  EXPECT_EQ(Path_Conf("/plain/").path("/a/", "b"), "/plain/a/b");
  std::string made;
  ASSERT_TRUE(Path_Conf("/var/$COMPONENT", 0750).make_path(made, "pool", "leaf"));
  EXPECT_EQ(mode_of(made), 0750u);
  Path_Conf::root("");
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
