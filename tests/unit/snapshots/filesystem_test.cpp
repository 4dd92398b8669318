// Sub filesystems: mounting, mount points, clones, rollback, deletion and their snapshots.

#include <sys/stat.h>
#include <unistd.h>

#include "backup/pools/scsipool/sub_filesystem_attr.h"
#include "backup/pools/scsipool/sub_filesystem_manager.h"
#include "tests/support/dataset_fixture.h"
#include "tests/support/scripted_peer.h"

namespace {

using scsi_pool::SCSI_Pool_Manager;
using scsi_pool::Sub_Filesystem_Manager;

class Sub_Filesystems : public Dataset_Fixture {
 protected:
  Sub_Filesystems() { EXPECT_TRUE(manager_.open("zfs", 4096, "none", mounts_.path())); }
  void make(const std::string& name, const SCSI_Pool_Manager::FS_Option& option = {}) {
    ASSERT_TRUE(manager_.create_filesystem(POOL, option, name)) << log_.dump();
  }
  Object record(const std::string& name) {
    Array list;
    EXPECT_TRUE(manager_.list_filesystem(POOL, list, name.c_str()));
    return list.size() == 1 ? *json_spirit::get_object(list[0]) : Object{};
  }
  std::vector<std::string> mounted() {
    std::vector<std::string> names;
    for (const auto& one : pool().filesystems)
      if (one.second.mounted) names.push_back(one.first);
    return names;
  }

  Temp_Dir mounts_;
};

TEST_F(Sub_Filesystems, MountPointsStayBelowTheMountFolder) {
  make(FS);
  const std::string pool_folder = mounts_ / POOL;
  ASSERT_EQ(::symlink("/tmp", (pool_folder + "/out").c_str()), 0);
  for (const char* leaf : {"..", "a/b", "../../etc", "", "x;y", "out"}) {
    SCOPED_TRACE(leaf);
    pool().calls.clear();
    EXPECT_FALSE(manager_.set_filesystem_mount_point(POOL, FS, leaf));
    EXPECT_TRUE(log_.contains(LM_ERROR, "Failed to build mount point '" + std::string(leaf) + "'"))
        << log_.dump();
    EXPECT_EQ(pool().count("set_mount_point"), 0u);
  }
  EXPECT_TRUE(manager_.set_filesystem_mount_point(POOL, FS, "other"));
  const std::string path = pool_folder + "/other";
  EXPECT_EQ(record(FS)["mountpoint"], path);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0750u);
  pool().failing = {"set_mount_point"};
  EXPECT_FALSE(manager_.set_filesystem_mount_point(POOL, FS, "third"));
  EXPECT_EQ(record(FS)["mountpoint"], path);
  pool().failing = {"create_filesystem"};
  EXPECT_FALSE(manager_.create_filesystem(POOL, {}, "fourth"));
  for (const char* leaf : {"/third", "/fourth"})
    EXPECT_NE(::access((pool_folder + leaf).c_str(), F_OK), 0) << leaf;
}

TEST_F(Sub_Filesystems, MountedMeansInTheSystemAndInTheCatalog) {
  make(FS);
  EXPECT_FALSE(manager_.mount_filesystem(POOL, ""));
  EXPECT_TRUE(log_.contains(LM_EMERGENCY, "name is empty"));
  EXPECT_FALSE(manager_.mount_filesystem(POOL, "absent"));
  EXPECT_TRUE(log_.has(LM_ERROR, "filesystem absent does not exist.\n"));
  pool().filesystems[FS].mounted = true;  // by hand
  bool yes = true;
  EXPECT_TRUE(manager_.filesystem_mounted(POOL, FS, yes));
  EXPECT_FALSE(yes);
  EXPECT_FALSE(manager_.umount_filesystem(POOL, FS));
  EXPECT_TRUE(log_.has(LM_ERROR, "filesystem " + FS + " is not mounted.\n"));
  EXPECT_TRUE(manager_.mount_filesystem(POOL, FS));
  EXPECT_TRUE(manager_.filesystem_mounted(POOL, FS, yes) && yes);
  EXPECT_TRUE(manager_.umount_filesystem(POOL, FS));
  EXPECT_TRUE(manager_.filesystem_mounted(POOL, FS, yes));
  EXPECT_FALSE(yes || pool().filesystems[FS].mounted);
}

TEST_F(Sub_Filesystems, OneThatCannotBeMountedDoesNotStopTheOthersAtStartUp) {
  for (const char* name : {"a", "b", "c"}) {
    make(name);
    ASSERT_TRUE(manager_.mount_filesystem(POOL, name));
    pool().filesystems[name].mounted = false;  // the host was restarted
  }
  pool().filesystems.erase("b");
  EXPECT_TRUE(manager_.resume_mount_points());
  EXPECT_EQ(mounted(), (std::vector<std::string>{"a", "c"}));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to mount filesystem b, pool: " + POOL + ".\n"));
}

TEST_F(Sub_Filesystems, OnlyLinkedClonesNameTheirSnapshot) {
  make(FS);
  EXPECT_EQ(pool().filesystems[FS].made_with["mount_point"], mounts_.path() + "/" + POOL + "/" + FS);
  add_snapshots(FS, 1, 1);
  ASSERT_TRUE(manager_.create_filesystem(POOL, id(1), SCSI_Pool_Manager::FS_Option(), "copy")) << log_.dump();
  Sub_Filesystem_Manager filesystems(POOL);
  ASSERT_TRUE(filesystems.open());
  ASSERT_TRUE(filesystems.clone(id(1), true, {}, "linked", true));
  Array list;
  ASSERT_TRUE(filesystems.list(list, "copy") && filesystems.list(list, "linked"));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_FALSE(list[0].contains("snapshot_uuid"));
  EXPECT_EQ(list[1]["snapshot_uuid"], id(1));
  EXPECT_FALSE(filesystems.clone(id(5), true, {}, "x", true));
  EXPECT_TRUE(
      log_.contains(LM_ERROR, "Failed to clone filesystem, snapshot " + id(5) + " does not exist in pool"));
}

TEST_F(Sub_Filesystems, RollbackGoesToTheNewest) {
  make(FS);
  Sub_Filesystem_Manager filesystems(POOL);
  ASSERT_TRUE(filesystems.open());
  std::string to;
  EXPECT_FALSE(filesystems.rollback(FS, to));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to rollback filesystem " + FS + ", get snapshot info error.\n"));
  EXPECT_FALSE(manager_.rollback_filesystem_to_newest(POOL, FS, to));
  add_snapshots(FS, 1, 3);
  EXPECT_TRUE(filesystems.rollback(FS, to));
  EXPECT_EQ(to, id(3));
  EXPECT_TRUE(manager_.rollback_filesystem_to_newest(POOL, FS, to));
  EXPECT_EQ(pool().count("rollback " + FS + "@" + id(3)), 2u);
  pool().filesystems[FS].info.erase("ctime");
  EXPECT_FALSE(filesystems.rollback(FS, to));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to rollback filesystem " + FS + ", update database info error.\n"));
  EXPECT_EQ(pool().count("rollback " + FS + "@" + id(3)), 3u);
}

TEST_F(Sub_Filesystems, DeletionTakesTheSnapshotsFirstAndStopsAtTheFirstThatStays) {
  make(FS);
  Sub_Filesystem_Manager filesystems(POOL);
  ASSERT_TRUE(filesystems.open());
  add_snapshots(FS, 1, 2);
  EXPECT_FALSE(filesystems.remove(FS, true));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to remove filesystem " + FS + ", snapshot exists.\n"));
  std::string why;
  Scripted_Peer peer;
  replicate_to(peer.port());
  peer.refuse["DELETE /svc/r/scsipool/fs/snapshot"] = 0;
  ASSERT_TRUE(manager_.delete_filesystem_snapshot(POOL, FS, 1, false)) << log_.dump();
  add_snapshots(FS, 3, 3);
  peer.refuse["DELETE"] = 1;
  EXPECT_FALSE(manager_.delete_filesystem(POOL, FS));
  EXPECT_EQ(numbers(FS), (std::vector<int>{2, 3}));
  EXPECT_TRUE(manager_.delete_filesystem(POOL, FS)) << log_.dump();
  EXPECT_FALSE(manager_.filesystem_exist(POOL, FS));
  EXPECT_EQ(pool().count("destroy " + FS + " force"), 1u);
  EXPECT_EQ(peer.count("DELETE /svc/r/scsipool/fs/snapshot"), 4u) << peer.dump();
}

TEST_F(Sub_Filesystems, TheOnlySnapshotTakesTheEmptyOneWithItWhenAsked) {
  make(FS);
  add_snapshots(FS, 1, 2);
  EXPECT_TRUE(manager_.delete_filesystem_snapshot(POOL, id(1), true));
  EXPECT_TRUE(manager_.filesystem_exist(POOL, FS));
  EXPECT_TRUE(manager_.delete_filesystem_snapshot(POOL, id(2), true)) << log_.dump();
  EXPECT_FALSE(manager_.filesystem_exist(POOL, FS));
}

TEST_F(Sub_Filesystems, SnapshotsAreNumberedMarkedAndCountedLikeThoseOfLuns) {
  make(FS);
  std::string first, second;
  ASSERT_TRUE(manager_.create_filesystem_snapshot(POOL, FS, first, false)) << log_.dump();
  std::map<std::string, std::string> made;
  ASSERT_TRUE(manager_.create_filesystem_snapshots(POOL, {FS}, "", made, true));
  second = made[FS];
  Array list;
  ASSERT_TRUE(manager_.list_filesystem_snapshots(POOL, FS, list));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1]["seq"], 2u);
  EXPECT_EQ(list[1]["parent_id"], FS);
  EXPECT_EQ(list[1]["recycle"], true);
  EXPECT_TRUE(manager_.update_filesystem_snapshot_recycle(POOL, second, false));
  list.clear();
  ASSERT_TRUE(manager_.list_filesystem_snapshot(POOL, list, second.c_str()));
  EXPECT_EQ(list.at(0)["recycle"], false);

  EXPECT_FALSE(manager_.sub_filesystem_snapshot_standby(POOL, first));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to subtract filesystem snapshot standby : standby is 0\n"));
  EXPECT_TRUE(manager_.add_filesystem_snapshot_standby(POOL, first));
  EXPECT_TRUE(manager_.update_filesystem_snapshot_state(POOL, first, SCSI_Pool_Manager::SENDING_STATE));
  EXPECT_EQ(standby(first, false), 1u);
  EXPECT_TRUE(manager_.reset_filesystem_snapshot_standby(POOL, FS));
  EXPECT_TRUE(manager_.reset_filesystem_snapshots_state(POOL));
  std::string state;
  ACE_UINT16 count = 9;
  EXPECT_TRUE(manager_.get_filesystem_snapshot_state_info(POOL, first, state, count));
  EXPECT_EQ(state + std::to_string(count), "idle0");
}

}  // namespace
