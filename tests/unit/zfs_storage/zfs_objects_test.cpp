// Volumes, snapshots and sub filesystems of a pool that is there.

#include <ace/Process.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "backup/pools/scsipool/zfs_import.h"
#include "backup/pools/scsipool/zfs_snapshot.h"
#include "backup/pools/scsipool/zfs_sub_filesystem.h"
#include "backup/pools/scsipool/zfs_sub_volume.h"
#include "platform/base/time_text.h"
#include "platform/process/process_ex.h"
#include "platform/process/process_manager.h"
#include "tests/unit/zfs_storage/zfs_fixture.h"

using namespace scsi_pool;

namespace {

using Zfs_Volume = Zfs_Fixture;
using Zfs_Snapshots = Zfs_Fixture;
using Zfs_Sub_Filesystem = Zfs_Fixture;
using Zfs_Import = Zfs_Fixture;

void wait_for(ACE_Process_Ex& process) {
  ACE_exitcode status = 0;
  Process_Manager::instance()->wait(process.pid(), ACE_Time_Value(20), &status);
}

TEST_F(Zfs_Volume, Origin_Of_A_Clone) {
  const struct {
    std::string zpool, origin;
    bool clone;
  } cases[] = {{"pool1", "pool1/vol1@snap1", true},
               {"gd/pool1", "gd/pool1/vol1@snap1", true},
               {"pool1", "-", false},
               {"tank/gd/pool1", "tank/gd/pool1/vol1@snap1", false}};
  for (const auto& one : cases) {
    tools_.expect(get_all(one.zpool + "/c")).output("creation\t1795388163\norigin\t" + one.origin + "\n");
    FS_Info_Item expected = {{"name", one.zpool + "/c"},
                             {"ctime", platform::POSIX_Time_To_ISO8601_Local(1795388163)}};
    if (one.clone) expected.insert({{"origin_subvol", "vol1"}, {"origin_snapshot", "snap1"}});
    FS_Info_Item info;
    EXPECT_TRUE(ZFS_Sub_Volume(one.zpool.c_str(), "c").get_info(info));
    EXPECT_EQ(info, expected) << one.origin;
  }
}

TEST_F(Zfs_Volume, Properties) {
  tools_.expect(get_all("pa/v1")).output(recorded("get-all-volume.txt"));
  tools_.expect("zfs set sync=always pa/v1");
  tools_.expect(get_all("pa/v1")).status(1).errors(recorded("get-missing.err.txt"));
  ZFS_Sub_Volume volume("pa", "v1");
  std::string value;
  ACE_UINT64 used = 0;
  EXPECT_TRUE(volume.get_info("volblocksize", value));
  EXPECT_EQ(value, "4096");
  EXPECT_TRUE(volume.get_used_size(used));
  EXPECT_EQ(used, 12288u);
  EXPECT_TRUE(volume.set_info("sync", "always"));
  EXPECT_FALSE(volume.get_info("sync", value));
  expect_error("Failed to get ZFS volume info: failed to get attr 'sync' \n");
  FS_Info_Item info;
  EXPECT_FALSE(volume.get_info(info));
  expect_error("Failed to get ZFS volume info: get ctime error \n");
}

TEST_F(Zfs_Volume, Destroy_Repeats_Only_While_Busy) {
  shell(link("pa/v1"));
  tools_.expect("zfs destroy pa/v1").status(1).errors(recorded("destroy-busy.err.txt"));
  tools_.expect("zfs destroy pa/v1").runs("(sleep 0.3; " + unlink("pa/v1") + ") >/dev/null 2>&1 &");
  EXPECT_TRUE(ZFS_Sub_Volume("pa", "v1").destroy()) << log_.dump();
  EXPECT_FALSE(zfs::is_volume_device(host_ / "zvol/pa/v1")) << "the link is gone on return";

  shell(link("pa/v1"));
  tools_.expect("zfs destroy pa/v1").status(1).errors(recorded("destroy-with-snapshot.err.txt"));
  EXPECT_FALSE(ZFS_Sub_Volume("pa", "v1").destroy());
  EXPECT_TRUE(log_.contains(LM_ERROR, "Failed to delete ZFS volume, errno=")) << log_.dump();
  EXPECT_TRUE(log_.contains(LM_NOTICE, "pa/v1@s1")) << "what stands in the way is said" << log_.dump();
}

TEST_F(Zfs_Volume, Rollback_Needs_The_Snapshot) {
  tools_.expect(get_all("pa/v1@s1")).output(recorded("get-all-snapshot.txt"));
  tools_.expect("zfs rollback pa/v1@s1");
  tools_.expect(get_all("pa/v1@s2")).status(1).errors(recorded("get-missing.err.txt"));
  tools_.expect(get_all("pa/v1@s1")).output(recorded("get-all-snapshot.txt"));
  tools_.expect("zfs rollback pa/v1@s1").status(1);
  ZFS_Sub_Volume volume("pa", "v1");
  EXPECT_TRUE(volume.rollback("s1")) << log_.dump();
  EXPECT_FALSE(volume.rollback("s2"));
  expect_error("Failed to rollback volume: snapshot 's2' does not exist\n");
  EXPECT_FALSE(volume.rollback("s1"));
  expect_error("Failed to rollback volume\n");
  EXPECT_FALSE(volume.rollback(nullptr));
  EXPECT_TRUE(log_.contains(LM_EMERGENCY, "snapshot is NULL or \"\"")) << log_.dump();
}

TEST_F(Zfs_Snapshots, Of_Volumes_And_Filesystems_Alike) {
  tools_.expect(get_all("pa/x@s1")).status(1).errors(recorded("get-missing.err.txt"));
  tools_.expect("zfs snapshot pa/x@s1");
  tools_.expect(get_all("pa/x@s1")).output(recorded("get-all-snapshot.txt"));
  tools_.expect(get_all("pa/x@s1")).output(recorded("get-all-snapshot.txt"));
  tools_.expect(get_all("pa/x@s1")).status(1);
  ZFS_Sub_Volume volume("pa", "x");
  EXPECT_TRUE(Snapshot_var(volume.create_snapshot("s1", {}))) << log_.dump();
  EXPECT_FALSE(Snapshot_var(volume.create_snapshot("s1", {})));
  expect_error("Failed to create snapshot: snapshot exist\n");
  const Snapshot_var snapshot(volume.get_snapshot("s1"));
  ASSERT_TRUE(snapshot);
  ACE_UINT64 excl = 1, rfer = 0;
  bool readonly = false;
  FS_Info_Item info;
  EXPECT_TRUE(snapshot->size(excl, rfer) && snapshot->is_readonly(readonly) && snapshot->get_info(info));
  EXPECT_EQ(excl, 0u);
  EXPECT_EQ(rfer, 12288u);
  EXPECT_TRUE(readonly);
  EXPECT_EQ(info["name"], "pa/x@s1");
  EXPECT_FALSE(Snapshot_var(volume.get_snapshot("s1")));
  expect_error("Failed to get zfs snapshot: snapshot not exist\n");
  for (const char* name : {"", "a@b", "s;x", "-r"})
    EXPECT_FALSE(Snapshot_var(volume.create_snapshot(name, {})));
}

TEST_F(Zfs_Snapshots, Streams) {
  const std::string out = host_ / "in";
  tools_.expect("zfs send -i pa/v1@s2 pa/v1@s3").output("one");
  tools_.expect("zfs send pa/v1@s3").output("two");
  tools_.expect("zfs receive -F pa/v1@s3").runs("cat > " + out);
  tools_.expect("zfs receive 'pa/v 2@s3'");
  ZFS_Snapshot snapshot("pa", "v1", "s3");
  for (const auto& increments : {std::vector<std::string>{"s1", "s2"}, std::vector<std::string>{}}) {
    ACE_Process_Ex sender;
    sender.redirect(ACE_Process_Ex::REDIRECT_STDOUT);
    ASSERT_TRUE(snapshot.send(increments, &sender)) << log_.dump();
    char text[4] = {};
    EXPECT_EQ(read(sender.stdout_handle(), text, 3), 3);
    EXPECT_STREQ(text, increments.empty() ? "two" : "one");
    wait_for(sender);
  }
  EXPECT_TRUE(log_.has(LM_DEBUG, "Send snapshot: zfs send  -i pa/v1@s2 pa/v1@s3\n")) << log_.dump();
  ACE_Process_Ex receiver, plain;
  receiver.redirect(ACE_Process_Ex::REDIRECT_STDIN);
  ASSERT_TRUE(ZFS_Sub_Volume("pa", "v1").receive_snapshot("s3", true, &receiver)) << log_.dump();
  EXPECT_EQ(write(receiver.stdin_handle(), "data", 4), 4);
  receiver.close_stdin();
  wait_for(receiver);
  EXPECT_TRUE(ZFS_Sub_Filesystem("pa", "v 2").receive_snapshot("s3", false, &plain)) << log_.dump();
  wait_for(plain);
  shell("[ \"$(cat in)\" = data ]");
  EXPECT_TRUE(log_.has(LM_DEBUG, "Receive snapshot: zfs receive -F pa/v1@s3\n")) << log_.dump();
}

TEST_F(Zfs_Snapshots, Sizes_Of_All_At_Once) {
  const std::string command = "zfs list -Hp -d 1 -t snapshot -o name,used,referenced pa/v1";
  tools_.expect(command).output("pa/v1@s1\t0\t12288\npa/v1@s 2\t18446744073709551615\t1\n");
  tools_.expect(command).status(1).errors(recorded("get-missing.err.txt"));
  tools_.expect(command).output("pa/v1@s1\t-\t12288\n");
  const ZFS_Sub_Volume volume("pa", "v1");
  Snapshot_Sizes sizes;
  EXPECT_EQ(volume.get_snapshot_sizes(sizes), Sizes_Read::TOLD);
  ASSERT_EQ(sizes.size(), 2u) << log_.dump();
  EXPECT_EQ(sizes["s1"].rfer, 12288u);
  EXPECT_EQ(sizes["s 2"].excl, 18446744073709551615u);
  for (const char* why : {"dataset does not exist", "'pa/v1@s1\t-\t12288'"}) {
    sizes.clear();
    EXPECT_EQ(volume.get_snapshot_sizes(sizes), Sizes_Read::TOLD);
    EXPECT_TRUE(sizes.empty() && log_.contains(LM_ERROR, why)) << log_.dump();
  }
  tools_.expect(command).status(1).errors(recorded("module-not-loaded.err.txt"));
  EXPECT_EQ(volume.get_snapshot_sizes(sizes), Sizes_Read::NO_ANSWER) << log_.dump();
}

TEST_F(Zfs_Sub_Filesystem, Mounts_Without_The_Daemons_Library_Path) {
  setenv("LD_LIBRARY_PATH", "/opt/somewhere", 1);
  const std::string check = "[ \"${LD_LIBRARY_PATH-unset}\" = '' ] || exit 3";
  tools_.expect(get_all("pa/fs")).output("mounted\tno\nmountpoint\t/m\n");
  tools_.expect("zfs mount pa/fs").runs(check);
  tools_.expect(get_all("pa/fs")).output("mounted\tyes\nmountpoint\t/m\n");
  tools_.expect("zfs umount pa/fs").runs(check);
  ZFS_Sub_Filesystem filesystem("pa", "fs");
  EXPECT_TRUE(filesystem.umount()) << "nothing to do";
  EXPECT_TRUE(filesystem.mount({})) << log_.dump();
  EXPECT_TRUE(filesystem.mount({})) << "nothing to do";
  EXPECT_FALSE(filesystem.destroy(false));
  expect_error("Failed to delete ZFS sub filesystem pa/fs, still mounted.\n");
  EXPECT_TRUE(filesystem.umount()) << log_.dump();
  unsetenv("LD_LIBRARY_PATH");
}

TEST_F(Zfs_Sub_Filesystem, Without_A_Mount_Point_It_Is_Not_Mounted) {
  tools_.expect(get_all("pa/fs")).output("mounted\tno\nmountpoint\tnone\n");
  EXPECT_FALSE(ZFS_Sub_Filesystem("pa", "fs").mount({}));
  expect_error("Failed to mount ZFS pa/fs, unknown mountpoint.\n");
}

TEST_F(Zfs_Sub_Filesystem, Sizes_And_Mount_Point) {
  tools_.expect("zfs set reservation=18446744073709551615 pa/fs");
  tools_.expect("zfs set 'mountpoint=/a b' pa/fs");
  tools_.expect(get_all("pa/fs")).output(recorded("get-all-filesystem.txt"));
  tools_.expect("zfs destroy pa/fs").status(1).errors("cannot destroy 'pa/fs': filesystem has children\n");
  ZFS_Sub_Filesystem filesystem("pa", "fs");
  EXPECT_TRUE(filesystem.set_reservation(18446744073709551615ULL));
  EXPECT_TRUE(filesystem.set_mount_point("/a b"));
  FS_Info_Item info;
  EXPECT_TRUE(filesystem.get_info(info));
  EXPECT_EQ(info["mount_point"], "/tmp/w/mnt");
  for (const char* path : {"relative", "/a;b", "/../etc", ""}) {
    EXPECT_FALSE(filesystem.set_mount_point(path)) << path;
    expect_error("Failed to set pa/fs mount point\n");
  }
  EXPECT_FALSE(filesystem.destroy(true));
  EXPECT_TRUE(log_.contains(LM_ERROR, "Failed to delete ZFS sub filesystem pa/fs, errno=39, "))
      << log_.dump();
}

TEST_F(Zfs_Import, Brings_A_Pool_Back_With_Its_Links) {
  shell("mkdir -p spl/kstat/zfs");
  tools_.expect("zpool import -d /b -N pa").runs("(sleep 0.3; " + link("pa/v1") + ") >/dev/null 2>&1 &");
  tools_.expect("zfs list -H -r -t volume -o name pa").output("pa/v1\n");
  EXPECT_TRUE(import_pool("pa", "/b")) << log_.dump();
  EXPECT_TRUE(zfs::is_volume_device(host_ / "zvol/pa/v1"));

  shell("mkdir spl/kstat/zfs/pa");
  tools_.expect("zfs list -H -r -t volume -o name pa");
  EXPECT_TRUE(import_pool("pa", "/b")) << "imported already";

  tools_.expect("zpool import -d /b -N px").status(1).errors(recorded("import-missing.err.txt"));
  EXPECT_FALSE(import_pool("px", "/b"));
  expect_error("Failed to import ZFS pool 'px' from '/b'\n");
  tools_.expect("zpool import -d /b -N px")
      .status(1)
      .errors("pool was previously in use from another system.\n");
  tools_.expect("zpool import -d /b -N -f px");
  tools_.expect("zfs list -H -r -t volume -o name px");
  EXPECT_TRUE(import_pool("px", "/b")) << log_.dump();
  EXPECT_FALSE(import_pool("-a", "/b")) << "no option may slip in";
}

TEST_F(Zfs_Import, Health_In_The_Tools_Words) {
  std::string state;
  tools_.expect("zpool list -H -o health gd").output("SUSPENDED\n");
  EXPECT_TRUE(pool_health("gd/p1", state));
  EXPECT_EQ(state, "SUSPENDED");
  tools_.expect("zpool list -H -o health px").status(1).errors(recorded("health-missing.err.txt"));
  EXPECT_FALSE(pool_health("px", state));
  EXPECT_EQ(state, "absent");
  tools_.expect("zpool list -H -o health px").status(1).errors(recorded("module-not-loaded.err.txt"));
  EXPECT_FALSE(pool_health("px", state));
  EXPECT_EQ(state, "unknown");
}

}  // namespace
