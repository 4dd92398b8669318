// The Btrfs drivers against scripted tools: the command lines as they are run, and what the log says of
// failures.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "backup/pools/scsipool/btrfs_filesystem.h"
#include "backup/pools/scsipool/btrfs_qgroup_id_getter.h"
#include "backup/pools/scsipool/btrfs_quota.h"
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

TEST_F(Btrfs_Driver, make_with_and_without_label) {
  tools_.expect("mkfs.btrfs -f -L p1 " + device_);
  tools_.expect("mkfs.btrfs -f " + device_);
  EXPECT_TRUE(fs_.make({{"Label", "p1"}}));
  EXPECT_TRUE(fs_.make({}));
}

TEST_F(Btrfs_Driver, make_repeats_with_mixed_groups_only_on_a_small_device) {
  make_device(4096);
  tools_.expect("mkfs.btrfs -f " + device_).status(1).errors(recording("btrfs-6.2/mkfs-too-small.txt"));
  tools_.expect("mkfs.btrfs -f -M " + device_);
  EXPECT_TRUE(fs_.make({}));
  EXPECT_EQ(log_.errors(), "");
  ASSERT_EQ(::truncate(device_.c_str(), 114294784), 0);
  tools_.expect("mkfs.btrfs -f " + device_).status(1);
  EXPECT_FALSE(fs_.make({}));
  EXPECT_TRUE(failed_with("Failed to make Btrfs filesystem in '" + device_ + "'\n")) << log_.dump();
}

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

TEST_F(Btrfs_Driver, null_and_empty_arguments_are_violations) {
  const auto violated = [this](const char* name) {
    const bool found = log_.contains(LM_EMERGENCY, std::string(name) + " is NULL or \"\":");
    log_.clear();
    return found;
  };
  EXPECT_EQ(fs_.create_sub_volume("", {}), nullptr);
  EXPECT_TRUE(violated("name"));
  EXPECT_EQ(fs_.clone_sub_volume("v", nullptr, "s", {}), nullptr);
  EXPECT_TRUE(violated("snapshot_parent"));
  EXPECT_EQ(fs_.clone_sub_volume("v", "p", "", {}), nullptr);
  EXPECT_TRUE(violated("snapshot"));
  EXPECT_FALSE(fs_.fstab_entry_exist(nullptr));
  EXPECT_TRUE(violated("dev"));
  FS_Info_Item info;
  EXPECT_FALSE(Btrfs_Quota(mp_.c_str()).show_qgroup("", info));
  EXPECT_TRUE(violated("sub_path"));
  EXPECT_FALSE(Btrfs_Quota("").enable(true));
  EXPECT_TRUE(log_.contains(LM_EMERGENCY, "mount_point_ is empty:"));
}

TEST_F(Btrfs_Driver, mount_runs_its_steps_and_adds_the_entry) {
  make_device(8192);
  tools_.expect("mount -o loop,noatime -o compress=ZLIB " + device_ + " " + mp_).status(32);
  tools_.expect("mount -o loop,noatime -o compress=zlib " + device_ + " " + mp_);
  tools_.expect("mount -o remount,nodiscard " + mp_).status(1);
  tools_.expect("btrfs quota enable " + mp_);
  tools_.expect("btrfs qgroup clear-stale " + mp_).status(1);
  EXPECT_TRUE(fs_.mount({{"compression", "ZLIB"}})) << log_.dump();
  EXPECT_EQ(fstab(), "UUID=1 / ext4 errors=remount-ro 0 1\ntmpfs /tmp tmpfs defaults 0 0\n" + device_ + " " +
                         mp_ + " btrfs loop,noatime,compress=zlib 0 0\n");
  struct stat info {};
  ::stat((dir_ / "fstab").c_str(), &info);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
}

TEST_F(Btrfs_Driver, mount_stops_at_the_failing_step) {
  EXPECT_FALSE(fs_.mount({}));
  EXPECT_TRUE(failed_with("Failed to mount Btrfs: source '" + device_ + "' does not exist\n"));
  make_device(0);
  ASSERT_EQ(::truncate(device_.c_str(), 1 << 20), 0);  // thin: no remount
  tools_.expect("mount -o loop,noatime " + device_ + " " + mp_).status(32).errors("mount: bad superblock\n");
  EXPECT_FALSE(fs_.mount({{"compression", "zstd"}}));
  EXPECT_TRUE(failed_with("Btrfs not support compression zstd\n"));
  EXPECT_TRUE(failed_with("Failed to mount '" + device_ + "' btrfs filesystem to '" + mp_ + "'\n"));
  EXPECT_TRUE(log_.contains(LM_NOTICE, ": mount: bad superblock\n")) << log_.dump();
  tools_.expect("mount -o loop,noatime " + device_ + " " + mp_);
  tools_.expect("btrfs quota enable " + mp_).status(1);
  EXPECT_FALSE(fs_.mount({}));
  EXPECT_TRUE(failed_with("Failed to enable '" + mp_ + "' btrfs quota\n"));
  EXPECT_TRUE(failed_with("Failed to enable quota in '" + mp_ + "'\n"));
  EXPECT_EQ(fstab(), FSTAB);
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

TEST_F(Btrfs_Driver, used_size_and_verify) {
  ACE_UINT64 size = 0;
  tools_.expect("btrfs filesystem df " + mp_).output(recording("btrfs-6.2/filesystem-df.txt"));
  EXPECT_TRUE(fs_.get_used_size(size));
  EXPECT_GT(size, 20u * 1024 * 1024);
  tools_.expect("btrfs filesystem df " + mp_).output("nothing\n");
  EXPECT_FALSE(fs_.get_used_size(size));
  tools_.expect("btrfs filesystem df " + mp_)
      .status(1)
      .errors("ERROR: not a btrfs: Inappropriate ioctl for device\n");
  EXPECT_FALSE(fs_.get_used_size(size));
  EXPECT_TRUE(failed_with("Failed to get filesystem df info, errno=25, Inappropriate ioctl for device\n"))
      << log_.dump();
  EXPECT_FALSE(fs_.verify());
  EXPECT_FALSE(Btrfs_Filesystem("", (mp_ + "/none").c_str()).verify());
  EXPECT_TRUE(log_.contains(LM_ERROR, "Failed to statfs ")) << log_.dump();
}

TEST_F(Btrfs_Driver, volumes_are_created_found_and_cloned) {
  tools_.expect("btrfs subvolume create " + mp_ + "/v1");
  tools_.expect("btrfs filesystem sync " + mp_).status(1);
  const Sub_Volume_var made(fs_.create_sub_volume("v1", {}));
  ASSERT_NE(made, nullptr);
  std::string path;
  EXPECT_TRUE(made->get_dataset(path));
  EXPECT_EQ(path, mp_ + "/v1/lun_backstore");
  tools_.expect("btrfs subvolume create " + mp_ + "/v1")
      .status(1)
      .errors("ERROR: target path already exists: File exists\n");
  EXPECT_EQ(fs_.create_sub_volume("v1", {}), nullptr);
  EXPECT_TRUE(failed_with("Failed to crate btrfs subvolume: File exists\n")) << log_.dump();
  for (const char* name : {"vol1", "vol", "VOL1"}) {
    expect_list("-pu", list_);
    EXPECT_EQ(fs_.sub_volume_exist(name), std::string(name) == "vol1") << name;
  }
  for (const bool taken : {false, true}) {
    if (taken) platform::mkdir_p(mp_ + "/new", 0700);
    expect_list("-pu", list_);
    tools_.expect("btrfs subvolume show " + mp_ + "/snap1")
        .output(recording("btrfs-6.2/subvolume-show-readonly.txt"));
    if (!taken) {
      tools_.expect("btrfs subvolume snapshot " + mp_ + "/snap1 " + mp_ + "/new");
      tools_.expect("btrfs filesystem sync " + mp_);
    }
    EXPECT_EQ(Sub_Volume_var(fs_.clone_sub_volume("new", "vol1", "snap1", {})) != nullptr, !taken);
  }
  EXPECT_TRUE(failed_with("Failed to crate btrfs subvolume base  on snapshot: File exists\n")) << log_.dump();
  expect_list("-pu", list_);
  EXPECT_EQ(fs_.clone_sub_volume("n", "none", "snap1", {}), nullptr);
  EXPECT_TRUE(failed_with("Failed to create btrfs subvolume base on snapshot: snapshot does not exist\n"));
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

TEST_F(Btrfs_Driver, removal_addresses_the_full_id_and_skips_an_unknown_one) {
  const std::string aged =
      "ID 65792 gen 9 parent 5 top level 5 uuid 71c08a72-3ab8-8742-8aca-e6499beef9d3 path old\n";
  expect_list("-pur", list_ + aged);
  tools_.expect("btrfs qgroup destroy 0/65792 " + mp_);
  tools_.expect("btrfs subvolume delete " + mp_ + "/old");
  tools_.expect("btrfs filesystem sync " + mp_);
  EXPECT_TRUE(Btrfs_Snapshot(mp_.c_str(), "old").destroy());
  expect_list("-pur", "");
  tools_.expect("btrfs subvolume delete " + mp_ + "/half").status(1);
  EXPECT_FALSE(Btrfs_Snapshot(mp_.c_str(), "half").destroy());
  EXPECT_TRUE(failed_with("Failed to delete btrfs snapshot '" + mp_ + "/half'\n"));
  expect_list("-pu", aged);
  EXPECT_EQ(Btrfs_Qgroup_ID_Getter(mp_, false).get_id("old"), 65792 % 65536);
  tools_.expect("btrfs subvolume list -pu " + mp_).status(1);
  EXPECT_EQ(Btrfs_Qgroup_ID_Getter(mp_, false).get_id("old"), 0);
  EXPECT_TRUE(failed_with("Failed to list btrfs snapshot\n") && failed_with("Failed to get qgroup id\n"));
}

TEST_F(Btrfs_Driver, sizes_come_from_the_quota_group_and_advice_starts_one_rescan) {
  const std::string show = "btrfs qgroup show -pc -f " + mp_ + "/vol1";
  const std::string text = recording("btrfs-6.2/qgroup-show.txt");
  tools_.expect(show).output(text).errors("WARNING: qgroup data inconsistent, rescan recommended\n");
  tools_.expect("btrfs quota rescan " + mp_).status(1);
  tools_.expect(show).output(text).errors("WARNING: qgroup data inconsistent, rescan recommended\n");
  const Btrfs_Snapshot snapshot(mp_.c_str(), "vol1");
  ACE_UINT64 size = 0;
  ACE_UINT64 excl = 0;
  ACE_UINT64 rfer = 0;
  EXPECT_TRUE(snapshot.size(size));
  EXPECT_EQ(size, 20992491u + 16384u);
  EXPECT_TRUE(snapshot.size(excl, rfer));
  EXPECT_EQ(excl, 16384u);
  tools_.expect(show).output("no groups\n");
  EXPECT_FALSE(Btrfs_Sub_Volume(mp_.c_str(), "vol1").get_used_size(size));
  EXPECT_TRUE(failed_with("Failed to get volume size: get qgroup list error\n"));
  tools_.expect(show).output("0/256 0.00B 0.00B - - vol1\n");
  EXPECT_TRUE(Btrfs_Sub_Filesystem(mp_.c_str(), "vol1").get_used_size(size));
  EXPECT_EQ(size, 0u);
}

TEST_F(Btrfs_Driver, snapshots_are_made_shown_and_rolled_back_to) {
  Btrfs_Sub_Volume volume(mp_.c_str(), "vol1");
  tools_.expect("btrfs subvolume snapshot -r " + mp_ + "/vol1 " + mp_ + "/s2");
  EXPECT_NE(Snapshot_var(volume.create_snapshot("s2", {})), nullptr);
  platform::mkdir_p(mp_ + "/there", 0700);
  EXPECT_EQ(volume.create_snapshot("there", {}), nullptr) << "would nest";
  EXPECT_TRUE(failed_with("Failed to create btrfs snapshot\n"));

  const std::string shown = recording("btrfs-6.2/subvolume-show-readonly.txt");
  tools_.expect("btrfs subvolume show " + mp_ + "/snap1").output(shown);
  bool readonly = false;
  EXPECT_TRUE(Btrfs_Snapshot(mp_.c_str(), "snap1").is_readonly(readonly) && readonly);
  tools_.expect("btrfs subvolume show " + mp_ + "/vol1").output(shown.substr(0, shown.find("\tCreation")));
  FS_Info_Item info;
  EXPECT_FALSE(volume.get_info(info));
  EXPECT_TRUE(failed_with("Failed to get  subvolume '" + mp_ + "/vol1' error:ctime or name is empty\n"));

  tools_.expect("btrfs subvolume show " + mp_ + "/none")
      .status(1)
      .errors(recording("btrfs-6.2/subvolume-show-absent.txt"));
  EXPECT_FALSE(volume.rollback("none"));
  EXPECT_TRUE(
      failed_with("Failed to check btrfs snapshot 'none' exist, errno=2, No such file or directory\n"));
  EXPECT_TRUE(failed_with("Failed to rollback volume: snapshot does not exist\n"));
  tools_.expect("btrfs subvolume show " + mp_ + "/snap1").output(shown);
  expect_list("-pu", list_);
  tools_.expect("btrfs qgroup destroy 0/256 " + mp_);
  tools_.expect("btrfs subvolume delete " + mp_ + "/vol1");
  tools_.expect("btrfs filesystem sync " + mp_);
  tools_.expect("btrfs subvolume snapshot " + mp_ + "/snap1 " + mp_ + "/vol1");
  tools_.expect("btrfs filesystem sync " + mp_);
  EXPECT_TRUE(volume.rollback("snap1"));
}

TEST_F(Btrfs_Driver, streams) {
  const std::string at = mp_ + "/";
  std::vector<std::string> many;
  std::string bases;
  for (int i = 0; i < 100; ++i) {
    many.push_back("0d9c7d04-6ef1-4f0a-a5c8-3f4b7d2b1a" + std::to_string(100 + i));
    bases += " -c " + at + many.back();
  }
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{}, ""}, {{"a"}, " -c " + at + "a -p " + at + "a"}, {many, bases + " -p " + at + many.back()}};
  for (const auto& row : rows) {
    tools_.expect("btrfs send" + row.second + " " + at + "s");
    ACE_Process_Ex proc(ACE_Process_Ex::OPTION_READ_STDOUT);
    EXPECT_TRUE(Btrfs_Snapshot(mp_.c_str(), "s").send(row.first, &proc));
    ACE_exitcode status = -1;
    EXPECT_EQ(Process_Manager::instance()->wait(proc.pid(), ACE_Time_Value(10), &status), proc.pid());
    EXPECT_EQ(status, 0);
  }
  EXPECT_TRUE(log_.has(LM_DEBUG, "Send snapshot: btrfs send  -c " + at + "a -p " + at + "a " + at + "s\n"));
  tools_.expect("btrfs receive -e " + mp_);
  ACE_Process_Ex proc;
  EXPECT_TRUE(Btrfs_Sub_Volume(mp_.c_str(), "v").receive_snapshot("s", true, &proc));
  EXPECT_EQ(Process_Manager::instance()->wait(proc.pid(), ACE_Time_Value(10), nullptr), proc.pid());
  EXPECT_TRUE(log_.has(LM_DEBUG, "Receive snapshot: btrfs receive -e \"" + mp_ + "\"\n"));
}

}  // namespace
}  // namespace scsi_pool
