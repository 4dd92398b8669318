// The ZFS drivers on real ZFS, with udev. Root, the zfs module and about 300 MB in /tmp; each test has a pool
// of its own on a file and leaves nothing behind.

#include <ace/Process.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>

#include "backup/pools/scsipool/zfs_filesystem.h"
#include "backup/pools/scsipool/zfs_import.h"
#include "backup/pools/scsipool/zfs_sub_filesystem.h"
#include "platform/process/process_ex.h"
#include "platform/process/process_manager.h"
#include "platform/zfs/zfs_host.h"

using namespace scsi_pool;

namespace {

int shell(const std::string& command) {
  return std::system(command.c_str());
}

const FS_Info_Item LUN = {{"size", 10000000u},    {"block_size", 8192u}, {"dedup", false},
                          {"compression", "LZ4"}, {"async", true},       {"checksum", false}};

class Zfs_Driver : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(shell("mkdir -p " + folder_), 0);
    ASSERT_EQ(shell("truncate -s " + std::to_string(128 << 20) + " " + file_), 0);
    ZFS_Filesystem maker(file_.c_str(), "zt");
    ASSERT_TRUE(maker.make({}));
  }
  void TearDown() override {
    if (zfs::pool_presence("zt") == zfs::Pool_Presence::imported) {
      EXPECT_TRUE(ZFS_Filesystem(file_.c_str(), "zt").destroy());
    }
    // udev removes the folder after the last link.
    EXPECT_TRUE(zfs::wait_until_gone("/dev/zvol/zt", 10000)) << "links are left";
    EXPECT_TRUE(zfs::mounted_datasets("zt").empty());
    EXPECT_EQ(shell("rm -rf " + folder_), 0);
  }

  static Sub_Volume_var new_lun(const char* name) {
    return Sub_Volume_var(ZFS_Filesystem("", "zt").create_sub_volume(name, LUN));
  }
  static std::string device(const std::string& name) { return "/dev/zvol/zt/" + name; }
  static bool write_first(const std::string& name, const std::string& text) {
    return shell("printf " + text + " | dd of=" + device(name) + " conv=notrunc,fsync 2>/dev/null") == 0;
  }
  static bool starts_with(const std::string& name, const std::string& text) {
    return shell("[ \"$(dd if=" + device(name) + " iflag=direct bs=8192 count=1 2>/dev/null | head -c " +
                 std::to_string(text.size()) + ")\" = " + text + " ]") == 0;
  }

  const std::string folder_ = "/tmp/zfs_driver_test";
  const std::string file_ = folder_ + "/zt";
};

TEST_F(Zfs_Driver, Pool_Life) {
  ZFS_Filesystem pool(file_.c_str(), "zt");
  ACE_UINT64 used = 0;
  std::string state;
  EXPECT_TRUE(pool.verify() && pool.mounted() && pool.mount({}) && pool.umount() && pool.get_used_size(used));
  EXPECT_GT(used, 0u);
  EXPECT_TRUE(pool_health("zt", state));
  EXPECT_EQ(state, "ONLINE");
  EXPECT_TRUE(pool.destroy());
  EXPECT_FALSE(pool_health("zt", state));
  EXPECT_EQ(state, "absent");
  EXPECT_FALSE(ZFS_Filesystem(file_.c_str(), "zt").verify());
  EXPECT_TRUE(ZFS_Filesystem(file_.c_str(), "zt").make({})) << "the label of a destroyed pool is no obstacle";
}

TEST_F(Zfs_Driver, A_Small_File_Is_Grown) {
  const std::string small = folder_ + "/small";
  ASSERT_EQ(shell("truncate -s 52428800 " + small), 0);
  ZFS_Filesystem pool(small.c_str(), "zsmall");
  EXPECT_TRUE(pool.make({}));
  EXPECT_TRUE(pool.destroy());
}

TEST_F(Zfs_Driver, An_Exported_Pool_Is_Not_Overwritten_And_Comes_Back) {
  ASSERT_TRUE(new_lun("v1"));
  ASSERT_TRUE(write_first("v1", "kept"));
  ASSERT_EQ(shell("udevadm settle; sleep 1; zpool export zt"), 0);
  EXPECT_FALSE(ZFS_Filesystem(file_.c_str(), "zt").make({}));
  EXPECT_FALSE(ZFS_Filesystem("", "zt").verify());
  EXPECT_TRUE(import_pool("zt", folder_));
  EXPECT_TRUE(zfs::is_volume_device(device("v1")));
  EXPECT_TRUE(starts_with("v1", "kept"));
  EXPECT_TRUE(import_pool("zt", folder_)) << "there already";
  EXPECT_FALSE(import_pool("znone", folder_));
}

TEST_F(Zfs_Driver, Lun_Life) {
  const Sub_Volume_var lun = new_lun("v1");
  ASSERT_TRUE(lun);
  EXPECT_TRUE(zfs::is_volume_device(device("v1"))) << "there on return";
  const struct {
    const char *name, *value;
  } expected[] = {{"volsize", "10002432"}, {"volblocksize", "8192"}, {"compression", "lz4"},
                  {"sync", "disabled"},    {"checksum", "off"},      {"dedup", "off"},
                  {"my:note", "-"}};
  for (const auto& one : expected) {
    std::string value;
    EXPECT_TRUE(lun->get_info(one.name, value)) << one.name;
    EXPECT_EQ(value, one.value) << one.name;
  }
  FS_Info_Item info;
  EXPECT_TRUE(lun->get_info(info));
  EXPECT_EQ(info.count("origin_subvol"), 0u);
  EXPECT_FALSE(new_lun("v1")) << "it exists";

  ASSERT_TRUE(write_first("v1", "one"));
  const Snapshot_var snapshot(lun->create_snapshot("s1", {}));
  ASSERT_TRUE(snapshot);
  bool readonly = false;
  ACE_UINT64 excl = 0, rfer = 0;
  EXPECT_TRUE(snapshot->is_readonly(readonly) && snapshot->size(excl, rfer));
  EXPECT_TRUE(readonly);
  EXPECT_GT(rfer, 0u);
  Snapshot_Sizes sizes;
  EXPECT_EQ(ZFS_Filesystem("", "zt").get_snapshot_sizes("v1", sizes), Sizes_Read::TOLD);
  EXPECT_EQ(sizes.size(), 1u);
  EXPECT_TRUE(sizes["s1"].excl == excl && sizes["s1"].rfer == rfer);
  ASSERT_TRUE(write_first("v1", "two"));
  EXPECT_FALSE(lun->destroy()) << "it has a snapshot";
  EXPECT_TRUE(lun->rollback("s1"));
  EXPECT_TRUE(starts_with("v1", "one"));
  EXPECT_TRUE(snapshot->destroy());
  ASSERT_TRUE(write_first("v1", "busy"));
  EXPECT_TRUE(lun->destroy()) << "udev still reads what was just written";
  EXPECT_FALSE(ZFS_Filesystem("", "zt").sub_volume_exist("v1")) << "gone on return";
}

TEST_F(Zfs_Driver, Clones) {
  ZFS_Filesystem pool(file_.c_str(), "zt");
  const Sub_Volume_var lun = new_lun("v1");
  ASSERT_TRUE(lun && write_first("v1", "one"));
  const Snapshot_var snapshot(lun->create_snapshot("s1", {}));
  ASSERT_TRUE(snapshot);
  for (const bool full : {true, false}) {
    FS_Info_Item info = LUN;
    info["clone_type"] = full ? "full" : "link";
    const Sub_Volume_var clone(pool.clone_sub_volume("c1", "v1", "s1", info));
    ASSERT_TRUE(clone) << full;
    EXPECT_TRUE(starts_with("c1", "one")) << full;
    FS_Info_Item found;
    EXPECT_TRUE(clone->get_info(found));
    EXPECT_EQ(found.count("origin_snapshot"), full ? 0u : 1u);
    EXPECT_EQ(snapshot->destroy(), full) << "a linked clone needs it";
    EXPECT_TRUE(clone->destroy()) << "at once, and nothing was left in it";
    if (!full) continue;
    ASSERT_TRUE(Snapshot_var(lun->create_snapshot("s1", {})));
  }
  EXPECT_TRUE(snapshot->destroy());
}

TEST_F(Zfs_Driver, An_Exclusively_Held_Volume_Is_Left_Alone) {
  const Sub_Volume_var lun = new_lun("v1"), other = new_lun("v2");
  ASSERT_TRUE(lun && other);
  ASSERT_EQ(shell("udevadm settle"), 0);
  const Snapshot_var snapshot(lun->create_snapshot("s1", {}));
  const int holder = open(device("v1").c_str(), O_RDWR | O_EXCL | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  EXPECT_FALSE(lun->rollback("s1"));
  EXPECT_FALSE(ZFS_Filesystem(file_.c_str(), "zt").destroy());
  EXPECT_TRUE(zfs::is_volume_device(device("v2"))) << "the tool was not even asked";
  EXPECT_TRUE(snapshot && snapshot->destroy());
  EXPECT_FALSE(lun->destroy());
  close(holder);
  EXPECT_TRUE(lun->destroy());
  EXPECT_TRUE(other->destroy());
}

TEST_F(Zfs_Driver, A_Plain_Reader_Blocks_The_Pool_But_Devices_Come_Back) {
  ASSERT_TRUE(new_lun("v1") && new_lun("v2"));
  const int reader = open(device("v1").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  EXPECT_FALSE(ZFS_Filesystem(file_.c_str(), "zt").destroy());
  EXPECT_TRUE(zfs::is_volume_device(device("v2")));
  close(reader);
}

TEST_F(Zfs_Driver, Sub_Filesystems) {
  ZFS_Filesystem pool(file_.c_str(), "zt");
  const std::string mount_point = folder_ + "/m";
  const Sub_Filesystem_var fs(
      pool.create_sub_filesystem("fs", {{"size", 20971520u}, {"mount_point", mount_point}}));
  ASSERT_TRUE(fs);
  EXPECT_TRUE(pool.sub_filesystem_exist("fs"));
  EXPECT_FALSE(pool.sub_filesystem_exist("none"));
  EXPECT_FALSE(fs->mounted());
  EXPECT_TRUE(fs->set_reservation(10485760) && fs->mount({}) && fs->mounted());
  ASSERT_EQ(shell("echo one > " + mount_point + "/file"), 0);
  EXPECT_TRUE(Snapshot_var(fs->create_snapshot("s1", {})));
  ASSERT_EQ(shell("echo two > " + mount_point + "/file"), 0);
  EXPECT_TRUE(fs->rollback("s1"));
  EXPECT_EQ(shell("grep -q one " + mount_point + "/file"), 0);

  const Sub_Filesystem_var copy(pool.clone_sub_filesystem(
      "copy", "fs", "s1", {{"clone_type", "full"}, {"mount_point", folder_ + "/copy"}}));
  ASSERT_TRUE(copy);
  EXPECT_EQ(shell("[ \"$(zfs get -Hp -o value canmount zt/copy)\" = noauto ]"), 0);
  EXPECT_TRUE(copy->mount({}));
  EXPECT_EQ(shell("grep -q one " + folder_ + "/copy/file"), 0);
  EXPECT_FALSE(copy->destroy(false)) << "still mounted";
  EXPECT_TRUE(copy->destroy(true)) << "no snapshot was left in it";
  EXPECT_TRUE(fs->umount());
  EXPECT_FALSE(fs->destroy(false)) << "it has a snapshot";
  EXPECT_TRUE(fs->mount({})) << "the pool's destroy unmounts it";
}

TEST_F(Zfs_Driver, A_Pool_Inside_A_Dataset) {
  ZFS_Filesystem device_driver("", "zt");
  const Sub_Filesystem_var dataset(device_driver.create_sub_filesystem("p1", {{"size", 52428800u}}));
  ASSERT_TRUE(dataset && dataset->set_reservation(52428800));
  ZFS_Filesystem pool("", "zt/p1");
  EXPECT_TRUE(pool.verify());
  const Sub_Volume_var lun(pool.create_sub_volume("v1", LUN));
  ASSERT_TRUE(lun);
  const Snapshot_var snapshot(lun->create_snapshot("s1", {}));
  const Sub_Volume_var clone(pool.clone_sub_volume("c1", "v1", "s1", LUN));
  ASSERT_TRUE(snapshot && clone);
  FS_Info_Item info;
  EXPECT_TRUE(clone->get_info(info));
  EXPECT_EQ(info["origin_subvol"], "v1");
  EXPECT_EQ(info["origin_snapshot"], "s1");
  EXPECT_FALSE(dataset->destroy(true)) << "it has children";
  EXPECT_TRUE(clone->destroy() && snapshot->destroy() && lun->destroy());
  EXPECT_TRUE(dataset->destroy(true));
}

TEST_F(Zfs_Driver, Streams_From_One_Volume_To_Another) {
  const Sub_Volume_var source = new_lun("v1"), target = new_lun("t1");
  ASSERT_TRUE(source && target && write_first("v1", "one"));
  std::vector<std::string> sent;
  for (const char* name : {"s1", "s2"}) {
    const Snapshot_var snapshot(source->create_snapshot(name, {}));
    ASSERT_TRUE(snapshot);
    ACE_Process_Ex sender, receiver;
    sender.redirect(ACE_Process_Ex::REDIRECT_STDOUT);
    receiver.redirect(ACE_Process_Ex::REDIRECT_STDIN);
    ASSERT_TRUE(snapshot->send(sent, &sender) && target->receive_snapshot(name, true, &receiver));
    char buffer[65536];
    ssize_t got = 0;
    while ((got = read(sender.stdout_handle(), buffer, sizeof buffer)) > 0) {
      ASSERT_EQ(write(receiver.stdin_handle(), buffer, static_cast<std::size_t>(got)), got);
    }
    receiver.close_stdin();
    ACE_exitcode status = 1;
    Process_Manager::instance()->wait(receiver.pid(), ACE_Time_Value(60), &status);
    EXPECT_EQ(status, 0u) << name;
    EXPECT_TRUE(target->snapshot_exist(name));
    sent.push_back(name);
    ASSERT_TRUE(write_first("v1", "two"));
  }
  EXPECT_TRUE(starts_with("t1", "two"));
}

}  // namespace
