#include "backup/pools/scsipool/zfs_filesystem.h"

#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "tests/unit/zfs_storage/zfs_fixture.h"

using namespace scsi_pool;

namespace {

using Zfs_Pool = Zfs_Fixture;
using Zfs_Volumes = Zfs_Fixture;
using Zfs_Sub_Filesystems = Zfs_Fixture;

TEST_F(Zfs_Pool, Make_Creates_And_Turns_Atime_Off) {
  tools_.expect("zpool create -f -m none pa /dev/none");
  tools_.expect(get_all("pa")).output(recorded("get-all-pool.txt"));
  tools_.expect("zfs set atime=off pa");
  EXPECT_TRUE(ZFS_Filesystem("/dev/none", "pa").make({})) << log_.dump();
}

TEST_F(Zfs_Pool, Make_Reports_The_Step_That_Failed) {
  tools_.expect("zpool create -f -m none pa /dev/none").status(1).errors("cannot create 'pa'\n");
  EXPECT_FALSE(ZFS_Filesystem("/dev/none", "pa").make({}));
  expect_error("Failed to create zpool 'pa' in '/dev/none'\n");
  tools_.expect("zpool create -f -m none pa /dev/none");
  tools_.expect(get_all("pa")).output(recorded("get-all-pool.txt"));
  tools_.expect("zfs set atime=off pa").status(1);
  EXPECT_FALSE(ZFS_Filesystem("/dev/none", "pa").make({}));
  expect_error("Failed to create zpool 'pa': failed to set atime to off\n");
}

TEST_F(Zfs_Pool, A_File_Too_Small_Is_Grown_Once) {
  const struct {
    const char* make_file;
    off_t size;
    bool sparse;
  } cases[] = {{"truncate -s 52428800 f", 67108864, true}, {"fallocate -l 52428800 f", 67108864, false}};
  for (const auto& one : cases) {
    shell(std::string("rm -f f && ") + one.make_file);
    const std::string file = host_ / "f";
    tools_.expect("zpool create -f -m none pb " + file)
        .status(1)
        .errors(recorded("create-pool-too-small.err.txt"));
    tools_.expect("zpool create -f -m none pb " + file);
    tools_.expect(get_all("pb")).output(recorded("get-all-pool.txt"));
    tools_.expect("zfs set atime=off pb");
    EXPECT_TRUE(ZFS_Filesystem(file.c_str(), "pb").make({})) << one.make_file << log_.dump();
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, one.size);
    EXPECT_EQ(status.st_blocks * 512 < status.st_size, one.sparse) << one.make_file;
  }
  shell("truncate -s 67108864 big");
  tools_.expect("zpool create -f -m none pb " + (host_ / "big")).status(1);
  EXPECT_FALSE(ZFS_Filesystem((host_ / "big").c_str(), "pb").make({}))
      << "nothing to grow, nothing to repeat";
}

TEST_F(Zfs_Pool, Names_That_Zfs_Or_The_Shell_Would_Misread_Run_Nothing) {
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

TEST_F(Zfs_Pool, Without_A_Mount_Point_Of_Its_Own_It_Counts_As_Mounted) {
  tools_.expect(get_all("pa")).output(recorded("get-all-pool.txt"));
  ZFS_Filesystem pool("f", "pa");
  ACE_UINT64 used = 0;
  EXPECT_TRUE(pool.verify() && pool.mounted() && pool.mount({}) && pool.umount() && pool.sync());
  EXPECT_TRUE(pool.get_used_size(used));
  EXPECT_EQ(used, 113664u);
}

TEST_F(Zfs_Pool, With_A_Mount_Point_It_Is_Mounted_And_Unmounted) {
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

TEST_F(Zfs_Pool, One_That_Is_Not_There_Fails_With_Words) {
  const struct {
    bool (*call)(ZFS_Filesystem&);
    const char* words;
  } cases[] = {
      {[](ZFS_Filesystem& pool) { return pool.verify(); }, "Failed to get zpool 'pa' mount point\n"},
      {[](ZFS_Filesystem& pool) { return pool.mounted(); },
       "Failed to check ZFS mounted: get pool mount point error\n"},
      {[](ZFS_Filesystem& pool) { return pool.mount({}); },
       "Failed to mount ZFS 'pa': failed to get pool mount point\n"},
      {[](ZFS_Filesystem& pool) { return pool.umount(); },
       "Failed to umount ZFS 'pa': failed to get pool mount point\n"},
      {[](ZFS_Filesystem& pool) {
         ACE_UINT64 size = 0;
         return pool.get_used_size(size);
       },
       "Failed to get ZFS 'pa' used size: failed to get property\n"},
      {[](ZFS_Filesystem& pool) { return pool.create_sub_filesystem("fs", {}) != nullptr; }, nullptr},
  };
  tools_.expect(get_all("pa")).status(1).errors(recorded("get-missing.err.txt"));
  ZFS_Filesystem pool("f", "pa");
  for (const auto& one : cases) {
    log_.clear();
    EXPECT_FALSE(one.call(pool));
    if (one.words) expect_error(one.words);
  }
  EXPECT_TRUE(
      log_.has(LM_ERROR, "Failed to create ZFS sub filesystem: failed to verify the base filesystem\n"));
}

TEST_F(Zfs_Pool, Destroy_Unmounts_First_And_Waits_Out_A_Busy_Moment) {
  shell("printf 'pa/fs /m zfs rw 0 0\\npa/fs/in /m/in zfs rw 0 0\\n' > self/mounts");
  shell(link("pa/v1"));
  tools_.expect("zfs umount pa/fs/in");
  tools_.expect("zfs umount pa/fs");
  tools_.expect("zpool destroy pa").status(1).errors("cannot destroy 'pa': pool is busy\n");
  tools_.expect("zpool destroy pa").runs(unlink("pa/v1"));
  EXPECT_TRUE(ZFS_Filesystem("f", "pa").destroy()) << log_.dump();
}

TEST_F(Zfs_Pool, A_Refused_Destroy_Brings_Mounts_And_Devices_Back) {
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

TEST_F(Zfs_Volumes, Block_And_Volume_Size) {
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

TEST_F(Zfs_Volumes, Create_Takes_Two_Tools_And_Returns_With_The_Device) {
  tools_.expect("zfs create -s -b 4096 -V 12288 pa/v1")
      .errors(recorded("create-small-block.err.txt"))
      .runs("(sleep 0.3; " + link("pa/v1") + ") >/dev/null 2>&1 &");
  tools_.expect("zfs set dedup=off compression=lz4 sync=disabled checksum=on pa/v1");
  const FS_Info_Item info = {
      {"size", 10000u}, {"block_size", 4096u}, {"dedup", false}, {"compression", "LZ4"}, {"async", true}};
  ZFS_Filesystem pool("f", "pa");
  const Sub_Volume_var volume(pool.create_sub_volume("v1", info));
  ASSERT_TRUE(volume) << log_.dump();
  std::string path;
  EXPECT_TRUE(volume->get_dataset(path));
  EXPECT_EQ(path, host_ / "zvol/pa/v1");
  EXPECT_TRUE(pool.sub_volume_exist("v1"));
  EXPECT_EQ(log_.count(LM_ERROR), 0u) << "a warning on standard error is no failure" << log_.dump();
}

TEST_F(Zfs_Volumes, A_Device_That_Does_Not_Come_Is_An_Error) {
  tools_.expect("zfs create -s -b 131072 -V 131072 pa/v1");
  tools_.expect("zfs set dedup=on compression=off sync=standard checksum=off pa/v1");
  ZFS_Filesystem pool("f", "pa");
  pool.check_block_dev_timeout(1);
  const FS_Info_Item info = {{"size", 1u}, {"dedup", true}, {"compression", ""}, {"checksum", false}};
  EXPECT_EQ(pool.create_sub_volume("v1", info), nullptr);
  expect_error("Failed to get block device: create block device '" + (host_ / "zvol/pa/v1") + "' error\n");
}

TEST_F(Zfs_Volumes, The_Attribute_That_Was_Refused_Is_Named) {
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

TEST_F(Zfs_Volumes, Compression_Types) {
  const ZFS_Filesystem pool("f", "pa");
  const struct {
    const char *asked, *value;
    bool error;
  } cases[] = {{nullptr, "off", false}, {"", "off", false},    {"NONE", "off", false},
               {"LZ4", "LZ4", false},   {"zle", "zle", false}, {"lzjb", "lzjb", false},
               {"gzip", "gzip", false}, {"off", "off", true},  {"zstd", "off", true},
               {"gzip-9", "off", true}};
  for (const auto& one : cases) {
    EXPECT_STREQ(pool.check_compression_type(one.asked), one.value);
    if (one.error) expect_error(std::string("ZFS not support compression ") + one.asked + "\n");
  }
  EXPECT_EQ(log_.count(LM_ERROR), 0u);
}

TEST_F(Zfs_Volumes, Clones) {
  delay_receivers();
  shell(link("pa/v1"));
  const struct {
    FS_Info_Item type;
    bool full;
  } cases[] = {{{{"clone_type", "full"}}, true}, {{{"clone_type", "link"}}, false}, {{}, false}};
  ZFS_Filesystem pool("f", "pa");
  for (const auto& one : cases) {
    FS_Info_Item info = one.type;
    info.insert({{"dedup", false}, {"compression", "none"}});
    tools_.expect(get_all("pa/v1@s1")).output(recorded("get-all-snapshot.txt"));
    if (one.full) {
      tools_.expect("zfs send pa/v1@s1").output("stream");
      tools_.expect("zfs receive pa/c1").runs("[ \"$(cat)\" = stream ] && " + link("pa/c1"));
      tools_.expect("zfs destroy pa/c1@s1");
    } else {
      tools_.expect("zfs clone pa/v1@s1 pa/c1").runs(link("pa/c1"));
    }
    tools_.expect("zfs set dedup=off compression=off sync=standard checksum=on pa/c1");
    const Sub_Volume_var clone(pool.clone_sub_volume("c1", "v1", "s1", info));
    EXPECT_TRUE(clone) << log_.dump();
    shell(unlink("pa/c1"));
  }
  tools_.expect(get_all("pa/v1@s2")).status(1).errors(recorded("get-missing.err.txt"));
  EXPECT_EQ(pool.clone_sub_volume("c1", "v1", "s2", {}), nullptr);
  expect_error("Failed to clone ZFS volume base on snapshot: snapshot not exist\n");
  EXPECT_EQ(pool.clone_sub_volume("c1", "v1", "", {}), nullptr);
  EXPECT_TRUE(log_.contains(LM_EMERGENCY, "snapshot is NULL or \"\"")) << log_.dump();
}

TEST_F(Zfs_Sub_Filesystems, Create_Sets_Quota_And_Atime) {
  tools_.expect(get_all("gd")).output(recorded("get-all-pool.txt"));
  tools_.expect("zfs create gd/p1 -o canmount=noauto");
  tools_.expect("zfs set quota=104857600 gd/p1");
  tools_.expect("zfs set atime=off gd/p1");
  tools_.expect("zfs create gd/p2 -o canmount=noauto -o mountpoint=/mnt/x");
  tools_.expect("zfs set atime=off gd/p2").status(1);
  tools_.expect("zfs create 'gd/p 3' -o canmount=noauto -o 'mountpoint=/mnt/x y'").status(1);
  ZFS_Filesystem device("", "gd");
  const Sub_Filesystem_var pool(device.create_sub_filesystem("p1", {{"size", 104857600u}}));
  EXPECT_TRUE(pool) << log_.dump();
  EXPECT_EQ(device.create_sub_filesystem("p2", {{"mount_point", "/mnt/x"}}), nullptr);
  EXPECT_TRUE(log_.contains(LM_ERROR, "'gd'")) << log_.dump();
  errno = 0;
  EXPECT_EQ(device.create_sub_filesystem("p 3", {{"mount_point", "/mnt/x y"}}), nullptr);
  EXPECT_TRUE(log_.contains(LM_ERROR, "Failed to create ZFS sub filesystem: ")) << log_.dump();
}

TEST_F(Zfs_Sub_Filesystems, Clones) {
  delay_receivers();
  const std::string source = recorded("get-all-filesystem.txt"), snapshot = recorded("get-all-snapshot.txt");
  for (const bool full : {true, false}) {
    tools_.expect(get_all("pa/fs1")).output(source);
    tools_.expect(get_all("pa/fs1@s1")).output(snapshot);
    if (full) {
      tools_.expect("zfs send pa/fs1@s1");
      tools_.expect("zfs receive pa/fs2 -u -o mountpoint=/m").runs("cat >/dev/null");
      tools_.expect("zfs destroy pa/fs2@s1");
      tools_.expect("zfs set canmount=noauto pa/fs2");
    } else {
      tools_.expect("zfs clone pa/fs1@s1 pa/fs2 -o canmount=noauto -o mountpoint=/m");
    }
    const FS_Info_Item info = {{"clone_type", full ? "full" : "link"}, {"mount_point", "/m"}};
    const Sub_Filesystem_var clone(ZFS_Filesystem("f", "pa").clone_sub_filesystem("fs2", "fs1", "s1", info));
    EXPECT_TRUE(clone) << log_.dump();
  }
  tools_.expect(get_all("pa/none")).status(1).errors(recorded("get-missing.err.txt"));
  EXPECT_EQ(ZFS_Filesystem("f", "pa").clone_sub_filesystem("fs2", "none", "s1", {}), nullptr);
  expect_error("Failed to clone ZFS filesystem none, snapshot s1 does not exist\n");
}

}  // namespace
