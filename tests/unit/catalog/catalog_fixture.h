#pragma once
// A catalog of its own for each test. Encrypted ones are tested below, with the database.

#include <gtest/gtest.h>

#include <string>

#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "platform/base/file.h"
#include "platform/database/database.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

// A UUID that shows its number: uuid(7) ends in "7".
inline std::string uuid(int number) {
  std::string digits = std::to_string(number);
  return "0a000000-0000-4000-8000-" + std::string(12 - digits.size(), '0') + digits;
}

class Catalog_Fixture : public testing::Test {
 protected:
  using Array = json_spirit::Array;
  using Object = json_spirit::Object;
  using Value = json_spirit::Value;

  Catalog_Fixture() { EXPECT_TRUE(manager_->configure(dir_.path(), "")); }
  ~Catalog_Fixture() override { manager_->close(); }

  // Takes the connections away: the folder that is asked for cannot be made.
  void disconnect() {
    const Log_Capture log;
    ASSERT_TRUE(platform::write_file_atomically(dir_ / "file", "", 0600));
    ASSERT_FALSE(manager_->configure(dir_ / "file/below", ""));
  }

  bool add_pool(const std::string& id, const std::string& name = "pool") {
    return catalog_.add_pool(id, name, "zfs", "orbistor", "lz4", true, false, 1ULL << 40, "iSCSI", "iqn.x", 3,
                             R"({"a":1})");
  }
  bool add_volume(const std::string& pool, const std::string& id, const std::string& origin) {
    scsi_pool::SCSI_Pool_Sqlite_Manager::Volume_Info info;
    info.uuid = id;
    info.snapshot_uuid = origin;
    info.pool_uuid = pool;
    info.size = 4096;
    info.ctime = "then";
    info.extended_attrs = "{}";
    return catalog_.add_volume(info);
  }
  bool add_filesystem(const std::string& pool, const std::string& name, bool mounted,
                      const std::string& origin) {
    scsi_pool::SCSI_Pool_Sqlite_Manager::Filesystem_Info info;
    info.name = name;
    info.snapshot_uuid = origin;
    info.pool_uuid = pool;
    info.ctime = "then";
    info.extended_attrs = "{}";
    info.mountpoint = "/m/" + name;
    info.mounted = mounted;
    return catalog_.add_filesystem(info);
  }

  // Runs a change that the catalog itself does not offer.
  bool execute(const database::sql::SQL& sql) {
    const auto connection = manager_->get_connection_r("scsi_pool_manager");
    return connection.get() != nullptr && connection->execute(sql);
  }

  Temp_Dir dir_;
  database::sql::Legacy_Manager* manager_ = database::sql::Legacy_Manager::instance();
  scsi_pool::SCSI_Pool_Sqlite_Manager_Impl catalog_;
};
