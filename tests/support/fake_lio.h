#pragma once
// The target library over the fake tree, in place while the object lives, and what it holds. A failed step is
// one of the tree: see Fake_Configfs::fail(). Fibre Channel is the fabric "loopback", with its names.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/file.h"
#include "platform/lio/configfs_library.h"
#include "platform/lio/lio.h"
#include "tests/support/fake_configfs.h"
#include "tests/support/temp_dir.h"

class Fake_Lio {
 public:
  struct Group {
    bool demo = false;
    bool enabled = false;
    std::map<unsigned, LIO_Export> luns;
  };

  Fake_Lio() {
    LIO_Options options;
    options.configfs_root = dir_ / "config";
    options.lock_file = dir_ / "lio.lock";
    options.saved_file = dir_ / "lio.json";
    options.fc_fabric = "loopback";
    options.prepare_kernel = false;
    LIO_Library::install(std::make_shared<lio::Configfs_Library>(options, tree_));
  }
  ~Fake_Lio() {
    EXPECT_FALSE(tree_->died());
    LIO_Library::install(nullptr);
  }
  Fake_Lio(const Fake_Lio&) = delete;
  Fake_Lio& operator=(const Fake_Lio&) = delete;

  Fake_Configfs& tree() { return *tree_; }
  // What is under the target; empty when there is none.
  Group group(const std::string& target) const {
    std::vector<LIO_Export> all;
    LIO_Saved_Config::list_kernel(all);
    Group found;
    for (const LIO_Export& one : all) {
      if (one.target != target) continue;
      found.demo = one.demo_mode;
      found.enabled = one.enabled;
      found.luns[one.number] = one;
    }
    return found;
  }
  bool has_target(const std::string& name) const { return tree_->exists("iscsi/" + name); }
  std::size_t backstores() const { return tree_->names("core/fileio_0").size(); }
  void set_busy(const std::string& target, bool busy) {
    const std::string file = "iscsi/" + target + "/fabric_statistics/iscsi_instance/sessions";
    platform::write_file_atomically(tree_->full(file), busy ? "1" : "0", 0600);
  }

 private:
  Temp_Dir dir_;
  std::shared_ptr<Fake_Configfs> tree_ = std::make_shared<Fake_Configfs>(dir_ / "config");
};
