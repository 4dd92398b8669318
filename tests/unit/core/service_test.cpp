// The service's options, and how the manager opens with them.

#include <ace/Service_Object.h>
#include <gtest/gtest.h>

#include <vector>

#include "backup/pools/scsipool/replicate_job_manager.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/scsi_pool_manager_service.h"
#include "platform/database/legacy_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_tools.h"
#include "tests/support/temp_dir.h"

namespace {

using scsi_pool::SCSI_Pool_Manager;

constexpr char NO_MOUNT_POINT[] = "Unknown SCSI pool mountpoint.\n";
constexpr char PROBE[] = "zfs get -Hp -o property,value all orbistor";

class Service : public testing::Test {
 protected:
  Service() { database::sql::Legacy_Manager::instance()->configure(dir_ / "db", ""); }
  ~Service() override {
    service_.fini();
    scsi_pool::Replicate_Job_Manager::close_instance();
    database::sql::Legacy_Manager::instance()->close();
  }

  void start(std::vector<std::string> options) {
    std::vector<ACE_TCHAR*> arguments;
    for (std::string& option : options)
      arguments.push_back(option.data());
    arguments.push_back(nullptr);
    EXPECT_EQ(service_.init(static_cast<int>(options.size()), arguments.data()), 0);
  }
  std::string type() {
    std::string type = "none";
    SCSI_Pool_Manager::instance()->get_global_filesystem(type);
    return type;
  }
  std::string device() {
    std::string device = "none";
    SCSI_Pool_Manager::instance()->get_global_device(device);
    return device;
  }

  Temp_Dir dir_;
  SCSI_Pool_Manager_Service service_;
  Log_Capture log_;
};

struct Option_Case {
  const char* name;
  std::vector<std::string> options;
  const char* type;
  ACE_UINT32 block_size;
  const char* device;
  const char* errors;
};

class Service_Options : public Service, public testing::WithParamInterface<Option_Case> {};

TEST_P(Service_Options, are_applied) {
  start(GetParam().options);
  EXPECT_EQ(type(), GetParam().type);
  EXPECT_EQ(SCSI_Pool_Manager::instance()->get_block_size(), GetParam().block_size);
  EXPECT_EQ(device(), GetParam().device);
  EXPECT_EQ(log_.errors(), GetParam().errors);
}

INSTANTIATE_TEST_SUITE_P(
    all, Service_Options,
    testing::Values(
        Option_Case{
            "none",
            {},
            "zfs",
            0,
            "none",
            "SCSI pool not support filesystem type '', set to 'zfs'\nUnknown SCSI pool mountpoint.\n"},
        Option_Case{
            "all", {"-f", "btrfs", "-b", "4096", "-g", "/mnt/g", "-d", "/p"}, "btrfs", 4096, "/mnt/g", ""},
        Option_Case{"case_kept", {"-f", "BTRFS", "-d", "/p"}, "BTRFS", 0, "none", ""},
        Option_Case{"upper_case_zfs_probes_nothing", {"-f", "ZFS", "-d", "/p"}, "ZFS", 0, "none", ""},
        Option_Case{"other_type",
                    {"-f", "ext4", "-g", "t", "-d", "/p"},
                    "zfs",
                    0,
                    "t",
                    "SCSI pool not support filesystem type 'ext4', set to 'zfs'\n"},
        Option_Case{"negative_block_size", {"-b", "-5", "-f", "btrfs", "-d", "/p"}, "btrfs", 0, "none", ""},
        Option_Case{
            "block_size_is_no_number", {"-b", "big", "-f", "btrfs", "-d", "/p"}, "btrfs", 0, "none", ""},
        Option_Case{"last_one_counts",
                    {"-b", "1", "-b", "2", "-f", "zfs", "-f", "btrfs", "-d", "/p"},
                    "btrfs",
                    2,
                    "none",
                    ""},
        Option_Case{"unknown_is_skipped",
                    {"-x", "-f", "btrfs", "-d", "/p"},
                    "btrfs",
                    0,
                    "none",
                    "Unknown SCSI_Pool_Manager_Service option ?\n"},
        Option_Case{"no_mount_point", {"-f", "btrfs", "-g", "t"}, "btrfs", 0, "t", NO_MOUNT_POINT}),
    [](const auto& each) { return each.param.name; });

TEST_F(Service, looks_for_the_default_device) {
  Scripted_Tools tools({"zfs"});
  tools.expect(PROBE).output("type\tfilesystem\nmounted\tno\n");
  start({"-f", "zfs", "-d", "/p"});
  EXPECT_EQ(device(), "orbistor");
  EXPECT_TRUE(log_.has(LM_DEBUG, "SCSI pool use orbistor as global device\n")) << log_.dump();
}

TEST_F(Service, does_without_the_default_device) {
  Scripted_Tools tools({"zfs"});
  tools.expect(PROBE).errors("cannot open 'orbistor': dataset does not exist\n").status(1);
  start({"-f", "zfs", "-d", "/p"});
  EXPECT_EQ(device(), "none");
  EXPECT_EQ(log_.errors(), "");
}

TEST_F(Service, stops_and_starts_afresh) {
  EXPECT_EQ(type(), "none");
  start({"-f", "btrfs", "-g", "t", "-d", "/p"});
  EXPECT_EQ(service_.fini(), 0);
  EXPECT_EQ(type(), "none");
  EXPECT_EQ(device(), "none");
}

TEST_F(Service, is_made_and_destroyed_by_the_configurator) {
  ACE_Service_Object_Exterminator destroy = nullptr;
  ACE_Service_Object* made = _make_SCSI_Pool_Manager_Service(&destroy);
  ASSERT_NE(dynamic_cast<SCSI_Pool_Manager_Service*>(made), nullptr);
  ASSERT_NE(destroy, nullptr);
  destroy(made);
}

TEST_F(Service, operations_of_an_unopened_manager_fail_without_a_crash) {
  SCSI_Pool_Manager& manager = *SCSI_Pool_Manager::instance();
  json_spirit::Array pools;
  std::string id, target;
  EXPECT_FALSE(manager.list_pools(pools, nullptr) || manager.create_pool(id, "n", {}) ||
               manager.pool_exist("p") || manager.get_target_info("p", id, target));
  manager.close();
  EXPECT_TRUE(log_.contains(LM_EMERGENCY, "sqlite_impl_.get() is NULL"));
}

}  // namespace
