// The operations on volumes, sub filesystems and snapshots: which driver call each makes, and what it says
// when the object or the call fails.

#include <gtest/gtest.h>

#include <functional>

#include "platform/base/file.h"
#include "platform/base/path_conf.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_pool.h"
#include "tests/support/temp_dir.h"

namespace {

using scsi_pool::FS_Info_Item;
using Manager = scsi_pool::SCSI_Pool_Backstore_Manager;

struct Operation_Case {
  std::function<bool(Manager&)> run;
  const char* driver_call;  // that makes it fail; "" where no driver call can
  const char* failure;      // logged then
  // Logged when the volume, sub filesystem or snapshot is not there; "" for no message, null where it does
  // not need one.
  const char* absent_failure = failure;
};

ACE_UINT64 size, other_size;
std::string text;
FS_Info_Item info;

const Operation_Case OPERATIONS[] = {
    {[](Manager& m) { return m.create_volume("new", 1 << 20, {}); }, "create_volume",
     "Failed to create volume new in p1\n", nullptr},
    {[](Manager& m) { return m.clone_volume("new", "v", "s", {}, true); }, "clone_volume",
     "Failed to clone volume new in p1\n", nullptr},
    {[](Manager& m) { return m.destroy_volume("v"); }, "destroy", "Failed to remove volume v in p1\n"},
    {[](Manager& m) { return m.volume_rollback("v", "s"); }, "rollback",
     "Failed to rollback volueme 'v' to 's'\n"},
    {[](Manager& m) { return m.get_volume_info("v", info); }, "get_info", "Failed to get volume 'v' info\n"},
    {[](Manager& m) { return m.get_volume_size("v", size) && size == 4096; }, "get_used_size",
     "Failed to get volume 'v' size\n"},
    {[](Manager& m) { return m.set_volume_attr("v", "dedup", "on"); }, "set_info",
     "Failed to set v attr 'dedup' to 'on'\n"},
    {[](Manager& m) { return m.get_volume_attr("v", "dedup", text); }, "get_attr",
     "Failed to get v attr 'dedup'\n"},
    {[](Manager& m) { return m.volume_exist("v"); }, "", "", ""},
    {[](Manager& m) { return m.get_volume_dataset("v", text); }, "get_dataset",
     "Failed to get volume dataset 'v' path\n"},
    {[](Manager& m) { return m.create_snapshot("v", "new"); }, "create_snapshot",
     "Failed to create 'v' snapshot to 'new'\n",
     "Failed to create 'v' snapshot to 'new': get sub volume obj error\n"},
    {[](Manager& m) { return m.destroy_snapshot("v", "s"); }, "snapshot.destroy",
     "Failed to delete snapshot 'v/s'\n", "Failed to delete snasphot: get snapshot manager object error\n"},
    {[](Manager& m) { return m.get_snapshot_info("v", "s", info); }, "snapshot.get_info",
     "Failed to get 'v/s' snapshot info:get info error\n",
     "Failed to get snasphot info: get snapshot manager object error\n"},
    {[](Manager& m) { return m.get_snapshot_size("v", "s", size); }, "snapshot.size",
     "Failed to get snapshot size: get 'v/s' size error in pool 'p1'\n",
     "Failed to get snasphot size: get snapshot manager object error\n"},
    {[](Manager& m) { return m.get_snapshot_size("v", "s", size, other_size) && other_size == 200; },
     "snapshot.size", "Failed to get snapshot size: get 'v/s' size error in pool 'p1'\n",
     "Failed to get snasphot size: get snapshot manager object error\n"},
    {[](Manager& m) { return m.snapshot_exist("v", "s"); }, "", "", ""},
    {[](Manager& m) { return m.send_snapshot("v", "s", {"a"}, nullptr); }, "snapshot.send",
     "Failed to send snapshot\n", "Failed to get send info: get snapshot manager object error\n"},
    {[](Manager& m) { return m.receive_snapshot("v", "new", true, nullptr); }, "receive",
     "Failed to receive snapshot\n", "Failed to receive snapshot: volume not exist or snapshot exist\n"},
    {[](Manager& m) { return m.create_sub_filesystem("new", ""); }, "create_filesystem",
     "Failed to create sub filesystem new in p1.\n", nullptr},
    {[](Manager& m) { return m.mount_sub_filesystem("f"); }, "mount",
     "Failed to mount sub filesystem f in p1.\n",
     "Failed to mount sub filesystem f in p1, \nquery info error.\n"},
    {[](Manager& m) { return m.umount_sub_filesystem("f"); }, "umount",
     "Failed to umount sub filesystem f in p1.\n",
     "Failed to umount sub filesystem f in p1, query info error.\n"},
    {[](Manager& m) { return m.sub_filesystem_mounted("f"); }, "", "",
     "Failed to get sub filesystem mount info f in p1, query info error.\n"},
    {[](Manager& m) { return m.sub_filesystem_mounted(std::string("f")); }, "", "", ""},
    {[](Manager& m) { return m.destroy_sub_filesystem("f", true); }, "destroy",
     "Failed to destroy sub filesystem f in p1.\n",
     "Failed to destroy sub filesystem f in p1, query info error.\n"},
    {[](Manager& m) { return m.sub_filesystem_exist("f"); }, "", "", ""},
    {[](Manager& m) { return m.get_filesystem_info("f", info); }, "get_info",
     "Failed to get filesystem 'f' info\n"},
    {[](Manager& m) { return m.get_sub_filesystem_mount_point("f", text); }, "get_mount_point", "",
     "Failed to get sub filesystem mountpoint f in p1, \nquery info error.\n"},
    {[](Manager& m) { return m.set_sub_filesystem_mount_point("f", "/m"); }, "set_mount_point", "",
     "Failed to set sub filesystem mountpoint f in p1, query info error.\n"},
    {[](Manager& m) { return m.filesystem_rollback("f", "s"); }, "rollback",
     "Failed to rollback filesystem 'f' to 's'\n"},
    {[](Manager& m) { return m.clone_filesystem("new", "f", "s", "", false); }, "clone_filesystem",
     "Failed to clone filesystem snapshot s in p1\n", nullptr},
    {[](Manager& m) { return m.create_filesystem_snapshot("f", "new"); }, "create_snapshot",
     "Failed to create snapshot new of sub filesystem f in p1.\n",
     "Failed to create snapshot new of sub filesystem f in p1, query info error.\n"},
    {[](Manager& m) { return m.destroy_filesystem_snapshot("f", "s"); }, "snapshot.destroy",
     "Failed to delete snapshot 'f/s'\n", "Failed to delete snasphot: get snapshot manager object error\n"},
    {[](Manager& m) { return m.get_filesystem_snapshot_info("f", "s", info); }, "snapshot.get_info",
     "Failed to get 'f/s' snapshot info:get info error\n",
     "Failed to get filesystem snasphot info: get snapshot manager object error\n"},
    {[](Manager& m) { return m.filesystem_snapshot_exist("f", "s"); }, "", "", ""},
    {[](Manager& m) { return m.get_filesystem_snapshot_size("f", "s", size); }, "snapshot.size",
     "Failed to get snapshot size: get 'f/s' size error in pool 'p1'\n",
     "Failed to get filesystem snasphot size: get snapshot manager object error\n"},
    {[](Manager& m) { return m.get_filesystem_snapshot_size("f", "s", size, other_size); }, "snapshot.size",
     "Failed to get snapshot size: get 'f/s' size error in pool 'p1'\n",
     "Failed to get filesystem snasphot size: get snapshot manager object error\n"},
    {[](Manager& m) { return m.send_filesystem_snapshot("f", "s", {}, nullptr); }, "snapshot.send",
     "Failed to send snapshot\n", "Failed to get send info: get snapshot manager object error\n"},
    {[](Manager& m) { return m.receive_filesystem_snapshot("f", "new", true, nullptr); }, "receive",
     "Failed to receive filesystem snapshot\n",
     "Failed to receive filesystem snapshot: filesystem f does not exist.\n"},
};

class Backstore : public testing::Test {
 protected:
  Backstore() { reset(); }
  // A pool with a volume, a sub filesystem and a snapshot of each.
  void reset() {
    const std::string folder = dir_.path();
    pool_ = Memory_Pool();
    pool_.folder = folder;
    pool_.volumes["v"].snapshots = {"s"};
    pool_.filesystems["f"].snapshots = {"s"};
    pool_.filesystems["f"].mounted = true;
    manager_.open("zfs");
    log_.clear();
  }

  Temp_Dir dir_;
  Memory_Pool pool_;
  Memory_Backstore_Manager manager_{pool_, "p1"};
  Log_Capture log_;
};

TEST_F(Backstore, operations_work_or_say_what_failed_or_is_not_there) {
  for (const Operation_Case& one : OPERATIONS) {
    SCOPED_TRACE(&one - OPERATIONS);
    reset();
    EXPECT_TRUE(one.run(manager_)) << log_.dump();
    EXPECT_EQ(log_.errors(), "");
    if (*one.driver_call != '\0') {
      reset();
      pool_.failing.insert(one.driver_call);
      EXPECT_FALSE(one.run(manager_));
      EXPECT_EQ(log_.errors(), one.failure);
    }
    if (one.absent_failure != nullptr) {
      reset();
      pool_.volumes.clear();
      pool_.filesystems.clear();
      EXPECT_FALSE(one.run(manager_));
      EXPECT_EQ(log_.errors(), one.absent_failure);
    }
    log_.clear();
    Memory_Backstore_Manager without_driver(pool_, "p1");
    EXPECT_FALSE(one.run(without_driver));
    EXPECT_TRUE(log_.contains(LM_EMERGENCY, "fs_mgr_.get() is NULL")) << log_.dump();
  }
}

TEST_F(Backstore, refuses_hostile_names_before_the_driver_is_asked) {
  const std::vector<std::function<bool(const std::string&)>> takes_a_name = {
      [&](const std::string& n) { return manager_.create_volume(n, 1, {}); },
      [&](const std::string& n) { return manager_.clone_volume("new", n, "s", {}, true); },
      [&](const std::string& n) { return manager_.volume_rollback("v", n); },
      [&](const std::string& n) {
        return manager_.send_snapshot("v", "s", {"good", n}, nullptr);
      },
      [&](const std::string& n) { return manager_.create_sub_filesystem(n.c_str(), nullptr); },
      [&](const std::string& n) { return manager_.clone_filesystem(n, "f", "s", "", true); },
      [&](const std::string& n) { return manager_.create_filesystem_snapshot("f", n.c_str()); },
      [&](const std::string& n) { return manager_.receive_filesystem_snapshot("f", n, true, nullptr); },
  };
  for (const auto& run : takes_a_name) {
    for (const char* name : {"../up", "a b\"; rm -rf /", "$(id)", "-r", "v@s", "line\nline"}) {
      log_.clear();
      pool_.calls.clear();
      EXPECT_FALSE(run(name)) << name;
      EXPECT_EQ(log_.count(LM_ERROR), 1u) << log_.dump();
      for (const std::string& call : pool_.calls)
        EXPECT_EQ(call, "volume_exist new");
    }
  }
}

TEST_F(Backstore, what_exists_is_not_made_again) {
  EXPECT_FALSE(manager_.create_volume("v", 1, {}));
  EXPECT_FALSE(manager_.clone_volume("v", "v", "s", {}, true));
  EXPECT_FALSE(manager_.clone_volume("new", "v", "", {}, true));
  EXPECT_FALSE(manager_.clone_filesystem("f", "f", "s", "", true));
  EXPECT_FALSE(manager_.receive_snapshot("v", "s", true, nullptr));
  EXPECT_FALSE(manager_.receive_filesystem_snapshot("f", "s", true, nullptr));
  EXPECT_EQ(log_.errors(),
            "Failed to create volume 'v' in 'p1': volume is exist\n"
            "Failed to clone volume 'v' in 'p1': volume is exist\n"
            "Failed to clone volume: snapshot or snapshot_parent is empty\n"
            "Failed to clone filesystem to f, already exist.\n"
            "Failed to receive snapshot: volume not exist or snapshot exist\n"
            "Failed to receive filesystem snapshot: filesystem f snapshot s already exists.\n");
  EXPECT_EQ(pool_.count("receive") + pool_.count("create_volume") + pool_.count("clone_"), 0u);
}

TEST_F(Backstore, the_device_timeout_is_configured) {
  const Temp_Dir root;
  platform::Path_Conf::root(root.path());
  const std::string folder = platform::Path_Conf("/etc/opt/norvale/tarnkit3/$COMPONENT").folder();
  ASSERT_TRUE(platform::mkdir_p(folder, 0750));
  const struct {
    const char* text;
    bool good;
    unsigned timeout;
  } cases[] = {{R"({"check_block_dev_timeout": 90})", true, 90},
               {R"({"check_block_dev_timeout": -1})", true, 0},
               {"[90]", false, 0},
               {"{timeout", false, 0}};
  for (const auto& one : cases) {
    ASSERT_TRUE(platform::write_file_atomically(folder + "/scsi_pool_mgr.conf", one.text, 0600));
    Memory_Pool pool;
    {
      Memory_Backstore_Manager manager(pool, "p1");
      manager.open("zfs");
      EXPECT_EQ(manager.load_config(), one.good) << one.text;
    }
    EXPECT_EQ(pool.block_dev_timeout, one.timeout) << one.text;
  }
  platform::Path_Conf::root("");
}

}  // namespace
