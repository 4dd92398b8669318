// File pools and global pools on drivers in memory: what they make, in which order, and what stays after a
// failure.

#include <gtest/gtest.h>

#include "backup/pools/scsipool/scsi_pool_file_backstore_manager.h"
#include "backup/pools/scsipool/scsi_pool_global_backstore_manager.h"
#include "platform/base/file.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_pool.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr ACE_UINT64 SMALLEST = 52428800;

// A file pool whose file and mount folder lie in a temporary folder.
class File_Pool : public scsi_pool::SCSI_Pool_File_Backstore_Manager {
 public:
  File_Pool(Memory_Pool& pool, const std::string& folder) : SCSI_Pool_File_Backstore_Manager("p1") {
    backstore_ = folder + "/store/p1";
    mount_point_ = folder + "/mnt";
    fs_mgr_.reset(new Memory_Filesystem(pool));
  }
  const std::string& file() const { return backstore_; }
  const std::string& mount_folder() const { return mount_point_; }
};

class Global_Pool : public scsi_pool::SCSI_Pool_Global_Backstore_Manager {
 public:
  explicit Global_Pool(Memory_Pool& device) : SCSI_Pool_Global_Backstore_Manager("p1", "tank") {
    sub_fs_mgr_.reset(new Memory_Filesystem(device));
  }
};

class File_Pools : public testing::Test {
 protected:
  File_Pools() : manager_(pool_, dir_.path()) {}
  Temp_Dir dir_;
  Memory_Pool pool_;
  File_Pool manager_;
  Log_Capture log_;
};

TEST_F(File_Pools, nothing_that_is_there_is_touched_and_what_was_made_stays) {
  EXPECT_FALSE(manager_.create(SMALLEST - 1, true) || manager_.create(0, true));
  EXPECT_TRUE(
      log_.has(LM_ERROR, "Failed to create SCSI pool backstore: backstore must bigger than 52428800\n"));
  EXPECT_FALSE(manager_.exist());
  pool_.failing = {"make"};
  EXPECT_FALSE(manager_.create(SMALLEST, true));
  EXPECT_TRUE(log_.contains(LM_ERROR, "/store/p1' error\n")) << log_.dump();
  EXPECT_TRUE(manager_.exist());
  ASSERT_TRUE(platform::write_file_atomically(manager_.file(), "somebody's data", 0600));
  pool_.calls.clear();
  EXPECT_FALSE(manager_.create(SMALLEST, true));
  EXPECT_TRUE(log_.contains(LM_ERROR, "/store/p1' is exist\n")) << log_.dump();
  std::string text;
  EXPECT_TRUE(platform::read_file(manager_.file(), text) && text == "somebody's data");
  EXPECT_TRUE(pool_.calls.empty());
}

TEST_F(File_Pools, destroy_removes_the_file_also_when_the_pool_is_gone_but_not_while_mounted) {
  EXPECT_FALSE(manager_.destroy() || manager_.mount({}));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to delete p1 SCSI pool backstore: backstore does not exist\n"));
  ASSERT_TRUE(manager_.create(SMALLEST, true) && manager_.mount({}));
  ASSERT_TRUE(platform::mkdir_p(manager_.mount_folder(), 0700));
  pool_.failing = {"pool.umount"};
  EXPECT_FALSE(manager_.destroy());
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to delete p1 SCSI pool backstore: umount backstore error\n"));
  EXPECT_EQ(pool_.count("pool.destroy"), 0u);
  EXPECT_TRUE(manager_.exist());
  pool_.failing = {"pool.destroy"};
  EXPECT_TRUE(manager_.destroy());
  EXPECT_FALSE(platform::path_exists(manager_.file()));
  EXPECT_FALSE(platform::path_exists(manager_.mount_folder()));
}

TEST(Pool_Kinds, hostile_ids_build_no_paths) {
  const Log_Capture log;
  for (const char* id : {"../../etc", "a/b", "", "x\"; reboot"}) {
    scsi_pool::SCSI_Pool_File_Backstore_Manager file(id);
    EXPECT_FALSE(file.open("zfs")) << id;
    scsi_pool::SCSI_Pool_Global_Backstore_Manager global(id, "tank");
    EXPECT_FALSE(global.open("zfs")) << id;
  }
  for (const char* device : {"tank/../other", "-tank", "/mnt/../etc", "$(id)"}) {
    scsi_pool::SCSI_Pool_Global_Backstore_Manager global("p1", device);
    EXPECT_FALSE(global.open("btrfs")) << device;
  }
  scsi_pool::SCSI_Pool_Global_Backstore_Manager dataset("p1", "tank/pools"), folder("p1", "/mnt/tank");
  EXPECT_TRUE(dataset.open("zfs") && folder.open("btrfs")) << log.dump();
  EXPECT_FALSE(dataset.open("ext4"));
}

TEST(Global_Pools, says_which_step_failed) {
  Log_Capture log;
  Memory_Pool device;
  ASSERT_TRUE(Global_Pool(device).create(1000, true));
  EXPECT_EQ(JSON_Dump(device.filesystems["p1"].made_with), R"({"size":1000})");
  EXPECT_EQ(device.count("set_reservation"), 0u) << "thin";
  device.calls.clear();
  Global_Pool there(device);
  EXPECT_TRUE(there.mount({}) && there.mounted() && there.exist() && there.umount());
  EXPECT_TRUE(device.calls.empty()) << "the system mounts the device";
  device.failing = {"set_reservation"};
  EXPECT_FALSE(Global_Pool(device).create(1000, false));
  EXPECT_EQ(device.filesystems.count("p1"), 1u);
  device.failing = {"create_filesystem", "destroy", "get_used_size"};
  EXPECT_FALSE(Global_Pool(device).create(1000, false));
  EXPECT_FALSE(Global_Pool(device).destroy());
  ACE_UINT64 size = 0;
  EXPECT_FALSE(Global_Pool(device).get_used_size(size));
  EXPECT_EQ(log.errors(),
            "Failed to create backstore: failed to set reservation\n"
            "Failed to create backstore: failed to create sub filesystem\n"
            "Failed to delete backstore: delete sub filesystem error\n"
            "Failed to get global backstore size: get sub filesystem size error\n");
}

}  // namespace
