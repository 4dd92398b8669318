// The Btrfs drivers against scripted tools: the command lines as they are run, and what the log says of
// failures.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "backup/pools/scsipool/btrfs_filesystem.h"
#include "backup/pools/scsipool/btrfs_qgroup_id_getter.h"
#include "backup/pools/scsipool/btrfs_snapshot.h"
#include "backup/pools/scsipool/btrfs_sub_filesystem.h"
#include "backup/pools/scsipool/btrfs_sub_volume.h"
#include "platform/base/file.h"
#include "platform/process/process_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_tools.h"
#include "tests/support/temp_dir.h"

namespace scsi_pool {
namespace {

constexpr const char* FSTAB = "# the system\nUUID=1 / ext4 errors=remount-ro 0 1\n\ntmpfs /tmp tmpfs\n";

class Btrfs_Driver : public ::testing::Test {
 protected:
  Btrfs_Driver() {
    platform::write_file_atomically(dir_ / "fstab", FSTAB, 0640);
    Btrfs_Filesystem::fstab_path(dir_ / "fstab");
    platform::mkdir_p(mp_, 0700);
  }
  ~Btrfs_Driver() override {
    Btrfs_Filesystem::fstab_path("/etc/fstab");
    Process_Manager::close();
  }

  std::string fstab() const {
    std::string text;
    platform::read_file(dir_ / "fstab", text);
    return text;
  }
  // A device file of so many bytes, thick or thin.
  void make_device(off_t size) {
    platform::write_file_atomically(device_, std::string(static_cast<std::size_t>(size), 'x'), 0600);
  }
  void expect_list(const std::string& option, const std::string& output) {
    tools_.expect("btrfs subvolume list " + option + " " + mp_).output(output);
  }
  bool failed_with(const std::string& text) const { return log_.has(LM_ERROR, text); }

  const Temp_Dir dir_;
  const std::string mp_ = dir_ / "mp";
  const std::string device_ = dir_ / "device";
  const std::string list_ = recording("btrfs-6.2/subvolume-list.txt");
  Scripted_Tools tools_{{"btrfs", "mkfs.btrfs", "mount", "umount"}};
  Log_Capture log_;
  Btrfs_Filesystem fs_{device_.c_str(), mp_.c_str()};
};

TEST_F(Btrfs_Driver, hostile_names_and_paths_run_nothing) {
  const char* bad[] = {"\"; touch /tmp/x; \"", "../x", "-rf", "a/b", "two words"};
  Btrfs_Sub_Volume volume(mp_.c_str(), "v");
  for (const char* name : bad) {
    log_.clear();
    EXPECT_EQ(fs_.create_sub_volume(name, {}), nullptr);
    EXPECT_EQ(fs_.create_sub_filesystem(name, {}), nullptr);
    EXPECT_EQ(fs_.clone_sub_volume(name, "v", "s", {}), nullptr);
    EXPECT_EQ(volume.create_snapshot(name, {}), nullptr);
    EXPECT_FALSE(fs_.sub_volume_exist(name) || volume.snapshot_exist(name) || volume.rollback(name));
    EXPECT_FALSE(Btrfs_Sub_Volume(mp_.c_str(), name).destroy());
    EXPECT_TRUE(log_.contains(LM_ERROR, "Failed to use the name '")) << log_.dump();
  }
  Btrfs_Filesystem hostile("/dev/x\" ; \"", "/mnt/`x`");
  EXPECT_FALSE(hostile.make({}) || hostile.mount({}) || hostile.sync());
}

TEST_F(Btrfs_Driver, fstab_edits) {
  EXPECT_TRUE(fs_.edit_fstab(true, nullptr));
  EXPECT_EQ(fstab(), FSTAB) << "nothing to remove";
  const std::string options(3000, 'x');
  EXPECT_TRUE(fs_.edit_fstab(false, options.c_str()));
  Btrfs_Filesystem other((device_ + " 2").c_str(), mp_.c_str());
  EXPECT_TRUE(other.edit_fstab(false, "loop,noatime"));
  const std::string both = fstab();
  EXPECT_NE(both.find(options + " 0 0\n"), std::string::npos) << "a long line was cut";
  EXPECT_TRUE(other.edit_fstab(false, "loop,noatime"));
  EXPECT_EQ(fstab(), both) << "added twice";
  EXPECT_TRUE(other.fstab_entry_exist((device_ + " 2").c_str()));
  EXPECT_TRUE(fs_.edit_fstab(true, nullptr));
  EXPECT_EQ(fstab().find(options), std::string::npos);
  EXPECT_NE(fstab().find("device\\0402 "), std::string::npos) << fstab();
  EXPECT_FALSE(platform::path_exists(dir_ / "fstab.scsipool"));
  Btrfs_Filesystem::fstab_path(dir_ / "no/fstab");
  EXPECT_FALSE(fs_.edit_fstab(false, "loop"));
  EXPECT_TRUE(failed_with("Failed to edit fstab: cannot open fstab or fstab.new\n"));
}

// The quota group step of a removal: what the tool answers, whether the removal goes on, whether it sweeps
// afterwards.
TEST_F(Btrfs_Driver, removal_by_the_answer_of_the_quota_group_step) {
  const struct {
    int status;
    std::string errors;
    bool goes_on;
    bool sweeps;
  } rows[] = {{0, "", true, false},
              {1, recording("btrfs-6.2/qgroup-destroy-busy.txt"), true, true},
              {1, "ERROR: unable to destroy quota group: No such file or directory\n", true, false},
              {1, "ERROR: quota not enabled\n", true, false},
              {1, "ERROR: unable to destroy quota group: Transport endpoint is not connected\n", true, false},
              {1, "ERROR: unable to destroy quota group: Input/output error\n", false, false},
              {1, "", false, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.errors);
    log_.clear();
    expect_list("-pu", list_);
    tools_.expect("btrfs qgroup destroy 0/257 " + mp_).status(row.status).errors(row.errors);
    if (row.goes_on) {
      tools_.expect("btrfs subvolume delete " + mp_ + "/vol2");
      tools_.expect("btrfs filesystem sync " + mp_);
    }
    if (row.sweeps) tools_.expect("btrfs qgroup clear-stale " + mp_).status(1);
    EXPECT_EQ(Btrfs_Sub_Volume(mp_.c_str(), "vol2").destroy(), row.goes_on);
    EXPECT_EQ(failed_with("Failed to remove qgroup 0/257 in " + mp_ + "\n"), !row.goes_on) << log_.dump();
    EXPECT_EQ(log_.errors().empty(), row.goes_on) << log_.dump();
  }
}

TEST_F(Btrfs_Driver, make_repeats_with_mixed_groups_only_on_a_small_device) {
  make_device(4096);
  tools_.expect("mkfs.btrfs -f -L p1 " + device_).status(1).errors(recording("btrfs-6.2/mkfs-too-small.txt"));
  tools_.expect("mkfs.btrfs -f -M -L p1 " + device_);
  EXPECT_TRUE(fs_.make({{"Label", "p1"}}));
  EXPECT_EQ(log_.errors(), "");
  ASSERT_EQ(::truncate(device_.c_str(), 114294784), 0);
  tools_.expect("mkfs.btrfs -f " + device_).status(1);
  EXPECT_FALSE(fs_.make({}));
  EXPECT_TRUE(failed_with("Failed to make Btrfs filesystem in '" + device_ + "'\n")) << log_.dump();
}

TEST_F(Btrfs_Driver, mount_adds_its_entry_when_no_step_has_failed) {
  EXPECT_FALSE(fs_.mount({}));
  EXPECT_TRUE(failed_with("Failed to mount Btrfs: source '" + device_ + "' does not exist\n"));
  make_device(8192);
  tools_.expect("mount -o loop,noatime " + device_ + " " + mp_).status(32).errors("mount: bad superblock\n");
  EXPECT_FALSE(fs_.mount({{"compression", "zstd"}}));
  EXPECT_TRUE(failed_with("Btrfs not support compression zstd\n"));
  EXPECT_TRUE(failed_with("Failed to mount '" + device_ + "' btrfs filesystem to '" + mp_ + "'\n"));
  EXPECT_TRUE(log_.contains(LM_NOTICE, ": mount: bad superblock\n")) << log_.dump();
  for (const bool quota : {false, true}) {
    tools_.expect("mount -o loop,noatime -o compress=ZLIB " + device_ + " " + mp_).status(32);
    tools_.expect("mount -o loop,noatime -o compress=zlib " + device_ + " " + mp_);
    tools_.expect("mount -o remount,nodiscard " + mp_).status(1);
    tools_.expect("btrfs quota enable " + mp_).status(quota ? 0 : 1);
    EXPECT_EQ(fstab(), FSTAB);
    if (quota) tools_.expect("btrfs qgroup clear-stale " + mp_).status(1);
    EXPECT_EQ(fs_.mount({{"compression", "ZLIB"}}), quota) << log_.dump();
  }
  EXPECT_TRUE(failed_with("Failed to enable quota in '" + mp_ + "'\n"));
  EXPECT_EQ(fstab(), "UUID=1 / ext4 errors=remount-ro 0 1\ntmpfs /tmp tmpfs defaults 0 0\n" + device_ + " " +
                         mp_ + " btrfs loop,noatime,compress=zlib 0 0\n");
  struct stat info {};
  ::stat((dir_ / "fstab").c_str(), &info);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
}

TEST_F(Btrfs_Driver, snapshots_are_cloned_rolled_back_to_and_sent) {
  tools_.answer("btrfs subvolume list -pu " + mp_).output(list_);
  tools_.answer("btrfs subvolume show").output(recording("btrfs-6.2/subvolume-show-readonly.txt"));
  tools_.answer("btrfs");
  Btrfs_Sub_Volume volume(mp_.c_str(), "vol1");
  const Snapshot_var snapshot(volume.create_snapshot("snap1", {}));
  bool readonly = false;
  ASSERT_TRUE(snapshot && snapshot->is_readonly(readonly) && readonly) << log_.dump();
  EXPECT_TRUE(Sub_Volume_var(fs_.clone_sub_volume("new", "vol1", "snap1", {}))) << log_.dump();
  EXPECT_TRUE(volume.rollback("snap1"));
  for (const char* name : {"vol", "VOL1"})
    EXPECT_FALSE(fs_.sub_volume_exist(name)) << name;
  std::vector<std::string> bases;
  for (int i = 0; i < 100; ++i)
    bases.push_back("0d9c7d04-6ef1-4f0a-a5c8-3f4b7d2b1a" + std::to_string(100 + i));
  ACE_Process_Ex sender, receiver;
  EXPECT_TRUE(snapshot->send(bases, &sender) && volume.receive_snapshot("s", true, &receiver));
  for (const ACE_Process_Ex* one : {&sender, &receiver})
    EXPECT_EQ(Process_Manager::instance()->wait(one->pid(), ACE_Time_Value(10), nullptr), one->pid());
  const std::string at = mp_ + "/";
  std::string changes;
  for (const std::string& command : tools_.commands())
    changes += command.substr(6) + "\n";
  for (const std::string& wanted :
       {"subvolume snapshot -r " + at + "vol1 " + at + "snap1\n",
        "subvolume snapshot " + at + "snap1 " + at + "new\nfilesystem sync " + mp_ + "\n",
        "subvolume delete " + at + "vol1\nfilesystem sync " + mp_ + "\nsubvolume snapshot " + at + "snap1 " +
            at + "vol1\nfilesystem sync " + mp_ + "\n",
        " -c " + at + bases.back() + " -p " + at + bases.back() + " " + at + "snap1\n",
        "receive -e " + mp_ + "\n"})
    EXPECT_NE(changes.find(wanted), std::string::npos) << wanted << changes;
  EXPECT_EQ(log_.errors(), "");
}

TEST_F(Btrfs_Driver, what_fails_or_is_in_the_way_is_said) {
  tools_.answer("btrfs subvolume create")
      .status(1)
      .errors("ERROR: target path already exists: File exists\n");
  tools_.answer("btrfs subvolume list -pu ").output(list_);
  tools_.answer("btrfs subvolume show " + mp_ + "/snap1")
      .output(recording("btrfs-6.2/subvolume-show-readonly.txt"));
  tools_.answer("btrfs subvolume show " + mp_ + "/vol1").output("vol1\n");
  tools_.answer("btrfs subvolume show").status(1).errors(recording("btrfs-6.2/subvolume-show-absent.txt"));
  tools_.answer("btrfs filesystem df")
      .status(1)
      .errors("ERROR: not a btrfs: Inappropriate ioctl for device\n");
  tools_.answer("btrfs qgroup show").output("no groups\n");
  tools_.answer("btrfs").status(1);
  platform::mkdir_p(mp_ + "/there", 0700);
  Btrfs_Sub_Volume volume(mp_.c_str(), "vol1");
  ACE_UINT64 size = 0;
  FS_Info_Item info;
  const struct {
    std::function<bool()> run;
    std::string words;
  } cases[] = {
      {[&] { return fs_.create_sub_volume("v1", {}) != nullptr; },
       "Failed to crate btrfs subvolume: File exists\n"},
      {[&] { return fs_.clone_sub_volume("there", "vol1", "snap1", {}) != nullptr; },
       "Failed to crate btrfs subvolume base  on snapshot: File exists\n"},
      {[&] { return fs_.clone_sub_volume("n", "none", "snap1", {}) != nullptr; },
       "Failed to create btrfs subvolume base on snapshot: snapshot does not exist\n"},
      {[&] { return fs_.get_used_size(size); },
       "Failed to get filesystem df info, errno=25, Inappropriate ioctl for device\n"},
      {[&] { return volume.create_snapshot("there", {}) != nullptr; }, "Failed to create btrfs snapshot\n"},
      {[&] { return volume.get_info(info); },
       "Failed to get  subvolume '" + mp_ + "/vol1' error:ctime or name is empty\n"},
      {[&] { return volume.rollback("none"); }, "Failed to rollback volume: snapshot does not exist\n"},
      {[&] { return volume.get_used_size(size); }, "Failed to get volume size: get qgroup list error\n"},
      {[&] { return Btrfs_Snapshot(mp_.c_str(), "half").destroy(); },
       "Failed to delete btrfs snapshot '" + mp_ + "/half'\n"},
      {[&] { return fs_.verify() || Btrfs_Filesystem("", (mp_ + "/none").c_str()).verify(); }, ""},
  };
  for (const auto& one : cases) {
    log_.clear();
    EXPECT_FALSE(one.run()) << one.words;
    EXPECT_TRUE(one.words.empty() || failed_with(one.words)) << log_.dump();
  }
  EXPECT_TRUE(log_.contains(LM_ERROR, "Failed to statfs ")) << log_.dump();
}

TEST_F(Btrfs_Driver, removal_addresses_the_full_id) {
  const std::string aged =
      "ID 65792 gen 9 parent 5 top level 5 uuid 71c08a72-3ab8-8742-8aca-e6499beef9d3 path old\n";
  expect_list("-pur", list_ + aged);
  tools_.expect("btrfs qgroup destroy 0/65792 " + mp_);
  tools_.expect("btrfs subvolume delete " + mp_ + "/old");
  tools_.expect("btrfs filesystem sync " + mp_);
  EXPECT_TRUE(Btrfs_Snapshot(mp_.c_str(), "old").destroy());
  expect_list("-pu", aged);
  EXPECT_EQ(Btrfs_Qgroup_ID_Getter(mp_, false).get_id("old"), 65792 % 65536);
  tools_.expect("btrfs subvolume list -pu " + mp_).status(1);
  EXPECT_EQ(Btrfs_Qgroup_ID_Getter(mp_, false).get_id("old"), 0);
  EXPECT_TRUE(failed_with("Failed to list btrfs snapshot\n") && failed_with("Failed to get qgroup id\n"));
}

TEST_F(Btrfs_Driver, sizes_come_from_the_quota_group_and_advice_starts_one_rescan) {
  const std::string show = "btrfs qgroup show -pc -f " + mp_ + "/vol1";
  const std::string text = recording("btrfs-6.2/qgroup-show.txt");
  for (const char* rescan : {"btrfs quota rescan ", ""}) {
    tools_.expect(show).output(text).errors("WARNING: qgroup data inconsistent, rescan recommended\n");
    if (*rescan != '\0') tools_.expect(rescan + mp_).status(1);
  }
  const Btrfs_Snapshot snapshot(mp_.c_str(), "vol1");
  ACE_UINT64 size = 0, excl = 0, rfer = 0;
  EXPECT_TRUE(snapshot.size(size) && snapshot.size(excl, rfer));
  EXPECT_EQ(size, 20992491u + 16384u);
  EXPECT_EQ(excl, 16384u);
  tools_.expect(show).output("0/256 0.00B 0.00B - - vol1\n");
  EXPECT_TRUE(Btrfs_Sub_Filesystem(mp_.c_str(), "vol1").get_used_size(size));
  EXPECT_EQ(size, 0u);
}

}  // namespace
}  // namespace scsi_pool
