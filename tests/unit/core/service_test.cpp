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

TEST_F(Service, applies_its_options) {
  const struct {
    std::vector<std::string> options;
    std::string result;  // type, block size and device
    const char* errors;
  } cases[] = {
      {{"-f", "btrfs", "-b", "4096", "-g", "/mnt/g", "-d", "/p"}, "btrfs 4096 /mnt/g", ""},
      {{"-f", "ZFS", "-d", "/p"}, "ZFS 0 none", ""},
      {{"-b", "-5", "-f", "btrfs", "-d", "/p"}, "btrfs 0 none", ""},
      {{"-b", "big", "-f", "btrfs", "-d", "/p"}, "btrfs 0 none", ""},
      {{"-f", "ext4", "-g", "t", "-d", "/p"},
       "zfs 0 t",
       "SCSI pool not support filesystem type 'ext4', set to 'zfs'\n"},
      {{"-x", "-f", "btrfs", "-d", "/p"}, "btrfs 0 none", "Unknown SCSI_Pool_Manager_Service option ?\n"},
      {{"-f", "btrfs", "-g", "t"}, "btrfs 0 t", "Unknown SCSI pool mountpoint.\n"},
  };
  for (const auto& one : cases) {
    log_.clear();
    start(one.options);
    EXPECT_EQ(type() + " " + std::to_string(SCSI_Pool_Manager::instance()->get_block_size()) + " " + device(),
              one.result);
    EXPECT_EQ(log_.errors(), one.errors);
    EXPECT_EQ(service_.fini(), 0);
    EXPECT_EQ(type() + device(), "nonenone") << "stopped";
  }
}

TEST_F(Service, looks_for_the_default_device) {
  Scripted_Tools tools({"zfs"});
  tools.expect(PROBE).output("type\tfilesystem\nmounted\tno\n");
  tools.expect(PROBE).errors("cannot open 'orbistor': dataset does not exist\n").status(1);
  for (const char* found : {"orbistor", "none"}) {
    start({"-f", "zfs", "-d", "/p"});
    EXPECT_EQ(device(), found);
    EXPECT_EQ(service_.fini(), 0);
  }
  EXPECT_TRUE(log_.has(LM_DEBUG, "SCSI pool use orbistor as global device\n")) << log_.dump();
  EXPECT_EQ(log_.errors(), "");
}

}  // namespace
