// The ZFS drivers against scripted tools. What they do to real pools is tested in tests/vm.

#include <sys/stat.h>

#include <cerrno>
#include <functional>

#include "backup/pools/scsipool/zfs_filesystem.h"
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

using Zfs_Driver = Zfs_Fixture;

void wait_for(ACE_Process_Ex& process) {
  Process_Manager::instance()->wait(process.pid(), ACE_Time_Value(20), nullptr);
}

TEST_F(Zfs_Driver, Commands_Of_Volumes_And_Snapshots) {
  const std::string here = get_all("pa/v1@s1");
  tools_.answer(here).output(recorded("get-all-snapshot.txt"));
  tools_.answer(get_all("pa/v1@")).status(1).errors(recorded("get-missing.err.txt"));
  tools_.answer("zfs clone pa/v1@s1 pa/c1").runs(link("pa/c1"));
  tools_.answer("zfs receive pa/c2").runs("[ \"$(cat)\" = stream ] && " + link("pa/c2"));
  tools_.answer("zfs send").output("stream");
  tools_.answer("zfs");
  shell(link("pa/v1"));
  ZFS_Filesystem pool("f", "pa");
  const FS_Info_Item attrs{{"dedup", false}, {"compression", "none"}};
  FS_Info_Item full = attrs, info;
  full["clone_type"] = "full";
  EXPECT_TRUE(Sub_Volume_var(pool.clone_sub_volume("c1", "v1", "s1", attrs))) << log_.dump();
  EXPECT_TRUE(Sub_Volume_var(pool.clone_sub_volume("c2", "v1", "s1", full))) << log_.dump();
  ZFS_Sub_Volume volume("pa", "v1");
  EXPECT_TRUE(Snapshot_var(volume.create_snapshot("s2", {})) && volume.rollback("s1")) << log_.dump();
  const Snapshot_var snapshot(volume.get_snapshot("s1"));
  ASSERT_TRUE(snapshot);
  ACE_UINT64 excl = 1, rfer = 0;
  bool readonly = false;
  EXPECT_TRUE(snapshot->size(excl, rfer) && snapshot->is_readonly(readonly) && snapshot->get_info(info));
  EXPECT_EQ(excl, 0u);
  EXPECT_EQ(rfer, 12288u);
  EXPECT_TRUE(readonly);
  EXPECT_EQ(info["name"], "pa/v1@s1");
  ACE_Process_Ex sender, receiver;
  EXPECT_TRUE(snapshot->send({"s8", "s9"}, &sender) && volume.receive_snapshot("s3", true, &receiver));
  wait_for(sender);
  wait_for(receiver);
  EXPECT_TRUE(ZFS_Snapshot("pa", "v1", "s1").destroy());
  std::string changes;
  for (const std::string& command : tools_.commands())
    if (command.compare(0, 7, "zfs get") != 0) changes += command.substr(4) + "\n";
  for (const char* wanted :
       {"clone pa/v1@s1 pa/c1\nset dedup=off compression=off sync=standard checksum=on pa/c1\n",
        "destroy pa/c2@s1\nset dedup=off compression=off sync=standard checksum=on pa/c2\n",
        "snapshot pa/v1@s2\nrollback pa/v1@s1\n", "send -i pa/v1@s9 pa/v1@s1\n", "receive -F pa/v1@s3\n"})
    EXPECT_NE(changes.find(wanted), std::string::npos) << wanted << changes;
  EXPECT_EQ(log_.errors(), "");
}

TEST_F(Zfs_Driver, Commands_Of_Sub_Filesystems) {
  tools_.answer(get_all("gd")).output(recorded("get-all-pool.txt"));
  tools_.answer(get_all("gd/fs")).output(recorded("get-all-filesystem.txt"));
  tools_.answer("zfs receive").runs("cat > /dev/null");
  tools_.answer("zfs");
  ZFS_Filesystem device("", "gd");
  EXPECT_TRUE(Sub_Filesystem_var(device.create_sub_filesystem("p1", {{"size", 104857600u}})));
  EXPECT_TRUE(Sub_Filesystem_var(device.create_sub_filesystem("p 2", {{"mount_point", "/mnt/x y"}})));
  for (const char* type : {"full", "link"}) {
    const FS_Info_Item info{{"clone_type", type}, {"mount_point", "/m"}};
    EXPECT_TRUE(Sub_Filesystem_var(device.clone_sub_filesystem(type, "fs", "s1", info))) << log_.dump();
  }
  std::string changes;
  for (const std::string& command : tools_.commands())
    if (command.compare(0, 7, "zfs get") != 0) changes += command.substr(4) + "\n";
  for (const char* wanted :
       {"create gd/p1 -o canmount=noauto\nset quota=104857600 gd/p1\nset atime=off gd/p1\n",
        "create 'gd/p 2' -o canmount=noauto -o 'mountpoint=/mnt/x y'\nset atime=off 'gd/p 2'\n",
        "receive gd/full -u -o mountpoint=/m\n", "destroy gd/full@s1\nset canmount=noauto gd/full\n",
        "clone gd/fs@s1 gd/link -o canmount=noauto -o mountpoint=/m\n"})
    EXPECT_NE(changes.find(wanted), std::string::npos) << wanted << changes;
  EXPECT_EQ(log_.errors(), "");
}

TEST_F(Zfs_Driver, What_Fails_Or_Is_Not_There_Is_Said) {
  tools_.answer(get_all("pa/v1@s1")).output(recorded("get-all-snapshot.txt"));
  tools_.answer("zfs get").status(1).errors(recorded("get-missing.err.txt"));
  tools_.answer("zfs").status(1);
  tools_.answer("zpool").status(1).errors(recorded("import-missing.err.txt"));
  shell(link("pa/v1"));
  ZFS_Filesystem pool("f", "pa");
  ZFS_Sub_Volume volume("pa", "v1");
  ACE_UINT64 size = 0;
  std::string text;
  FS_Info_Item info;
  const struct {
    std::function<bool()> run;
    const char* words;
  } cases[] = {
      {[&] { return pool.make({}); }, "Failed to create zpool 'pa' in 'f'\n"},
      {[&] { return pool.verify(); }, "Failed to get zpool 'pa' mount point\n"},
      {[&] { return pool.mounted(); }, "Failed to check ZFS mounted: get pool mount point error\n"},
      {[&] { return pool.mount({}); }, "Failed to mount ZFS 'pa': failed to get pool mount point\n"},
      {[&] { return pool.umount(); }, "Failed to umount ZFS 'pa': failed to get pool mount point\n"},
      {[&] { return pool.get_used_size(size); },
       "Failed to get ZFS 'pa' used size: failed to get property\n"},
      {[&] { return pool.clone_sub_filesystem("c", "none", "s1", {}) != nullptr; },
       "Failed to clone ZFS filesystem none, snapshot s1 does not exist\n"},
      {[&] { return pool.clone_sub_volume("c", "v1", "s2", {}) != nullptr; },
       "Failed to clone ZFS volume base on snapshot: snapshot not exist\n"},
      {[&] { return pool.get_sub_volume("v2") != nullptr; },
       "Failed to get ZFS sub volume: sub volume 'pa/v2' does not exist\n"},
      {[&] { return volume.get_info("sync", text); },
       "Failed to get ZFS volume info: failed to get attr 'sync' \n"},
      {[&] { return volume.get_info(info); }, "Failed to get ZFS volume info: get ctime error \n"},
      {[&] { return volume.get_used_size(size); }, "Failed to get ZFS volume used size\n"},
      {[&] { return volume.rollback("s2"); }, "Failed to rollback volume: snapshot 's2' does not exist\n"},
      {[&] { return volume.rollback("s1"); }, "Failed to rollback volume\n"},
      {[&] { return volume.create_snapshot("s1", {}) != nullptr; },
       "Failed to create snapshot: snapshot exist\n"},
      {[&] { return volume.create_snapshot("s2", {}) != nullptr; }, "Failed to create ZFS snapshot.\n"},
      {[&] { return volume.get_snapshot("s2") != nullptr; },
       "Failed to get zfs snapshot: snapshot not exist\n"},
      {[&] { return import_pool("px", "/b"); }, "Failed to import ZFS pool 'px' from '/b'\n"},
  };
  for (const auto& one : cases) {
    EXPECT_FALSE(one.run()) << one.words;
    expect_error(one.words);
  }
  EXPECT_EQ(pool.create_sub_filesystem("fs", {}), nullptr);
  EXPECT_TRUE(
      log_.has(LM_ERROR, "Failed to create ZFS sub filesystem: failed to verify the base filesystem\n"));
  EXPECT_FALSE(volume.rollback(nullptr) || import_pool("-a", "/b")) << "no option may slip in";
}

TEST_F(Zfs_Driver, A_File_Too_Small_Is_Grown_Once) {
  for (const char* make_file : {"truncate -s 52428800 f", "fallocate -l 52428800 f"}) {
    shell(std::string("rm -f f && ") + make_file);
    const std::string file = host_ / "f";
    tools_.expect("zpool create -f -m none pb " + file)
        .status(1)
        .errors(recorded("create-pool-too-small.err.txt"));
    tools_.expect("zpool create -f -m none pb " + file);
    tools_.expect(get_all("pb")).output(recorded("get-all-pool.txt"));
    tools_.expect("zfs set atime=off pb");
    EXPECT_TRUE(ZFS_Filesystem(file.c_str(), "pb").make({})) << make_file << log_.dump();
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 67108864);
    EXPECT_EQ(status.st_blocks * 512 < status.st_size, make_file[0] == 't') << make_file;
  }
}

TEST_F(Zfs_Driver, Names_That_Zfs_Or_The_Shell_Would_Misread_Run_Nothing) {
  for (const char* name :
       {"mirror1", "raidz", "draidx", "spare-1", "log", "1pool", "-x", "a b\"; touch /x; \"", ""}) {
    EXPECT_FALSE(ZFS_Filesystem("/dev/none", name).make({})) << name;
    EXPECT_EQ(log_.count(LM_ERROR), 1u) << name << log_.dump();
    log_.clear();
  }
  ZFS_Filesystem pool("/dev/none", "pa");
  for (const char* name : {"a/b", "a@b", "$(id)", "-r", "..", "a\nb", "`id`"}) {
    EXPECT_EQ(pool.create_sub_volume(name, {{"size", 1u}}), nullptr) << name;
    EXPECT_EQ(pool.create_sub_filesystem(name, {}), nullptr) << name;
    EXPECT_FALSE(pool.sub_volume_exist(name)) << name;
    EXPECT_EQ(pool.get_sub_filesystem(name), nullptr) << name;
  }
  EXPECT_EQ(pool.create_sub_filesystem("fs", {{"mount_point", "/x;touch /y"}}), nullptr);
  EXPECT_TRUE(tools_.commands().empty());
}

TEST_F(Zfs_Driver, With_A_Mount_Point_It_Is_Mounted_And_Unmounted) {
  const std::string off = "mountpoint\t/m\nmounted\tno\n", on = "mountpoint\t/m\nmounted\tyes\n";
  tools_.expect(get_all("pa")).output(off);
  tools_.expect("zfs mount pa");
  tools_.expect(get_all("pa")).output(on);
  tools_.expect("zfs umount pa").status(1);
  ZFS_Filesystem pool("f", "pa");
  EXPECT_FALSE(pool.mounted());
  EXPECT_TRUE(pool.umount()) << "nothing to do";
  EXPECT_TRUE(pool.mount({}));
  EXPECT_TRUE(pool.mount({})) << "nothing to do";
  EXPECT_FALSE(pool.umount());
  expect_error("Failed to umount ZFS 'pa'\n");
}

TEST_F(Zfs_Driver, Destroy_Unmounts_First_And_Waits_Out_A_Busy_Moment) {
  shell("printf 'pa/fs /m zfs rw 0 0\\npa/fs/in /m/in zfs rw 0 0\\n' > self/mounts");
  shell(link("pa/v1"));
  tools_.expect("zfs umount pa/fs/in");
  tools_.expect("zfs umount pa/fs");
  tools_.expect("zpool destroy pa").status(1).errors("cannot destroy 'pa': pool is busy\n");
  tools_.expect("zpool destroy pa").runs(unlink("pa/v1"));
  EXPECT_TRUE(ZFS_Filesystem("f", "pa").destroy()) << log_.dump();
}

TEST_F(Zfs_Driver, A_Refused_Destroy_Brings_Mounts_And_Devices_Back) {
  shell("printf 'pa/fs /m zfs rw 0 0\\n' > self/mounts");
  shell(link("pa/v1"));
  shell(link("pa/v2"));
  tools_.expect("zfs umount pa/fs").runs(": > '" + (host_ / "self/mounts") + "'");
  tools_.expect("zpool destroy pa")
      .status(1)
      .errors("cannot destroy 'pa': out of memory\n")
      .runs(unlink("pa/v2"));
  tools_.expect("zfs mount pa/fs");
  tools_.expect("zfs set volmode=none pa/v2");
  tools_.expect("zfs set volmode=dev pa/v2").runs(link("pa/v2"));
  EXPECT_FALSE(ZFS_Filesystem("f", "pa").destroy());
  expect_error("Failed to delete zpool 'pa'\n");
}

TEST_F(Zfs_Driver, Block_And_Volume_Size) {
  const struct {
    FS_Info_Item sizes;
    const char* command;  // null: refused
  } cases[] = {
      {{{"size", 10000u}, {"block_size", 4096u}}, "zfs create -s -b 4096 -V 12288 pa/v1"},
      {{{"size", 8192u}, {"block_size", 512u}}, "zfs create -s -b 512 -V 8192 pa/v1"},
      {{{"size", 1u}, {"block_size", 256u}}, "zfs create -s -b 131072 -V 131072 pa/v1"},
      {{{"size", 1u}, {"block_size", 262144u}}, "zfs create -s -b 131072 -V 131072 pa/v1"},
      {{{"size", 131073u}}, "zfs create -s -b 131072 -V 262144 pa/v1"},
      {{{"size", 5000000000u}, {"block_size", 131072u}}, "zfs create -s -b 131072 -V 5000003584 pa/v1"},
      {{{"size", 1u}, {"block_size", 3000u}}, nullptr},
      {{{"size", 18446744073709551615u}}, nullptr},
      {{{"block_size", 4096u}}, nullptr},
  };
  ZFS_Filesystem pool("f", "pa");
  for (const auto& one : cases) {
    if (one.command) tools_.expect(one.command).status(1).errors("out of space\n");
    EXPECT_EQ(pool.create_sub_volume("v1", one.sizes), nullptr);
    if (one.command) expect_error("Failed to create ZFS volume\n");
  }
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to create ZFS volume: block size 3000 is not power of 2\n"))
      << log_.dump();
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to create ZFS volume: get volume size error\n")) << log_.dump();
}

TEST_F(Zfs_Driver, A_Device_That_Does_Not_Come_Is_An_Error) {
  tools_.expect("zfs create -s -b 131072 -V 131072 pa/v1");
  tools_.expect("zfs set dedup=on compression=off sync=standard checksum=off pa/v1");
  ZFS_Filesystem pool("f", "pa");
  pool.check_block_dev_timeout(1);
  const FS_Info_Item info = {{"size", 1u}, {"dedup", true}, {"compression", ""}, {"checksum", false}};
  EXPECT_EQ(pool.create_sub_volume("v1", info), nullptr);
  expect_error("Failed to get block device: create block device '" + (host_ / "zvol/pa/v1") + "' error\n");
}

TEST_F(Zfs_Driver, The_Attribute_That_Was_Refused_Is_Named) {
  const std::string all = "zfs set dedup=off compression=gzip sync=standard checksum=on pa/v1";
  const struct {
    const char* last;
    const char* words;
  } cases[] = {{"dedup=off", "Failedt to create ZFS volume: failed to set dedup to 'off'\n"},
               {"compression=gzip", "Failedt to create ZFS volume: failed to set compression to 'GZIP'\n"},
               {"sync=standard", "Failedt to create ZFS volume: failed to set sync to 'standard'\n"},
               {"checksum=on", "Failedt to create ZFS volume: failed to set checksum to 'on'\n"}};
  ZFS_Filesystem pool("f", "pa");
  for (const auto& one : cases) {
    tools_.expect(all).status(1).errors("cannot set property for 'pa/v1'\n");
    for (const char* single : {"dedup=off", "compression=gzip", "sync=standard", "checksum=on"}) {
      const bool last = std::string(single) == one.last;
      tools_.expect(std::string("zfs set ") + single + " pa/v1").status(last ? 1 : 0);
      if (last) break;
    }
    EXPECT_FALSE(pool.set_sub_volume_attrs("v1", {{"dedup", false}, {"compression", "GZIP"}}));
    expect_error(one.words);
  }
  EXPECT_FALSE(pool.set_sub_volume_attrs("v1", {{"dedup", false}}));
  expect_error("Failed to create ZFS volume: failed to get ZFS config\n");
}

TEST_F(Zfs_Driver, Origin_Of_A_Clone) {
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

TEST_F(Zfs_Driver, Destroy_Repeats_Only_While_Busy) {
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

TEST_F(Zfs_Driver, Sizes_Of_All_At_Once) {
  const std::string command = "zfs list -Hp -d 1 -t snapshot -o name,used,referenced pa/v1";
  tools_.expect(command).output("pa/v1@s1\t0\t12288\npa/v1@s 2\t18446744073709551615\t1\n");
  tools_.expect(command).status(1).errors(recorded("get-missing.err.txt"));
  tools_.expect(command).output("pa/v1@s1\t-\t12288\n");
  const ZFS_Filesystem pool("f", "pa");
  Snapshot_Sizes sizes;
  EXPECT_EQ(pool.get_snapshot_sizes("v1", sizes), Sizes_Read::TOLD);
  ASSERT_EQ(sizes.size(), 2u) << log_.dump();
  EXPECT_EQ(sizes["s1"].rfer, 12288u);
  EXPECT_EQ(sizes["s 2"].excl, 18446744073709551615u);
  for (const char* why : {"dataset does not exist", "'pa/v1@s1\t-\t12288'"}) {
    sizes.clear();
    EXPECT_EQ(pool.get_snapshot_sizes("v1", sizes), Sizes_Read::TOLD);
    EXPECT_TRUE(sizes.empty() && log_.contains(LM_ERROR, why)) << log_.dump();
  }
  tools_.expect(command).status(1).errors(recorded("module-not-loaded.err.txt"));
  EXPECT_EQ(pool.get_snapshot_sizes("v1", sizes), Sizes_Read::NO_ANSWER) << log_.dump();
}

TEST_F(Zfs_Driver, Mounts_Without_The_Daemons_Library_Path) {
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

TEST_F(Zfs_Driver, Sizes_And_Mount_Point) {
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

TEST_F(Zfs_Driver, A_Pool_Of_Another_Host_Is_Imported_With_Its_Links) {
  shell("mkdir -p spl/kstat/zfs");
  tools_.expect("zpool import -d /b -N pa")
      .status(1)
      .errors("pool was previously in use from another system.\n");
  tools_.expect("zpool import -d /b -N -f pa").runs("(sleep 0.3; " + link("pa/v1") + ") >/dev/null 2>&1 &");
  tools_.expect("zfs list -H -r -t volume -o name pa").output("pa/v1\n");
  EXPECT_TRUE(import_pool("pa", "/b")) << log_.dump();
  EXPECT_TRUE(zfs::is_volume_device(host_ / "zvol/pa/v1"));
  shell("mkdir spl/kstat/zfs/pa");
  tools_.expect("zfs list -H -r -t volume -o name pa");
  EXPECT_TRUE(import_pool("pa", "/b")) << "imported already";
}

TEST_F(Zfs_Driver, Health_In_The_Tools_Words) {
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
