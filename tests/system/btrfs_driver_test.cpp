// The Btrfs driver on the real tools. Needs root. Runs in a mount namespace of its own with its own /orbistor
// and its own /etc/fstab, and leaves no mount and no loop device behind.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "backup/pools/scsipool/btrfs_qgroup_id_getter.h"
#include "backup/pools/scsipool/btrfs_snapshot.h"
#include "backup/pools/scsipool/filesystem_factory.h"
#include "backup/pools/scsipool/utils.h"
#include "platform/base/file.h"
#include "platform/process/fstrim.h"
#include "platform/process/process_manager.h"
#include "platform/process/subprocess.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace scsi_pool {
namespace {

constexpr ACE_UINT64 MIB = 1024 * 1024;
constexpr const char* FSTAB = "/etc/fstab";

std::string mounts() {
  std::string text;
  platform::read_file("/proc/self/mounts", text);
  return text;
}

// The files behind the attached loop devices.
std::multiset<std::string> loop_files() {
  std::multiset<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator("/sys/block")) {
    std::string file;
    if (platform::read_file(entry.path() / "loop/backing_file", file)) files.insert(file);
  }
  return files;
}

// A loop device is let go by the kernel shortly after its filesystem is unmounted.
bool own_loop_devices_gone() {
  for (int i = 0; i < 100; ++i) {
    bool gone = true;
    for (const std::string& file : loop_files())
      gone = gone && file.find("scsipool_backstore") == std::string::npos &&
             file.find("scsipool-test") == std::string::npos;
    if (gone) return true;
    ::usleep(50000);
  }
  return false;
}

blkcnt_t blocks_of(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return info.st_blocks;
}

bool fill(const std::string& path, ACE_UINT64 size) {
  return subprocess::call("head -c %llu /dev/urandom > \"%s\" && sync -f \"%s\"",
                          static_cast<unsigned long long>(size), path.c_str(), path.c_str()) == 0;
}

std::string content_of(const std::string& path) {
  std::string text;
  EXPECT_TRUE(platform::read_file(path, text)) << path;
  return text;
}

class Btrfs_System : public ::testing::Test {
 protected:
  void SetUp() override { mounts_ = mounts(); }
  void TearDown() override {
    Process_Manager::close();
    EXPECT_EQ(mounts(), mounts_) << "a mount stayed";
    EXPECT_TRUE(own_loop_devices_gone()) << "a loop device stayed";
    std::filesystem::remove_all("/orbistor/scsipool_backstore");
    if (HasFailure()) std::fputs(log_.dump().c_str(), stderr);
  }

  // A mounted pool; the destructor of the pointer does not unmount it.
  Filesystem_var pool(const char* id, ACE_UINT64 size, bool thin, const FS_Info_Item& options = {}) {
    EXPECT_TRUE(create_and_pad_file(backing(id).c_str(), size, thin));
    Filesystem_var filesystem(Filesystem_Factory::create(FS_BTRFS, id));
    EXPECT_TRUE(filesystem->make({{"Label", id}}));
    EXPECT_TRUE(filesystem->mount(options));
    EXPECT_TRUE(filesystem->mounted() && filesystem->verify());
    return filesystem;
  }
  static std::string backing(const std::string& id) { return "/orbistor/scsipool_backstore/" + id; }
  static std::string at(const std::string& id, const std::string& name) {
    return "/orbistor/scsipool/" + id + "/" + name;
  }

  Log_Capture log_;

 private:
  std::string mounts_;
};

TEST_F(Btrfs_System, smallest_pool_works_from_end_to_end) {
  const std::string fstab = content_of(FSTAB);
  const std::string entries = fstab.substr(fstab.find("UUID"));  // comments are lost
  const Filesystem_var filesystem = pool("small", 50 * MIB, false);
  ACE_UINT64 used = 0;
  EXPECT_TRUE(filesystem->get_used_size(used));
  EXPECT_GT(used, 0u);
  EXPECT_LT(used, 50 * MIB);
  const Sub_Volume_var volume(filesystem->create_sub_volume("v1", {}));
  ASSERT_NE(volume, nullptr);
  EXPECT_TRUE(volume->destroy());
  EXPECT_FALSE(filesystem->sub_volume_exist("v1"));
  EXPECT_NE(content_of(FSTAB).find("/orbistor/scsipool/small btrfs loop,noatime 0 0\n"), std::string::npos);
  EXPECT_TRUE(filesystem->mount({})) << "mounting again is nothing";
  EXPECT_TRUE(filesystem->umount());
  EXPECT_EQ(content_of(FSTAB), entries);
  EXPECT_FALSE(filesystem->verify());
  EXPECT_EQ(log_.errors(), "");
}

TEST_F(Btrfs_System, fstab_keeps_its_mode_and_lines) {
  struct stat before {};
  ASSERT_EQ(::stat(FSTAB, &before), 0);
  const mode_t mask = ::umask(0);
  const Filesystem_var filesystem = pool("mode", 128 * MIB, true);
  EXPECT_TRUE(filesystem->umount());
  ::umask(mask);
  struct stat after {};
  ASSERT_EQ(::stat(FSTAB, &after), 0);
  EXPECT_EQ(before.st_mode, after.st_mode);
  EXPECT_NE(content_of(FSTAB).find(std::string(1500, 'x') + " 0 0\n"), std::string::npos)
      << "a long line was cut";
}

TEST_F(Btrfs_System, upper_case_compression_mounts_and_is_recorded_as_mounted) {
  const Filesystem_var filesystem = pool("zlib", 128 * MIB, true, {{"compression", "ZLIB"}});
  EXPECT_NE(mounts().find(" /orbistor/scsipool/zlib btrfs rw,noatime,compress=zlib"), std::string::npos)
      << mounts();
  EXPECT_NE(content_of(FSTAB).find("loop,noatime,compress=zlib 0 0\n"), std::string::npos);
  EXPECT_TRUE(filesystem->umount());
}

TEST_F(Btrfs_System, thick_pool_keeps_its_blocks_when_files_are_deleted) {
  const Filesystem_var filesystem = pool("thick", 300 * MIB, false);
  const blkcnt_t reserved = blocks_of(backing("thick"));
  EXPECT_GE(reserved * 512, static_cast<blkcnt_t>(300 * MIB));
  ASSERT_TRUE(fill(at("thick", "big"), 100 * MIB));
  ASSERT_EQ(::unlink(at("thick", "big").c_str()), 0);
  ASSERT_TRUE(filesystem->sync());
  EXPECT_EQ(mounts().find("/scsipool/thick btrfs rw,noatime,discard"), std::string::npos) << mounts();
  // Asynchronous discard takes its time.
  ::sleep(12);
  EXPECT_GE(blocks_of(backing("thick")), reserved);
  EXPECT_TRUE(filesystem->umount());
}

TEST_F(Btrfs_System, removed_volumes_leave_no_quota_group) {
  const Filesystem_var filesystem = pool("groups", 256 * MIB, true);
  for (int i = 0; i < 4; ++i) {
    const Sub_Volume_var volume(filesystem->create_sub_volume("v", {}));
    ASSERT_NE(volume, nullptr);
    std::string image;
    ASSERT_TRUE(volume->get_dataset(image) && fill(image, 4 * MIB) && filesystem->sync());
    ACE_UINT64 used = 0;
    EXPECT_TRUE(volume->get_used_size(used));
    EXPECT_GE(used, 8 * MIB) << "referenced and exclusive bytes";
    const Snapshot_var snapshot(volume->create_snapshot("s", {}));
    ASSERT_NE(snapshot, nullptr);
    bool readonly = false;
    EXPECT_TRUE(snapshot->is_readonly(readonly) && readonly);
    EXPECT_TRUE(snapshot->destroy());
    EXPECT_TRUE(volume->destroy());
  }
  // Kernels before 6.11 drop the group of the last removal only with the next sweep, at the next mount.
  EXPECT_TRUE(filesystem->umount());
  EXPECT_TRUE(filesystem->mount({}));
  EXPECT_EQ(subprocess::call(
                "test $(btrfs qgroup show \"/orbistor/scsipool/groups\" 2>/dev/null | grep -c ^0/) -eq 1"),
            0);
  EXPECT_TRUE(filesystem->umount());
  EXPECT_EQ(log_.errors(), "");
}

TEST_F(Btrfs_System, snapshot_does_not_nest_into_what_is_there) {
  const Filesystem_var filesystem = pool("nest", 128 * MIB, true);
  const Sub_Volume_var volume(filesystem->create_sub_volume("v", {}));
  const Sub_Volume_var other(filesystem->create_sub_volume("there", {}));
  ASSERT_TRUE(volume != nullptr && other != nullptr);
  EXPECT_EQ(volume->create_snapshot("there", {}), nullptr);
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to create btrfs snapshot\n"));
  EXPECT_FALSE(platform::path_exists(at("nest", "there/v")));
  EXPECT_TRUE(other->destroy()) << "something is nested in it";
  EXPECT_TRUE(filesystem->umount());
}

TEST_F(Btrfs_System, rollback_and_clone_bring_back_the_content_of_the_snapshot) {
  const Filesystem_var filesystem = pool("roll", 256 * MIB, true);
  const Sub_Volume_var volume(filesystem->create_sub_volume("v", {}));
  ASSERT_NE(volume, nullptr);
  std::string image;
  ASSERT_TRUE(volume->get_dataset(image) && fill(image, 2 * MIB));
  const std::string old = content_of(image);
  const Snapshot_var snapshot(volume->create_snapshot("s", {}));
  ASSERT_TRUE(snapshot != nullptr && fill(image, MIB));
  const Sub_Volume_var clone(filesystem->clone_sub_volume("c", "v", "s", {}));
  EXPECT_TRUE(clone != nullptr && content_of(at("roll", "c/lun_backstore")) == old);
  EXPECT_FALSE(volume->rollback("none"));
  EXPECT_TRUE(content_of(image) != old);
  EXPECT_TRUE(volume->rollback("s"));
  EXPECT_TRUE(content_of(image) == old);
  FS_Info_Item info;
  EXPECT_TRUE(volume->get_info(info));
  EXPECT_EQ(info["name"], "v");
  EXPECT_TRUE(filesystem->umount());
}

// Copies what one process says to what the other reads.
bool pump(ACE_HANDLE from, ACE_HANDLE to) {
  char buffer[8192];
  while (true) {
    const ssize_t got = ::read(from, buffer, sizeof buffer);
    if (got <= 0) return got == 0;
    if (!platform::write_all(to, buffer, static_cast<std::size_t>(got))) return false;
  }
}

TEST_F(Btrfs_System, snapshots_stream_full_and_incremental_into_another_pool) {
  const Filesystem_var source = pool("src", 256 * MIB, true);
  const Filesystem_var target = pool("dst", 256 * MIB, true);
  const Sub_Volume_var volume(source->create_sub_volume("v", {}));
  const Sub_Volume_var receiver(target->create_sub_volume("v", {}));
  ASSERT_TRUE(volume != nullptr && receiver != nullptr);
  std::vector<std::string> increments;
  for (const std::string name : {"s1", "s2", "s3"}) {
    ASSERT_TRUE(fill(at("src", "v/lun_backstore"), 3 * MIB));
    const Snapshot_var snapshot(volume->create_snapshot(name.c_str(), {}));
    ACE_Process_Ex sender(ACE_Process_Ex::OPTION_READ_STDOUT);
    ACE_Process_Ex taker;
    taker.redirect(ACE_Process_Ex::REDIRECT_STDIN | ACE_Process_Ex::REDIRECT_STDERR);
    ASSERT_TRUE(snapshot->send(increments, &sender));
    ASSERT_TRUE(receiver->receive_snapshot(name.c_str(), true, &taker));
    EXPECT_TRUE(pump(sender.stdout_handle(), taker.stdin_handle()));
    for (const ACE_Process_Ex* process : {&sender, &taker}) {
      ACE_exitcode status = -1;
      EXPECT_EQ(Process_Manager::instance()->wait(process->pid(), ACE_Time_Value(60), &status),
                process->pid());
      EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(target->sync());
    EXPECT_TRUE(receiver->snapshot_exist(name.c_str()));
    EXPECT_TRUE(content_of(at("dst", name + "/lun_backstore")) ==
                content_of(at("src", name + "/lun_backstore")));
    increments.push_back(name);
  }
  EXPECT_TRUE(source->umount());
  EXPECT_TRUE(target->umount());
}

TEST_F(Btrfs_System, sub_filesystems_are_created_measured_and_removed) {
  const Filesystem_var filesystem = pool("subs", 128 * MIB, true);
  const Sub_Filesystem_var made(filesystem->create_sub_filesystem("f", {}));
  ASSERT_NE(made, nullptr);
  ACE_UINT64 used = 0;
  EXPECT_TRUE(made->get_used_size(used));
  EXPECT_TRUE(made->set_reservation(5));
  EXPECT_FALSE(made->mount({}));
  EXPECT_TRUE(made->destroy(false));
  EXPECT_EQ(filesystem->get_sub_filesystem("f"), nullptr);
  EXPECT_TRUE(filesystem->umount());
}

TEST_F(Btrfs_System, trimming_an_image_gives_space_back_and_keeps_the_files) {
  const Temp_Dir dir;
  const std::string image = dir / "image";
  ASSERT_EQ(subprocess::call("truncate -s 200M \"%s\"", image.c_str()), 0);
  EXPECT_FALSE(platform::fstrim_all(image)) << "no filesystem on it yet";
  // A file that stays and one that goes.
  ASSERT_EQ(subprocess::call(
                "set -e; cd \"%s\"; mkfs.ext4 -q image; mkdir m; mount -o loop,nodiscard image m; "
                "echo kept > m/kept; head -c 50000000 /dev/urandom > m/gone; sync; rm m/gone; umount m",
                dir.path().c_str()),
            0);
  const blkcnt_t before = blocks_of(image);
  EXPECT_TRUE(platform::fstrim_all(image)) << log_.dump();
  EXPECT_LT(blocks_of(image) + 80000, before);
  EXPECT_EQ(subprocess::call(
                "fsck.ext4 -fn \"%s\" && cd \"%s\" && mount -o loop,ro image m && grep -q kept m/kept && "
                "umount m",
                image.c_str(), dir.path().c_str()),
            0);
}

// Gives this process mounts of its own, with an empty /orbistor and a copy of /etc (the folder, because a
// file that is a mount point itself cannot be renamed over).
bool enter_private_mounts(const Temp_Dir& dir) {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return false;
  const std::string orbistor = dir / "orbistor";
  const std::string etc = dir / "etc";
  if (!platform::mkdir_p("/orbistor", 0755) || !platform::mkdir_p(orbistor, 0755)) return false;
  if (::mount(orbistor.c_str(), "/orbistor", nullptr, MS_BIND, nullptr) != 0) return false;
  if (subprocess::call("cp -a /etc \"%s\"", etc.c_str()) != 0) return false;
  if (::mount(etc.c_str(), "/etc", nullptr, MS_BIND, nullptr) != 0) return false;
  const std::string table = "# comment\nUUID=1 /none ext4 " + std::string(1500, 'x') + " 0 0\n";
  return platform::write_file_atomically(FSTAB, table, 0640);
}

}  // namespace
}  // namespace scsi_pool

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing the tests, which the build does, changes nothing and needs no root.
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  const Temp_Dir dir;
  const bool made = !platform::is_directory("/orbistor");
  if (!scsi_pool::enter_private_mounts(dir)) {
    std::fprintf(stderr, "no private mount namespace: %s\n", std::strerror(errno));
    return 1;
  }
  const int result = RUN_ALL_TESTS();
  ::umount("/etc");
  ::umount("/orbistor");
  if (made) ::rmdir("/orbistor");
  return result;
}
