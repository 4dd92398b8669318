#pragma once
// A fresh, unencrypted catalog in a temporary folder, and the pool manager opened on it.

#include <gtest/gtest.h>

#include <string>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "platform/database/legacy_manager.h"
#include "tests/support/temp_dir.h"

class Temp_Catalog {
 public:
  Temp_Catalog() {
    EXPECT_TRUE(database::sql::Legacy_Manager::instance()->configure(dir_ / "db", ""));
    // A global device of its own keeps the manager from looking for the host's.
    manager_ = scsi_pool::SCSI_Pool_Manager::instance();
    EXPECT_TRUE(manager_->open("zfs", 4096, "none", "/orbistor/scsipool"));
  }
  ~Temp_Catalog() {
    scsi_pool::SCSI_Pool_Manager::close_instance();
    database::sql::Legacy_Manager::instance()->close();
  }
  Temp_Catalog(const Temp_Catalog&) = delete;
  Temp_Catalog& operator=(const Temp_Catalog&) = delete;

  scsi_pool::SCSI_Pool_Manager& manager() { return *manager_; }
  // The records themselves.
  scsi_pool::SCSI_Pool_Sqlite_Manager& rows() { return rows_; }

 private:
  Temp_Dir dir_;
  scsi_pool::SCSI_Pool_Manager* manager_ = nullptr;
  scsi_pool::SCSI_Pool_Sqlite_Manager_Impl rows_;
};
