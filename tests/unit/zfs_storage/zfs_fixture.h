#pragma once
// A host without ZFS for the driver tests: scripted tools, device links in a temporary folder (a link whose
// target is there counts as a device), an empty /proc, the log kept.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/zfs/zfs_host.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_tools.h"
#include "tests/support/temp_dir.h"

class Zfs_Fixture : public testing::Test {
 protected:
  Zfs_Fixture() {
    zfs::host_paths().dev = host_.path();
    zfs::host_paths().proc = host_.path();
    zfs::host_paths().is_device = [](const std::string& path) { return access(path.c_str(), F_OK) == 0; };
    shell("mkdir self && touch self/mounts device");
  }
  ~Zfs_Fixture() override { zfs::host_paths() = zfs::Host_Paths(); }

  void shell(const std::string& command) const {
    ASSERT_EQ(std::system(("cd '" + host_.path() + "' && " + command).c_str()), 0) << command;
  }
  // Shell text that makes, or removes, the device link of a volume.
  std::string link(const std::string& dataset) const {
    const std::string path = host_ / ("zvol/" + dataset);
    return "mkdir -p '" + path.substr(0, path.rfind('/')) + "' && ln -s '" + host_.path() + "/device' '" +
           path + "'";
  }
  std::string unlink(const std::string& dataset) const {
    return "rm '" + (host_ / ("zvol/" + dataset)) + "'";
  }

  static std::string recorded(const std::string& name) { return recording("zfs-2.1.11/" + name); }
  static std::string get_all(const std::string& dataset) {
    return "zfs get -Hp -o property,value all " + dataset;
  }
  // The one error line of a failed call.
  void expect_error(const std::string& text) {
    EXPECT_TRUE(log_.has(LM_ERROR, text)) << text << log_.dump();
    EXPECT_EQ(log_.count(LM_ERROR), 1u) << log_.dump();
    log_.clear();
  }

  Temp_Dir host_;
  Scripted_Tools tools_{{"zfs", "zpool"}};
  Log_Capture log_;
};
